#include <gtest/gtest.h>

#include <functional>

#include <openssl/x509.h>

#include "der.h"
#include "log_encoder.h"
#include "receipt_explain.h"
#include "receipt_text.h"
#include "receipt_verify.h"
#include "signature_cases.h"
#include "signer.h"

namespace {

using tse::Bytes;
using tse::Curve;
using tse::Hash;

// What a TSE signs for a Finish log; receipts print the same unless a test
// changes a printed field.
struct Signed {
    std::string clientId = "K1";
    std::string processType = "Kassenbeleg-V1";
    std::string processData = "Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar";
    uint64_t transactionNumber = 7;
    uint64_t signatureCounter = 538;
    int64_t logTime = 1590145877;  // 2020-05-22T11:11:17Z
    Hash hash = Hash::Sha256;
    uint64_t version = 2;
    bool indefinite = false;
    Bytes timeElement;  // the minimal INTEGER when empty
};

enum Field { VERSION, CLIENT, TYPE, DATA, TXN, COUNTER, START, LOGTIME, ALG, FORMAT, SIGNATURE, KEY };

// The twelve printed fields of a receipt for what the signer signed.
std::vector<std::string> receiptFields(const tse::Signer& signer, const Signed& s)
{
    tse::TransactionData data;
    data.operationType = s.version >= 3 ? "finishTransaction" : "FinishTransaction";
    data.clientId = s.clientId;
    data.processData = Bytes(s.processData.begin(), s.processData.end());
    data.processType = s.processType;
    data.transactionNumber = s.transactionNumber;
    data.processDataForm.indefinite = s.indefinite;
    tse::LogContent content;
    content.version = s.version;
    content.certifiedData = tse::encodeTransactionData(data);
    content.serialNumber = signer.publicKey().serialNumber();
    content.algorithmOid = std::string(tse::ecdsaPlain(s.hash).oid);
    content.signatureCounter = s.signatureCounter;
    content.logTime = s.timeElement.empty() ? tse::encodeLogTime(tse::TimeFormat::UnixTime, s.logTime) : s.timeElement;
    const Bytes signature = signer.signPlain(s.hash, tse::encodeSignedOctets(content));
    const std::string time = tse::isoSeconds(s.logTime);
    return {"V0",
            s.clientId,
            s.processType,
            s.processData,
            std::to_string(s.transactionNumber),
            std::to_string(s.signatureCounter),
            time,
            time,
            std::string(tse::ecdsaPlain(s.hash).name),
            "unixTime",
            tse::toBase64(signature),
            tse::toBase64(signer.publicKey().point())};
}

std::string joined(const std::vector<std::string>& fields)
{
    std::string text;
    for (const std::string& field : fields) text += (text.empty() ? "" : ";") + field;
    return text;
}

tse::ReceiptVerification verified(const std::string& text)
{
    const tse::Result<tse::Receipt> parse = tse::parseReceiptText(text);
    if (!parse) return {tse::Verdict::Malformed, parse.error().message, {}, {}};
    return tse::verifyReceipt(*parse);
}

TEST(Receipt, VerifiesEveryCurveAndHashAndRejectsAnotherCounter)
{
    for (const tse::CurveInfo& curve : tse::supportedCurves()) {
        const tse::Signer signer(curve.curve);
        for (const tse::SignatureAlgorithm& algorithm : tse::signatureAlgorithms()) {
            if (!algorithm.supported) continue;
            Signed s;
            s.hash = algorithm.hash;
            std::vector<std::string> fields = receiptFields(signer, s);
            const tse::ReceiptVerification result = verified(joined(fields));
            EXPECT_TRUE(result.valid()) << curve.displayName << " " << algorithm.name << ": " << result.reason;
            fields[COUNTER] = "539";
            EXPECT_EQ(verified(joined(fields)).verdict, tse::Verdict::Invalid) << curve.displayName << algorithm.name;
        }
    }
}

// The log time in each element the receipt's format allows, printed as
// receipts print it (with a fraction, an offset, or the format's other case).
TEST(Receipt, VerifiesEveryTimeFormatAndEncoding)
{
    const tse::Signer signer(Curve::Secp256r1);
    const int64_t t = 1590145877;
    auto element = [](uint8_t tag, const std::string& text) { return tse::derElement(tag, tse::ByteView(text)); };
    const struct {
        const char* format;
        int64_t seconds;
        Bytes element;
        const char* printed;
        tse::TimeEncoding encoding;
    } cases[] = {
        {"unixTime", t, {}, "2020-05-22T11:11:17.000Z", tse::TimeEncoding::MinimalInteger},
        {"UNIXTIME", t, {}, "2020-05-22T13:11:17+02:00", tse::TimeEncoding::MinimalInteger},
        {"unixtime", t, {}, "2020-05-22T06:41:17.000-0430", tse::TimeEncoding::MinimalInteger},
        {"unixTime",
         100000,
         {0x02, 0x04, 0x00, 0x01, 0x86, 0xA0},
         "1970-01-02T03:46:40Z",
         tse::TimeEncoding::FourOctetInteger},
        {"utcTime", t, element(0x17, "200522111117Z"), "2020-05-22T11:11:17.000Z", tse::TimeEncoding::UtcWithSeconds},
        {"utcTime", t - 17, element(0x17, "2005221111Z"), "2020-05-22T11:11:00Z", tse::TimeEncoding::UtcWithoutSeconds},
        {"utcTimeWithSeconds", t, element(0x17, "200522111117Z"), "2020-05-22T11:11:17Z",
         tse::TimeEncoding::UtcWithSeconds},
        {"generalizedTime", t, element(0x18, "20200522111117Z"), "2020-05-22T11:11:17.000Z",
         tse::TimeEncoding::GeneralizedPlain},
        {"generalizedTimeWithMilliseconds", t, element(0x18, "20200522111117.5Z"), "2020-05-22T11:11:17.500Z",
         tse::TimeEncoding::GeneralizedFraction},
        {"generalizedTimeWithMilliseconds", t, element(0x18, "20200522111117.500Z"), "2020-05-22T11:11:17.5Z",
         tse::TimeEncoding::GeneralizedMillis},
        {"GeneralizedTime", t, element(0x18, "20200522111117.123Z"), "2020-05-22T11:11:17.123Z",
         tse::TimeEncoding::GeneralizedFraction},
    };
    for (const auto& c : cases) {
        Signed s;
        s.logTime = c.seconds;
        s.timeElement = c.element;
        std::vector<std::string> fields = receiptFields(signer, s);
        fields[FORMAT] = c.format;
        fields[LOGTIME] = c.printed;
        const tse::ReceiptVerification result = verified(joined(fields));
        EXPECT_TRUE(result.valid()) << c.format << " " << c.printed << ": " << result.reason;
        EXPECT_EQ(result.form.time, c.encoding) << c.format << " " << c.printed;
    }
}

Bytes compressed(const Bytes& point)
{
    const size_t half = (point.size() - 1) / 2;
    Bytes out(point.begin(), point.begin() + 1 + static_cast<long>(half));
    out[0] = static_cast<uint8_t>(0x02 | (point.back() & 1));
    return out;
}

Bytes subjectPublicKeyInfo(const tse::PublicKey& key)
{
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(key.evpKey(), &der);
    Bytes out(der, der + size);
    OPENSSL_free(der);
    return out;
}

std::string lowercase(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// Keys as points or SubjectPublicKeyInfo; a raw point of 32-octet
// coordinates must be found on the curve of that size it lies on (for a
// compressed one, the x may lie on both: the signature decides).
// Signatures as r||s or DER, base64 or hex; the newer message shape and
// D-Trust's indefinite-length processData.
TEST(Receipt, VerifiesEveryKeySignatureAndMessageShape)
{
    for (const Curve curve : {Curve::Secp256r1, Curve::BrainpoolP256r1, Curve::Secp384r1}) {
        const tse::Signer signer(curve);
        const std::string name(tse::curveInfo(curve).displayName);
        const Bytes point = signer.publicKey().point();
        for (const Bytes& key : {point, compressed(point), subjectPublicKeyInfo(signer.publicKey())}) {
            std::vector<std::string> fields = receiptFields(signer, {});
            fields[KEY] = tse::toBase64(key);
            const tse::Result<tse::Receipt> parse = tse::parseReceiptText(joined(fields));
            ASSERT_TRUE(parse) << name << ": " << parse.error().message;
            const tse::ReceiptVerification result = tse::verifyReceipt(*parse);
            EXPECT_TRUE(result.valid()) << name;
            EXPECT_EQ(result.heldKey.value_or(parse->key).curve(), curve) << name << " key of " << key.size();
        }
        std::vector<std::string> fields = receiptFields(signer, {});
        const Bytes plain = *tse::fromBase64(fields[SIGNATURE]);
        const struct {
            std::string signature;
            tse::SignatureEncoding encoding;
        } signatures[] = {
            {fields[SIGNATURE], tse::SignatureEncoding::PlainBase64},
            {tse::toHex(plain), tse::SignatureEncoding::PlainHex},
            {lowercase(tse::toHex(plain)), tse::SignatureEncoding::PlainHex},
        };
        for (const auto& c : signatures) {
            fields[SIGNATURE] = c.signature;
            const tse::ReceiptVerification result = verified(joined(fields));
            EXPECT_TRUE(result.valid()) << name << " " << c.signature;
            EXPECT_EQ(result.form.signature, c.encoding) << name << " " << c.signature;
        }
        const struct {
            uint64_t version;
            bool indefinite;
        } shapes[] = {{3, false}, {2, true}, {3, true}};
        for (const auto& shape : shapes) {
            Signed s;
            s.version = shape.version;
            s.indefinite = shape.indefinite;
            const tse::ReceiptVerification result = verified(joined(receiptFields(signer, s)));
            EXPECT_TRUE(result.valid()) << name << " version " << shape.version;
            EXPECT_EQ(result.form.shape.version, shape.version);
            EXPECT_EQ(result.form.shape.indefiniteProcessData, shape.indefinite);
        }
    }
}

TEST(Receipt, VerifiesDerSignaturesUnderAPlainLabel)
{
    const tse::Signer signer(Curve::BrainpoolP256r1);
    std::vector<std::string> fields = receiptFields(signer, {});
    // Sign the same message again, DER-encoded: rebuild it from a valid receipt's fields.
    const tse::Result<tse::Receipt> parse = tse::parseReceiptText(joined(fields));
    ASSERT_TRUE(parse);
    Bytes message = tse::signedPrefix(*parse, {});
    tse::append(message, tse::logTimeElement(tse::TimeEncoding::MinimalInteger, parse->logTime.time.seconds, ""));
    fields[SIGNATURE] = tse::toBase64(signer.signDer(Hash::Sha256, message));
    const tse::ReceiptVerification result = verified(joined(fields));
    EXPECT_TRUE(result.valid()) << result.reason;
    EXPECT_EQ(result.form.signature, tse::SignatureEncoding::DerBase64);
}

// The signature field as r||s or DER, in base64 or in hex (upper or lower
// case, with blanks or colons between the octets, which base64 cannot hold):
// each holds and the form names the encoding as it was written.
TEST(Receipt, NamesEachSignatureEncodingAsWritten)
{
    const tse::Signer signer(Curve::BrainpoolP256r1);
    std::vector<std::string> fields = receiptFields(signer, {});
    const tse::Result<tse::Receipt> parse = tse::parseReceiptText(joined(fields));
    ASSERT_TRUE(parse);
    Bytes message = tse::signedPrefix(*parse, {});
    tse::append(message, tse::logTimeElement(tse::TimeEncoding::MinimalInteger, parse->logTime.time.seconds, ""));
    const Bytes der = signer.signDer(Hash::Sha256, message);
    const Bytes plain = *tse::fromBase64(fields[SIGNATURE]);
    const auto separated = [](const Bytes& octets, char separator) {
        std::string text = tse::toHex(octets);
        for (size_t at = text.size() - 2; at > 0; at -= 2) text.insert(at, 1, separator);
        return text;
    };
    using E = tse::SignatureEncoding;
    const struct {
        std::string text;
        E encoding;
    } cases[] = {
        {tse::toBase64(der), E::DerBase64},      {tse::toHex(der), E::DerHex},
        {lowercase(tse::toHex(der)), E::DerHex}, {separated(der, ':'), E::DerHex},
        {separated(der, ' '), E::DerHex},        {fields[SIGNATURE], E::PlainBase64},
        {separated(plain, ':'), E::PlainHex},    {lowercase(separated(plain, ' ')), E::PlainHex},
    };
    for (const auto& c : cases) {
        fields[SIGNATURE] = c.text;
        const tse::ReceiptVerification result = verified(joined(fields));
        EXPECT_TRUE(result.valid()) << c.text << ": " << result.reason;
        EXPECT_EQ(tse::describeForm(result.form),
                  tse::describeForm({{}, tse::TimeEncoding::MinimalInteger, c.encoding}))
            << c.text;
    }
}

// The names receipts and cash registers give the algorithms, in any case:
// each stands for its hash, so a receipt signed over that hash holds.
TEST(Receipt, AlgorithmNamesInEverySpelling)
{
    const tse::Signer signer(Curve::Secp256r1);
    const struct {
        const char* name;
        Hash hash;
    } names[] = {
        {"ecdsa-plain-SHA256", Hash::Sha256},     {"SHA256withECDSA", Hash::Sha256},
        {"ecdsa-with-SHA384", Hash::Sha384},      {"sha512WITHecdsa", Hash::Sha512},
        {"ecdsa-plain-SHA3-256", Hash::Sha3_256}, {"SHA3-256withECDSA", Hash::Sha3_256},
        {"SHA3256withECDSA", Hash::Sha3_256},     {"ecdsa-plain-SHA3256", Hash::Sha3_256},
        {"ecdsa-with-SHA3224", Hash::Sha3_224},   {"ECDSA-PLAIN-sha3512", Hash::Sha3_512},
        {"sha3384withecdsa", Hash::Sha3_384},
    };
    for (const auto& n : names) {
        Signed s;
        s.hash = n.hash;
        std::vector<std::string> fields = receiptFields(signer, s);
        fields[ALG] = n.name;
        const tse::ReceiptVerification result = verified(joined(fields));
        EXPECT_TRUE(result.valid()) << n.name << ": " << result.reason;
    }
    for (const char* unknown : {"SHA3_256withECDSA", "ecdsa-plain-SHA3", "ecdsa-plain-SHA-256", "SHA256ECDSA"}) {
        EXPECT_EQ(tse::algorithmByName(unknown), nullptr) << unknown;
    }
}

// A compressed point whose x lies on both 256-bit curves stands for a key
// on either; fixed keys, so that every run has such a point. The receipt
// holds under the key that signed, whichever curve is read first.
TEST(Receipt, ACompressedKeyOnBothCurvesHoldsUnderTheOneThatSigned)
{
    for (const Curve curve : {Curve::Secp256r1, Curve::BrainpoolP256r1}) {
        const tse::Signer signer = tse::signerWithTwinX(curve);
        const std::string name(tse::curveInfo(curve).displayName);
        std::vector<std::string> fields = receiptFields(signer, {});
        fields[KEY] = tse::toBase64(compressed(signer.publicKey().point()));
        const tse::Result<tse::Receipt> parse = tse::parseReceiptText(joined(fields));
        ASSERT_TRUE(parse) << name << ": " << parse.error().message;
        ASSERT_EQ(parse->otherKeys.size(), 1u) << name;
        EXPECT_NE(parse->key.curve(), parse->otherKeys[0].curve()) << name;
        const tse::ReceiptVerification result = tse::verifyReceipt(*parse);
        EXPECT_TRUE(result.valid()) << name << ": " << result.reason;
        const tse::PublicKey& held = result.heldKey.value_or(parse->key);
        EXPECT_EQ(held.curve(), curve) << name;
        EXPECT_EQ(held.serialNumber(), signer.publicKey().serialNumber()) << name;
    }
}

// How scanners and files hand a text over; the surroundings are not part of
// the receipt.
TEST(Receipt, TextSurroundingsAreIgnored)
{
    const std::string text = joined(receiptFields(tse::Signer(Curve::Secp256r1), {}));
    for (const std::string& wrapped : {"\xEF\xBB\xBF" + text + "\r\n", "  \"" + text + "\"\n", "\t" + text + " "}) {
        EXPECT_TRUE(verified(wrapped).valid()) << wrapped;
    }
}

TEST(Receipt, NamesTheBadFieldAndWhatItShouldHold)
{
    const std::vector<std::string> good = receiptFields(tse::Signer(Curve::Secp256r1), {});
    const struct {
        Field field;
        std::string value;
        const char* error;
    } cases[] = {
        {VERSION, "V1", "qrCodeVersion \"V1\" is not V0"},
        {CLIENT, "", "clientId is empty"},
        {TXN, "7a", "transactionNumber \"7a\" is not a whole number"},
        {COUNTER, "99999999999999999999",
         "signatureCounter \"99999999999999999999\" is not a whole number of at most 64 bits"},
        {START, "22.05.2020 11:11", "startTime \"22.05.2020 11:11\" is not an ISO 8601 time"},
        {LOGTIME, "2020-05-22T11:11:17+25:00", "logTime \"2020-05-22T11:11:17+25:00\" is not an ISO 8601 time"},
        {ALG, "ecdsa-plain-MD5", "signatureAlgorithm \"ecdsa-plain-MD5\" is no known name"},
        {ALG, "ecsdsa-plain-SHA256", "is recognised but not verified"},
        {FORMAT, "unixTimeMillis", "logTimeFormat \"unixTimeMillis\" is none of unixTime"},
        {SIGNATURE, "not base64!", "signature \"not base64!\" is neither base64 nor hexadecimal"},
        {SIGNATURE, "AAAA", "signature: 3 bytes are neither r||s on secp256r1 (64 bytes) nor a DER signature"},
        {KEY, "BAAA", "publicKey \"BAAA\" is no usable key: a public key point of 3 bytes"},
        {KEY, tse::toBase64(Bytes(65, 4)), "is no usable key: the point lies on none of the supported curves"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> fields = good;
        fields[c.field] = c.value;
        const tse::ReceiptVerification result = verified(joined(fields));
        EXPECT_EQ(result.verdict, tse::Verdict::Malformed) << c.error;
        EXPECT_NE(result.reason.find(c.error), std::string::npos) << result.reason;
    }
    EXPECT_EQ(verified(joined(good) + ";extra").reason, "the text has 13 fields separated by \";\"; a receipt has 12");
}

// One change of each kind that real receipts suffer, planted by signing one
// value and printing another; the explanation names what the TSE signed.
TEST(ReceiptExplain, FindsEachPlantedChange)
{
    const tse::Signer signer(Curve::Secp256r1);
    const struct {
        const char* kind;
        Signed signedFields;
        std::function<void(std::vector<std::string>&)> print;
        const char* field;
        std::string signedValue;
    } cases[] = {
        {"time zone", {}, [](auto& f) { f[LOGTIME] = "2020-05-22T13:11:17Z"; }, "logTime", "2020-05-22T11:11:17Z"},
        {"offset ignored",
         {},
         [](auto& f) { f[LOGTIME] = "2020-05-22T11:11:17+05:30"; },
         "logTime",
         "2020-05-22T11:11:17Z"},
        {"log time off", {}, [](auto& f) { f[LOGTIME] = "2020-05-22T10:48:17Z"; }, "logTime", "2020-05-22T11:11:17Z"},
        {"swapped",
         {},
         [](auto& f) {
             f[START] = f[LOGTIME];
             f[LOGTIME] = "2020-05-22T12:40:00Z";
         },
         "logTime",
         "2020-05-22T11:11:17Z"},
        {"case", {}, [](auto& f) { f[TYPE] = "KASSENBELEG-V1"; }, "processType", "\"Kassenbeleg-V1\""},
        {"case",
         {},
         [](auto& f) { f[DATA] = "beleg^8.57_0.00_0.00_0.00_0.00^8.57:bar"; },
         "processData",
         "\"Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar\""},
        {"trailing blank",
         [] {
             Signed s;
             s.processData = "Beleg^1.00 ";
             return s;
         }(),
         [](auto& f) { f[DATA] = "Beleg^1.00"; }, "processData", "\"Beleg^1.00 \""},
        {"CR LF",
         [] {
             Signed s;
             s.processData = "a\r\nb";
             return s;
         }(),
         [](auto& f) { f[DATA] = "a\nb"; }, "processData", "\"a\\r\\nb\""},
        {"Latin-1",
         [] {
             Signed s;
             s.clientId = "M\xFC"
                          "nchen";
             return s;
         }(),
         [](auto& f) { f[CLIENT] = "M\xC3\xBCnchen"; }, "clientId", "\"M\\xFCnchen\""},
        {"hash",
         [] {
             Signed s;
             s.hash = Hash::Sha384;
             return s;
         }(),
         [](auto& f) { f[ALG] = "ecdsa-plain-SHA256"; }, "signatureAlgorithm", "ecdsa-plain-SHA384"},
        {"transaction number", {}, [](auto& f) { f[TXN] = "8"; }, "transactionNumber", "7"},
        {"signature counter", {}, [](auto& f) { f[COUNTER] = "537"; }, "signatureCounter", "538"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> fields = receiptFields(signer, c.signedFields);
        c.print(fields);
        const tse::Result<tse::Receipt> parse = tse::parseReceiptText(joined(fields));
        ASSERT_TRUE(parse) << c.kind << ": " << parse.error().message;
        ASSERT_EQ(tse::verifyReceipt(*parse).verdict, tse::Verdict::Invalid) << c.kind;
        const tse::Explanation e = tse::explainReceipt(*parse);
        EXPECT_TRUE(e.found) << c.kind << ": " << e.sentence;
        EXPECT_EQ(e.field, c.field) << c.kind;
        EXPECT_EQ(e.signedValue, c.signedValue) << c.kind;
        EXPECT_NE(e.sentence.find("the receipt was signed with"), std::string::npos) << e.sentence;
    }
}

TEST(ReceiptExplain, RandomSignatureIsExplainedByNothing)
{
    const tse::Signer signer(Curve::Secp256r1);
    std::vector<std::string> fields = receiptFields(signer, {});
    fields[SIGNATURE] = tse::toBase64(signer.signPlain(Hash::Sha256, tse::ByteView(std::string("other data"))));
    const tse::Result<tse::Receipt> parse = tse::parseReceiptText(joined(fields));
    ASSERT_TRUE(parse);
    const tse::Explanation e = tse::explainReceipt(*parse, {600, tse::defaultJobs()});
    EXPECT_FALSE(e.found) << e.sentence;
    EXPECT_NE(e.sentence.find("no change explains the failure; tried: "), std::string::npos) << e.sentence;
    EXPECT_NE(e.sentence.find("log time off by up to 600 s"), std::string::npos) << e.sentence;
}

// A batch within a bound of its own: each receipt that nothing explains is
// cut short at an even share of what is left, the last as much as the
// first, and a receipt a cheap change explains among them is explained.
TEST(ReceiptExplain, ABatchSharesItsBoundEvenly)
{
    const tse::Signer signer(Curve::Secp256r1);
    std::vector<tse::Receipt> receipts;
    for (uint64_t n = 1; n <= 4; ++n) {
        Signed s;
        s.transactionNumber = n;
        std::vector<std::string> fields = receiptFields(signer, s);
        if (n == 2) {
            fields[TYPE] = "KASSENBELEG-V1";
        } else {
            fields[DATA] = "Beleg^9.57_0.00_0.00_0.00_0.00^9.57:Bar";  // nothing explains it
        }
        tse::Result<tse::Receipt> parse = tse::parseReceiptText(joined(fields));
        ASSERT_TRUE(parse) << parse.error().message;
        receipts.push_back(std::move(parse).value());
    }
    std::vector<const tse::Receipt*> batch;
    for (const tse::Receipt& r : receipts) batch.push_back(&r);
    constexpr uint64_t BOUND = 6000;
    const std::vector<tse::Explanation> explained = tse::explainReceipts(batch, {}, BOUND);
    ASSERT_EQ(explained.size(), 4u);
    EXPECT_TRUE(explained[1].found) << explained[1].sentence;
    EXPECT_EQ(explained[1].field, "processType");
    uint64_t left = BOUND;
    for (size_t i = 0; i < explained.size(); ++i) {
        const uint64_t share = left / (explained.size() - i);
        if (i != 1) {
            EXPECT_FALSE(explained[i].found) << i;
            EXPECT_TRUE(explained[i].cutShort) << i;
            EXPECT_LE(explained[i].checks, share) << i;
            EXPECT_GE(explained[i].checks, share / 2) << i;
        }
        left -= explained[i].checks;
    }
}

}  // namespace
