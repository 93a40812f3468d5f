#ifndef TESTS_SUPPORT_FIXTURES_H
#define TESTS_SUPPORT_FIXTURES_H

// Real keys, certificates, signed log messages and QR code texts, made with
// libcrypto at test time, and a runner for the real executables.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "myutils.h"

// Tests that measure memory or limit the address space need to know: g++
// says it is building with AddressSanitizer one way, clang another.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ADDRESS_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define ADDRESS_SANITIZER 1
#endif

namespace fixtures {

using Bytes = std::vector<uint8_t>;

// An EC key pair on the named curve (brainpoolP384r1 unless said otherwise).
EcKeyPtr makeEcKey(const char* curveName = "brainpoolP384r1");
// Self-signed X.509 certificates holding the key, as PEM text or DER bytes.
std::string certificatePem(const EC_KEY* key, const std::string& commonName = "Demo TSE");
Bytes certificateDer(const EC_KEY* key);
std::string rsaCertificatePem();
std::string publicKeyPem(const EC_KEY* key);
std::string privateKeyPem(const EC_KEY* key);
// The uncompressed point: 0x04, X, Y (97 bytes on brainpoolP384r1).
Bytes rawPublicKey(const EC_KEY* key);
// ECDSA over SHA-384 of the data, as r || s with 48 bytes each.
Bytes signRaw(const EC_KEY* key, const Bytes& data);

Bytes sha256(const Bytes& data);
std::string base64(const Bytes& data);
Bytes fromHex(const std::string& hex);  // blanks are ignored
std::string toHex(const Bytes& data);   // uppercase, a blank after every octet

// The fields of a finish-transaction log message.
struct LogFields {
    std::string operationType = "FinishTransaction";
    std::string clientId = "K1";
    std::string processData = "Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar";
    std::string processType = "Kassenbeleg-V1";
    uint64_t transactionNumber = 7;
    uint64_t signatureCounter = 538;
    int64_t logTime = 1592922010;  // 2020-06-23T14:20:10Z
    Bytes serialNumber;            // SHA-256 of the public key when empty
};

// A DER element: tag, length octets, content.
Bytes derElement(uint8_t tag, const Bytes& content);

// Elements 1 to 11 of a log message: the octets the signature covers.
Bytes signedOctets(const LogFields& fields);
// The outer SEQUENCE (always long form) around signed octets and signature.
Bytes exportedLog(const Bytes& signedPart, const Bytes& signature);
// A complete exported log, signed with the key.
Bytes signedExportedLog(const EC_KEY* key, LogFields fields);

// The fields of a receipt QR code; the signature and key are base64.
struct QrFields {
    std::string version = "V0";
    std::string clientId = "K1";
    std::string processType = "Kassenbeleg-V1";
    std::string processData = "Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar";
    std::string transactionNumber = "7";
    std::string signatureCounter = "538";
    std::string startTime = "2020-06-23T14:19:00.000Z";
    std::string logTime = "2020-06-23T14:20:10.000Z";
    std::string signatureAlgorithm = "ecdsa-plain-SHA384";
    std::string logTimeFormat = "unixTime";
    std::string signature;
    std::string publicKey;

    std::string text() const;  // the twelve fields joined with ";"
};
// QR code fields signed with the key over the message the numbers and the
// log time (in seconds) describe.
QrFields signedQrFields(const EC_KEY* key, LogFields fields);

// A directory that is removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string path(const std::string& name) const;
    std::string write(const std::string& name, const Bytes& contents) const;
    std::string write(const std::string& name, const std::string& contents) const;

private:
    std::string root_;
};

struct RunResult {
    int status = -1;  // 128 + N after signal N
    std::string out;
    std::string err;
    long maxRssKiB = 0;   // the most memory the program held
    std::string stopped;  // why it was killed, when it was
};
// A program that outlives the time or grows beyond the memory is killed, so
// a fault costs a failed test instead of the machine. Zero: no limit.
struct RunLimits {
    int seconds = 0;
    long rssKiB = 0;
    int cpuSeconds = 0;        // the kernel's limit on processor time (SIGXCPU past it)
    long addressSpaceMiB = 0;  // the kernel's limit on the address space
};
// Runs the program with the arguments (not through a shell) and with the
// extra environment settings given as NAME=value.
RunResult run(const std::string& program, const std::vector<std::string>& arguments,
              const std::vector<std::string>& environment = {}, RunLimits limits = {});
std::string verifierPath();

// A real TSE export from tests/data/real-exports (NAME.tar) unpacked into a
// new directory below dir; returns that directory.
std::string unpackRealExport(const TempDir& dir, const std::string& name);
std::string tseCheckPath();
// Another program of the build (make-export, make-dsfinvk, ...), which
// lies beside tse-check.
std::string toolPath(const std::string& name);

// The repository's folders the tests read from: the real TSE exports
// (tests/data/real-exports/) and the samples (samples/), with a slash at
// the end. Functions, not constants: a test's own constants are made from
// them before any constant of this file would be.
std::string realExportsFolder();
std::string samplesFolder();

// A plain TAR archive of the given members (name, contents), in order.
void writeTar(const std::string& path, const std::vector<std::pair<std::string, std::string>>& members);

// The rows of a CSV text as a spreadsheet reads them: quoted cells may hold
// commas, doubled quotes and line ends.
std::vector<std::vector<std::string>> parseCsv(const std::string& text);

}  // namespace fixtures

#endif
