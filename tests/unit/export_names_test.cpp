// The parts of an export audit that read names and small files: TSE log
// file names, certificate names, unsafe member names, info.csv, and the
// chain status of self-signed certificates.
#include <gtest/gtest.h>

#include "certificate_chain.h"
#include "export_names.h"
#include "info_csv.h"
#include "signer.h"

namespace {

TEST(ExportNames, LogNames)
{
    struct Case {
        std::string name;
        bool parses;
        tse::LogType type;
        uint64_t counter;
        std::string operation, client;
    };
    using tse::LogType;
    for (const Case& c : std::vector<Case>{
             {"Unixt_1627903738_Sig-1207_Log-Tra_No-538_Finish_Client-K1.log", true, LogType::Transaction, 1207,
              "Finish", "K1"},
             {"./x/Utc_181109153045Z_Sig-15_Log-Tra_No-7_Start_Client-137741-0007 Hioneu_Fc-2.log", true,
              LogType::Transaction, 15, "Start", "137741-0007 Hioneu"},
             {"Gent_20181109084236Z_Sig-1743_Log-Sys_UpdateTime.log", true, LogType::System, 1743, "UpdateTime", ""},
             {"Unixt_1634636121_Sig-1_Log-Aud.log", true, LogType::Audit, 1, "", ""},
             {"Unixt_1634636121_Sig-x_Log-Aud.log", false, LogType::Audit, 0, "", ""},
             {"Local_1634636121_Sig-1_Log-Aud.log", false, LogType::Audit, 0, "", ""},
             {"Unixt_1_Sig-1_Log-Tra_No-1_Start.log", false, LogType::Transaction, 0, "", ""},
             {"Unixt_1_Sig-99999999999999999999_Log-Aud.log", false, LogType::Audit, 0, "", ""},
             // Some TSEs write "Unix" for the unixTime prefix.
             {"Unix_1627903738_Sig-1207_Log-Tra_No-538_Finish_Client-K1.log", true, LogType::Transaction, 1207,
              "Finish", "K1"},
             // An underscore after "_Client-" belongs to the client ID; anywhere
             // else, a part too many is no TSE's name.
             {"Unixt_1_Sig-3_Log-Tra_No-1_Start_Client-K_1_Fc-2.log", true, LogType::Transaction, 3, "Start", "K_1"},
             {"Unixt_1_Sig-3_Log-Tra_No-1_Start_x_Client-K1.log", false, LogType::Transaction, 0, "", ""},
             {"Unixt_1_Sig-3_x_Log-Tra_No-1_Start_Client-K1.log", false, LogType::Transaction, 0, "", ""},
             {"Gent_20181109084236Z_Sig-1743_Log-Sys_UpdateTime_x.log", false, LogType::System, 0, "", ""},
             {"Unixt_1634636121_Sig-1_Log-Aud_x.log", false, LogType::Audit, 0, "", ""}}) {
        SCOPED_TRACE(c.name);
        const auto name = tse::parseLogName(c.name);
        ASSERT_EQ(name.has_value(), c.parses);
        if (!name) continue;
        EXPECT_EQ(name->type, c.type);
        EXPECT_EQ(name->counter, c.counter);
        EXPECT_EQ(name->operation, c.operation);
        EXPECT_EQ(name->clientId, c.client);
    }
}

TEST(ExportNames, MemberKindsAndUnsafeNames)
{
    using tse::MemberKind;
    EXPECT_EQ(tse::classifyMember("./ABCD_X509_Fc-1.crt"), MemberKind::Certificate);
    EXPECT_EQ(tse::certificateNameSerial("abcd_X509.PEM"), "abcd");
    EXPECT_EQ(tse::classifyMember("abcd_X509.txt"), MemberKind::Other);
    for (const char* other : {"abcd_X509extra.pem", "abcd_X509_extra.pem", "abcdX509.pem", "_X509x.crt"}) {
        EXPECT_EQ(tse::certificateNameSerial(other), std::nullopt) << other;
        EXPECT_EQ(tse::classifyMember(other), MemberKind::Other) << other;
    }
    EXPECT_EQ(tse::classifyMember("dir/info.csv"), MemberKind::Info);
    for (const char* unsafe : {"../a.log", "/etc/passwd", "a/../../b.log", ""})
        EXPECT_TRUE(tse::unsafeMemberName(unsafe));
    for (const char* safe : {"./a.log", "a..b.log", "x/y.log"}) EXPECT_FALSE(tse::unsafeMemberName(safe));
}

TEST(InfoCsv, BothFormsAndQuoting)
{
    const auto single = tse::parseInfoCsv(
        std::string("\"description:\", Applause Cafe 35, \"manufacturer:\",\"a \"\"b\"\", c\",\"version:\",0.1.0"));
    ASSERT_TRUE(single) << single.error().message;
    EXPECT_FALSE(single->perComponent);
    EXPECT_EQ(
        single->records.at(0),
        (tse::InfoRecord{{"description", "Applause Cafe 35"}, {"manufacturer", "a \"b\", c"}, {"version", "0.1.0"}}));
    const auto components = tse::parseInfoCsv(std::string(
        "\"component:\",\"device\",\"manufacturer:\",\"M\",\"model:\",\"X\",\"version:\",\"1\",\"certification-id:\",\"C\"\r\n"
        "\"description:\",\"d\",,,,,,,,\n"));
    ASSERT_TRUE(components) << components.error().message;
    EXPECT_TRUE(components->perComponent);
    EXPECT_EQ(components->records.size(), 2u);
    EXPECT_EQ(components->records[1], (tse::InfoRecord{{"description", "d"}}));
    for (const char* bad : {"\"description:,x", "loose,\"version:\",1", ""})
        EXPECT_FALSE(tse::parseInfoCsv(std::string(bad))) << bad;
    // Quotes keep the blanks inside them, in the middle of a line and at the
    // end of the text; bare fields lose theirs.
    const auto blanks = tse::parseInfoCsv(std::string("\"model:\",\"  X 1 \", version: , 2 \n\"serial:\",\" 0815 \""));
    ASSERT_TRUE(blanks) << blanks.error().message;
    EXPECT_EQ(blanks->records.at(0), (tse::InfoRecord{{"model", "  X 1 "}, {"version", "2"}}));
    EXPECT_EQ(blanks->records.at(1), (tse::InfoRecord{{"serial", " 0815 "}}));
}

TEST(CertificateChain, SelfSignedRootsAndTampering)
{
    const tse::Signer signer(tse::Curve::BrainpoolP384r1);
    const std::string pem = signer.selfSignedCertificatePem("Root", 1600000000, 3650);
    const tse::Certificate root = tse::loadCertificates(pem).value().at(0);
    tse::Bytes tampered = root.der();
    tampered[tampered.size() - 5] ^= 0x01;  // inside the signature
    const tse::Certificate broken = tse::loadCertificates(tampered).value().at(0);

    tse::CertificatePool pool;
    pool.add(root, false);
    EXPECT_EQ(pool.judge(root).status, tse::ChainStatus::UntrustedRoot);
    EXPECT_EQ(pool.judge(broken).status, tse::ChainStatus::Invalid);
    pool.add(root, true);
    EXPECT_EQ(pool.judge(root).status, tse::ChainStatus::Trusted);
}

}  // namespace
