// The verifier's reader of log messages: each field or the first deviation
// named, and no cut-off message read as whole.
#include <gtest/gtest.h>

#include <numeric>

#include "ASNToQrCode.h"
#include "fixtures.h"
#include "myutils.h"

using fixtures::Bytes;
using fixtures::derElement;
using fixtures::fromHex;
using Record = QRCodeDataDSFinVK;

namespace {

// The elements of a log message in layout order, and the error that a
// message cut at an element's first octet, or inside it, ends with.
enum Element {
    HEADER,
    VERSION,
    DATA_TYPE,
    OPERATION,
    CLIENT,
    PROCESS_DATA,
    PROCESS_TYPE,
    TRANSACTION,
    SERIAL,
    ALGORITHM,
    COUNTER,
    LOG_TIME,
    SIGNATURE,
    ELEMENT_COUNT
};
const char* const kErrorAtStart[ELEMENT_COUNT] = {"ExpectedHeader",           "WrongLogVersion",
                                                  "WrongCertfiedDataType",    "ExpectedOperationType",
                                                  "ExpectedClientID",         "ExpectedProcessData",
                                                  "ExpectedProcessType",      "ExpectedTransactionNumber",
                                                  "ExpectedSerialNumber",     "ExpectedSignatureAlgorithm",
                                                  "ExpectedSignatureCounter", "ExpectedLogtime",
                                                  "InvalidSignatureSize"};

Bytes text(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

Bytes counting(size_t n)
{
    Bytes octets(n);
    std::iota(octets.begin(), octets.end(), uint8_t{0});
    return octets;
}

using Pieces = std::vector<Bytes>;

Bytes join(const Pieces& ps)
{
    Bytes m;
    for (const Bytes& p : ps) m.insert(m.end(), p.begin(), p.end());
    return m;
}

// A valid message with one element replaced; an empty header becomes the
// long form of the size.
Pieces pieces(Element replaced = HEADER, const Bytes& octets = {})
{
    Pieces p = {{},
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
    p[replaced] = octets;
    if (p[HEADER].empty()) {
        const size_t n = join(p).size();
        p[HEADER] = n < 256 ? Bytes{0x30, 0x81, uint8_t(n)} : Bytes{0x30, 0x82, uint8_t(n >> 8), uint8_t(n)};
    }
    return p;
}

std::string errorLine(const std::string& error)
{
    return "[ERROR] Error parsing ASN.1 data. ERR: " + error + "\n\n";
}

// Parses an exact copy of the octets and returns the error text kept ("" when
// the message reads); a failure must throw -1.
std::string parse(ASNToQrCode& reader, Bytes message)
{
    clearErrorMsg(ERROR_ALL);
    setConsoleOutput(false);
    int thrown = 0;
    try {
        reader.parse(message);
    } catch (int code) {
        thrown = code;
    }
    setConsoleOutput(true);
    const std::string error = getErrorMsg(ERROR_LOG);
    EXPECT_EQ(thrown, error.empty() ? 0 : -1);
    return error;
}

struct ReaderCase {
    const char* name;
    Element replaced;
    Bytes octets;
    const char* error = nullptr;           // nullptr: the message reads, keeping the first 96 signature octets
    std::string Record::*field = nullptr;  // checked also after a failure
    std::string value = "";
};

TEST(Reader, ReadsFieldsOrNamesTheFirstDeviation)
{
    const std::string x300(300, 'x');
    const ReaderCase cases[] = {
        {"header 30 81 LL", HEADER, {}, nullptr, &Record::logTime, "2020-06-23T14:10:10.000Z"},
        {"header 30 82 HH LL", PROCESS_DATA, derElement(0x82, text(x300)), nullptr, &Record::processData, x300},
        {"short-form header", HEADER, fromHex("30 6B"), "ExpectedHeader"},
        {"nine length octets", HEADER, fromHex("30 89 00 00 00 00 00 00 00 00 6B"), "ExpectedHeader"},
        {"30 81 HH LL", HEADER, fromHex("30 81 00 6B"), nullptr, &Record::clientId, "K1"},
        {"version 3", VERSION, fromHex("02 01 03"), "WrongLogVersion"},
        {"other data type", DATA_TYPE, fromHex("06 09 04 00 7F 00 07 03 07 01 02"), "WrongCertfiedDataType"},
        {"other algorithm", ALGORITHM, fromHex("30 0C 06 0A 04 00 7F 00 07 01 01 04 01 03"), "WrongSignatureAlgorithm"},
        {"tag 0x31", ALGORITHM, fromHex("31 0C 06 0A 04 00 7F 00 07 01 01 04 01 04"), "ExpectedSignatureAlgorithm"},
        {"no client ID", CLIENT, {}, "ExpectedClientID", &Record::operationType, "FinishTransaction"},
        {"eight length octets", CLIENT, fromHex("81 88 00 00 00 00 00 00 00 02 4B 31"), nullptr, &Record::clientId,
         "K1"},
        {"nine length octets", CLIENT, fromHex("81 89 00 00 00 00 00 00 00 00 02 4B 31"), "ExpectedClientID"},
        {"length 2^64 - 1", PROCESS_DATA, fromHex("82 88 FF FF FF FF FF FF FF FF 41"), "ExpectedProcessData"},
        {"empty", OPERATION, fromHex("80 00"), nullptr, &Record::operationType, ""},
        {"leading zero octet", TRANSACTION, fromHex("85 02 00 80"), nullptr, &Record::transactionNumber, "128"},
        {"unsigned", COUNTER, fromHex("02 05 00 FF FF FF FF"), nullptr, &Record::signatureCounter, "4294967295"},
        {"no octets", LOG_TIME, fromHex("02 00"), nullptr, &Record::logTime, "1970-01-01T00:00:00.000Z"},
        {"2^31 - 1", LOG_TIME, fromHex("02 04 7F FF FF FF"), nullptr, &Record::logTime, "2038-01-19T03:14:07.000Z"},
        {"-2^31", LOG_TIME, fromHex("02 04 80 00 00 00"), nullptr, &Record::logTime, "1901-12-13T20:45:52.000Z"},
        {"-1", LOG_TIME, fromHex("02 04 FF FF FF FF"), nullptr, &Record::logTime, "1969-12-31T23:59:59.000Z"},
        {"GeneralizedTime", LOG_TIME, derElement(0x18, text("20200623141010Z")), "ExpectedLogtime"},
        {"95 octets", SIGNATURE, derElement(0x04, counting(95)), "InvalidSignatureSize"},
        {"100 octets", SIGNATURE, derElement(0x04, counting(100))},
    };
    for (const ReaderCase& c : cases) {
        SCOPED_TRACE(c.name);
        ASNToQrCode reader;
        EXPECT_EQ(parse(reader, join(pieces(c.replaced, c.octets))), c.error ? errorLine(c.error) : "");
        EXPECT_EQ(c.field ? reader.qrCodeData.*c.field : c.value, c.value);
        EXPECT_TRUE(c.error || reader.qrCodeData.signatureValue == counting(96));
    }
}

// Cut anywhere, a message fails with the error of the element whose octets
// run out; a length claim of 2 GiB after the cut fails too (inside the
// signature value any octets would do). The sanitizer build checks that
// nothing past the octets is read.
TEST(Reader, EveryTruncationFails)
{
    for (const Pieces& p : {pieces(), pieces(PROCESS_DATA, derElement(0x82, Bytes(300, 'x')))}) {
        const Bytes whole = join(p);
        size_t start = 0;
        for (int element = HEADER; element < ELEMENT_COUNT; start += p[static_cast<size_t>(element++)].size()) {
            for (size_t cut = start; cut < start + p[static_cast<size_t>(element)].size(); ++cut) {
                SCOPED_TRACE("cut after " + std::to_string(cut) + " of " + std::to_string(whole.size()));
                const Bytes kept(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut));
                ASNToQrCode reader;
                const bool insideAlgorithm = element == ALGORITHM && cut > start;
                EXPECT_EQ(parse(reader, kept),
                          errorLine(insideAlgorithm ? "WrongSignatureAlgorithm" : kErrorAtStart[element]));
                const Bytes claim = join({kept, fromHex("84 7F FF FF FF")});
                EXPECT_TRUE(cut + 96 >= whole.size() || !parse(reader, claim).empty());
            }
        }
        ASSERT_EQ(start, whole.size());
    }
}

}  // namespace
