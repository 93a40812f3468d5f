#ifndef MYUTILS_H
#define MYUTILS_H

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

// Owners of libcrypto objects, so every way out of a function releases them.
struct BioFree { void operator()(BIO* p) const { BIO_free(p); } };
struct X509Free { void operator()(X509* p) const { X509_free(p); } };
struct EvpPkeyFree { void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); } };
struct EcKeyFree { void operator()(EC_KEY* p) const { EC_KEY_free(p); } };
struct EcdsaSigFree { void operator()(ECDSA_SIG* p) const { ECDSA_SIG_free(p); } };
struct BnFree { void operator()(BIGNUM* p) const { BN_free(p); } };
struct EvpMdCtxFree { void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); } };
using BioPtr = std::unique_ptr<BIO, BioFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, EvpPkeyFree>;
using EcKeyPtr = std::unique_ptr<EC_KEY, EcKeyFree>;
using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, EcdsaSigFree>;
using BnPtr = std::unique_ptr<BIGNUM, BnFree>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, EvpMdCtxFree>;

// An open file, closed when its owner goes.
class FileHandle {
public:
    explicit FileHandle(const char* path);
    ~FileHandle();
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    bool isOpen() const { return fd_ >= 0; }
    int fd() const { return fd_; }

private:
    int fd_;
};

enum class ReadOutcome { COMPLETE, TOO_LARGE, FAILED };
// Reads the open file to its end, but never more than limit + 1 bytes: a
// file that holds more is TOO_LARGE however long it would go on (a device
// such as /dev/zero never ends).
ReadOutcome readAtMost(int fd, size_t limit, std::vector<uint8_t>& contents);

// A PEM certificate is a few KiB; a chain of them stays far below this.
constexpr size_t MAX_CERTIFICATE_FILE_SIZE = size_t{1} << 20;

// Owner of a buffer that b64_decode64 hands out.
struct CFree { void operator()(unsigned char* p) const { std::free(p); } };
using DecodedPtr = std::unique_ptr<unsigned char, CFree>;

// Level of a console message. The fixed underlying type keeps values outside
// the named ones well defined; they are printed and never collected.
enum ERROR_TYPE : int {
    ERROR_NONE = 0,
    ERROR_QR = 1,
    ERROR_LOG = 2,
    ERROR_CMP = 3,
    ERROR_ALL = 4
};

// Prints the stream's text as one line (unless console output is off),
// collects it for the error levels, then empties the stream and resets its
// state flags while keeping its formatting settings.
void outputMsg(std::ostringstream& message, ERROR_TYPE level);
void setConsoleOutput(bool enabled);
// Hands out and empties the collected errors of a level.
std::string getErrorMsg(ERROR_TYPE level);
void clearErrorMsg(ERROR_TYPE level);

// DER length octets: minimal short or long form.
void sizeToASNLength(const uint64_t& size, std::vector<uint8_t>& buffer);
// The caller guarantees that the length octets lie inside the buffer.
void ASNLengthToSize(std::vector<uint8_t>::iterator& position, uint64_t& size);

// Result codes of both verifications.
constexpr int VERIFY_OK = 0;
constexpr int VERIFY_CERT_UNUSABLE = 1;
constexpr int VERIFY_NO_SIGNATURE_OBJECT = -1;
constexpr int VERIFY_NO_KEY = -2;
constexpr int VERIFY_SET_SIGNATURE_FAILED = -3;
constexpr int VERIFY_INVALID = -4;
// Both verifications read exactly this many signature bytes: r then s.
constexpr uint32_t RAW_SIGNATURE_SIZE = 96;

// Opens the certificate file by its path, then as below.
int verifySignature(const uint8_t* data, uint32_t dataLength,
                    const uint8_t* signature, uint32_t signatureLength,
                    const char* certPath);
// Reads the certificate from a file that is already open, so that a FIFO or
// /dev/fd/N is read exactly once; certPath only names it in messages.
int verifySignatureWithCertificateFile(const uint8_t* data, uint32_t dataLength,
                                       const uint8_t* signature, int certificateFd,
                                       const char* certPath);
int getPubKeyFromCert(X509* certificate, EC_KEY** key);

int verifySignatureFromQR(const uint8_t* data, uint32_t dataLength,
                          const uint8_t* signature, uint32_t signatureLength,
                          const uint8_t* publicKey, int32_t publicKeyLength);
EC_KEY* getPubKeyFromBinary(const uint8_t* publicKey, int32_t publicKeyLength);

// Decodes base64 into a calloc'ed buffer the caller frees. True when the
// decoded count equals (3 * length) / 4, which counts padding bytes.
bool b64_decode64(const char* text, int length, unsigned char** buffer, int& decodedLength);
// SHA-256 as 64 lowercase hex digits; 1 on success, 0 on failure.
int doSHA256(const unsigned char* data, int length, std::string& hexDigest);

#endif
