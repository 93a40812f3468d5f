#include "ASNToQrCode.h"

#include <sstream>

#include "myutils.h"

namespace {

const char* const PARSE_ERROR_TEXTS[] = {
    "Success", "WrongLogVersion", "WrongCertfiedDataType", "ExpectedHeader",
    "ExpectedOperationType", "WrongOperationType", "ExpectedClientID",
    "ExpectedProcessData", "ExpectedProcessType", "ExpectedTransactionNumber",
    "WrongSignatureAlgorithm", "ExpectedSignatureAlgorithm", "ExpectedSerialNumber",
    "ExpectedSignatureCounter", "ExpectedLogtime", "InvalidSignatureSize"};
constexpr uint32_t PARSE_ERROR_COUNT = sizeof(PARSE_ERROR_TEXTS) / sizeof(PARSE_ERROR_TEXTS[0]);

constexpr uint8_t TAG_INTEGER = 0x02;
constexpr uint8_t TAG_OCTET_STRING = 0x04;
constexpr uint8_t TAG_SEQUENCE = 0x30;
constexpr unsigned MAX_LENGTH_OCTETS = 8;

} // namespace

std::string getParseError(LogParseError error)
{
    const auto index = static_cast<uint32_t>(error);
    return index < PARSE_ERROR_COUNT ? PARSE_ERROR_TEXTS[index] : "Unknown Error";
}

void cmp_gmtime_s(std::tm* calendar, const int64_t* seconds)
{
    const std::time_t value = static_cast<std::time_t>(*seconds);
    gmtime_r(&value, calendar);
}

void ASNToQrCode::parse(std::vector<uint8_t>& message)
{
    position = message.begin();
    end = message.end();
    try {
        doASN_header();
        doASN_version();
        doASN_certifiedDataType();
        doASN_certifiedData();
        doASN_serialNumber();
        doASN_signatureAlgorithm();
        doASN_signatureCounter();
        doASN_logTime();
        doASN_signatureValue();
    } catch (const LogParseError& error) {
        std::ostringstream text;
        text << "[ERROR] Error parsing ASN.1 data. ERR: " << getParseError(error) << "\n";
        outputMsg(text, ERROR_LOG);
        throw -1;
    }
}

size_t ASNToQrCode::remaining() const
{
    return static_cast<size_t>(end - position);
}

void ASNToQrCode::expectTag(uint8_t tag, LogParseError missing)
{
    if (position == end || *position != tag) {
        throw missing;
    }
    ++position;
}

// Checks the length octets against what remains before handing them to the
// unbounded decoder.
uint64_t ASNToQrCode::readLength(LogParseError onOverrun)
{
    if (position == end) {
        throw onOverrun;
    }
    const unsigned count = (*position & 0x80) ? (*position & 0x7F) : 0;
    if (count > MAX_LENGTH_OCTETS || remaining() < 1 + size_t{count}) {
        throw onOverrun;
    }
    uint64_t size = 0;
    ASNLengthToSize(position, size);
    return size;
}

std::vector<uint8_t> ASNToQrCode::readContent(LogParseError onOverrun)
{
    const uint64_t size = readLength(onOverrun);
    if (size > remaining()) {
        throw onOverrun;
    }
    std::vector<uint8_t> content(position, position + static_cast<std::ptrdiff_t>(size));
    position += static_cast<std::ptrdiff_t>(size);
    return content;
}

std::string ASNToQrCode::convertASNString(LogParseError onOverrun)
{
    const std::vector<uint8_t> content = readContent(onOverrun);
    return std::string(content.begin(), content.end());
}

int32_t ASNToQrCode::convertASNNumber(LogParseError onOverrun)
{
    uint32_t value = 0;
    for (uint8_t octet : readContent(onOverrun)) {
        value = (value << 8) + octet;
    }
    return static_cast<int32_t>(value);
}

void ASNToQrCode::convertASNBinary(std::vector<uint8_t>& target, LogParseError onOverrun)
{
    const std::vector<uint8_t> content = readContent(onOverrun);
    target.insert(target.end(), content.begin(), content.end());
}

bool ASNToQrCode::compareBytes(std::vector<uint8_t> expected)
{
    for (uint8_t octet : expected) {
        if (position == end || *position != octet) {
            return false;
        }
        ++position;
    }
    return true;
}

void ASNToQrCode::doASN_header()
{
    expectTag(TAG_SEQUENCE, ExpectedHeader);
    if (position == end || (*position & 0x80) == 0) {
        throw ExpectedHeader;
    }
    const unsigned count = *position & 0x7F;
    if (count > MAX_LENGTH_OCTETS || remaining() < 1 + size_t{count}) {
        throw ExpectedHeader;
    }
    position += static_cast<std::ptrdiff_t>(1 + count);
    // Some exports announce one length octet and write two; step over the
    // stray one so the version is found.
    if (position != end && *position != TAG_INTEGER) {
        ++position;
    }
}

void ASNToQrCode::doASN_version()
{
    if (!compareBytes({0x02, 0x01, 0x02})) {
        throw WrongLogVersion;
    }
}

void ASNToQrCode::doASN_certifiedDataType()
{
    if (!compareBytes({0x06, 0x09, 0x04, 0x00, 0x7F, 0x00, 0x07, 0x03, 0x07, 0x01, 0x01})) {
        throw WrongCertfiedDataType;
    }
}

void ASNToQrCode::doASN_certifiedData()
{
    doASN_operationType();
    doASN_clientId();
    doASN_processData();
    doASN_processType();
    doASN_transactionNumber();
}

void ASNToQrCode::doASN_operationType()
{
    expectTag(0x80, ExpectedOperationType);
    qrCodeData.operationType = convertASNString(ExpectedOperationType);
}

void ASNToQrCode::doASN_clientId()
{
    expectTag(0x81, ExpectedClientID);
    qrCodeData.clientId = convertASNString(ExpectedClientID);
}

void ASNToQrCode::doASN_processData()
{
    expectTag(0x82, ExpectedProcessData);
    qrCodeData.processData = convertASNString(ExpectedProcessData);
}

void ASNToQrCode::doASN_processType()
{
    expectTag(0x83, ExpectedProcessType);
    qrCodeData.processType = convertASNString(ExpectedProcessType);
}

// Counters are unsigned: the low 32 bits read back as the builder wrote them.
std::string ASNToQrCode::readUnsignedNumberText(uint8_t tag, LogParseError missing)
{
    expectTag(tag, missing);
    return std::to_string(static_cast<uint32_t>(convertASNNumber(missing)));
}

void ASNToQrCode::doASN_transactionNumber()
{
    qrCodeData.transactionNumber = readUnsignedNumberText(0x85, ExpectedTransactionNumber);
}

void ASNToQrCode::doASN_serialNumber()
{
    expectTag(TAG_OCTET_STRING, ExpectedSerialNumber);
    convertASNBinary(qrCodeData.serialNumber, ExpectedSerialNumber);
}

void ASNToQrCode::doASN_signatureAlgorithm()
{
    if (!compareBytes({TAG_SEQUENCE})) {
        throw ExpectedSignatureAlgorithm;
    }
    if (!compareBytes({0x0C, 0x06, 0x0A, 0x04, 0x00, 0x7F, 0x00, 0x07, 0x01, 0x01, 0x04, 0x01, 0x04})) {
        throw WrongSignatureAlgorithm;
    }
}

void ASNToQrCode::doASN_signatureCounter()
{
    qrCodeData.signatureCounter = readUnsignedNumberText(TAG_INTEGER, ExpectedSignatureCounter);
}

void ASNToQrCode::doASN_logTime()
{
    expectTag(TAG_INTEGER, ExpectedLogtime);
    const int64_t seconds = convertASNNumber(ExpectedLogtime);
    std::tm calendar{};
    cmp_gmtime_s(&calendar, &seconds);
    char text[21] = {};
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &calendar);
    qrCodeData.logTime = std::string(text) + ".000Z";
}

void ASNToQrCode::doASN_signatureValue()
{
    qrCodeData.signatureValue.clear();
    if (position == end) {
        throw InvalidSignatureSize;
    }
    ++position;
    readLength(InvalidSignatureSize);
    qrCodeData.signatureValue.assign(position, end);
    if (qrCodeData.signatureValue.size() < QRCodeDataDSFinVK::SIGNATURE_SIZE) {
        throw InvalidSignatureSize;
    }
    qrCodeData.signatureValue.resize(QRCodeDataDSFinVK::SIGNATURE_SIZE);
}
