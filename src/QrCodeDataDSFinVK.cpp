#include "QrCodeDataDSFinVK.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "myutils.h"

namespace {

// Splits at ";" so that runs of separators count as one and separators at
// either end are ignored: no field is ever empty.
std::vector<std::string> splitFields(const std::string& text)
{
    std::vector<std::string> pieces;
    std::string::size_type start = 0;
    while (start < text.size()) {
        const auto end = std::min(text.find(';', start), text.size());
        if (end > start) {
            pieces.push_back(text.substr(start, end - start));
        }
        start = end + 1;
    }
    return pieces;
}

struct DecodedBase64 {
    DecodedPtr bytes;
    int length = 0;
    bool ok = false;
};

DecodedBase64 decodeBase64(const std::string& text)
{
    DecodedBase64 result;
    unsigned char* buffer = nullptr;
    result.ok = b64_decode64(text.data(), static_cast<int>(text.size()), &buffer, result.length);
    result.bytes.reset(buffer);
    return result;
}

[[noreturn]] void failWith(std::ostringstream& message, int code)
{
    outputMsg(message, ERROR_QR);
    throw code;
}

} // namespace

std::string* QRCodeDataDSFinVK::field(int index)
{
    std::string* const fields[FIELD_COUNT] = {
        &qrCodeVersion, &clientId, &processType, &processData,
        &transactionNumber, &signatureCounter, &startTime, &logTime,
        &signatureAlgorithm, &logTimeFormat, &signature, &publicKey};
    return fields[index];
}

bool QRCodeDataDSFinVK::parseQrString(std::string qrString)
{
    std::ostringstream message;
    if (!qrString.empty() && qrString.front() == '"') {
        qrString.erase(std::remove(qrString.begin(), qrString.end(), '"'), qrString.end());
    }
    const std::vector<std::string> pieces = splitFields(qrString);
    const int stored = static_cast<int>(std::min<size_t>(pieces.size(), FIELD_COUNT));
    for (int i = 0; i < stored; ++i) {
        *field(i) = pieces[i];
    }
    if (pieces.size() > FIELD_COUNT) {
        message << "[ERROR] Too many parameters - unknown data: " << pieces[FIELD_COUNT];
        outputMsg(message, ERROR_QR);
        return false;
    }
    if (stored != FIELD_COUNT) {
        message << "[ERROR] Got " << stored << " DSFinVK QR Code Parameters (expected " << FIELD_COUNT << ")";
        outputMsg(message, ERROR_QR);
        return false;
    }
    if (signatureAlgorithm != "ecdsa-plain-SHA384") {
        message << "[ERROR] Algorithm " << signatureAlgorithm << " is not supported.";
    } else if (logTimeFormat != "unixTime") {
        message << "[ERROR] logTimeFormat " << logTimeFormat << " is not supported.";
    } else if (qrCodeVersion != "V0") {
        message << "[ERROR] qrCodeVersion " << qrCodeVersion << " is not supported.";
    }
    if (!message.str().empty()) {
        outputMsg(message, ERROR_QR);
        return false;
    }
    makeSerialBinary();
    makeSignatureBinary();
    operationType = "FinishTransaction";
    print();
    return true;
}

void QRCodeDataDSFinVK::makeSerialBinary()
{
    std::ostringstream message;
    const DecodedBase64 key = decodeBase64(publicKey);
    if (!key.ok) {
        message << "[ERROR] Public Key base64 decode failed.";
        failWith(message, -1);
    }
    if (key.length < PUBLIC_KEY_SIZE) {
        message << "[ERROR] Public Key has " << key.length << " bytes, expected " << PUBLIC_KEY_SIZE << ".";
        failWith(message, -1);
    }
    std::string hexDigest;
    if (doSHA256(key.bytes.get(), PUBLIC_KEY_SIZE, hexDigest) != 1) {
        message << "[ERROR] Public Key SHA failed.";
        failWith(message, -2);
    }
    std::vector<uint8_t> digest;
    for (size_t i = 0; i + 1 < hexDigest.size(); i += 2) {
        digest.push_back(static_cast<uint8_t>(std::stoi(hexDigest.substr(i, 2), nullptr, 16)));
    }
    serialNumber.insert(serialNumber.end(), digest.begin(), digest.end());

    message << "\n[INFO] Derived Serial Number is: " << std::hex << std::uppercase << std::setfill('0');
    for (uint8_t octet : digest) {
        message << std::setw(2) << static_cast<int>(octet);
    }
    outputMsg(message, ERROR_NONE);
}

void QRCodeDataDSFinVK::makeSignatureBinary()
{
    std::ostringstream message;
    const DecodedBase64 decoded = decodeBase64(signature);
    if (!decoded.ok) {
        message << "[ERROR] Signature base64 decode failed.";
        failWith(message, -1);
    }
    if (decoded.length < SIGNATURE_SIZE) {
        message << "[ERROR] Signature has " << decoded.length << " bytes, expected " << SIGNATURE_SIZE << ".";
        failWith(message, -1);
    }
    signatureValue.insert(signatureValue.end(), decoded.bytes.get(), decoded.bytes.get() + decoded.length);
}

void QRCodeDataDSFinVK::print()
{
    static const char* const labels[FIELD_COUNT] = {
        "\t<qr-code-version> ", "\t<kassen-seriennummer> ", "\t<processType> ",
        "\t<processData> ", "\t<transaktions-nummer> ", "\t<signatur-zaehler> ",
        "\t<start-zeit> ", "\t<log-time> ", "\t<sig-alg> ", "\t<log-time-format> ",
        "\t<signatur> ", "\t<public-key> "};
    std::ostringstream message;
    message << "\n[INFO] Received QRCodeDataDSFinVK Data: \n";
    for (int i = 0; i < FIELD_COUNT; ++i) {
        message << labels[i] << *field(i) << "\n";
    }
    outputMsg(message, ERROR_NONE);
}
