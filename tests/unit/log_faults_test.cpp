// Log messages with one fault each, written with the core's own DER writer:
// every one must be refused with words that name the fault, never read as
// good. Also the signature and chain checks a wrong input must not pass.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "ber.h"
#include "certificate.h"
#include "certificate_chain.h"
#include "der.h"
#include "log_message.h"
#include "log_time.h"
#include "oid.h"
#include "signature.h"
#include "signer.h"

namespace {

using tse::Bytes;

Bytes text(uint8_t number, const std::string& value)
{
    return tse::derElement(static_cast<uint8_t>(0x80 | number), tse::ByteView(value));
}

Bytes oid(const char* dotted)
{
    return tse::derElement(tse::tag::OID, tse::oidFromText(dotted).value());
}

// The parts of a transaction log, each an encoded element, so that a case
// changes one of them.
struct Parts {
    Bytes version = tse::derUnsigned(tse::tag::INTEGER, 2);
    Bytes type = oid("0.4.0.127.0.7.3.7.1.1");
    std::vector<Bytes> fields = {text(0, "FinishTransaction"), text(1, "K1"), text(2, "Beleg^1"),
                                 text(3, "Kassenbeleg-V1"), tse::derUnsigned(0x85, 7)};
    Bytes serial = tse::derElement(tse::tag::OCTET_STRING, Bytes(32, 0xAB));
    Bytes algorithm = tse::derElement(tse::tag::SEQUENCE, oid("0.4.0.127.0.7.1.1.4.1.3"));
    Bytes counter = tse::derUnsigned(tse::tag::INTEGER, 538);
    Bytes time = tse::derUnsigned(tse::tag::INTEGER, 1627903738);
    Bytes signature = tse::derElement(tse::tag::OCTET_STRING, Bytes(64, 0x11));
    Bytes after;  // anything after the signature, inside the message

    Bytes encoded() const
    {
        Bytes content = version;
        tse::append(content, type);
        for (const Bytes& field : fields) tse::append(content, field);
        for (const Bytes* part : {&serial, &algorithm, &counter, &time, &signature, &after}) {
            tse::append(content, *part);
        }
        return tse::derElement(tse::tag::SEQUENCE, content);
    }
};

TEST(LogFaults, EachFaultIsRefusedAndNamed)
{
    ASSERT_TRUE(tse::parseLogMessage(Parts{}.encoded())) << tse::parseLogMessage(Parts{}.encoded()).error().message;
    // processData in chunks, as D-Trust writes it, with a chunk of another
    // tag among them.
    Bytes foreignChunk = {0xA2, 0x80};
    tse::append(foreignChunk, tse::derElement(tse::tag::OCTET_STRING, tse::ByteView(std::string("Beleg"))));
    tse::append(foreignChunk, tse::derElement(0x0C, tse::ByteView(std::string("^1"))));
    tse::append(foreignChunk, Bytes{0x00, 0x00});

    struct Case {
        const char* name;
        void (*change)(Parts&, const Bytes&);
        const char* error;
    } cases[] = {
        {"no clientId", [](Parts& p, const Bytes&) { p.fields.erase(p.fields.begin() + 1); },
         "the transaction log has no clientId"},
        {"no transaction number", [](Parts& p, const Bytes&) { p.fields.pop_back(); },
         "the transaction log has no transactionNumber"},
        {"a repeated field", [](Parts& p, const Bytes&) { p.fields.insert(p.fields.begin() + 1, text(1, "K2")); },
         "clientId (0x81) is out of order or repeated"},
        {"fields out of order", [](Parts& p, const Bytes&) { std::swap(p.fields[1], p.fields[2]); },
         "clientId (0x81) is out of order or repeated"},
        {"an element after the signature",
         [](Parts& p, const Bytes&) { p.after = tse::derUnsigned(tse::tag::INTEGER, 1); },
         "an element follows the signatureValue"},
        {"version 4", [](Parts& p, const Bytes&) { p.version = tse::derUnsigned(tse::tag::INTEGER, 4); },
         "version 4 is neither 2 nor 3"},
        {"a chunk of another tag in processData", [](Parts& p, const Bytes& chunk) { p.fields[2] = chunk; },
         "instead of an OCTET STRING"},
        {"hour 24 in a UTCTime",
         [](Parts& p, const Bytes&) {
             p.time = tse::derElement(tse::tag::UTC_TIME, tse::ByteView(std::string("2108022400Z")));
         },
         "is not a valid date and time"},
        {"hour 24 in a GeneralizedTime",
         [](Parts& p, const Bytes&) {
             p.time = tse::derElement(tse::tag::GENERALIZED_TIME, tse::ByteView(std::string("20210802240000Z")));
         },
         "GeneralizedTime \"20210802240000Z\""},
    };
    for (const Case& c : cases) {
        Parts parts;
        c.change(parts, foreignChunk);
        const tse::Result<tse::LogMessage> parse = tse::parseLogMessage(parts.encoded());
        EXPECT_FALSE(parse) << c.name;
        EXPECT_NE(parse.error().message.find(c.error), std::string::npos) << c.name << ": " << parse.error().message;
    }
}

TEST(LogFaults, TimesOnTheEdgeOfTheDay)
{
    EXPECT_TRUE(tse::parseUtcTime("2108022359Z"));
    EXPECT_TRUE(tse::parseGeneralizedTime("20210802235959Z"));
    for (const char* wrong : {"2108022400Z", "2108022360Z", "210802235960Z"}) {
        EXPECT_FALSE(tse::parseUtcTime(wrong)) << wrong;
    }
    for (const char* wrong : {"20210802240000Z", "20210802236000Z", "20210230120000Z"}) {
        EXPECT_FALSE(tse::parseGeneralizedTime(wrong)) << wrong;
    }
}

TEST(LogFaults, ADerSignatureWithTrailingOctetsDoesNotHold)
{
    const tse::Signer signer(tse::Curve::Secp256r1);
    const Bytes data = {'l', 'o', 'g'};
    const Bytes der = signer.signDer(tse::Hash::Sha256, data);
    ASSERT_TRUE(tse::verifyDer(signer.publicKey(), tse::Hash::Sha256, data, der));
    for (const Bytes& trailing : {Bytes{0x00}, Bytes{0x00, 0x00}, Bytes{0x02, 0x01, 0x01}}) {
        Bytes longer = der;
        tse::append(longer, trailing);
        EXPECT_FALSE(tse::verifyDer(signer.publicKey(), tse::Hash::Sha256, data, longer)) << trailing.size();
        EXPECT_FALSE(tse::DecodedSignature::der(longer)) << trailing.size();
    }
}

// A certificate that names the CA as its issuer, but was signed by another
// key, has no chain to that CA.
TEST(LogFaults, AChainHoldsOnlyWhereTheIssuerSigned)
{
    const tse::Signer ca(tse::Curve::Secp256r1), impostor(tse::Curve::Secp256r1), device(tse::Curve::Secp256r1);
    const tse::Certificate caCertificate =
        tse::loadCertificates(ca.selfSignedCertificatePem("CA", 1600000000, 3650)).value().at(0);
    const auto issuedBy = [&](const tse::Signer& issuer) {
        return tse::loadCertificates(device.issuedCertificatePem("TSE", issuer, "CA", 1600000000, 3650)).value().at(0);
    };
    tse::CertificatePool pool;
    pool.add(caCertificate, true);
    EXPECT_EQ(pool.judge(issuedBy(ca)).status, tse::ChainStatus::Trusted);
    const tse::ChainJudgement forged = pool.judge(issuedBy(impostor));
    EXPECT_EQ(forged.status, tse::ChainStatus::Invalid);
    EXPECT_NE(forged.reason.find("does not hold with the key of"), std::string::npos) << forged.reason;
}

}  // namespace
