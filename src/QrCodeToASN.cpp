#include "QrCodeToASN.h"

#include <cstdio>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "myutils.h"

namespace {

const std::vector<uint8_t> VERSION_ELEMENT = {0x02, 0x01, 0x02};
const std::vector<uint8_t> CERTIFIED_DATA_TYPE_ELEMENT = {
    0x06, 0x09, 0x04, 0x00, 0x7F, 0x00, 0x07, 0x03, 0x07, 0x01, 0x01};
const std::vector<uint8_t> SIGNATURE_ALGORITHM_ELEMENT = {
    0x30, 0x0C, 0x06, 0x0A, 0x04, 0x00, 0x7F, 0x00, 0x07, 0x01, 0x01, 0x04, 0x01, 0x04};
constexpr const char* OPERATION_TYPE = "FinishTransaction";
constexpr uint8_t TAG_INTEGER = 0x02;
constexpr uint8_t TAG_OCTET_STRING = 0x04;
constexpr uint8_t TAG_SEQUENCE = 0x30;
constexpr size_t MAX_CONTENT_SIZE = 0xFFFF;
// Thrown when the assembled content would need more than two length octets.
constexpr int ERR_CONTENT_TOO_LARGE = -4;
constexpr int ERR_LOG_TIME = -3;

void appendText(std::vector<uint8_t>& element, uint8_t tag, const std::string& text)
{
    element.push_back(tag);
    sizeToASNLength(text.size(), element);
    element.insert(element.end(), text.begin(), text.end());
}

// Shortest big-endian two's complement octets of an unsigned value: a
// leading 0x00 where the highest octet has its top bit set.
void appendUnsigned(std::vector<uint8_t>& element, uint8_t tag, uint64_t value)
{
    std::vector<uint8_t> content;
    do {
        content.insert(content.begin(), static_cast<uint8_t>(value & 0xFF));
        value >>= 8;
    } while (value != 0);
    if (content.front() & 0x80) {
        content.insert(content.begin(), 0x00);
    }
    element.push_back(tag);
    element.push_back(static_cast<uint8_t>(content.size()));
    element.insert(element.end(), content.begin(), content.end());
}

void append(std::vector<uint8_t>& target, const std::vector<uint8_t>& source)
{
    target.insert(target.end(), source.begin(), source.end());
}

std::vector<uint8_t> decodeFirst(const std::string& text, int wanted)
{
    unsigned char* raw = nullptr;
    int length = 0;
    b64_decode64(text.data(), static_cast<int>(text.size()), &raw, length);
    DecodedPtr decoded(raw);
    const int count = wanted >= 0 ? wanted : length;
    if (!decoded || count <= 0) {
        return {};
    }
    return std::vector<uint8_t>(decoded.get(), decoded.get() + count);
}

struct UtcOffset {
    int hour = 0;
    int minute = 0;
};

// The offset stands from the 20th character on, or from the 21st after a
// "Z"; what does not match the pattern counts as zero.
UtcOffset readUtcOffset(const std::string& text)
{
    UtcOffset offset;
    const size_t start = text[19] == 'Z' ? 20 : 19;
    std::sscanf(text.c_str() + start, "%d:%d", &offset.hour, &offset.minute);
    return offset;
}

} // namespace

QrCodeToASN::QrCodeToASN(std::string qrString)
{
    std::ostringstream message;
    if (!qrCodeData.parseQrString(qrString)) {
        message << "[ERROR] Error parsing QR Code data";
        outputMsg(message, ERROR_QR);
        throw -1;
    }
    try {
        doASN_version();
        doASN_certifiedDataType();
        doASN_certifiedData();
        doASN_serialNumber();
        doASN_signatureAlgorithm();
        doASN_signatureCounter();
        doASN_logTime();
        doASN_header();
        doASN_signatureValue();
    } catch (int code) {
        message << "[ERROR] Error generating ASN.1 data. ERR: " << code;
        outputMsg(message, ERROR_QR);
        throw -1;
    }
}

std::vector<uint8_t> QrCodeToASN::getASN1Data() const
{
    return asn1.asn1Data;
}

std::vector<uint8_t> QrCodeToASN::getSignature() const
{
    return asn1.signatureValue;
}

std::vector<uint8_t> QrCodeToASN::getPublicKey() const
{
    return decodeFirst(qrCodeData.publicKey, QRCodeDataDSFinVK::PUBLIC_KEY_SIZE);
}

void QrCodeToASN::doASN_version()
{
    append(asn1.version, VERSION_ELEMENT);
}

void QrCodeToASN::doASN_certifiedDataType()
{
    append(asn1.certifiedDataType, CERTIFIED_DATA_TYPE_ELEMENT);
}

void QrCodeToASN::doASN_operationType()
{
    appendText(operationType, 0x80, OPERATION_TYPE);
}

void QrCodeToASN::doASN_clientId()
{
    appendText(clientId, 0x81, qrCodeData.clientId);
}

void QrCodeToASN::doASN_processData()
{
    appendText(processData, 0x82, qrCodeData.processData);
}

void QrCodeToASN::doASN_processType()
{
    appendText(processType, 0x83, qrCodeData.processType);
}

void QrCodeToASN::doASN_transactionNumber()
{
    appendUnsigned(transactionNumber, 0x85, std::stoul(qrCodeData.transactionNumber));
}

void QrCodeToASN::doASN_certifiedData()
{
    doASN_operationType();
    doASN_clientId();
    doASN_processData();
    doASN_processType();
    doASN_transactionNumber();
    for (const auto* element : {&operationType, &clientId, &processData, &processType, &transactionNumber}) {
        append(asn1.certifiedData, *element);
    }
}

void QrCodeToASN::doASN_serialNumber()
{
    asn1.serialNumber.push_back(TAG_OCTET_STRING);
    asn1.serialNumber.push_back(static_cast<uint8_t>(qrCodeData.serialNumber.size()));
    append(asn1.serialNumber, qrCodeData.serialNumber);
}

void QrCodeToASN::doASN_signatureAlgorithm()
{
    append(asn1.signatureAlgorithm, SIGNATURE_ALGORITHM_ELEMENT);
}

void QrCodeToASN::doASN_signatureCounter()
{
    appendUnsigned(asn1.signatureCounter, TAG_INTEGER, std::stoul(qrCodeData.signatureCounter));
}

void QrCodeToASN::doASN_logTime()
{
    const std::string& text = qrCodeData.logTime;
    std::ostringstream message;
    std::tm calendar{};
    // libstdc++ stops without failing when the text ends right after a
    // complete field, although the format goes on. A trailing character that
    // no field or separator takes makes such a missing field fail.
    std::istringstream input(text + '\x01');
    input >> std::get_time(&calendar, "%Y-%m-%dT%H:%M:%S");
    if (input.fail()) {
        message << "[ERROR] Failed to parse time string " << text;
        outputMsg(message, ERROR_QR);
        throw ERR_LOG_TIME;
    }
    if (text.size() > 20) {
        const UtcOffset offset = readUtcOffset(text);
        message << "TZ Hour: " << offset.hour << "\nTZ MIN: " << offset.minute;
        outputMsg(message, ERROR_NONE);
        if (offset.hour > 0) {
            calendar.tm_hour -= offset.hour;
            calendar.tm_min -= offset.minute;
        } else if (offset.hour < 0) {
            calendar.tm_hour -= offset.hour;
            calendar.tm_min += offset.minute;
        }
    }
    const int64_t seconds = timegm(&calendar);
    message << "[INFO] Given log time in unix format: " << seconds;
    outputMsg(message, ERROR_NONE);

    const uint32_t low = static_cast<uint32_t>(seconds);
    asn1.logTime = {TAG_INTEGER, 0x04,
                    static_cast<uint8_t>(low >> 24), static_cast<uint8_t>(low >> 16),
                    static_cast<uint8_t>(low >> 8), static_cast<uint8_t>(low)};
}

void QrCodeToASN::doASN_header()
{
    const std::vector<uint8_t>* const elements[] = {
        &asn1.version, &asn1.certifiedDataType, &asn1.certifiedData, &asn1.serialNumber,
        &asn1.signatureAlgorithm, &asn1.signatureCounter, &asn1.logTime};
    size_t contentSize = 0;
    for (const auto* element : elements) {
        contentSize += element->size();
    }
    if (contentSize > MAX_CONTENT_SIZE) {
        throw ERR_CONTENT_TOO_LARGE;
    }
    asn1.header.push_back(TAG_SEQUENCE);
    if (contentSize < 256) {
        asn1.header.push_back(0x81);
    } else {
        asn1.header.push_back(0x82);
        asn1.header.push_back(static_cast<uint8_t>(contentSize >> 8));
    }
    asn1.header.push_back(static_cast<uint8_t>(contentSize));

    append(asn1.asn1Data, asn1.header);
    for (const auto* element : elements) {
        append(asn1.asn1Data, *element);
    }

    std::ostringstream message;
    message << "[INFO] Derived ASN.1 Data: " << std::hex << std::uppercase << std::setfill('0');
    for (uint8_t octet : asn1.asn1Data) {
        message << std::setw(2) << static_cast<int>(octet) << ' ';
    }
    outputMsg(message, ERROR_NONE);
}

void QrCodeToASN::doASN_signatureValue()
{
    append(asn1.signatureValue, decodeFirst(qrCodeData.signature, -1));
}
