#include <gtest/gtest.h>

#include <map>
#include <utility>

#include "ASNToQrCode.h"
#include "fixtures.h"
#include "myutils.h"

using fixtures::Bytes;
using fixtures::derElement;
using fixtures::fromHex;

namespace {

// The elements of an exported log message in layout order, each with the
// error that a message cut at its first octet, or inside it, ends with.
enum Element { HEADER, VERSION, CERTIFIED_TYPE, OPERATION, CLIENT, PROCESS_DATA, PROCESS_TYPE,
               TRANSACTION, SERIAL, ALGORITHM, COUNTER, LOG_TIME, SIGNATURE, ELEMENT_COUNT };

const char* const kErrorAtStart[ELEMENT_COUNT] = {
    "ExpectedHeader", "WrongLogVersion", "WrongCertfiedDataType", "ExpectedOperationType",
    "ExpectedClientID", "ExpectedProcessData", "ExpectedProcessType", "ExpectedTransactionNumber",
    "ExpectedSerialNumber", "ExpectedSignatureAlgorithm", "ExpectedSignatureCounter", "ExpectedLogtime",
    "InvalidSignatureSize"};

Bytes text(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

Bytes counting(size_t count)
{
    Bytes octets(count);
    for (size_t i = 0; i < count; ++i) {
        octets[i] = static_cast<uint8_t>(i);
    }
    return octets;
}

using Pieces = std::vector<Bytes>;

Pieces validPieces()
{
    return {{},  // the header follows from the content
            fromHex("02 01 02"),
            fromHex("06 09 04 00 7F 00 07 03 07 01 01"),
            derElement(0x80, text("FinishTransaction")),
            derElement(0x81, text("K1")),
            derElement(0x82, text("ABC")),
            derElement(0x83, text("PT")),
            fromHex("85 01 07"),
            derElement(0x04, Bytes(32, 0xAA)),
            fromHex("30 0C 06 0A 04 00 7F 00 07 01 01 04 01 04"),
            fromHex("02 02 02 1A"),
            fromHex("02 04 5E F2 0D 42"),
            derElement(0x04, counting(96))};
}

// Fills in a long-form header unless the pieces bring their own.
Bytes assemble(Pieces pieces)
{
    if (pieces[HEADER].empty()) {
        size_t size = 0;
        for (const Bytes& piece : pieces) {
            size += piece.size();
        }
        pieces[HEADER] = size < 256 ? Bytes{0x30, 0x81, static_cast<uint8_t>(size)}
                                    : Bytes{0x30, 0x82, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
    }
    Bytes message;
    for (const Bytes& piece : pieces) {
        message.insert(message.end(), piece.begin(), piece.end());
    }
    return message;
}

std::string errorLine(const std::string& error)
{
    // The message's own line break plus the one that ends every line.
    return "[ERROR] Error parsing ASN.1 data. ERR: " + error + "\n\n";
}

// Parses and returns the error line printed (empty when the message reads).
std::string parseReporting(ASNToQrCode& reader, Bytes message)
{
    clearErrorMsg(ERROR_ALL);
    testing::internal::CaptureStdout();
    bool threwMinusOne = false;
    try {
        reader.parse(message);
    } catch (int code) {
        threwMinusOne = code == -1;
    }
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(threwMinusOne, !printed.empty()) << printed;
    EXPECT_EQ(getErrorMsg(ERROR_LOG), printed);
    return printed;
}

std::string field(const ASNToQrCode& reader, const std::string& name)
{
    static const std::map<std::string, std::string QRCodeDataDSFinVK::*> texts = {
        {"operationType", &QRCodeDataDSFinVK::operationType},
        {"clientId", &QRCodeDataDSFinVK::clientId},
        {"processData", &QRCodeDataDSFinVK::processData},
        {"processType", &QRCodeDataDSFinVK::processType},
        {"transactionNumber", &QRCodeDataDSFinVK::transactionNumber},
        {"signatureCounter", &QRCodeDataDSFinVK::signatureCounter},
        {"logTime", &QRCodeDataDSFinVK::logTime},
        {"qrCodeVersion", &QRCodeDataDSFinVK::qrCodeVersion},
        {"signatureAlgorithm", &QRCodeDataDSFinVK::signatureAlgorithm},
        {"logTimeFormat", &QRCodeDataDSFinVK::logTimeFormat},
        {"startTime", &QRCodeDataDSFinVK::startTime}};
    const QRCodeDataDSFinVK& record = reader.qrCodeData;
    if (name == "serialNumber") {
        return fixtures::toHex(record.serialNumber);
    }
    if (name == "signatureValue") {
        return fixtures::toHex(record.signatureValue);
    }
    return record.*texts.at(name);
}

using Fields = std::vector<std::pair<std::string, std::string>>;

struct ReaderCase {
    const char* name;
    Element element;  // the piece that the octets replace
    Bytes octets;
    const char* error;  // nullptr: the message reads
    Fields fields;      // expected afterwards, also after a failure
};

std::vector<ReaderCase> readerCases()
{
    const std::string aa = fixtures::toHex(Bytes(32, 0xAA));
    const std::string signature = fixtures::toHex(counting(96));
    const std::string longText(300, 'x');
    const Bytes nineLengthOctets = fromHex("81 89 00 00 00 00 00 00 00 00 02 4B 31");
    return {
        {"header 30 81 LL", HEADER, {}, nullptr,
         {{"operationType", "FinishTransaction"}, {"clientId", "K1"}, {"processData", "ABC"},
          {"processType", "PT"}, {"transactionNumber", "7"}, {"signatureCounter", "538"},
          {"logTime", "2020-06-23T14:10:10.000Z"}, {"serialNumber", aa}, {"signatureValue", signature},
          {"qrCodeVersion", "V0"}, {"signatureAlgorithm", "ecdsa-plain-SHA384"},
          {"logTimeFormat", "unixTime"}, {"startTime", ""}}},
        {"header 30 82 HH LL", PROCESS_DATA, derElement(0x82, text(longText)), nullptr,
         {{"processData", longText}, {"processType", "PT"}}},
        {"short-form header", HEADER, fromHex("30 6B"), "ExpectedHeader", {}},
        {"header with nine length octets", HEADER, fromHex("30 89 00 00 00 00 00 00 00 00 6B"),
         "ExpectedHeader", {}},
        {"one length octet announced, two written", HEADER, fromHex("30 81 00 6B"), nullptr,
         {{"clientId", "K1"}}},
        {"version 3", VERSION, fromHex("02 01 03"), "WrongLogVersion", {}},
        {"other certified data type", CERTIFIED_TYPE, fromHex("06 09 04 00 7F 00 07 03 07 01 02"),
         "WrongCertfiedDataType", {}},
        {"other algorithm", ALGORITHM, fromHex("30 0C 06 0A 04 00 7F 00 07 01 01 04 01 03"),
         "WrongSignatureAlgorithm", {}},
        {"algorithm tagged 0x31", ALGORITHM, fromHex("31 0C 06 0A 04 00 7F 00 07 01 01 04 01 04"),
         "ExpectedSignatureAlgorithm", {}},
        {"client ID missing", CLIENT, {}, "ExpectedClientID",
         {{"operationType", "FinishTransaction"}, {"clientId", ""}}},
        {"client ID with nine length octets", CLIENT, nineLengthOctets, "ExpectedClientID", {}},
        {"process data longer than the message", PROCESS_DATA, fromHex("82 88 FF FF FF FF FF FF FF FF 41"),
         "ExpectedProcessData", {}},
        {"empty operation type", OPERATION, fromHex("80 00"), nullptr, {{"operationType", ""}}},
        {"transaction number with a leading zero octet", TRANSACTION, fromHex("85 02 00 80"), nullptr,
         {{"transactionNumber", "128"}}},
        {"largest counter", COUNTER, fromHex("02 05 00 FF FF FF FF"), nullptr,
         {{"signatureCounter", "4294967295"}}},
        {"log time 14:20:10", LOG_TIME, fromHex("02 04 5E F2 0F 9A"), nullptr,
         {{"logTime", "2020-06-23T14:20:10.000Z"}}},
        {"log time 0", LOG_TIME, fromHex("02 01 00"), nullptr, {{"logTime", "1970-01-01T00:00:00.000Z"}}},
        {"log time without content", LOG_TIME, fromHex("02 00"), nullptr,
         {{"logTime", "1970-01-01T00:00:00.000Z"}}},
        {"log time 2^31 - 1", LOG_TIME, fromHex("02 04 7F FF FF FF"), nullptr,
         {{"logTime", "2038-01-19T03:14:07.000Z"}}},
        {"log time -2^31", LOG_TIME, fromHex("02 04 80 00 00 00"), nullptr,
         {{"logTime", "1901-12-13T20:45:52.000Z"}}},
        {"log time -1", LOG_TIME, fromHex("02 04 FF FF FF FF"), nullptr,
         {{"logTime", "1969-12-31T23:59:59.000Z"}}},
        {"log time as GeneralizedTime", LOG_TIME, derElement(0x18, text("20200623141010Z")),
         "ExpectedLogtime", {}},
        {"95 signature octets", SIGNATURE, derElement(0x04, counting(95)), "InvalidSignatureSize", {}},
        {"100 signature octets", SIGNATURE, derElement(0x04, counting(100)), nullptr,
         {{"signatureValue", signature}}},
        {"signature with nine length octets", SIGNATURE, fromHex("04 89 00 00 00 00 00 00 00 00 60"),
         "InvalidSignatureSize", {}},
    };
}

TEST(Reader, ReadsFieldsOrNamesTheFirstDeviation)
{
    for (const ReaderCase& c : readerCases()) {
        SCOPED_TRACE(c.name);
        Pieces pieces = validPieces();
        if (c.element != HEADER || !c.octets.empty()) {
            pieces[c.element] = c.octets;
        }
        ASNToQrCode reader;
        const std::string printed = parseReporting(reader, assemble(pieces));
        EXPECT_EQ(printed, c.error ? errorLine(c.error) : "");
        for (const auto& expected : c.fields) {
            EXPECT_EQ(field(reader, expected.first), expected.second) << expected.first;
        }
    }
}

// A message cut short anywhere fails with the error of the element whose
// octets run out, and never reads past the cut (the sanitizer build checks
// that part: the cut copy is exactly as long as the octets kept).
TEST(Reader, EveryTruncationFailsAtTheElementCut)
{
    const Bytes longText(300, 'x');
    for (const Bytes& processData : {text("ABC"), longText}) {
        Pieces pieces = validPieces();
        pieces[PROCESS_DATA] = derElement(0x82, processData);
        const Bytes message = assemble(pieces);
        pieces[HEADER] = Bytes(message.begin(), message.begin() + (message[1] == 0x81 ? 3 : 4));

        size_t start = 0;
        for (int element = HEADER; element < ELEMENT_COUNT; ++element) {
            const size_t stop = start + pieces[element].size();
            for (size_t cut = start; cut < stop; ++cut) {
                const bool insideAlgorithm = element == ALGORITHM && cut > start;
                const std::string error = insideAlgorithm ? "WrongSignatureAlgorithm" : kErrorAtStart[element];
                ASNToQrCode reader;
                EXPECT_EQ(parseReporting(reader, Bytes(message.begin(), message.begin() + cut)), errorLine(error))
                    << "cut after " << cut << " of " << message.size() << " octets";
            }
            start = stop;
        }
        ASSERT_EQ(start, message.size());
    }
}

TEST(Reader, ParseErrorTexts)
{
    const std::pair<int32_t, const char*> cases[] = {
        {0, "Success"}, {5, "WrongOperationType"}, {15, "InvalidSignatureSize"},
        {16, "Unknown Error"}, {-1, "Unknown Error"}};
    for (const auto& c : cases) {
        EXPECT_EQ(getParseError(static_cast<LogParseError>(c.first)), c.second) << c.first;
    }
}

TEST(Reader, GmtimeOfEpochIsThursdayFirstJanuary1970)
{
    std::tm calendar{};
    calendar.tm_year = 99;
    const int64_t seconds = 0;
    cmp_gmtime_s(&calendar, &seconds);
    EXPECT_EQ(calendar.tm_year, 70);
    EXPECT_EQ(calendar.tm_mon, 0);
    EXPECT_EQ(calendar.tm_mday, 1);
    EXPECT_EQ(calendar.tm_hour + calendar.tm_min + calendar.tm_sec, 0);
    EXPECT_EQ(calendar.tm_wday, 4);
}

}  // namespace
