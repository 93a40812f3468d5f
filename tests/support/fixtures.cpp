#include "fixtures.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include <openssl/bn.h>
#include <openssl/obj_mac.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

extern char** environ;

namespace fixtures {
namespace {

struct X509NameFree { void operator()(X509_NAME* p) const { X509_NAME_free(p); } };

void require(bool condition, const char* what)
{
    if (!condition) {
        throw std::runtime_error(std::string("fixture failed: ") + what);
    }
}

EvpPkeyPtr wrap(const EC_KEY* key)
{
    EvpPkeyPtr pkey(EVP_PKEY_new());
    require(pkey && EVP_PKEY_set1_EC_KEY(pkey.get(), const_cast<EC_KEY*>(key)) == 1, "wrap key");
    return pkey;
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
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    require(X509_set_pubkey(cert.get(), pkey) == 1, "X509_set_pubkey");
    require(X509_sign(cert.get(), pkey, EVP_sha256()) > 0, "X509_sign");
    return cert;
}

std::string bioText(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(size));
}

std::string pemOf(X509* cert)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_X509(bio.get(), cert) == 1, "PEM_write_bio_X509");
    return bioText(bio.get());
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
    EvpPkeyPtr pkey = wrap(key);
    X509Ptr cert = selfSigned(pkey.get(), commonName);
    return pemOf(cert.get());
}

Bytes certificateDer(const EC_KEY* key, const std::string& commonName)
{
    EvpPkeyPtr pkey = wrap(key);
    X509Ptr cert = selfSigned(pkey.get(), commonName);
    unsigned char* der = nullptr;
    const int size = i2d_X509(cert.get(), &der);
    require(size > 0, "i2d_X509");
    Bytes result(der, der + size);
    OPENSSL_free(der);
    return result;
}

std::string rsaCertificatePem()
{
    EvpPkeyPtr pkey(EVP_PKEY_new());
    RSA* rsa = RSA_new();
    BnPtr exponent(BN_new());
    BN_set_word(exponent.get(), RSA_F4);
    require(rsa && RSA_generate_key_ex(rsa, 2048, exponent.get(), nullptr) == 1, "RSA key");
    EVP_PKEY_assign_RSA(pkey.get(), rsa);
    X509Ptr cert = selfSigned(pkey.get(), "RSA signer");
    return pemOf(cert.get());
}

std::string publicKeyPem(const EC_KEY* key)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_EC_PUBKEY(bio.get(), const_cast<EC_KEY*>(key)) == 1, "PEM_write_bio_EC_PUBKEY");
    return bioText(bio.get());
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
    const BIGNUM* r = nullptr;
    const BIGNUM* s = nullptr;
    ECDSA_SIG_get0(signature.get(), &r, &s);
    Bytes result(96);
    BN_bn2binpad(r, result.data(), 48);
    BN_bn2binpad(s, result.data() + 48, 48);
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
    std::string text(4 * ((data.size() + 2) / 3) + 1, '\0');
    const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), data.data(),
                                     static_cast<int>(data.size()));
    text.resize(static_cast<size_t>(size));
    return text;
}

Bytes fromHex(const std::string& hex)
{
    Bytes result;
    std::string digits;
    for (char c : hex) {
        if (c != ' ') {
            digits += c;
        }
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        result.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return result;
}

std::string toHex(const Bytes& data)
{
    std::ostringstream text;
    text << std::hex << std::uppercase << std::setfill('0');
    for (uint8_t octet : data) {
        text << std::setw(2) << static_cast<int>(octet) << ' ';
    }
    return text.str();
}

Bytes derLength(uint64_t size)
{
    Bytes octets;
    sizeToASNLength(size, octets);
    return octets;
}

Bytes derElement(uint8_t tag, const Bytes& content)
{
    Bytes element{tag};
    const Bytes length = derLength(content.size());
    element.insert(element.end(), length.begin(), length.end());
    element.insert(element.end(), content.begin(), content.end());
    return element;
}

Bytes derUnsigned(uint64_t value)
{
    Bytes content;
    do {
        content.insert(content.begin(), static_cast<uint8_t>(value & 0xFF));
        value >>= 8;
    } while (value != 0);
    if (content.front() & 0x80) {
        content.insert(content.begin(), 0x00);
    }
    return content;
}

Bytes signedOctets(const LogFields& fields)
{
    auto text = [](const std::string& s) { return Bytes(s.begin(), s.end()); };
    Bytes out = fromHex("02 01 02 06 09 04 00 7F 00 07 03 07 01 01");
    for (const Bytes& element : {derElement(0x80, text(fields.operationType)),
                                 derElement(0x81, text(fields.clientId)),
                                 derElement(0x82, text(fields.processData)),
                                 derElement(0x83, text(fields.processType)),
                                 derElement(0x85, derUnsigned(fields.transactionNumber)),
                                 derElement(0x04, fields.serialNumber),
                                 fromHex("30 0C 06 0A 04 00 7F 00 07 01 01 04 01 04"),
                                 derElement(0x02, derUnsigned(fields.signatureCounter))}) {
        out.insert(out.end(), element.begin(), element.end());
    }
    const auto seconds = static_cast<uint32_t>(fields.logTime);
    const Bytes logTime{0x02, 0x04, static_cast<uint8_t>(seconds >> 24), static_cast<uint8_t>(seconds >> 16),
                        static_cast<uint8_t>(seconds >> 8), static_cast<uint8_t>(seconds)};
    out.insert(out.end(), logTime.begin(), logTime.end());
    return out;
}

Bytes exportedLog(const Bytes& signedPart, const Bytes& signature)
{
    Bytes content = signedPart;
    const Bytes signatureElement = derElement(0x04, signature);
    content.insert(content.end(), signatureElement.begin(), signatureElement.end());
    Bytes message{0x30};
    if (content.size() < 256) {
        message.push_back(0x81);
    } else {
        message.push_back(0x82);
        message.push_back(static_cast<uint8_t>(content.size() >> 8));
    }
    message.push_back(static_cast<uint8_t>(content.size()));
    message.insert(message.end(), content.begin(), content.end());
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
    std::string joined;
    for (const std::string* field : {&version, &clientId, &processType, &processData, &transactionNumber,
                                     &signatureCounter, &startTime, &logTime, &signatureAlgorithm,
                                     &logTimeFormat, &signature, &publicKey}) {
        if (!joined.empty() || field != &version) {
            joined += ';';
        }
        joined += *field;
    }
    return joined;
}

QrFields signedQrFields(const EC_KEY* key, const LogFields& fields)
{
    LogFields signedFields = fields;
    signedFields.operationType = "FinishTransaction";
    const Bytes publicKey = rawPublicKey(key);
    signedFields.serialNumber = sha256(publicKey);
    QrFields qr;
    qr.clientId = fields.clientId;
    qr.processType = fields.processType;
    qr.processData = fields.processData;
    qr.transactionNumber = std::to_string(fields.transactionNumber);
    qr.signatureCounter = std::to_string(fields.signatureCounter);
    std::tm calendar{};
    const std::time_t seconds = static_cast<std::time_t>(fields.logTime);
    gmtime_r(&seconds, &calendar);
    char text[32] = {};
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S.000Z", &calendar);
    qr.logTime = text;
    qr.signature = base64(signRaw(key, signedOctets(signedFields)));
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
    const std::string command = "rm -rf '" + root_ + "'";
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "could not remove %s\n", root_.c_str());
    }
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
    return write(name, Bytes(contents.begin(), contents.end()));
}

namespace {

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

RunResult run(const std::string& program, const std::vector<std::string>& arguments,
              const std::vector<std::string>& environment)
{
    TempDir capture;
    const std::string outPath = capture.path("out");
    const std::string errPath = capture.path("err");
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
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execve(program.c_str(), argv.data(), environ);
        _exit(127);
    }
    int status = 0;
    require(waitpid(child, &status, 0) == child, "waitpid");
    RunResult result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
}

std::string verifierPath()
{
    return SIGNATURE_VERIFICATION_BIN;
}

std::string tseCheckPath()
{
    return TSE_CHECK_BIN;
}

}  // namespace fixtures
