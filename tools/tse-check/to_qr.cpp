// tse-check to-qr: verifies a Finish transaction log and prints the receipt
// QR code text that belongs to it.
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QrCodeToASN.h"
#include "algorithms.h"
#include "certificate.h"
#include "log_message.h"
#include "log_verify.h"
#include "myutils.h"
#include "receipt_text.h"
#include "receipt_verify.h"

#include "commands.h"
#include "shared/inputs.h"

namespace tsecheck {
namespace {

struct ToQrOptions {
    std::vector<std::string> certPaths;
    std::string logPath;
    std::optional<std::string> startTime;  // the log time when not given
};

using NamedField = std::pair<const char*, std::string>;

// The certificates of each --cert file, read before anything is judged.
struct CertificateFile {
    std::string path;
    std::vector<tse::Certificate> certificates;
};

// The TSE's key: the one whose SHA-256 is the log's serial number, and the
// file that holds it.
std::pair<tse::PublicKey, std::string> keyOfTse(const std::vector<CertificateFile>& files,
                                                const tse::LogMessage& message)
{
    std::string unusable;
    size_t count = 0;
    std::string names;
    for (const CertificateFile& file : files) {
        names += (names.empty() ? "" : ", ") + file.path;
        for (const tse::Certificate& certificate : file.certificates) {
            ++count;
            if (!certificate.key()) {
                unusable = "Certificate " + file.path + " cannot be used: " + certificate.key().error().message;
            } else if (certificate.key()->serialNumber() == message.serialNumber) {
                return {*certificate.key(), file.path};
            }
        }
    }
    if (!unusable.empty() && count == 1) refuse(EXIT_BAD_INPUT, unusable);
    refuse(EXIT_BAD_INPUT,
           (files.size() == 1 ? "Certificate " + names + " does not" : "Certificates " + names + " do not") +
               " belong to the TSE of the log message (no key in " + (files.size() == 1 ? "it" : "them") +
               " has the SHA-256 " + tse::toHex(message.serialNumber) + ")");
}

void requireFinishTransaction(const tse::LogMessage& message)
{
    const std::string operation = message.operation();
    if (message.type != tse::LogType::Transaction ||
        (operation != "FinishTransaction" && operation != "finishTransaction")) {
        refuse(EXIT_BAD_INPUT, "operationType is \"" + tse::escapeText(operation) + "\" in a " +
                                   std::string(tse::logTypeName(message.type)) +
                                   " log; a receipt QR code stands for a FinishTransaction only");
    }
    for (const char* name : {"additionalExternalData", "additionalInternalData"}) {
        if (message.field(name)) {
            refuse(EXIT_BAD_INPUT,
                   std::string("the log message holds ") + name + ", which a receipt QR code cannot carry");
        }
    }
}

// A QR code text splits at ";", and gets to a verifier through a command
// line or a text file, where a zero byte ends it.
void requireQrField(const NamedField& field)
{
    const std::string name = field.first;
    const std::string& value = field.second;
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

std::string checkedStartTime(const ToQrOptions& options, const tse::LogMessage& message)
{
    if (!options.startTime) return message.logTime.iso();
    const std::optional<tse::IsoTime> start = tse::parseIsoTime(*options.startTime);
    if (!start) {
        refuse(EXIT_BAD_INPUT,
               "--start-time \"" + *options.startTime + "\" is not an ISO 8601 time such as 2021-08-02T11:28:41.000Z");
    }
    if (start->seconds > message.logTime.seconds) {
        refuse(EXIT_BAD_INPUT,
               "--start-time " + *options.startTime + " is after the log time " + message.logTime.iso());
    }
    return *options.startTime;
}

std::vector<NamedField> qrFields(const tse::LogMessage& m, const std::string& startTime, const tse::PublicKey& key)
{
    return {{"qrCodeVersion", "V0"},
            {"clientId", m.text("clientId")},
            {"processType", m.text("processType")},
            {"processData", m.text("processData")},
            {"transactionNumber", std::to_string(m.transactionNumber().value_or(0))},
            {"signatureCounter", std::to_string(m.signatureCounter)},
            {"startTime", startTime},
            {"logTime", m.logTime.iso()},
            {"signatureAlgorithm", std::string(tse::algorithmName(m.signatureAlgorithmOid))},
            {"logTimeFormat", std::string(tse::timeFormatName(m.logTime.format))},
            {"signature", tse::toBase64(m.signatureValue)},
            {"publicKey", tse::toBase64(key.point())}};
}

std::string joinFields(const std::vector<NamedField>& fields)
{
    std::string text;
    for (const NamedField& field : fields) {
        requireQrField(field);
        text += (text.empty() ? "" : ";") + field.second;
    }
    return text;
}

// The QR code is only worth printing when tse-check receipt verifies it:
// that rebuilds the log message from the printed fields alone, so a message
// written in another encoding (a number with extra leading octets, say)
// would give a receipt that never verifies.
bool receiptRebuilds(const std::string& qrText)
{
    const tse::Result<tse::Receipt> parse = tse::parseReceiptText(qrText);
    return parse && tse::verifyReceipt(*parse).valid();
}

// The verifier's own QR code mode rebuilds one encoding (a log time of four
// octets among others) for one curve, hash and time format.
bool verifierRebuilds(const std::string& qrText, const tse::LogMessage& m)
{
    bool same = false;
    setConsoleOutput(false);
    try {
        const std::vector<uint8_t> rebuilt = QrCodeToASN(qrText).getASN1Data();
        const size_t header = rebuilt.size() > 1 && rebuilt[1] == 0x81 ? 3 : 4;
        same = rebuilt.size() >= header &&
               std::vector<uint8_t>(rebuilt.begin() + static_cast<long>(header), rebuilt.end()) == m.signedOctets;
    } catch (...) {
        same = false;
    }
    clearErrorMsg(ERROR_ALL);
    setConsoleOutput(true);
    return same;
}

void requireRebuildable(bool byReceipt, bool byVerifier)
{
    if (!byReceipt && !byVerifier) {
        refuse(EXIT_BAD_INPUT, "the log message does not use the encoding that a receipt verifier rebuilds "
                               "(e.g. a number with extra leading octets); a QR code made from it would not verify");
    }
}

void warnIfVerifierRefuses(bool byVerifier, const tse::PublicKey& key)
{
    std::string reason;
    if (key.curve() != tse::Curve::BrainpoolP384r1) {
        reason = "its key lies on " + std::string(key.curveInfo().displayName);
    } else if (!byVerifier) {
        reason = "it rebuilds the log message in another form (algorithm, time format or encoding)";
    }
    if (!reason.empty()) {
        std::cerr << "[WARNING] signature-verification -q will not accept this QR code: " << reason
                  << "; tse-check receipt verifies it" << std::endl;
    }
}

int toQrCommand(const ToQrOptions& options)
{
    const tse::LogMessage message = readLogFile(options.logPath);
    std::vector<CertificateFile> files;
    for (const std::string& path : options.certPaths) files.push_back({path, readCertificateFile(path)});
    requireFinishTransaction(message);
    const auto [key, keyFile] = keyOfTse(files, message);
    const tse::Verification verification = tse::verifyLog(message, key);
    if (!verification.valid()) {
        refuse(verification.verdict == tse::Verdict::Invalid ? EXIT_NOT_VERIFIED : EXIT_BAD_INPUT,
               "The signature of " + options.logPath + " does not verify with certificate " + keyFile + ": " +
                   verification.reason + "; no QR code printed");
    }
    const std::string text = joinFields(qrFields(message, checkedStartTime(options, message), key));
    const bool byVerifier = verifierRebuilds(text, message);
    requireRebuildable(receiptRebuilds(text), byVerifier);
    warnIfVerifierRefuses(byVerifier, key);
    std::cout << text << std::endl;
    return EXIT_OK;
}

}  // namespace

Command addToQrCommand(CLI::App& parent)
{
    auto options = std::make_shared<ToQrOptions>();
    CLI::App* app = parent.add_subcommand(
        "to-qr", "Verify an exported Finish transaction log and print the receipt QR code text for it");
    app->add_option("LOGFILE", options->logPath, "Exported transaction log message (DER)")
        ->required()
        ->type_name("FILE");
    addCertOption(*app, options->certPaths)->required();
    app->add_option_function<std::string>(
        "--start-time", [options](const std::string& value) { options->startTime = value; },
        "Start time of the transaction, ISO 8601 (default: the log time)");
    return Command{app, [options] { return toQrCommand(*options); }};
}

}  // namespace tsecheck
