#include "myutils.h"

#include <algorithm>
#include <cerrno>
#include <iomanip>
#include <iostream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/sha.h>

namespace {

bool ConsoleOutput = true;
std::string ERROR_QR_MSG;
std::string ERROR_LOG_MSG;
std::string ERROR_CMP_MSG;

constexpr int SIGNATURE_HALF_SIZE = 48;
constexpr const char* SUCCESS_LINE = "[RESULT] Verifed EC Signature SUCCESS";

void report(const std::string& text, ERROR_TYPE level)
{
    std::ostringstream message;
    message << text;
    outputMsg(message, level);
}

// Appends the buffer's text to the result, with the extra newline that
// separates the parts whenever anything came before.
void drainInto(std::string& result, std::string& buffer, bool separate)
{
    if (separate && !result.empty()) {
        result += "\n";
    }
    result += buffer;
    buffer.clear();
}

// The part that both verifications share once they hold a key: r and s from
// the raw signature, SHA-384 over the data, ECDSA verification, verdict.
int verifyWithKey(const uint8_t* data, uint32_t dataLength, const uint8_t* signature,
                  ECDSA_SIG* signatureObject, BnPtr& r, BnPtr& s, const EC_KEY* key,
                  ERROR_TYPE failureLevel, const char* failureLine)
{
    if (BN_bin2bn(signature, SIGNATURE_HALF_SIZE, r.get()) == nullptr ||
        BN_bin2bn(signature + SIGNATURE_HALF_SIZE, SIGNATURE_HALF_SIZE, s.get()) == nullptr) {
        return VERIFY_NO_KEY;
    }
    if (ECDSA_SIG_set0(signatureObject, r.get(), s.get()) != 1) {
        return VERIFY_SET_SIGNATURE_FAILED;
    }
    // The signature object owns r and s from here on.
    r.release();
    s.release();

    unsigned char digest[SHA384_DIGEST_LENGTH];
    SHA384(data, dataLength, digest);
    if (ECDSA_do_verify(digest, SHA384_DIGEST_LENGTH, signatureObject, const_cast<EC_KEY*>(key)) > 0) {
        report(SUCCESS_LINE, ERROR_NONE);
        return VERIFY_OK;
    }
    report(failureLine, failureLevel);
    return VERIFY_INVALID;
}

} // namespace

void outputMsg(std::ostringstream& message, ERROR_TYPE level)
{
    const std::string text = message.str();
    switch (level) {
    case ERROR_QR:
        ERROR_QR_MSG += text + "\n";
        break;
    case ERROR_LOG:
        ERROR_LOG_MSG += text + "\n";
        break;
    case ERROR_CMP:
        ERROR_CMP_MSG += text + "\n";
        break;
    case ERROR_ALL:
        ERROR_QR_MSG += text + "\n";
        ERROR_LOG_MSG += text + "\n";
        ERROR_CMP_MSG += text + "\n";
        break;
    default:
        break;
    }
    if (ConsoleOutput) {
        std::cout << text << std::endl;
    }
    message.str("");
    message.clear();
}

void setConsoleOutput(bool enabled)
{
    ConsoleOutput = enabled;
}

std::string getErrorMsg(ERROR_TYPE level)
{
    std::string result;
    if (level == ERROR_QR || level == ERROR_ALL) {
        drainInto(result, ERROR_QR_MSG, false);
    }
    if (level == ERROR_LOG || level == ERROR_ALL) {
        drainInto(result, ERROR_LOG_MSG, true);
    }
    if (level == ERROR_CMP || level == ERROR_ALL) {
        drainInto(result, ERROR_CMP_MSG, true);
    }
    return result;
}

void clearErrorMsg(ERROR_TYPE level)
{
    if (level == ERROR_QR || level == ERROR_ALL) {
        ERROR_QR_MSG.clear();
    }
    if (level == ERROR_LOG || level == ERROR_ALL) {
        ERROR_LOG_MSG.clear();
    }
    if (level == ERROR_CMP || level == ERROR_ALL) {
        ERROR_CMP_MSG.clear();
    }
}

void sizeToASNLength(const uint64_t& size, std::vector<uint8_t>& buffer)
{
    if (size <= 127) {
        buffer.push_back(static_cast<uint8_t>(size));
        return;
    }
    std::vector<uint8_t> valueOctets;
    for (int k = 7; k >= 0; --k) {
        if (size >= (uint64_t{1} << (8 * k))) {
            valueOctets.push_back(static_cast<uint8_t>(size >> (8 * k)));
        }
    }
    buffer.push_back(static_cast<uint8_t>(0x80 | valueOctets.size()));
    buffer.insert(buffer.end(), valueOctets.begin(), valueOctets.end());
}

void ASNLengthToSize(std::vector<uint8_t>::iterator& position, uint64_t& size)
{
    const uint8_t first = *position++;
    if ((first & 0x80) == 0) {
        size = first;
        return;
    }
    size = 0;
    const unsigned count = first & 0x7F;
    for (unsigned i = 0; i < count; ++i) {
        const unsigned following = count - 1 - i;
        const uint64_t octet = *position++;
        // Octets beyond the eighth cannot be represented; shifting them by 64
        // bits or more would be undefined, so they add nothing.
        if (following < 8) {
            size += octet << (8 * following);
        }
    }
}

int getPubKeyFromCert(X509* certificate, EC_KEY** key)
{
    EvpPkeyPtr publicKey(X509_get_pubkey(certificate));
    if (!publicKey) {
        report("[ERROR] X509 failure getting public key from certificate", ERROR_LOG);
        return -2;
    }
    *key = EVP_PKEY_get1_EC_KEY(publicKey.get());
    return *key != nullptr ? 0 : -3;
}

FileHandle::FileHandle(const char* path)
    : fd_(open(path, O_RDONLY | O_CLOEXEC))
{
}

FileHandle::~FileHandle()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

ReadOutcome readAtMost(int fd, size_t limit, std::vector<uint8_t>& contents)
{
    constexpr size_t CHUNK = size_t{1} << 16;
    // One allocation for the whole file: a regular file tells its size, and
    // for anything else room up to the limit is reserved, which costs
    // address space only until it is filled.
    struct stat info {};
    const bool sizeKnown = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0;
    contents.clear();
    contents.reserve((sizeKnown ? std::min(static_cast<size_t>(info.st_size), limit) : limit) + 1);
    while (contents.size() <= limit) {
        const size_t before = contents.size();
        const size_t wanted = std::min(CHUNK, limit + 1 - before);
        contents.resize(before + wanted);
        const ssize_t got = read(fd, contents.data() + before, wanted);
        contents.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
        if (got == 0) {
            return ReadOutcome::COMPLETE;
        }
        if (got < 0 && errno != EINTR) {
            return ReadOutcome::FAILED;
        }
    }
    return ReadOutcome::TOO_LARGE;
}

int verifySignature(const uint8_t* data, uint32_t dataLength,
                    const uint8_t* signature, uint32_t /*signatureLength*/,
                    const char* certPath)
{
    const FileHandle certificateFile(certPath);
    if (!certificateFile.isOpen()) {
        report(std::string("[ERROR] unable to open: ") + certPath, ERROR_LOG);
        return VERIFY_CERT_UNUSABLE;
    }
    return verifySignatureWithCertificateFile(data, dataLength, signature, certificateFile.fd(), certPath);
}

int verifySignatureWithCertificateFile(const uint8_t* data, uint32_t dataLength,
                                       const uint8_t* signature, int certificateFd,
                                       const char* certPath)
{
    // Declared so that they are released in the order certificate, buffer,
    // key, signature object.
    EcdsaSigPtr signatureObject(ECDSA_SIG_new());
    BnPtr r(BN_new());
    BnPtr s(BN_new());
    if (!signatureObject) {
        return VERIFY_NO_SIGNATURE_OBJECT;
    }
    EcKeyPtr key;
    // Too large or unreadable counts as holding no certificate, as it did
    // when the PEM reader met such a file.
    std::vector<uint8_t> pem;
    const bool read = readAtMost(certificateFd, MAX_CERTIFICATE_FILE_SIZE, pem) == ReadOutcome::COMPLETE;
    BioPtr pemText(read ? BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())) : nullptr);
    X509Ptr certificate(pemText ? PEM_read_bio_X509(pemText.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!certificate) {
        report(std::string("[ERROR] Unable to parse certificate in: ") + certPath, ERROR_LOG);
        return VERIFY_CERT_UNUSABLE;
    }
    EC_KEY* rawKey = nullptr;
    const int keyResult = getPubKeyFromCert(certificate.get(), &rawKey);
    key.reset(rawKey);
    if (keyResult != 0) {
        report("[ERROR] Failed extracting public key from certificate", ERROR_LOG);
        return VERIFY_NO_KEY;
    }
    return verifyWithKey(data, dataLength, signature, signatureObject.get(), r, s, key.get(),
                         ERROR_LOG, "[RESULT] EC Signature Verification FAILED");
}

EC_KEY* getPubKeyFromBinary(const uint8_t* publicKey, int32_t publicKeyLength)
{
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    EC_KEY* key = EC_KEY_new_by_curve_name(OBJ_txt2nid("brainpoolP384r1"));
    const unsigned char* cursor = publicKey;
    EC_KEY* keyHandle = key;
    if (key == nullptr || o2i_ECPublicKey(&keyHandle, &cursor, static_cast<long>(publicKeyLength)) == nullptr) {
        report("[ERROR] Error decoding public key", ERROR_QR);
        ERR_print_errors_fp(stderr);
    }
    std::ostringstream message;
    message << "[INFO] EC_KEY_CHECK: " << (key != nullptr ? EC_KEY_check_key(key) : 0);
    outputMsg(message, ERROR_NONE);
    return key;
}

int verifySignatureFromQR(const uint8_t* data, uint32_t dataLength,
                          const uint8_t* signature, uint32_t /*signatureLength*/,
                          const uint8_t* publicKey, int32_t publicKeyLength)
{
    EcdsaSigPtr signatureObject(ECDSA_SIG_new());
    BnPtr r(BN_new());
    BnPtr s(BN_new());
    if (!signatureObject) {
        return VERIFY_NO_SIGNATURE_OBJECT;
    }
    EcKeyPtr key(getPubKeyFromBinary(publicKey, publicKeyLength));
    if (!key) {
        report("[ERROR] Error loading public key from given data", ERROR_QR);
        return VERIFY_NO_KEY;
    }
    return verifyWithKey(data, dataLength, signature, signatureObject.get(), r, s, key.get(),
                         ERROR_QR, "[RESULT]  EC Signature Verification FAILED");
}

bool b64_decode64(const char* text, int length, unsigned char** buffer, int& decodedLength)
{
    const int64_t expected = (int64_t{3} * length) / 4;
    *buffer = nullptr;
    if (expected >= 0 && expected < INT32_MAX) {
        *buffer = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(expected) + 1, 1));
    }
    if (*buffer == nullptr) {
        decodedLength = -1;
        return false;
    }
    decodedLength = EVP_DecodeBlock(*buffer, reinterpret_cast<const unsigned char*>(text), length);
    return decodedLength == expected;
}

int doSHA256(const unsigned char* data, int length, std::string& hexDigest)
{
    EvpMdCtxPtr context(EVP_MD_CTX_new());
    if (!context) {
        return 0;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    if (EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1 ||
        EVP_DigestUpdate(context.get(), data, static_cast<size_t>(length)) != 1 ||
        EVP_DigestFinal_ex(context.get(), digest, &digestLength) != 1) {
        return 0;
    }
    std::ostringstream hex;
    hex << std::hex << std::setfill('0');
    for (unsigned int i = 0; i < digestLength; ++i) {
        hex << std::setw(2) << static_cast<int>(digest[i]);
    }
    hexDigest = hex.str();
    return 1;
}
