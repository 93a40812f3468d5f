#include "tse_check_commands.h"

#include <iostream>
#include <utility>
#include <vector>

#include "ASNToQrCode.h"
#include "QrCodeToASN.h"
#include "myutils.h"
#include "tse_check_support.h"

namespace tsecheck {
namespace {

constexpr const char* FINISH_TRANSACTION = "FinishTransaction";

// Refuses with the reader's own [ERROR] line when the message does not
// follow the layout.
QRCodeDataDSFinVK readLogMessage(Bytes& message)
{
    ASNToQrCode reader;
    std::string readerLine;
    {
        QuietLibrary quiet;
        try {
            reader.parse(message);
            return reader.qrCodeData;
        } catch (int) {
            readerLine = getErrorMsg(ERROR_LOG);
        }
    }
    readerLine.erase(readerLine.find_last_not_of('\n') + 1);
    throw Refusal{EXIT_BAD_INPUT, readerLine};
}

// The octets the signature covers, from the version's tag through the log
// time. Walks a message that has already been read without error, so the
// element readers cannot fail here.
Bytes signedOctets(Bytes& message)
{
    ASNToQrCode walker;
    walker.position = message.begin();
    walker.end = message.end();
    walker.doASN_header();
    const auto first = walker.position;
    walker.doASN_version();
    walker.doASN_certifiedDataType();
    walker.doASN_certifiedData();
    walker.doASN_serialNumber();
    walker.doASN_signatureAlgorithm();
    walker.doASN_signatureCounter();
    walker.doASN_logTime();
    return Bytes(first, walker.position);
}

void requireKeyMatchesSerial(const Bytes& publicKey, const QRCodeDataDSFinVK& record, const std::string& certPath)
{
    if (sha256(publicKey) != record.serialNumber) {
        refuse(EXIT_BAD_INPUT, "Certificate " + certPath + " does not belong to the TSE of the log message "
                               "(the SHA-256 of its public key is not the serial number " +
                                   toUpperHex(record.serialNumber) + ")");
    }
}

void requireValidSignature(const Bytes& signedPart, const QRCodeDataDSFinVK& record, const ToQrOptions& options)
{
    int result = VERIFY_INVALID;
    {
        QuietLibrary quiet;
        result = verifySignature(signedPart.data(), static_cast<uint32_t>(signedPart.size()),
                                 record.signatureValue.data(), RAW_SIGNATURE_SIZE, options.certPath.c_str());
    }
    if (result == VERIFY_CERT_UNUSABLE) {
        refuse(EXIT_BAD_INPUT, "Certificate " + options.certPath + " cannot be used for verification");
    }
    if (result != VERIFY_OK) {
        refuse(EXIT_NOT_VERIFIED, "The signature of " + options.logPath + " does not verify with certificate " +
                                      options.certPath + "; no QR code printed");
    }
}

using NamedField = std::pair<const char*, std::string>;

// A QR code verifier splits at ";", drops empty fields, strips every double
// quote from a text that begins with one, and gets the text through a
// command line, which ends at a zero byte.
void requireQrField(const NamedField& field)
{
    const std::string& value = field.second;
    const std::string name = field.first;
    if (value.empty()) {
        refuse(EXIT_BAD_INPUT, name + " is empty; a QR code cannot carry an empty field");
    }
    if (value.find(';') != std::string::npos) {
        refuse(EXIT_BAD_INPUT, name + " holds \";\", the QR code's field separator");
    }
    if (value.find('\0') != std::string::npos) {
        refuse(EXIT_BAD_INPUT, name + " holds a zero byte, which a QR code text cannot pass on");
    }
}

std::vector<NamedField> qrFields(const QRCodeDataDSFinVK& record, const std::string& startTime,
                                 const Bytes& publicKey)
{
    return {{"qrCodeVersion", record.qrCodeVersion},
            {"clientId", record.clientId},
            {"processType", record.processType},
            {"processData", record.processData},
            {"transactionNumber", record.transactionNumber},
            {"signatureCounter", record.signatureCounter},
            {"startTime", startTime},
            {"logTime", record.logTime},
            {"signatureAlgorithm", record.signatureAlgorithm},
            {"logTimeFormat", record.logTimeFormat},
            {"signature", toBase64(record.signatureValue)},
            {"publicKey", toBase64(publicKey)}};
}

std::string composeQrCode(const std::vector<NamedField>& fields, const QRCodeDataDSFinVK& record)
{
    if (record.operationType != FINISH_TRANSACTION) {
        refuse(EXIT_BAD_INPUT, "operationType is \"" + record.operationType + "\"; a receipt QR code stands for " +
                                   FINISH_TRANSACTION + " only");
    }
    if (!record.clientId.empty() && record.clientId.front() == '"') {
        refuse(EXIT_BAD_INPUT, "clientId begins with a double quote, which a QR code verifier would strip");
    }
    std::string text;
    for (const NamedField& field : fields) {
        requireQrField(field);
        text += (text.empty() ? "" : ";") + field.second;
    }
    return text;
}

// A verifier rebuilds the signed octets from the QR code. Any element that
// the log message writes in another form than that rebuilding (a longer
// length or number, a log time of other than four octets) would leave a QR
// code that never verifies, so the rebuilt octets must be the signed ones.
void requireRebuildsSignedOctets(const std::string& qrText, const Bytes& signedPart)
{
    bool same = false;
    {
        QuietLibrary quiet;
        try {
            const Bytes rebuilt = QrCodeToASN(qrText).getASN1Data();
            const size_t headerSize = rebuilt.size() > 1 && rebuilt[1] == 0x81 ? 3 : 4;
            same = rebuilt.size() >= headerSize && Bytes(rebuilt.begin() + headerSize, rebuilt.end()) == signedPart;
        } catch (...) {
            same = false;
        }
    }
    if (!same) {
        refuse(EXIT_BAD_INPUT, "The log message does not use the encoding that a QR code verifier rebuilds; "
                               "a QR code made from it would not verify");
    }
}

}  // namespace

int readCommand(const std::string& logPath)
{
    Bytes message = readInputFile(logPath, "Log file");
    const QRCodeDataDSFinVK record = readLogMessage(message);
    std::cout << "operationType: " << record.operationType << '\n'
              << "clientId: " << record.clientId << '\n'
              << "processData: " << record.processData << '\n'
              << "processType: " << record.processType << '\n'
              << "transactionNumber: " << record.transactionNumber << '\n'
              << "signatureCounter: " << record.signatureCounter << '\n'
              << "logTime: " << record.logTime << '\n'
              << "serialNumber: " << toUpperHex(record.serialNumber) << '\n'
              << "signature: " << toBase64(record.signatureValue) << std::endl;
    return EXIT_OK;
}

int toQrCommand(const ToQrOptions& options)
{
    Bytes message = readInputFile(options.logPath, "Log file");
    const QRCodeDataDSFinVK record = readLogMessage(message);
    const Bytes signedPart = signedOctets(message);
    const Bytes publicKey = certificatePublicKey(options.certPath);
    requireKeyMatchesSerial(publicKey, record, options.certPath);
    requireValidSignature(signedPart, record, options);

    const std::string startTime = options.startTime.value_or(record.logTime);
    const std::string qrText = composeQrCode(qrFields(record, startTime, publicKey), record);
    requireRebuildsSignedOctets(qrText, signedPart);
    std::cout << qrText << std::endl;
    return EXIT_OK;
}

}  // namespace tsecheck
