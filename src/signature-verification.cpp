// Verifies the ECDSA signature of a German fiscal security device (TSE) on a
// transaction, either from an exported log file and the TSE's certificate or
// from the text of a DSFinV-K receipt QR code.
#include <iostream>
#include <string>
#include <vector>

#include "signature-verification.h"

#include "QrCodeToASN.h"
#include "myutils.h"

const char* certPath = nullptr;
const char* logPath = nullptr;
std::string qrString;

namespace {

constexpr size_t SIGNATURE_ELEMENT_SIZE = 98;
constexpr size_t SHORTEST_HEADER_SIZE = 3;
constexpr size_t SMALLEST_LOG_FILE = SIGNATURE_ELEMENT_SIZE + SHORTEST_HEADER_SIZE;
// Below this size the outer SEQUENCE has one length octet (30 81 LL),
// from it on two (30 82 HH LL).
constexpr size_t TWO_LENGTH_OCTETS_FROM = 259;

size_t outerHeaderSize(size_t messageSize)
{
    return messageSize < TWO_LENGTH_OCTETS_FROM ? 3 : 4;
}

// Far above any log message (its outer length has at most two octets); a
// wrong path such as a disk image or a device is refused instead of read.
constexpr size_t MAX_LOG_FILE_SIZE = size_t{64} << 20;

// Each file is opened once and read from that one open: a FIFO delivers its
// contents to a single reader, and a second open would wait for a writer
// that has already gone.
int runLogFileFlow()
{
    const FileHandle logFile(logPath);
    if (!logFile.isOpen()) {
        std::cout << "[ERROR] Could not find given transaction log: " << logPath << std::endl;
        return 1;
    }
    const FileHandle certificateFile(certPath);
    if (!certificateFile.isOpen()) {
        std::cout << "Could not find given certificate: " << certPath << std::endl;
        return 1;
    }
    std::cout << "[INFO] Attempting to validate exported log file." << std::endl;

    std::vector<uint8_t> message;
    switch (readAtMost(logFile.fd(), MAX_LOG_FILE_SIZE, message)) {
    case ReadOutcome::COMPLETE:
        break;
    case ReadOutcome::TOO_LARGE:
        std::cout << "[ERROR] Transaction log is too large: " << logPath << std::endl;
        return 1;
    case ReadOutcome::FAILED:
        std::cout << "[ERROR] Could not read transaction log: " << logPath << std::endl;
        return 1;
    }
    return verifyExportedLog(message, logPath, certificateFile.fd(), certPath);
}

int runQrCodeFlow()
{
    std::cout << "[INFO] Attempting to validate DSFinVK QrCode data." << std::endl;
    try {
        const QrCodeToASN builder(qrString);
        const std::vector<uint8_t> publicKey = builder.getPublicKey();
        const std::vector<uint8_t> signature = builder.getSignature();
        const std::vector<uint8_t> message = builder.getASN1Data();
        const size_t headerSize = outerHeaderSize(message.size());
        return verifySignatureFromQR(message.data() + headerSize,
                                     static_cast<uint32_t>(message.size() - headerSize),
                                     signature.data(), static_cast<uint32_t>(signature.size()),
                                     publicKey.data(), static_cast<int32_t>(publicKey.size()));
    } catch (...) {
        // The failing step has already said why.
        return 1;
    }
}

} // namespace

namespace {

// The signed data and the signature of an exported log message, or nothing
// when the message is too short to hold them (which is then reported).
struct LogParts {
    const uint8_t* signedData = nullptr;
    uint32_t signedSize = 0;
    const uint8_t* signature = nullptr;
};

bool cutExportedLog(const std::vector<uint8_t>& contents, const char* logFile, LogParts& parts)
{
    const size_t fileSize = contents.size();
    if (fileSize < SMALLEST_LOG_FILE) {
        std::cout << "[ERROR] Transaction log is too short to hold a signed log message: " << logFile << std::endl;
        return false;
    }
    const size_t headerSize = outerHeaderSize(fileSize);
    parts.signature = contents.data() + fileSize - RAW_SIGNATURE_SIZE;
    parts.signedData = contents.data() + headerSize;
    parts.signedSize = static_cast<uint32_t>(fileSize - SIGNATURE_ELEMENT_SIZE - headerSize);
    return true;
}

} // namespace

int verifyExportedLog(const std::vector<uint8_t>& contents, const char* logFile,
                      const char* certificateFile)
{
    LogParts parts;
    if (!cutExportedLog(contents, logFile, parts)) {
        return 1;
    }
    return verifySignature(parts.signedData, parts.signedSize, parts.signature, RAW_SIGNATURE_SIZE,
                           certificateFile);
}

int verifyExportedLog(const std::vector<uint8_t>& contents, const char* logFile,
                      int certificateFd, const char* certificateFile)
{
    LogParts parts;
    if (!cutExportedLog(contents, logFile, parts)) {
        return 1;
    }
    return verifySignatureWithCertificateFile(parts.signedData, parts.signedSize, parts.signature,
                                              certificateFd, certificateFile);
}

void PrintVersion()
{
    std::cout << "Version: " << "1.2" << std::endl;
    std::cout << std::endl;
}

void PrintUsage(const char* programName)
{
    std::cout << "Usage:" << std::endl;
    std::cout << "      " << programName << "  <required>" << std::endl;
    std::cout << std::endl;
    std::cout << "[Required]" << std::endl;
    std::cout << "  -cX: X=<TSE Certificate path in PEM format>" << std::endl;
    std::cout << "  -lX: X=<Log File exported from TSE>" << std::endl;
    std::cout << " or" << std::endl;
    std::cout << "  -qX: X=<QrCode string in DSFinV_K format>" << std::endl;
    std::cout << std::endl;
    std::cout << "e.g.: " << programName
              << "  -cCertificate.pem -lUnixt_12345_Sig-538_Log-Tra_No-0_Finish_Client-dummy.log\t           "
              << std::endl;
}

bool GetOptions(int argc, char* argv[])
{
    if (argc < 2) {
        return false;
    }
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.size() < 3 || argument[0] != '-') {
            std::cout << "[ERROR] " << argument << " is not a valid parameter." << std::endl;
            return false;
        }
        switch (argument[1]) {
        case 'l':
            logPath = argv[i] + 2;
            break;
        case 'c':
            certPath = argv[i] + 2;
            break;
        case 'q':
            qrString = argument.substr(2);
            break;
        default:
            std::cout << "[ERROR] " << argument << " is not a valid parameter." << std::endl;
            break;
        }
    }
    return true;
}

namespace {

int parameterFault(const char* programName)
{
    std::cout << "[ERROR] Parameter Error" << std::endl;
    std::cout << std::endl;
    PrintUsage(programName);
    return 1;
}

} // namespace

// Linked into a program with an entry of its own, the driver's entry takes
// another name.
#ifdef SIGNATURE_VERIFICATION_NO_MAIN
int signatureVerificationMain(int argc, char* argv[])
#else
int main(int argc, char* argv[])
#endif
{
    PrintVersion();
    const char* programName = (argc > 0 && argv[0] != nullptr) ? argv[0] : "";
    if (argc < 2 || !GetOptions(argc, argv)) {
        return parameterFault(programName);
    }
    if (argc == 2) {
        return qrString.empty() ? parameterFault(programName) : runQrCodeFlow();
    }
    if (logPath == nullptr || certPath == nullptr) {
        return parameterFault(programName);
    }
    return runLogFileFlow();
}
