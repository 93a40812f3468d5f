// Log messages of every type, curve, hash, time form and number width,
// signed with real keys at test time, read back and verified by the core.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include <openssl/x509.h>

#include "certificate.h"
#include "der.h"
#include "fixtures.h"
#include "log_encoder.h"
#include "log_verify.h"
#include "openssl_ptr.h"
#include "public_key.h"
#include "signer.h"

namespace {

using tse::Bytes;
using tse::Verdict;

Bytes text(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

tse::LogContent transaction(uint64_t number = 7, tse::ProcessDataForm form = {})
{
    tse::TransactionData data;
    data.clientId = "K1";
    data.processData = text("Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar");
    data.processType = "Kassenbeleg-V1";
    data.transactionNumber = number;
    data.processDataForm = form;
    tse::LogContent content;
    content.certifiedData = tse::encodeTransactionData(data);
    content.signatureCounter = 538;
    content.logTime = tse::encodeLogTime(tse::TimeFormat::UnixTime, 1627903738);
    return content;
}

// The exported message, signed by the signer; the OID names the algorithm
// unless another is given.
Bytes signedLog(const tse::Signer& signer, tse::Hash hash, tse::LogContent content, std::string oid = "")
{
    content.serialNumber = signer.publicKey().serialNumber();
    content.algorithmOid = oid.empty() ? std::string(tse::ecdsaPlain(hash).oid) : oid;
    const Bytes octets = tse::encodeSignedOctets(content);
    return tse::encodeLogMessage(octets, signer.signPlain(hash, octets));
}

tse::LogMessage parsed(const Bytes& log)
{
    tse::Result<tse::LogMessage> parse = tse::parseLogMessage(log);
    if (!parse)
        throw std::runtime_error(parse.error().message + " @" + std::to_string(parse.error().offset.value_or(0)));
    return std::move(parse).value();
}

TEST(CoreMessages, EachVerdictSaysWhy)
{
    const tse::Signer signer(tse::Curve::Secp256r1), other(tse::Curve::Secp256r1);
    const struct {
        std::string oid;
        void (*change)(tse::LogMessage&);
        bool otherKey;
        Verdict verdict;
        std::string reason;
    } cases[] = {
        {"", [](tse::LogMessage&) {}, false, Verdict::Valid, ""},
        {"0.4.0.127.0.7.1.1.4.4.3", [](tse::LogMessage&) {}, false, Verdict::UnsupportedAlgorithm,
         "ecsdsa-plain-SHA384"},
        {"1.2.3.4", [](tse::LogMessage&) {}, false, Verdict::UnsupportedAlgorithm, "the OID 1.2.3.4 is unknown"},
        {"", [](tse::LogMessage& m) { m.signatureValue.pop_back(); }, false, Verdict::Malformed, "63 bytes"},
        {"", [](tse::LogMessage& m) { m.signedOctets[5] ^= 1; }, false, Verdict::Invalid, "does not match"},
        {"", [](tse::LogMessage&) {}, true, Verdict::WrongKey, "is not the log's serial number"},
    };
    for (const auto& c : cases) {
        tse::LogMessage message = parsed(signedLog(signer, tse::Hash::Sha256, transaction(), c.oid));
        c.change(message);
        const tse::Verification result = tse::verifyLog(message, (c.otherKey ? other : signer).publicKey());
        EXPECT_EQ(result.verdict, c.verdict) << c.reason;
        EXPECT_NE(result.reason.find(c.reason), std::string::npos) << result.reason;
    }
}

Bytes concat(std::initializer_list<Bytes> elements)
{
    Bytes out;
    for (const Bytes& element : elements) tse::append(out, element);
    return out;
}

// Every element each log type can hold, processData also in chunks of
// indefinite length (nested too, as D-Trust writes it), under every form of
// the log time: read back as written, and verified over the stored octets.
TEST(CoreMessages, EveryLogTypeAndTimeFormReadsBack)
{
    const tse::Signer signer(tse::Curve::BrainpoolP384r1);
    using Fields = std::vector<std::pair<std::string, std::string>>;
    const Bytes start = tse::derElement(0x80, text("StartTransaction")), client = tse::derElement(0x81, text("K1"));
    const Bytes number = tse::derUnsigned(0x85, 1);
    const Fields transactionFields = {{"operationType", "StartTransaction"},
                                      {"clientId", "K1"},
                                      {"processData", "abcdefghij"},
                                      {"transactionNumber", "\x01"}};
    const Bytes nested = tse::fromHex("A2 80 24 80 04 02 6162 04 01 63 0000 04 07 6465666768696A 0000").value();
    const struct {
        uint64_t version;
        tse::LogType type;
        Bytes certifiedData;
        Fields fields;
        size_t chunks;  // of an indefinite processData
    } types[] = {
        {2,
         tse::LogType::Transaction,
         concat({start, client, tse::derElement(0x82, text("p")), tse::derElement(0x83, text("PT")),
                 tse::derElement(0x84, Bytes{0xAB}), number, tse::derElement(0x86, Bytes{0xCD})}),
         {{"operationType", "StartTransaction"},
          {"clientId", "K1"},
          {"processData", "p"},
          {"processType", "PT"},
          {"additionalExternalData", "\xAB"},
          {"transactionNumber", "\x01"},
          {"additionalInternalData", "\xCD"}},
         0},
        {2, tse::LogType::Transaction,
         concat({start, client, tse::berIndefiniteChunks(0x82, text("abcdefghij")), number}), transactionFields, 1},
        {2, tse::LogType::Transaction,
         concat({start, client, tse::berIndefiniteChunks(0x82, text("abcdefghij"), 4), number}), transactionFields, 3},
        {2, tse::LogType::Transaction, concat({start, client, nested, number}), transactionFields, 3},
        {2,
         tse::LogType::System,
         tse::encodeSystemData({"updateTime", Bytes{1, 2}}),
         {{"operationType", "updateTime"}, {"systemOperationData", "\x01\x02"}},
         0},
        {3,
         tse::LogType::System,
         concat({tse::derElement(0x80, text("updateTime")), tse::derElement(0x81, text("SMA")),
                 tse::derElement(0x82, text("admin")), tse::derElement(0xA3, tse::derElement(0x04, text("\x01\x02"))),
                 tse::derElement(0x84, text("\xFF"))}),
         {{"eventType", "updateTime"},
          {"eventOrigin", "SMA"},
          {"eventTriggeredByUser", "admin"},
          {"eventData", "\x04\x02\x01\x02"},
          {"additionalInternalData", "\xFF"}},
         0},
        {2, tse::LogType::Audit, {}, {}, 0},
    };
    const int64_t t = 1627903738;
    const struct {
        tse::TimeFormat format;
        int64_t seconds;
        std::string fraction;
        bool withSeconds;
        int64_t expected;
    } times[] = {
        {tse::TimeFormat::UnixTime, t, "", true, t},
        {tse::TimeFormat::UnixTime, 0, "", true, 0},
        {tse::TimeFormat::UnixTime, int64_t{1} << 40, "", true, int64_t{1} << 40},
        {tse::TimeFormat::UtcTime, t, "", true, t},
        {tse::TimeFormat::UtcTime, t, "", false, t - t % 60},
        {tse::TimeFormat::GeneralizedTime, t, "", true, t},
        {tse::TimeFormat::GeneralizedTime, t, "25", true, t},
    };
    for (const auto& type : types) {
        for (const auto& time : times) {
            tse::LogContent content{type.version,
                                    type.type,
                                    type.certifiedData,
                                    {},
                                    {},
                                    std::nullopt,
                                    9,
                                    tse::encodeLogTime(time.format, time.seconds, time.fraction, time.withSeconds)};
            if (type.type == tse::LogType::Audit) content.seAuditData = Bytes{0x30, 0x00};
            const tse::LogMessage m = parsed(signedLog(signer, tse::Hash::Sha384, content));
            const std::string where = tse::toHex(type.certifiedData) + " " + m.logTime.text;
            Fields fields;
            for (const tse::LogField& f : m.certifiedData) fields.emplace_back(f.name, tse::ByteView(f.value).text());
            EXPECT_EQ(fields, type.fields) << where;
            const tse::LogField* processData = m.field("processData");
            EXPECT_EQ(processData && processData->indefinite ? processData->chunks : 0, type.chunks) << where;
            EXPECT_EQ(std::make_pair(m.type, m.version), std::make_pair(type.type, type.version)) << where;
            EXPECT_EQ(m.seAuditData, content.seAuditData) << where;
            EXPECT_EQ(m.logTime.format, time.format) << where;
            EXPECT_EQ(m.logTime.seconds, time.expected) << where;
            EXPECT_EQ(m.logTime.fraction, time.fraction) << where;
            EXPECT_EQ(tse::verifyLog(m, signer.publicKey()).verdict, Verdict::Valid) << where;
        }
    }
}

TEST(CoreMessages, NumbersReadBackWhole)
{
    const tse::Signer signer(tse::Curve::Secp256r1);
    for (const uint64_t n :
         {uint64_t{0}, uint64_t{127}, uint64_t{128}, uint64_t{255}, uint64_t{256}, uint64_t{INT32_MAX},
          uint64_t{1} << 31, uint64_t{UINT32_MAX}, uint64_t{1} << 32, uint64_t{1} << 63, UINT64_MAX}) {
        tse::LogContent content = transaction(n);
        content.signatureCounter = n;
        const tse::LogMessage m = parsed(signedLog(signer, tse::Hash::Sha256, content));
        EXPECT_EQ(m.signatureCounter, n);
        EXPECT_EQ(m.transactionNumber(), n);
    }
    // UINT64_MAX takes nine octets, 00 FF...; one more significant bit is
    // an error, never a value cut to 64 bits. So is a unixTime beyond any
    // calendar.
    tse::LogContent content = transaction(UINT64_MAX);
    content.signatureCounter = UINT64_MAX;
    const Bytes log = signedLog(signer, tse::Hash::Sha256, content);
    for (const uint8_t tag : {uint8_t{0x85}, uint8_t{0x02}}) {
        const Bytes nine = {tag, 0x09, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
        Bytes wider = log;
        const auto at = std::search(wider.begin(), wider.end(), nine.begin(), nine.end());
        ASSERT_NE(at, wider.end());
        at[2] = 0x01;
        EXPECT_NE(tse::parseLogMessage(wider).error().message.find("wider than 64 bits"), std::string::npos);
    }
    content.logTime = tse::derUnsigned(0x02, UINT64_MAX);
    EXPECT_NE(
        tse::parseLogMessage(signedLog(signer, tse::Hash::Sha256, content)).error().message.find("beyond any calendar"),
        std::string::npos);
}

TEST(CoreMessages, EveryTruncationIsAClearError)
{
    const tse::Signer signer(tse::Curve::Secp256r1);
    tse::LogContent audit;
    audit.type = tse::LogType::Audit;
    audit.seAuditData = Bytes(200, 0x30);
    audit.logTime = tse::encodeLogTime(tse::TimeFormat::UtcTime, 1627903738);
    for (const Bytes& log : {signedLog(signer, tse::Hash::Sha256, transaction()),
                             signedLog(signer, tse::Hash::Sha256, transaction(7, {true, 5})),
                             signedLog(signer, tse::Hash::Sha256, audit)}) {
        for (size_t size = 0; size < log.size(); ++size) {
            const Bytes cut(log.begin(), log.begin() + static_cast<long>(size));  // exact size for ASan
            const tse::Result<tse::LogMessage> parse = tse::parseLogMessage(cut);
            ASSERT_FALSE(parse) << size;
            EXPECT_FALSE(parse.error().message.empty()) << size;
            ASSERT_TRUE(parse.error().offset) << size;
            EXPECT_LE(*parse.error().offset, size);
        }
        Bytes longer = log;
        longer.push_back(0);
        EXPECT_NE(tse::parseLogMessage(longer).error().message.find("1 octet follows"), std::string::npos);
    }
}

tse::Result<tse::PublicKey> keyOf(const tse::Certificate& certificate)
{
    return certificate.key();
}

// 02 or 03 for an even or odd Y, then X.
Bytes compressedPoint(const tse::PublicKey& key)
{
    const Bytes& full = key.point();
    const size_t half = key.curveInfo().fieldSize;
    Bytes point{static_cast<uint8_t>(0x02 | (full.back() & 1))};
    point.insert(point.end(), full.begin() + 1, full.begin() + 1 + static_cast<std::ptrdiff_t>(half));
    return point;
}

TEST(CoreKeys, EveryEncodingGivesTheTseKey)
{
    for (const tse::CurveInfo& curve : tse::supportedCurves()) {
        const tse::Signer signer(curve.curve);
        const tse::PublicKey& key = signer.publicKey();
        const std::string pem = signer.selfSignedCertificatePem("TSE", 1600000000, 365);
        const Bytes der = tse::loadCertificates(pem).value().at(0).der();
        unsigned char* spki = nullptr;
        const int spkiSize = i2d_PUBKEY(key.evpKey(), &spki);
        const Bytes spkiDer(spki, spki + spkiSize);
        OPENSSL_free(spki);
        const std::string spkiPem =
            "-----BEGIN PUBLIC KEY-----\n" + tse::toBase64(spkiDer) + "\n-----END PUBLIC KEY-----\n";
        const tse::Result<tse::PublicKey> results[] = {
            keyOf(tse::loadCertificates(pem).value().at(0)),
            keyOf(tse::loadCertificates(der).value().at(0)),
            tse::keyFromPoint(key.point()),
            tse::keyFromPoint(compressedPoint(key), curve.curve),
            tse::keyFromAnyEncoding(spkiDer),
            tse::keyFromSubjectPublicKeyInfo(spkiPem),
        };
        for (const tse::Result<tse::PublicKey>& result : results) {
            ASSERT_TRUE(result) << curve.displayName << ": " << result.error().message;
            EXPECT_EQ(result->serialNumber(), tse::sha256(key.point())) << curve.displayName;
            EXPECT_EQ(result->curve(), curve.curve);
        }
    }
}

// A compressed point alone names no curve: where both curves of its size
// hold it, the core says so instead of guessing.
TEST(CoreKeys, AmbiguousOrForeignKeysAreRefused)
{
    // Fixed points, so that the outcome does not hang on a random key: the
    // x coordinates SHA-256("0"), SHA-256("1"), ... in turn, each as an
    // even compressed point, until one lies on both 256-bit curves and one
    // on secp256r1 alone (about half of all x lie on a given curve).
    std::optional<Bytes> onBoth, onSecpOnly;
    for (int i = 0; i < 256 && !(onBoth && onSecpOnly); ++i) {
        Bytes point{0x02};
        const Bytes x = tse::sha256(tse::ByteView(std::to_string(i)));
        point.insert(point.end(), x.begin(), x.end());
        const bool secp = tse::keyFromPoint(point, tse::Curve::Secp256r1).has_value();
        const bool brainpool = tse::keyFromPoint(point, tse::Curve::BrainpoolP256r1).has_value();
        if (secp && brainpool && !onBoth) onBoth = point;
        if (secp && !brainpool && !onSecpOnly) onSecpOnly = point;
    }
    ASSERT_TRUE(onBoth && onSecpOnly);
    const tse::Result<tse::PublicKey> both = tse::keyFromPoint(*onBoth);
    EXPECT_FALSE(both);
    EXPECT_EQ(both.error().message, "the point lies on both brainpoolP256r1 and secp256r1; the curve must be named");
    const tse::Result<tse::PublicKey> named = tse::keyFromPoint(*onBoth, tse::Curve::BrainpoolP256r1);
    ASSERT_TRUE(named);
    EXPECT_EQ(named->curve(), tse::Curve::BrainpoolP256r1);
    const tse::Result<tse::PublicKey> unique = tse::keyFromPoint(*onSecpOnly);
    ASSERT_TRUE(unique) << unique.error().message;
    EXPECT_EQ(unique->curve(), tse::Curve::Secp256r1);
    EXPECT_EQ(unique->serialNumber(), tse::sha256(unique->point()));
    EXPECT_EQ(compressedPoint(*unique), *onSecpOnly);
    Bytes offCurve = tse::Signer(tse::Curve::Secp384r1).publicKey().point();
    offCurve.back() ^= 1;
    const tse::Certificate rsa = tse::loadCertificates(fixtures::rsaCertificatePem()).value().at(0);
    const std::pair<tse::Result<tse::PublicKey>, std::string> refused[] = {
        {tse::keyFromPoint(Bytes(10, 4)), "a public key point of 10 bytes starting with 0x04 fits no supported curve"},
        {tse::keyFromPoint(offCurve), "the point lies on none of the supported curves of its size"},
        {tse::keyFromAnyEncoding(Bytes{0x30, 0x03, 0x02, 0x01, 0x00}), "the data is not a SubjectPublicKeyInfo"},
        {keyOf(rsa), "the key is not an EC key"},
    };
    for (const auto& [result, error] : refused) {
        EXPECT_FALSE(result);
        EXPECT_EQ(result.error().message, error);
    }
}

// libcrypto's own EVP_DigestVerify over the same octets, with r || s turned
// into the DER form it expects.
bool libcryptoVerifies(const tse::PublicKey& key, tse::Hash hash, const Bytes& data, const Bytes& plain)
{
    const size_t half = plain.size() / 2;
    tse::EcdsaSigPtr signature(ECDSA_SIG_new());
    ECDSA_SIG_set0(signature.get(), BN_bin2bn(plain.data(), static_cast<int>(half), nullptr),
                   BN_bin2bn(plain.data() + half, static_cast<int>(half), nullptr));
    unsigned char* der = nullptr;
    const int derSize = i2d_ECDSA_SIG(signature.get(), &der);
    tse::EvpMdCtxPtr context(EVP_MD_CTX_new());
    const bool valid =
        EVP_DigestVerifyInit(context.get(), nullptr, tse::hashFunction(hash), nullptr, key.evpKey()) == 1 &&
        EVP_DigestVerify(context.get(), der, static_cast<size_t>(derSize), data.data(), data.size()) == 1;
    OPENSSL_free(der);
    return valid;
}

// Every curve with every hash, each signature as made, with a byte of it or
// of the data changed, or with an r beyond the group order.
TEST(CoreMessages, VerdictsAgreeWithLibcrypto)
{
    std::mt19937 random(20240601);
    std::vector<tse::Signer> signers;
    for (const tse::CurveInfo& curve : tse::supportedCurves()) signers.emplace_back(curve.curve);
    for (size_t round = 0; round < 8 * 6 * 8; ++round) {
        const tse::Signer& signer = signers[round % 6];
        const tse::Hash hash = tse::signatureAlgorithms()[round / 6 % 8].hash;
        tse::TransactionData data;
        data.processData.resize(random() % 300);
        for (uint8_t& octet : data.processData) octet = static_cast<uint8_t>(random());
        tse::LogContent content = transaction();
        content.certifiedData = tse::encodeTransactionData(data);
        content.signatureCounter = random();
        tse::LogMessage m = parsed(signedLog(signer, hash, content));
        Bytes& r = m.signatureValue;
        switch (round / 48 % 4) {
        case 0: r[random() % r.size()] ^= static_cast<uint8_t>(1 + random() % 255); break;
        case 1: m.signedOctets[random() % m.signedOctets.size()] ^= 0x10; break;
        case 2: std::fill(r.begin(), r.begin() + static_cast<long>(r.size() / 2), 0xFF); break;
        default: break;
        }
        const bool expected = libcryptoVerifies(signer.publicKey(), hash, m.signedOctets, r);
        EXPECT_EQ(expected, round / 48 % 4 == 3) << "round " << round;
        EXPECT_EQ(tse::verifyLog(m, signer.publicKey()).valid(), expected) << "round " << round;
    }
}

}  // namespace
