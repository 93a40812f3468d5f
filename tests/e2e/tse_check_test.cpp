// tse-check run as users run it: on the real exports, and on logs and
// certificates of TSEs made at test time.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "certificate.h"
#include "der.h"
#include "fixtures.h"
#include "log_encoder.h"
#include "signer.h"

using fixtures::run;
using fixtures::tseCheckPath;
using tse::Bytes;
using Args = std::vector<std::string>;
using Json = nlohmann::json;

namespace {

const std::string kSoftwareUpdate = "softwareUpdate";

Args logsIn(const std::string& directory)
{
    Args logs;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().extension() == ".log") logs.push_back(entry.path().string());
    }
    std::sort(logs.begin(), logs.end());
    return logs;
}

Args concat(Args a, const Args& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// "name: value" lines as tse-check read prints them.
std::map<std::string, std::string> fieldsOf(const std::string& output)
{
    std::map<std::string, std::string> fields;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        fields[line.substr(0, line.find(": "))] = line.substr(line.find(": ") + 2);
    }
    return fields;
}

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

tse::LogContent
transaction(tse::TransactionData data = {"FinishTransaction", "K1", {'B', '^', '1'}, "Kassenbeleg-V1", {}, 7, {}},
            tse::TimeFormat format = tse::TimeFormat::UnixTime, uint64_t counter = 538)
{
    tse::LogContent content;
    content.certifiedData = tse::encodeTransactionData(data);
    content.signatureCounter = counter;
    content.logTime = tse::encodeLogTime(format, 1627903738);
    return content;
}

// A TSE made at test time: its key, certificate and signed logs.
struct Tse {
    tse::Signer signer;
    tse::Hash hash;
    explicit Tse(tse::Curve curve = tse::Curve::Secp256r1, tse::Hash h = tse::Hash::Sha256) : signer(curve), hash(h) {}

    std::string serial() const { return tse::toHex(signer.publicKey().serialNumber()); }
    std::string pem() const { return signer.selfSignedCertificatePem("TSE", 1600000000, 3650); }
    Bytes der() const { return tse::loadCertificates(pem()).value().at(0).der(); }
    Bytes log(tse::LogContent content = transaction()) const
    {
        content.serialNumber = signer.publicKey().serialNumber();
        content.algorithmOid = tse::ecdsaPlain(hash).oid;
        const Bytes octets = tse::encodeSignedOctets(content);
        return tse::encodeLogMessage(octets, signer.signPlain(hash, octets));
    }
};

TEST(TseCheck, RealExportsVerifyAndRead)
{
    const struct {
        std::string name;
        size_t logs;
        std::string algorithm, timeFormat;
        std::set<std::string> types;
    } exports[] = {
        {"6e6c6a42-5c8d-4a9c-9572-26c10619d020", 10, "ecdsa-plain-SHA384", "unixTime", {"system", "transaction"}},
        {"logMessages1", 17, "ecdsa-plain-SHA384", "unixTime", {"audit", "system", "transaction"}},
        {kSoftwareUpdate, 25, "ecdsa-plain-SHA384", "unixTime", {"audit", "system"}},
        {"2021-09-30_63641_TSE", 141, "ecdsa-plain-SHA256", "unixTime", {"system", "transaction"}},
        {"TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015",
         155,
         "ecdsa-plain-SHA256",
         "utcTime",
         {"transaction"}},
    };
    fixtures::TempDir dir;
    for (const auto& e : exports) {
        const Args logs = logsIn(fixtures::unpackRealExport(dir, e.name));
        const auto result = run(tseCheckPath(), concat({"verify", "--json"}, logs));
        EXPECT_EQ(result.status, e.name == kSoftwareUpdate ? 1 : 0) << e.name << result.err;
        const Json document = Json::parse(result.out);
        ASSERT_EQ(document.size(), e.logs) << e.name;
        std::set<std::string> types;
        for (size_t i = 0; i < logs.size(); ++i) {
            const Json& entry = document[i];
            const uint64_t counter = entry["signatureCounter"];
            const bool broken = e.name == kSoftwareUpdate && counter >= 4 && counter <= 19;
            EXPECT_EQ(entry["file"], logs[i]);
            EXPECT_EQ(entry["verdict"], broken ? "invalid" : "valid") << logs[i] << entry["reason"];
            EXPECT_EQ(entry["signatureAlgorithm"], e.algorithm) << logs[i];
            EXPECT_EQ(entry["logTimeFormat"], e.timeFormat) << logs[i];
            types.insert(entry["type"].get<std::string>());
        }
        EXPECT_EQ(types, e.types) << e.name;
        // read shows one log of each kind of name (log type, operation,
        // client: the name with its numbers left out); verify above has
        // parsed every log.
        std::set<std::string> kinds;
        for (const std::string& log : logs) {
            std::string kind = std::filesystem::path(log).filename().string();
            kind.erase(std::remove_if(kind.begin(), kind.end(), [](char c) { return c >= '0' && c <= '9'; }),
                       kind.end());
            if (!kinds.insert(kind).second) continue;
            const auto read = run(tseCheckPath(), {"read", log});
            EXPECT_EQ(read.status, 0) << log << read.err;
        }
        EXPECT_GE(kinds.size(), e.types.size()) << e.name;
    }
}

TEST(TseCheck, VerifyFindsCertificatesAndReportsEachLog)
{
    const Tse a, b(tse::Curve::BrainpoolP384r1, tse::Hash::Sha384);
    fixtures::TempDir dir;
    // Export directories: a certificate beside the log under every name and
    // content a TSE export uses.
    Args named;
    const char* extensions[] = {".pem", ".cer", ".crt", ".der"};
    for (int i = 0; i < 8; ++i) {
        const std::string sub = "export" + std::to_string(i);
        std::filesystem::create_directory(dir.path(sub));
        const std::string name = sub + "/" + a.serial() + (i % 3 ? "_X509" : "_X509_Fc-1") + extensions[i % 4];
        i < 4 ? dir.write(name, a.pem()) : dir.write(name, a.der());
        named.push_back(dir.write(sub + "/log.log", a.log()));
    }
    dir.write("export0/" + b.serial() + "_X509.crt", b.der());
    const std::string aLog = named[0], bLog = dir.write("export0/b.log", b.log());
    Bytes tampered = a.log();
    tampered[tampered.size() - 5] ^= 1;
    const std::string tamperedLog = dir.write("export0/tampered.log", tampered);
    const std::string alone = dir.write("alone.log", a.log());
    const std::string garbage = dir.write("garbage.log", Bytes{0x30, 0x03, 0x02, 0x01});
    const std::string aPem = dir.write("a.pem", a.pem()), bDer = dir.write("b.der", b.der());
    const struct {
        Args args;
        int status;
        std::vector<std::string> verdicts;  // the first word of each line
        std::string error;                  // part of standard error
    } cases[] = {
        {concat({"verify"}, named), 0, std::vector<std::string>(8, "VALID"), ""},
        {{"verify", aLog, bLog, tamperedLog, alone}, 1, {"VALID", "VALID", "INVALID", "NO-CERTIFICATE"}, ""},
        {{"verify", aLog, garbage, dir.path("missing.log")}, 2, {"VALID", "UNREADABLE", "UNREADABLE"}, ""},
        {{"verify", "--cert", bDer, "--cert", aPem, alone, bLog}, 0, {"VALID", "VALID"}, ""},
        {{"verify", "--cert", bDer, aLog}, 1, {"NO-CERTIFICATE"}, ""},
        {{"verify", "--cert", dir.path("none.pem"), aLog},
         2,
         {},
         "[ERROR] Certificate " + dir.path("none.pem") + " does not exist"},
        {{"verify", "--cert", garbage, aLog}, 2, {}, "holds no certificate"},
        {{"verify"}, 2, {}, "LOGFILE is required"},
    };
    for (const auto& c : cases) {
        const auto result = run(tseCheckPath(), c.args);
        EXPECT_EQ(result.status, c.status) << c.args.back() << result.err;
        const std::vector<std::string> lines = split(result.out, '\n');
        std::vector<std::string> verdicts;
        for (const std::string& line : lines) verdicts.push_back(line.substr(0, line.find(' ')));
        EXPECT_EQ(verdicts, c.verdicts) << result.out;
        for (size_t i = 0; i < lines.size(); ++i) {  // the file column is aligned, in the order given
            EXPECT_EQ(lines[i].find(c.args[c.args.size() - lines.size() + i]), lines[0].find('/')) << lines[i];
        }
        EXPECT_NE(result.err.find(c.error), std::string::npos) << result.err;
    }

    // An operation type that is no UTF-8 still gives a JSON document, with
    // the byte escaped as everywhere else, not lost.
    const std::string odd = dir.write("export0/odd.log", a.log(transaction({"\xFF", "K1", {'p'}, {}, {}, 1, {}})));
    const auto result = run(tseCheckPath(), {"verify", "--json", aLog, tamperedLog, garbage, odd});
    EXPECT_EQ(result.status, 2);
    const Json document = Json::parse(result.out);
    ASSERT_EQ(document.size(), 4u);
    EXPECT_EQ(document[3]["operationType"], "\\xFF");
    EXPECT_EQ(document[3]["verdict"], "valid");
    EXPECT_EQ(document[0]["file"], aLog);
    EXPECT_EQ(document[0]["verdict"], "valid");
    EXPECT_EQ(document[0]["type"], "transaction");
    EXPECT_EQ(document[0]["signatureCounter"], 538);
    EXPECT_EQ(document[0]["signatureAlgorithm"], "ecdsa-plain-SHA256");
    EXPECT_EQ(document[0]["logTime"], "2021-08-02T11:28:58.000Z");
    EXPECT_EQ(document[0]["serialNumber"], a.serial());
    EXPECT_TRUE(document[0]["reason"].is_null());
    EXPECT_EQ(document[1]["verdict"], "invalid");
    EXPECT_NE(document[1]["reason"].get<std::string>().find("does not match"), std::string::npos);
    EXPECT_EQ(document[2]["verdict"], "unreadable");
    EXPECT_TRUE(document[2]["type"].is_null());
    EXPECT_EQ(document[2]["reason"], "element 0x30 announces 3 content octets, but only 2 remain (at byte 0)");
}

TEST(TseCheck, ReadShowsEveryElementOnItsOwnLine)
{
    const Tse tse(tse::Curve::BrainpoolP256r1);
    fixtures::TempDir dir;
    tse::LogContent system;
    system.version = 3;
    system.type = tse::LogType::System;
    system.certifiedData = tse::derElement(0x80, Bytes{'u', 'p', '\n', 0x1B, '['});
    tse::append(system.certifiedData, tse::derElement(0xA3, Bytes{0x04, 0x01, 0xAB}));
    system.logTime = tse::encodeLogTime(tse::TimeFormat::GeneralizedTime, 1627903738, "5");
    tse::LogContent audit;
    audit.type = tse::LogType::Audit;
    audit.seAuditData = Bytes{0xDE, 0xAD, 0xBE, 0xEF};
    audit.signatureCounter = UINT64_MAX;
    audit.logTime = tse::encodeLogTime(tse::TimeFormat::UtcTime, 1627903738, "", false);
    const struct {
        tse::LogContent content;
        std::map<std::string, std::string> expected;
    } cases[] = {
        {system,
         {{"logType", "system"},
          {"version", "3"},
          {"eventType", "up\\n\\x1B["},
          {"eventData", "0401AB"},
          {"logTime", "2021-08-02T11:28:58.500Z"},
          {"logTimeFormat", "generalizedTime"}}},
        {audit,
         {{"logType", "audit"},
          {"seAuditData", "DEADBEEF"},
          {"signatureCounter", "18446744073709551615"},
          {"logTime", "2021-08-02T11:28:00.000Z"},
          {"logTimeEncoded", "2108021128Z"}}},
        {transaction({"FinishTransaction", "K1", {'p'}, std::nullopt, Bytes{0x0F}, UINT64_MAX, {true, 0}}),
         {{"transactionNumber", "18446744073709551615"},
          {"additionalExternalData", "0F"},
          {"signatureAlgorithm", "ecdsa-plain-SHA256 (0.4.0.127.0.7.1.1.4.1.3)"},
          {"processDataEncoding", "indefinite length, 1 chunk"}}},
    };
    for (const auto& c : cases) {
        const auto result = run(tseCheckPath(), {"read", dir.write("x.log", tse.log(c.content))});
        EXPECT_EQ(result.status, 0) << result.err;
        const auto fields = fieldsOf(result.out);
        for (const auto& [name, value] : c.expected)
            EXPECT_EQ(fields.count(name) ? fields.at(name) : "(none)", value) << name;
        EXPECT_EQ(fields.at("serialNumber"), tse.serial());
    }
    // A transaction log keeps the nine lines tse-check always printed first.
    const auto result = run(tseCheckPath(), {"read", dir.write("t.log", tse.log())});
    std::string names;
    for (const std::string& line : split(result.out, '\n')) names += line.substr(0, line.find(':')) + " ";
    const std::string nine = "operationType clientId processData processType transactionNumber signatureCounter "
                             "logTime serialNumber signature ";
    EXPECT_EQ(names.substr(0, nine.size()), nine);
    const std::string broken = dir.write("broken.log", Bytes{0x30, 0x06, 0x02, 0x01, 0x05, 0x06, 0x01, 0x00});
    const auto refused = run(tseCheckPath(), {"read", broken});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.err, "[ERROR] Log file " + broken +
                               " cannot be read as a log message: version 5 is neither 2 nor 3 (at byte 2)\n");
}

TEST(TseCheck, ToQrForEveryAlgorithmAndTimeForm)
{
    const Tse p256, bp384(tse::Curve::BrainpoolP384r1, tse::Hash::Sha384);
    fixtures::TempDir dir;
    const std::string p256Cert = dir.write("p256.pem", p256.pem()), bp384Cert = dir.write("bp384.crt", bp384.der());
    const std::string unix256 = dir.write("unix.log", p256.log());
    const tse::TransactionData small{"FinishTransaction", "K1", {'p'}, "PT", {}, 1, {}};
    const std::string utc256 = dir.write("utc.log", p256.log(transaction(small, tse::TimeFormat::UtcTime)));
    // Numbers at their width limits, and a processData longer than 255 octets.
    const tse::TransactionData wide{
        "FinishTransaction", std::string(200, 'c'), Bytes(1000, 'p'), "\xC3\xA4", {}, UINT32_MAX, {}};
    const std::string bp = dir.write("bp.log", bp384.log(transaction(wide, tse::TimeFormat::UnixTime, 2147483648u)));
    tse::LogContent systemLog = transaction();
    systemLog.type = tse::LogType::System;
    systemLog.certifiedData = tse::encodeSystemData({"updateTime", {}});
    const std::string system = dir.write("system.log", p256.log(systemLog));
    tse::TransactionData semicolon = small, emptyType = small, zeroByte = small, update = small;
    semicolon.processData = {'a', ';'};
    emptyType.processType = "";
    zeroByte.clientId = std::string("K\0"
                                    "1",
                                    3);
    update.operationType = "UpdateTransaction";
    auto signedLog = [&](const char* name, const tse::TransactionData& data) {
        return dir.write(name, p256.log(transaction(data)));
    };
    const std::string missing = dir.path("missing");
    Bytes forged = p256.log();
    forged.back() ^= 1;
    // A certificate handed over through a pipe can be read only once.
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    const std::string pem = p256.pem();
    ASSERT_EQ(write(pipeEnds[1], pem.data(), pem.size()), static_cast<ssize_t>(pem.size()));
    close(pipeEnds[1]);
    const struct {
        Args args;
        int status;
        std::vector<std::pair<size_t, std::string>> fields;  // QR code fields by position; or part of the error
    } cases[] = {
        {{"to-qr", "--cert", p256Cert, unix256},
         0,
         {{5, "538"}, {7, "2021-08-02T11:28:58.000Z"}, {8, "ecdsa-plain-SHA256"}, {9, "unixTime"}}},
        {{"to-qr", "--cert", p256Cert, utc256, "--start-time", "2021-08-02T13:27:00+02:00"},
         0,
         {{6, "2021-08-02T13:27:00+02:00"}, {7, "2021-08-02T11:28:58.000Z"}, {9, "utcTime"}}},
        {{"to-qr", "--cert", "/dev/fd/" + std::to_string(pipeEnds[0]), unix256}, 0, {{8, "ecdsa-plain-SHA256"}}},
        {{"to-qr", "--cert", bp384Cert, bp}, 0, {{4, "4294967295"}, {5, "2147483648"}, {8, "ecdsa-plain-SHA384"}}},
        {{"to-qr", "--cert", p256Cert, unix256, "--start-time", "02.08.2021"}, 2, {{0, "is not an ISO 8601 time"}}},
        {{"to-qr", "--cert", p256Cert, unix256, "--start-time", "2021-08-02T11:28:59Z"},
         2,
         {{0, "is after the log time"}}},
        {{"to-qr", "--cert", p256Cert, dir.write("forged.log", forged)}, 1, {{0, "does not verify with certificate"}}},
        {{"to-qr", "--cert", bp384Cert, unix256}, 2, {{0, "does not belong to the TSE"}}},
        {{"to-qr", "--cert", p256Cert, system}, 2, {{0, "a receipt QR code stands for a FinishTransaction only"}}},
        {{"to-qr", "--cert", p256Cert, signedLog("semicolon.log", semicolon)}, 2, {{0, "processData holds \";\""}}},
        {{"to-qr", "--cert", p256Cert, signedLog("empty.log", emptyType)}, 2, {{0, "processType is empty"}}},
        {{"to-qr", "--cert", p256Cert, signedLog("zero.log", zeroByte)}, 2, {{0, "clientId holds a zero byte"}}},
        {{"to-qr", "--cert", p256Cert, signedLog("update.log", update)}, 2, {{0, "\"UpdateTransaction\""}}},
        // Usage errors name the word that was not understood.
        {{"frobnicate", unix256}, 2, {{0, "frobnicate"}}},
        {{"--frobnicate", "read", unix256}, 2, {{0, "--frobnicate"}}},
        {{"read", "--frobnicate", unix256}, 2, {{0, "--frobnicate"}}},
        {{"to-qr", "--certificate", p256Cert, unix256}, 2, {{0, "--certificate"}}},
        // Files: a log of exactly the limit is read; missing files and directories are named.
        {{"read", dir.write("16MiB.log", Bytes(16u << 20, 0x30))}, 2, {{0, "cannot be read as a log message"}}},
        {{"read", missing}, 2, {{0, missing + " does not exist"}}},
        {{"read", dir.path("")}, 2, {{0, "is a directory"}}},
        {{"to-qr", "--cert", missing, unix256}, 2, {{0, missing + " does not exist"}}},
        {{"to-qr", "--cert", p256Cert, dir.write("big.log", Bytes((16u << 20) + 1, 0x30))},
         2,
         {{0, "is larger than 16777216 bytes"}}},
    };
    for (const auto& c : cases) {
        const auto result = run(tseCheckPath(), c.args);
        ASSERT_EQ(result.status, c.status) << c.args.back() << result.err;
        const std::vector<std::string> qr = split(result.out.substr(0, result.out.size() - 1), ';');
        for (const auto& [position, value] : c.fields) {
            if (c.status != 0) {
                EXPECT_NE(result.err.find(value), std::string::npos) << result.err;
                EXPECT_EQ(result.out, "");
            } else {
                ASSERT_EQ(qr.size(), 12u) << result.out;
                EXPECT_EQ(qr[position], value) << result.out;
            }
        }
    }
    close(pipeEnds[0]);
    const auto version = run(tseCheckPath(), {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("tse-check 0.", 0), 0u) << version.out;
    // The verifier accepts what to-qr prints for its own curve and hash.
    const auto qr = run(tseCheckPath(), {"to-qr", "--cert", bp384Cert, bp});
    const auto verified = run(fixtures::verifierPath(), {"-q" + qr.out.substr(0, qr.out.size() - 1)});
    EXPECT_EQ(verified.status, 0) << verified.out;
}

}  // namespace

namespace {

// The verdict and reason of every log, by its path below root, as verify
// and as audit give them.
using Judgements = std::map<std::string, std::pair<std::string, std::string>>;

std::string reasonOf(const Json& entry)
{
    return entry["reason"].is_null() ? std::string() : entry["reason"].get<std::string>();
}

Judgements verifyJudgements(const std::string& root)
{
    Args logs;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.path().extension() == ".log") logs.push_back(entry.path().string());
    }
    const auto result = run(tseCheckPath(), concat({"verify", "--json"}, logs));
    const Json document = Json::parse(result.out, nullptr, false);
    Judgements out;
    if (document.is_discarded()) {
        ADD_FAILURE() << root << ": " << result.err;
        return out;
    }
    for (const Json& entry : document) {
        const std::string file = entry["file"];
        out[std::filesystem::relative(file, root).string()] = {entry["verdict"], reasonOf(entry)};
    }
    return out;
}

Judgements auditJudgements(const std::string& root)
{
    const auto result = run(tseCheckPath(), {"audit", "--json", "-", root});
    const Json report = Json::parse(result.out, nullptr, false);
    Judgements out;
    if (report.is_discarded()) {
        ADD_FAILURE() << root << ": " << result.err;
        return out;
    }
    for (const Json& log : report["logs"]) {
        const std::string file = log["file"];
        const std::string relative =
            std::filesystem::path(file).is_absolute() ? std::filesystem::relative(file, root).string() : file;
        out[relative] = {log["verdict"], reasonOf(log)};
    }
    return out;
}

void expectAgreement(const std::string& root, const std::string& label)
{
    const Judgements verified = verifyJudgements(root), audited = auditJudgements(root);
    EXPECT_FALSE(audited.empty()) << label;
    for (const auto& [file, judgement] : audited) {
        const auto found = verified.find(file);
        if (found == verified.end()) {
            ADD_FAILURE() << label << ": verify did not judge " << file;
            continue;
        }
        EXPECT_EQ(found->second, judgement) << label << ": " << file;
    }
}

}  // namespace

// verify and audit judge every log with one function: the same verdict and
// the same reason for each log of the real exports, of a generated export
// with each defect, and for a log whose algorithm no TSE uses.
TEST(TseCheck, AuditAndVerifyAgree)
{
    fixtures::TempDir dir;
    for (const char* name : {"6e6c6a42-5c8d-4a9c-9572-26c10619d020", "logMessages1", "softwareUpdate",
                             "2021-09-30_63641_TSE", "TSE_Export_685e1812-79a4-4c8c-9a07-9e93a019efa7_202109171015"}) {
        expectAgreement(fixtures::unpackRealExport(dir, name), name);
    }
    const std::string makeExport = fixtures::toolPath("make-export");
    for (const char* defect : {"signature-invalid", "certificate-missing", "log-unreadable", "counter-duplicate",
                               "name-mismatch", "ecsdsa", "certificate-renamed", "time-regression"}) {
        const std::string out = dir.path(std::string("made-") + defect);
        const auto made =
            run(makeExport, {"-o", out, "--format", "dir", "-n", "4", "--curve", "secp256r1", "--defect", defect});
        ASSERT_EQ(made.status, 0) << made.err;
        expectAgreement(out, defect);
    }
    // An algorithm OID that is none of a TSE's is no TSE log; verify used
    // to call it invalid and audit unreadable.
    const Tse tse;
    tse::LogContent content = transaction();
    content.serialNumber = tse.signer.publicKey().serialNumber();
    content.algorithmOid = "1.2.3.4";
    const Bytes octets = tse::encodeSignedOctets(content);
    std::filesystem::create_directory(dir.path("unknown"));
    dir.write("unknown/" + tse.serial() + "_X509.pem", tse.pem());
    dir.write("unknown/Unixt_1627903738_Sig-538_Log-Tra_No-7_Finish_Client-K1.log",
              tse::encodeLogMessage(octets, tse.signer.signPlain(tse::Hash::Sha256, octets)));
    tse::LogContent next = transaction();
    next.signatureCounter = 539;
    dir.write("unknown/Unixt_1627903738_Sig-539_Log-Tra_No-7_Finish_Client-K1.log", tse.log(next));
    expectAgreement(dir.path("unknown"), "unknown algorithm");
    const Judgements unknown = verifyJudgements(dir.path("unknown"));
    EXPECT_EQ(unknown.at("Unixt_1627903738_Sig-538_Log-Tra_No-7_Finish_Client-K1.log").first, "unreadable");

    // Only the names an export gives certificates count beside a log:
    // <SERIAL>_X509extra.pem is none of them.
    std::filesystem::create_directory(dir.path("extra"));
    dir.write("extra/" + tse.serial() + "_X509extra.pem", tse.pem());
    const std::string extraLog = dir.write("extra/a.log", tse.log());
    const Json extra = Json::parse(run(tseCheckPath(), {"verify", "--json", extraLog}).out, nullptr, false);
    ASSERT_FALSE(extra.is_discarded());
    EXPECT_EQ(extra[0]["verdict"], "no-certificate");
}
