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
#include "openssl_ptr.h"
#include "public_key.h"
#include "signer.h"
#include "verify.h"

namespace {

using tse::Bytes;
using tse::Verdict;

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

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
    tse::LogParse parse = tse::parseLogMessage(log);
    if (!parse.message) throw std::runtime_error(parse.error + " @" + std::to_string(parse.errorOffset));
    return *parse.message;
}

Verdict verdict(const Bytes& log, const tse::PublicKey& key) { return tse::verifyLog(parsed(log), key).verdict; }

TEST(CoreMessages, EveryCurveAndHashVerifies)
{
    for (const tse::CurveInfo& curve : tse::supportedCurves()) {
        const tse::Signer signer(curve.curve);
        for (const tse::SignatureAlgorithm& algorithm : tse::signatureAlgorithms()) {
            if (!algorithm.supported) continue;
            Bytes log = signedLog(signer, algorithm.hash, transaction());
            EXPECT_EQ(verdict(log, signer.publicKey()), Verdict::Valid) << curve.displayName << algorithm.name;
            log[log.size() - curve.fieldSize] ^= 1;  // the signature's s
            EXPECT_EQ(verdict(log, signer.publicKey()), Verdict::Invalid) << curve.displayName << algorithm.name;
        }
    }
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
        {"0.4.0.127.0.7.1.1.4.4.3", [](tse::LogMessage&) {}, false, Verdict::UnsupportedAlgorithm, "ecsdsa-plain-SHA384"},
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

TEST(CoreMessages, EveryLogTypeAndTimeFormReadsBack)
{
    const tse::Signer signer(tse::Curve::BrainpoolP384r1);
    using Fields = std::vector<std::pair<std::string, std::string>>;
    Bytes v3 = tse::derElement(0x80, text("updateTime"));
    for (const Bytes& element : {tse::derElement(0x81, text("SMA")), tse::derElement(0x82, text("admin")),
                                 tse::derElement(0xA3, tse::derElement(0x04, text("\x01\x02"))),
                                 tse::derElement(0x84, text("\xFF"))}) {
        tse::append(v3, element);
    }
    tse::LogContent full = transaction();
    tse::TransactionData data{"StartTransaction", "K1", text("p"), std::nullopt, Bytes{0xAB}, 1, {}};
    full.certifiedData = tse::encodeTransactionData(data);
    tse::append(full.certifiedData, tse::derElement(0x86, Bytes{0xCD}));
    const struct {
        uint64_t version;
        tse::LogType type;
        Bytes certifiedData;
        Fields fields;
    } types[] = {
        {2, tse::LogType::Transaction, full.certifiedData,
         {{"operationType", "StartTransaction"}, {"clientId", "K1"}, {"processData", "p"},
          {"additionalExternalData", "\xAB"}, {"transactionNumber", "\x01"}, {"additionalInternalData", "\xCD"}}},
        {2, tse::LogType::System, tse::encodeSystemData({"updateTime", Bytes{1, 2}}),
         {{"operationType", "updateTime"}, {"systemOperationData", "\x01\x02"}}},
        {3, tse::LogType::System, v3,
         {{"eventType", "updateTime"}, {"eventOrigin", "SMA"}, {"eventTriggeredByUser", "admin"},
          {"eventData", "\x04\x02\x01\x02"}, {"additionalInternalData", "\xFF"}}},
        {2, tse::LogType::Audit, {}, {}},
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
            tse::LogContent content;
            content.version = type.version;
            content.type = type.type;
            content.certifiedData = type.certifiedData;
            if (type.type == tse::LogType::Audit) content.seAuditData = Bytes{0x30, 0x00};
            content.signatureCounter = 9;
            content.logTime = tse::encodeLogTime(time.format, time.seconds, time.fraction, time.withSeconds);
            const Bytes log = signedLog(signer, tse::Hash::Sha384, content);
            const tse::LogMessage m = parsed(log);
            const std::string where = std::string(tse::logTypeName(type.type)) + " v" +
                                      std::to_string(type.version) + " " + m.logTime.text;
            Fields fields;
            for (const tse::LogField& f : m.certifiedData) fields.emplace_back(f.name, tse::ByteView(f.value).text());
            EXPECT_EQ(fields, type.fields) << where;
            EXPECT_EQ(m.type, type.type) << where;
            EXPECT_EQ(m.version, type.version) << where;
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
    for (const uint64_t n : {uint64_t{0}, uint64_t{127}, uint64_t{128}, uint64_t{255}, uint64_t{256},
                             uint64_t{INT32_MAX}, uint64_t{1} << 31, uint64_t{UINT32_MAX}, uint64_t{1} << 32,
                             uint64_t{1} << 63, UINT64_MAX}) {
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
        EXPECT_NE(tse::parseLogMessage(wider).error.find("wider than 64 bits"), std::string::npos);
    }
    content.logTime = tse::derUnsigned(0x02, UINT64_MAX);
    EXPECT_NE(tse::parseLogMessage(signedLog(signer, tse::Hash::Sha256, content)).error.find("beyond any calendar"),
              std::string::npos);
}

TEST(CoreMessages, IndefiniteProcessDataIsSignedAsStored)
{
    const tse::Signer signer(tse::Curve::Secp384r1);
    Bytes nested = {0xA2, 0x80, 0x24, 0x80, 0x04, 0x02, 'a', 'b', 0x04, 0x01, 'c', 0x00, 0x00, 0x04, 0x01, 'd', 0x00, 0x00};
    tse::LogContent nestedContent = transaction();
    nestedContent.certifiedData = tse::derElement(0x80, text("FinishTransaction"));
    tse::append(nestedContent.certifiedData, tse::derElement(0x81, text("K1")));
    tse::append(nestedContent.certifiedData, nested);
    tse::append(nestedContent.certifiedData, tse::derUnsigned(0x85, 1));
    const struct {
        tse::LogContent content;
        std::string value;
        size_t chunks;
    } cases[] = {
        {transaction(7, {true, 0}), "Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar", 1},
        {transaction(7, {true, 4}), "Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar", 10},
        {nestedContent, "abcd", 3},
    };
    for (const auto& c : cases) {
        const tse::LogMessage m = parsed(signedLog(signer, tse::Hash::Sha384, c.content));
        const tse::LogField* processData = m.field("processData");
        ASSERT_NE(processData, nullptr);
        EXPECT_EQ(tse::ByteView(processData->value).text(), c.value);
        EXPECT_TRUE(processData->indefinite);
        EXPECT_EQ(processData->chunks, c.chunks);
        EXPECT_EQ(tse::verifyLog(m, signer.publicKey()).verdict, Verdict::Valid) << c.value;
    }
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
            const tse::LogParse parse = tse::parseLogMessage(cut);
            EXPECT_FALSE(parse.message) << size;
            EXPECT_FALSE(parse.error.empty()) << size;
            EXPECT_LE(parse.errorOffset, size);
        }
        Bytes longer = log;
        longer.push_back(0);
        EXPECT_NE(tse::parseLogMessage(longer).error.find("1 octets follow"), std::string::npos);
    }
}

TEST(CoreKeys, EveryEncodingGivesTheTseKey)
{
    for (const tse::CurveInfo& curve : tse::supportedCurves()) {
        const tse::Signer signer(curve.curve);
        const tse::PublicKey& key = signer.publicKey();
        const std::string pem = signer.selfSignedCertificatePem("TSE", 1600000000, 365);
        const Bytes der = tse::loadCertificates(pem).certificates.at(0).der();
        unsigned char* spki = nullptr;
        const int spkiSize = i2d_PUBKEY(key.evpKey(), &spki);
        const Bytes spkiDer(spki, spki + spkiSize);
        OPENSSL_free(spki);
        const std::string spkiPem = "-----BEGIN PUBLIC KEY-----\n" + tse::toBase64(spkiDer) + "\n-----END PUBLIC KEY-----\n";
        Bytes compressed(1 + curve.fieldSize);
        EC_POINT_point2oct(EC_KEY_get0_group(key.ecKey()), EC_KEY_get0_public_key(key.ecKey()),
                           POINT_CONVERSION_COMPRESSED, compressed.data(), compressed.size(), nullptr);
        const std::vector<std::pair<std::string, tse::KeyResult>> results = {
            {"PEM certificate", {tse::loadCertificates(pem).certificates.at(0).key(), ""}},
            {"DER certificate", {tse::loadCertificates(der).certificates.at(0).key(), ""}},
            {"point", tse::keyFromPoint(key.point())},
            {"compressed point on its curve", tse::keyFromPoint(compressed, curve.curve)},
            {"SPKI DER", tse::keyFromAnyEncoding(spkiDer)},
            {"SPKI PEM", tse::keyFromSubjectPublicKeyInfo(spkiPem)},
        };
        for (const auto& [encoding, result] : results) {
            ASSERT_TRUE(result.key) << curve.displayName << " " << encoding << ": " << result.error;
            EXPECT_EQ(result.key->serialNumber(), tse::sha256(key.point())) << encoding;
            EXPECT_EQ(result.key->curve(), curve.curve) << encoding;
        }
    }
}

// A compressed point alone names no curve: where both curves of its size
// hold it, the core says so instead of guessing.
TEST(CoreKeys, CompressedPointsAreNeverGuessed)
{
    bool ambiguous = false, unique = false;
    for (int i = 0; i < 64 && !(ambiguous && unique); ++i) {
        const tse::Signer signer(tse::Curve::Secp256r1);
        Bytes compressed(33);
        EC_POINT_point2oct(EC_KEY_get0_group(signer.publicKey().ecKey()), EC_KEY_get0_public_key(signer.publicKey().ecKey()),
                           POINT_CONVERSION_COMPRESSED, compressed.data(), compressed.size(), nullptr);
        const tse::KeyResult result = tse::keyFromPoint(compressed);
        if (result.key) {
            unique = true;
            EXPECT_EQ(result.key->serialNumber(), signer.publicKey().serialNumber());
        } else {
            ambiguous = true;
            EXPECT_EQ(result.error, "the point lies on both brainpoolP256r1 and secp256r1; the curve must be named");
        }
    }
    EXPECT_TRUE(ambiguous && unique);
    Bytes offCurve = tse::Signer(tse::Curve::Secp384r1).publicKey().point();
    offCurve.back() ^= 1;
    const struct {
        tse::KeyResult result;
        std::string error;
    } refused[] = {
        {tse::keyFromPoint(Bytes(10, 4)), "a public key point of 10 bytes starting with 0x04 fits no supported curve"},
        {tse::keyFromPoint(offCurve), "the point lies on none of the supported curves of its size"},
        {tse::keyFromAnyEncoding(Bytes{0x30, 0x03, 0x02, 0x01, 0x00}), "the data is not a SubjectPublicKeyInfo"},
        {{tse::loadCertificates(fixtures::rsaCertificatePem()).certificates.at(0).key(),
          tse::loadCertificates(fixtures::rsaCertificatePem()).certificates.at(0).keyError()},
         "the key is not an EC key"},
    };
    for (const auto& c : refused) {
        EXPECT_FALSE(c.result.key);
        EXPECT_EQ(c.result.error, c.error);
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
    const bool valid = EVP_DigestVerifyInit(context.get(), nullptr, tse::hashFunction(hash), nullptr, key.evpKey()) == 1 &&
                       EVP_DigestVerify(context.get(), der, static_cast<size_t>(derSize), data.data(), data.size()) == 1;
    OPENSSL_free(der);
    return valid;
}

TEST(CoreMessages, VerdictsAgreeWithLibcrypto)
{
    std::mt19937 random(20240601);
    std::vector<tse::Signer> signers;
    for (const tse::CurveInfo& curve : tse::supportedCurves()) signers.emplace_back(curve.curve);
    int valid = 0;
    for (int round = 0; round < 300; ++round) {
        const tse::Signer& signer = signers[random() % signers.size()];
        const tse::Hash hash = tse::signatureAlgorithms()[random() % 8].hash;
        tse::TransactionData data;
        data.processData.resize(random() % 300);
        for (uint8_t& octet : data.processData) octet = static_cast<uint8_t>(random());
        tse::LogContent content = transaction();
        content.certifiedData = tse::encodeTransactionData(data);
        content.signatureCounter = random();
        tse::LogMessage m = parsed(signedLog(signer, hash, content));
        switch (random() % 4) {
        case 0: m.signatureValue[random() % m.signatureValue.size()] ^= static_cast<uint8_t>(1 + random() % 255); break;
        case 1: m.signedOctets[random() % m.signedOctets.size()] ^= 0x10; break;
        case 2: std::fill(m.signatureValue.begin(), m.signatureValue.begin() + m.signatureValue.size() / 2, 0xFF); break;
        default: break;
        }
        const bool expected = libcryptoVerifies(signer.publicKey(), hash, m.signedOctets, m.signatureValue);
        valid += expected;
        EXPECT_EQ(tse::verifyLog(m, signer.publicKey()).valid(), expected) << "round " << round;
    }
    EXPECT_GT(valid, 50);
}

}  // namespace
