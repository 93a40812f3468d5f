#include "certificate_intake.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>

#include "export_names.h"
#include "file_reader.h"
#include "text.h"

namespace tse {
namespace {

namespace fs = std::filesystem;

constexpr size_t MAX_CERTIFICATE_FILE = 1u << 20;

bool isKeyHash(std::string_view text)
{
    return text.size() == 64 &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

// The key hash of any certificate, even one whose curve this tool cannot
// verify with: the SHA-256 of the public key's bit string, the raw point.
std::string certificateSerial(const Certificate& certificate)
{
    if (certificate.key()) return toHex(certificate.key()->serialNumber());
    const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(certificate.x509());
    if (bits == nullptr) return {};
    return toHex(sha256(ByteView(ASN1_STRING_get0_data(bits), static_cast<size_t>(ASN1_STRING_length(bits)))));
}

}  // namespace

CertificateIntake::CertificateIntake(AuditReport& report, MemberDigests& seen, KeyMet keyMet)
    : report_(report), seen_(seen), keyMet_(std::move(keyMet))
{}

Result<size_t> CertificateIntake::loadGiven(const std::vector<std::string>& files,
                                            const std::vector<std::string>& trustDirectories)
{
    size_t loaded = 0;
    for (const std::string& path : files) {
        const Result<Bytes> read = readFileBounded(path, MAX_CERTIFICATE_FILE);
        if (!read) return Error{"the certificate " + path + " " + read.error().message};
        if (!loadCertificates(*read)) return Error{"the certificate " + path + " holds no certificate"};
        add(path, *read, false, true);
        ++loaded;
    }
    for (const std::string& directory : trustDirectories) {
        std::error_code error;
        if (!fs::is_directory(directory, error))
            return Error{"the trust directory " + directory + " is not a directory"};
        for (const auto& entry : fs::directory_iterator(directory, error)) {
            if (!entry.is_regular_file(error)) continue;
            const Result<Bytes> read = readFileBounded(entry.path().string(), MAX_CERTIFICATE_FILE);
            if (read && loadCertificates(*read)) {
                add(entry.path().string(), *read, true, true);
                ++loaded;
            }
        }
    }
    return loaded;
}

void CertificateIntake::loadBesideLogs(const std::vector<ExportSource>& sources, const std::vector<std::string>& given)
{
    std::set<std::string> directories;
    const std::set<std::string> exports(given.begin(), given.end());
    for (const ExportSource& source : sources) {
        if (source.kind == ExportSource::Kind::File && classifyMember(source.label()) == MemberKind::Log) {
            directories.insert(fs::path(source.label()).parent_path().string());
        }
    }
    for (const std::string& directory : directories) {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(directory.empty() ? "." : directory, error)) {
            const std::string path = (directory.empty() ? entry.path().filename() : entry.path()).string();
            if (exports.count(path) || classifyMember(path) != MemberKind::Certificate ||
                !entry.is_regular_file(error)) {
                continue;
            }
            const Result<Bytes> read = readFileBounded(path, MAX_CERTIFICATE_FILE);
            if (read && seen_.firstSighting(*read)) add(path, *read, false, false);
        }
    }
}

void CertificateIntake::add(const std::string& file, ByteView data, bool trusted, bool given)
{
    const Result<std::vector<Certificate>> load = loadCertificates(data);
    if (!load) {
        report_.findings.push_back(Finding{findingSeverity(FindingCode::UnexpectedMember),
                                           FindingCode::UnexpectedMember,
                                           file + " holds no certificate: " + load.error().message,
                                           {file},
                                           {}});
        return;
    }
    if (!given) checkName(file, *load);
    for (const Certificate& certificate : *load) {
        if (trusted) {
            pool_.add(certificate, true);
            if (certificate.key()) keyMet_(*certificate.key());
            continue;
        }
        // A file may repeat one certificate many times: it is one certificate.
        const Digest digest = digestOf(certificate.der());
        if (const auto found = listedAt_.find(digest); found != listedAt_.end()) {
            ++report_.certificates[found->second].copies;
            continue;
        }
        listedAt_.emplace(digest, report_.certificates.size());
        pool_.add(certificate, false);
        if (certificate.key()) keyMet_(*certificate.key());
        list(file, certificate, given);
    }
}

void CertificateIntake::list(const std::string& file, const Certificate& certificate, bool given)
{
    CertificateRecord record;
    record.file = escapeText(file);
    record.serialNumber = certificateSerial(certificate);
    record.subject = escapeText(certificate.subject());
    record.issuer = escapeText(certificate.issuer());
    record.notBefore = certificate.notBefore();
    record.notAfter = certificate.notAfter();
    record.curve = certificate.curveName();
    if (!certificate.key()) record.keyProblem = certificate.key().error().message;
    record.given = given;
    report_.certificates.push_back(std::move(record));
    listed_.push_back(certificate);
}

// A name that starts with a key hash must be that of a key in the file;
// other names (a vendor's CA, say) claim nothing.
void CertificateIntake::checkName(const std::string& file, const std::vector<Certificate>& certificates)
{
    const std::optional<std::string> claimed = certificateNameSerial(file);
    if (!claimed || !isKeyHash(*claimed)) return;
    for (const Certificate& certificate : certificates) {
        if (equalsIgnoringCase(certificateSerial(certificate), *claimed)) return;
    }
    report_.findings.push_back(Finding{findingSeverity(FindingCode::NameMismatch),
                                       FindingCode::NameMismatch,
                                       file + ": the name gives the key hash " + *claimed +
                                           ", but the certificate's key hash is " +
                                           certificateSerial(certificates.front()),
                                       {file},
                                       {}});
}

void CertificateIntake::judgeChains()
{
    for (size_t i = 0; i < listed_.size(); ++i) report_.certificates[i].chain = pool_.judge(listed_[i]);
}

}  // namespace tse
