#include "fixtures.h"

#include <archive.h>
#include <archive_entry.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <openssl/pem.h>
#include <openssl/sha.h>

#include "der.h"
#include "file_text.h"
#include "openssl_ptr.h"

namespace fixtures {
namespace {

void require(bool condition, const char* what)
{
    if (!condition) {
        throw std::runtime_error(std::string("fixture failed: ") + what);
    }
}

X509Ptr selfSigned(EVP_PKEY* pkey, const std::string& commonName)
{
    X509Ptr cert(X509_new());
    require(cert != nullptr, "X509_new");
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3650L * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                               -1, 0);
    X509_set_issuer_name(cert.get(), name);
    require(X509_set_pubkey(cert.get(), pkey) == 1 && X509_sign(cert.get(), pkey, EVP_sha256()) > 0, "sign cert");
    return cert;
}

X509Ptr ecCertificate(const EC_KEY* key, const std::string& commonName)
{
    EvpPkeyPtr pkey(EVP_PKEY_new());
    require(pkey && EVP_PKEY_set1_EC_KEY(pkey.get(), const_cast<EC_KEY*>(key)) == 1, "wrap key");
    return selfSigned(pkey.get(), commonName);
}

template <typename Write>
std::string pemText(Write write)
{
    std::string text = tse::writtenText(write);
    require(!text.empty(), "write PEM");
    return text;
}

Bytes text(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

void append(Bytes& to, const Bytes& from)
{
    to.insert(to.end(), from.begin(), from.end());
}

// What the process holds in memory now, from /proc.
long residentKiB(pid_t process)
{
    std::ifstream statm("/proc/" + std::to_string(process) + "/statm");
    long sizePages = 0, residentPages = 0;
    statm >> sizePages >> residentPages;
    return residentPages * (sysconf(_SC_PAGESIZE) / 1024);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

}  // namespace

EcKeyPtr makeEcKey(const char* curveName)
{
    EcKeyPtr key(EC_KEY_new_by_curve_name(OBJ_txt2nid(curveName)));
    require(key && EC_KEY_generate_key(key.get()) == 1, "EC_KEY_generate_key");
    EC_KEY_set_asn1_flag(key.get(), OPENSSL_EC_NAMED_CURVE);
    return key;
}

std::string certificatePem(const EC_KEY* key, const std::string& commonName)
{
    X509Ptr cert = ecCertificate(key, commonName);
    return pemText([&](BIO* bio) { return PEM_write_bio_X509(bio, cert.get()); });
}

Bytes certificateDer(const EC_KEY* key)
{
    X509Ptr cert = ecCertificate(key, "Demo TSE");
    Bytes der(static_cast<size_t>(i2d_X509(cert.get(), nullptr)));
    unsigned char* cursor = der.data();
    require(i2d_X509(cert.get(), &cursor) == static_cast<int>(der.size()), "i2d_X509");
    return der;
}

std::string rsaCertificatePem()
{
    EvpPkeyPtr pkey(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048}));
    require(pkey != nullptr, "RSA key");
    X509Ptr cert = selfSigned(pkey.get(), "RSA signer");
    return pemText([&](BIO* bio) { return PEM_write_bio_X509(bio, cert.get()); });
}

std::string publicKeyPem(const EC_KEY* key)
{
    return pemText([&](BIO* bio) { return PEM_write_bio_EC_PUBKEY(bio, const_cast<EC_KEY*>(key)); });
}

std::string privateKeyPem(const EC_KEY* key)
{
    return pemText([&](BIO* bio) {
        return PEM_write_bio_ECPrivateKey(bio, const_cast<EC_KEY*>(key), nullptr, nullptr, 0, nullptr, nullptr);
    });
}

Bytes rawPublicKey(const EC_KEY* key)
{
    unsigned char* octets = nullptr;
    const size_t size = EC_KEY_key2buf(key, POINT_CONVERSION_UNCOMPRESSED, &octets, nullptr);
    require(size > 0, "EC_KEY_key2buf");
    Bytes result(octets, octets + size);
    OPENSSL_free(octets);
    return result;
}

Bytes signRaw(const EC_KEY* key, const Bytes& data)
{
    unsigned char digest[SHA384_DIGEST_LENGTH];
    SHA384(data.data(), data.size(), digest);
    EcdsaSigPtr signature(ECDSA_do_sign(digest, sizeof(digest), const_cast<EC_KEY*>(key)));
    require(signature != nullptr, "ECDSA_do_sign");
    Bytes result(96);
    BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), result.data(), 48);
    BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), result.data() + 48, 48);
    return result;
}

Bytes sha256(const Bytes& data)
{
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(data.data(), data.size(), digest.data());
    return digest;
}

std::string base64(const Bytes& data)
{
    std::string encoded(4 * ((data.size() + 2) / 3) + 1, '\0');
    encoded.resize(static_cast<size_t>(
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&encoded[0]), data.data(), static_cast<int>(data.size()))));
    return encoded;
}

Bytes fromHex(const std::string& hex)
{
    Bytes result;
    std::istringstream digits(hex);
    std::string pair;
    while (digits >> std::setw(2) >> pair) {
        result.push_back(static_cast<uint8_t>(std::stoi(pair, nullptr, 16)));
    }
    return result;
}

std::string toHex(const Bytes& data)
{
    std::ostringstream hex;
    hex << std::hex << std::uppercase << std::setfill('0');
    for (uint8_t octet : data) {
        hex << std::setw(2) << static_cast<int>(octet) << ' ';
    }
    return hex.str();
}

Bytes derElement(uint8_t tag, const Bytes& content)
{
    Bytes element{tag};
    sizeToASNLength(content.size(), element);
    append(element, content);
    return element;
}

Bytes signedOctets(const LogFields& fields)
{
    Bytes out = fromHex("02 01 02 06 09 04 00 7F 00 07 03 07 01 01");
    append(out, derElement(0x80, text(fields.operationType)));
    append(out, derElement(0x81, text(fields.clientId)));
    append(out, derElement(0x82, text(fields.processData)));
    append(out, derElement(0x83, text(fields.processType)));
    append(out, derElement(0x85, tse::derUnsignedContent(fields.transactionNumber)));
    append(out, derElement(0x04, fields.serialNumber));
    append(out, fromHex("30 0C 06 0A 04 00 7F 00 07 01 01 04 01 04"));
    append(out, derElement(0x02, tse::derUnsignedContent(fields.signatureCounter)));
    const auto seconds = static_cast<uint32_t>(fields.logTime);
    append(out, {0x02, 0x04, static_cast<uint8_t>(seconds >> 24), static_cast<uint8_t>(seconds >> 16),
                 static_cast<uint8_t>(seconds >> 8), static_cast<uint8_t>(seconds)});
    return out;
}

Bytes exportedLog(const Bytes& signedPart, const Bytes& signature)
{
    Bytes content = signedPart;
    append(content, derElement(0x04, signature));
    const auto size = content.size();
    Bytes message = size < 256 ? Bytes{0x30, 0x81, static_cast<uint8_t>(size)}
                               : Bytes{0x30, 0x82, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
    append(message, content);
    return message;
}

Bytes signedExportedLog(const EC_KEY* key, LogFields fields)
{
    if (fields.serialNumber.empty()) {
        fields.serialNumber = sha256(rawPublicKey(key));
    }
    const Bytes body = signedOctets(fields);
    return exportedLog(body, signRaw(key, body));
}

std::string QrFields::text() const
{
    std::string joined = version;
    for (const std::string* field :
         {&clientId, &processType, &processData, &transactionNumber, &signatureCounter, &startTime, &logTime,
          &signatureAlgorithm, &logTimeFormat, &signature, &publicKey}) {
        joined += ";" + *field;
    }
    return joined;
}

QrFields signedQrFields(const EC_KEY* key, LogFields fields)
{
    fields.operationType = "FinishTransaction";
    const Bytes publicKey = rawPublicKey(key);
    fields.serialNumber = sha256(publicKey);
    QrFields qr;
    qr.clientId = fields.clientId;
    qr.processType = fields.processType;
    qr.processData = fields.processData;
    qr.transactionNumber = std::to_string(fields.transactionNumber);
    qr.signatureCounter = std::to_string(fields.signatureCounter);
    std::tm calendar{};
    const std::time_t seconds = static_cast<std::time_t>(fields.logTime);
    gmtime_r(&seconds, &calendar);
    char logTime[32] = {};
    std::strftime(logTime, sizeof(logTime), "%Y-%m-%dT%H:%M:%S.000Z", &calendar);
    qr.logTime = logTime;
    qr.signature = base64(signRaw(key, signedOctets(fields)));
    qr.publicKey = base64(publicKey);
    return qr;
}

TempDir::TempDir()
{
    char pattern[] = "/tmp/tse-test-XXXXXX";
    require(mkdtemp(pattern) != nullptr, "mkdtemp");
    root_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::string TempDir::path(const std::string& name) const
{
    return root_ + "/" + name;
}

std::string TempDir::write(const std::string& name, const Bytes& contents) const
{
    const std::string file = path(name);
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(contents.data()), static_cast<std::streamsize>(contents.size()));
    require(out.good(), "write file");
    return file;
}

std::string TempDir::write(const std::string& name, const std::string& contents) const
{
    return write(name, text(contents));
}

RunResult run(const std::string& program, const std::vector<std::string>& arguments,
              const std::vector<std::string>& environment, RunLimits limits)
{
    TempDir capture;
    const std::string outPath = capture.path("out"), errPath = capture.path("err");
    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child == 0) {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) {
            _exit(127);
        }
        for (const std::string& setting : environment) {
            putenv(const_cast<char*>(setting.c_str()));
        }
        if (limits.cpuSeconds != 0) {
            const rlimit cpu{static_cast<rlim_t>(limits.cpuSeconds), static_cast<rlim_t>(limits.cpuSeconds)};
            setrlimit(RLIMIT_CPU, &cpu);
        }
        if (limits.addressSpaceMiB != 0) {
            const auto bytes = static_cast<rlim_t>(limits.addressSpaceMiB) << 20;
            const rlimit space{bytes, bytes};
            setrlimit(RLIMIT_AS, &space);
        }
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    std::string stopped;
    if (limits.seconds == 0 && limits.rssKiB == 0) {
        require(wait4(child, &status, 0, &usage) == child, "wait4");
    } else {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limits.seconds);
        while (wait4(child, &status, WNOHANG, &usage) == 0) {
            if (limits.seconds != 0 && std::chrono::steady_clock::now() > deadline) {
                stopped = "ran longer than " + std::to_string(limits.seconds) + " s";
            } else if (limits.rssKiB != 0 && residentKiB(child) > limits.rssKiB) {
                stopped = "held more than " + std::to_string(limits.rssKiB) + " KiB";
            }
            if (!stopped.empty()) {
                kill(child, SIGKILL);
                require(wait4(child, &status, 0, &usage) == child, "wait4");
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readFile(outPath), readFile(errPath),
            usage.ru_maxrss, stopped};
}

std::string verifierPath()
{
    return SIGNATURE_VERIFICATION_BIN;
}

std::string tseCheckPath()
{
    return TSE_CHECK_BIN;
}

std::string fileText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string toolPath(const std::string& name)
{
    return (std::filesystem::path(tseCheckPath()).parent_path() / name).string();
}

std::string realExportsFolder()
{
    const std::string source = __FILE__;
    return source.substr(0, source.rfind('/')) + "/../data/real-exports/";
}

std::string samplesFolder()
{
    const std::string source = __FILE__;
    return source.substr(0, source.rfind('/')) + "/../../samples/";
}

std::string unpackRealExport(const TempDir& dir, const std::string& name)
{
    const std::string tar = realExportsFolder() + name + ".tar";
    const std::string target = dir.path(name);
    std::filesystem::create_directory(target);
    require(run("/bin/tar", {"-xf", tar, "-C", target}).status == 0, "unpack a real export");
    return target;
}

std::vector<std::vector<std::string>> parseCsv(const std::string& text)
{
    std::vector<std::vector<std::string>> rows(1, std::vector<std::string>(1));
    bool quoted = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted && c == '"' && i + 1 < text.size() && text[i + 1] == '"') rows.back().back() += text[++i];
        else if (c == '"') quoted = !quoted;
        else if (!quoted && c == ',') rows.back().emplace_back();
        else if (!quoted && c == '\n') rows.emplace_back(1);
        else rows.back().back() += c;
    }
    if (rows.back().size() == 1 && rows.back()[0].empty()) rows.pop_back();
    return rows;
}

void writeTar(const std::string& path, const std::vector<std::pair<std::string, std::string>>& members)
{
    archive* a = archive_write_new();
    archive_write_set_format_pax_restricted(a);
    archive_write_open_filename(a, path.c_str());
    for (const auto& [name, data] : members) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, name.c_str());
        archive_entry_set_size(entry, static_cast<la_int64_t>(data.size()));
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_perm(entry, 0644);
        archive_write_header(a, entry);
        archive_write_data(a, data.data(), data.size());
        archive_entry_free(entry);
    }
    archive_write_close(a);
    archive_write_free(a);
}

}  // namespace fixtures
