// tse-check audit on exports built to fool it: cut short, empty, holding
// text that is no UTF-8 or drives a terminal or a spreadsheet. Each case
// runs the real executable under a time limit and parses its reports back.
#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fixtures.h"
#include "log_encoder.h"
#include "signer.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

const std::string REAL = fixtures::realExportsFolder();
constexpr fixtures::RunLimits LIMITS{60, 0};

std::string fileText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const std::string& contents)
{
    std::ofstream(path, std::ios::binary) << contents;
}

struct Audit {
    int status = -1;
    json report;  // discarded when standard output held no JSON
    std::string err;
};

Audit audit(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {"audit", "--jobs", "1", "--json", "-"});
    const fixtures::RunResult run = fixtures::run(fixtures::tseCheckPath(), arguments, {}, LIMITS);
    EXPECT_EQ(run.stopped, "");
    return Audit{run.status, json::parse(run.out, nullptr, false), run.err};
}

const json* finding(const json& report, const std::string& code)
{
    if (!report.is_object()) return nullptr;
    for (const json& f : report["findings"]) {
        if (f["code"] == code) return &f;
    }
    return nullptr;
}

// Where each member's header starts in a plain TAR, and last where the
// end-of-archive marker starts.
std::vector<size_t> memberStarts(const std::string& tar)
{
    std::vector<size_t> starts;
    size_t at = 0;
    while (at + 512 <= tar.size() && tar[at] != '\0') {
        starts.push_back(at);
        const size_t size = std::stoull(tar.substr(at + 124, 12), nullptr, 8);
        at += 512 + (size + 511) / 512 * 512;
    }
    starts.push_back(at);
    return starts;
}

// What a member of an export is, by the end of its name (".log", ".pem",
// ".csv", "/" for a folder): a cut after each kind leaves the reader in a
// different branch of its own.
std::string memberKind(const std::string& tar, size_t start)
{
    const std::string name = tar.substr(start, std::min(tar.find('\0', start), start + 100) - start);
    const size_t at = name.find_last_of("./");
    if (at == std::string::npos || (name[at] == '/' && at + 1 != name.size())) return "other";
    return name.substr(at);
}

// The bytes through a compression filter, as libarchive writes it.
std::string compressed(const std::string& data, int (*addFilter)(archive*))
{
    std::vector<char> buffer(data.size() + 65536);
    size_t used = 0;
    archive* a = archive_write_new();
    addFilter(a);
    archive_write_set_format_raw(a);
    archive_write_set_bytes_in_last_block(a, 1);
    archive_write_open_memory(a, buffer.data(), buffer.size(), &used);
    archive_entry* entry = archive_entry_new();
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_size(entry, static_cast<la_int64_t>(data.size()));
    archive_write_header(a, entry);
    archive_write_data(a, data.data(), data.size());
    archive_entry_free(entry);
    archive_write_close(a);
    archive_write_free(a);
    return std::string(buffer.data(), used);
}

// An export cut anywhere before its end is never a passed audit: the error
// finding export-truncated says how far it was read, exit status 1.
TEST(AuditHostile, CutExportsAreTruncated)
{
    fixtures::TempDir dir;
    struct Cut {
        std::string name, bytes;
        std::string says;  // what the finding's message holds
    };
    std::vector<Cut> cuts;
    for (const auto& entry : fs::directory_iterator(REAL)) {
        const std::string name = entry.path().filename().string(), tar = fileText(entry.path().string());
        const std::vector<size_t> starts = memberStarts(tar);
        ASSERT_GT(starts.size(), 10u) << name;
        // After the first member of each kind (log, certificate, info.csv,
        // folder) and always just before the marker; inside the header and
        // inside the data of each such member past the first.
        std::set<std::string> kinds;
        for (size_t i = 1; i < starts.size(); ++i) {
            if (!kinds.insert(memberKind(tar, starts[i - 1])).second && i + 1 != starts.size()) continue;
            cuts.push_back({name + "@" + std::to_string(starts[i]), tar.substr(0, starts[i]),
                            "ends without the TAR end-of-archive marker"});
            if (i >= 2) {  // inside a header, then inside the data
                cuts.push_back({name + "@h" + std::to_string(i), tar.substr(0, starts[i - 1] + 100), "breaks off"});
                cuts.push_back({name + "@d" + std::to_string(i), tar.substr(0, starts[i - 1] + 513), "breaks off"});
            }
        }
    }
    // The issue's case: the first 128 KiB of a real export, 20 logs lost.
    const std::string big = fileText(REAL + "2021-09-30_63641_TSE.tar");
    cuts.push_back({"131072", big.substr(0, 131072), "125 members were read up to byte 131072"});
    const std::string small = fileText(REAL + "logMessages1.tar");
    const std::pair<const char*, int (*)(archive*)> filters[] = {{"gz", archive_write_add_filter_gzip},
                                                                 {"bz2", archive_write_add_filter_bzip2},
                                                                 {"xz", archive_write_add_filter_xz}};
    for (const auto& [suffix, filter] : filters) {
        const std::string packed = compressed(small, filter);
        for (const size_t keep : {size_t{12}, packed.size() / 2, packed.size() - 9, packed.size() - 1}) {
            cuts.push_back({std::string("tar.") + suffix + "@" + std::to_string(keep), packed.substr(0, keep), ""});
        }
    }
    // Cut in the padding after the end-of-archive marker: every member is
    // there, but the stream around them stops early. A megabyte of zeros
    // puts the middle of their compressed form far past the marker.
    const std::string padded = compressed(small + std::string(size_t{1} << 20, '\0'), archive_write_add_filter_gzip);
    const size_t unpadded = compressed(small, archive_write_add_filter_gzip).size();
    cuts.push_back({"tar.gz cut in the padding", padded.substr(0, (unpadded + padded.size()) / 2),
                    "its TAR content was read to the end-of-archive marker"});
    for (const Cut& cut : cuts) {
        SCOPED_TRACE(cut.name);
        const std::string path = dir.write("cut-" + std::to_string(&cut - cuts.data()), cut.bytes);
        const Audit a = audit({path});
        EXPECT_EQ(a.status, 1) << a.err;
        const json* truncated = finding(a.report, "export-truncated");
        ASSERT_NE(truncated, nullptr) << a.err;
        EXPECT_EQ((*truncated)["severity"], "error");
        EXPECT_NE((*truncated)["message"].get<std::string>().find(cut.says), std::string::npos)
            << (*truncated)["message"];
    }
    // The whole exports, plain and compressed, are not cut.
    for (const auto& [suffix, filter] : filters) {
        const Audit whole = audit({dir.write(std::string("whole.tar.") + suffix, compressed(small, filter))});
        EXPECT_EQ(finding(whole.report, "export-truncated"), nullptr) << suffix;
    }
}

// A split archive with a part missing or cut names that part.
TEST(AuditHostile, SplitArchivesNameTheMissingPart)
{
    const std::string tar = fileText(REAL + "2021-09-30_63641_TSE.tar");
    constexpr size_t PART = 20000;
    const size_t parts = (tar.size() + PART - 1) / PART;  // 8
    const auto partName = [](const std::string& base, size_t n) {
        const std::string digits = std::to_string(n);
        return base + "." + std::string(digits.size() < 3 ? 3 - digits.size() : 0, '0') + digits;
    };
    struct Case {
        std::string label;
        size_t dropped;  // the part left out, 0 for none
        size_t shortened;
        std::string says;
    };
    for (const Case& c : std::vector<Case>{{"middle part missing", 3, 0, "part {3} is missing"},
                                           {"last part missing", parts, 0, "the part {last} that would follow"},
                                           {"middle part short", 0, 2, "part {2} holds 15000 bytes"}}) {
        SCOPED_TRACE(c.label);
        fixtures::TempDir dir;
        const std::string base = dir.path("export.tar");
        for (size_t n = 1; n <= parts; ++n) {
            if (n == c.dropped) continue;
            writeFile(partName(base, n), tar.substr((n - 1) * PART, n == c.shortened ? 15000 : PART));
        }
        std::string says = c.says;
        for (const auto& [key, n] : {std::pair<std::string, size_t>{"{3}", 3}, {"{2}", 2}, {"{last}", parts}}) {
            if (const size_t at = says.find(key); at != std::string::npos)
                says.replace(at, key.size(), partName(base, n));
        }
        const Audit a = audit({partName(base, 1)});
        EXPECT_EQ(a.status, 1);
        const json* truncated = finding(a.report, "export-truncated");
        ASSERT_NE(truncated, nullptr) << a.err;
        EXPECT_NE((*truncated)["message"].get<std::string>().find(says), std::string::npos) << (*truncated)["message"];
    }
}

// Nothing to audit is not a passed audit; logs without info.csv are a warning.
TEST(AuditHostile, EmptyExportsAreRefused)
{
    fixtures::TempDir dir;
    fs::create_directory(dir.path("empty"));
    const std::string zeros(10240, '\0');
    fixtures::writeTar(dir.path("nested.tar"), {{"inner.tar", fileText(REAL + "logMessages1.tar")}});
    const std::vector<std::string> empty{"/dev/zero",
                                         dir.path("empty"),
                                         dir.write("zero.tar", zeros),
                                         dir.write("zero.tar.gz", compressed(zeros, archive_write_add_filter_gzip)),
                                         dir.write("nothing.tar", std::string()),
                                         dir.path("nested.tar")};
    for (const std::string& path : empty) {
        SCOPED_TRACE(path);
        const Audit a = audit({path});
        EXPECT_EQ(a.status, 2);
        EXPECT_TRUE(a.report.is_discarded());
        EXPECT_NE(a.err.find("no log messages found in " + path), std::string::npos) << a.err;
    }
    // The same logs as a directory without its info.csv.
    const std::string unpacked = fixtures::unpackRealExport(dir, "logMessages1");
    for (const auto& entry : fs::directory_iterator(unpacked)) {
        if (entry.path().filename() == "info.csv") fs::remove(entry.path());
    }
    const Audit a = audit({unpacked});
    EXPECT_EQ(a.status, 0);
    const json* missing = finding(a.report, "info-missing");
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ((*missing)["severity"], "warning");
}

// escapeText's form read back: \\, \n, \t, \r and \xNN.
std::string unescape(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        if (c == 'x' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += c == 'n' ? '\n' : c == 't' ? '\t' : c == 'r' ? '\r' : c;
        }
    }
    return out;
}

// Logs of every type whose every text field holds bytes that are no UTF-8,
// terminal escapes and formula starts, under member names that do too:
// the JSON of audit and verify parses, the values come back byte for byte,
// nothing raw reaches the text or CSV, and no CSV cell is a formula.
TEST(AuditHostile, HostileTextInEveryField)
{
    const std::vector<std::string> hostile{"\xFF\xFE",
                                           "=HYPERLINK(\"x\")\x1B[31m",
                                           "\xC3(\x1B]0;t\x07",
                                           "+\xE2\x80\xA8\xC2\x9B"
                                           "2J",
                                           "-\\x41\n\r\t",
                                           "@\xED\xA0\x80"};
    tse::Signer signer(tse::Curve::Secp256r1);
    fixtures::TempDir dir;
    const std::string certificate = dir.write("cert.pem", signer.selfSignedCertificatePem("Hostile", 1500000000, 3650));
    std::vector<std::pair<std::string, std::string>> members{{"info.csv", "\"description:\",\"\xFF\x1B[2J\"\n"}};
    std::map<uint64_t, std::map<std::string, std::string>> expected;  // counter -> field -> bytes
    uint64_t counter = 0;
    const auto sign = [&](tse::LogType type, tse::Bytes certified, std::optional<tse::Bytes> audit) {
        tse::LogContent content;
        content.type = type;
        content.certifiedData = std::move(certified);
        content.seAuditData = std::move(audit);
        content.serialNumber = signer.publicKey().serialNumber();
        content.algorithmOid = std::string(tse::ecdsaPlain(tse::Hash::Sha256).oid);
        content.signatureCounter = ++counter;
        content.logTime = tse::encodeLogTime(tse::TimeFormat::UnixTime, 1600000000 + static_cast<int64_t>(counter));
        const tse::Bytes octets = tse::encodeSignedOctets(content);
        const tse::Bytes log = tse::encodeLogMessage(octets, signer.signPlain(tse::Hash::Sha256, octets));
        members.emplace_back(hostile[counter % hostile.size()] + std::to_string(counter) + ".log",
                             std::string(log.begin(), log.end()));
    };
    for (const std::string& text : hostile) {
        tse::TransactionData transaction;
        transaction.operationType = text;
        transaction.clientId = text + "c";
        transaction.processData = tse::Bytes(text.begin(), text.end());
        transaction.processType = text + "t";
        sign(tse::LogType::Transaction, tse::encodeTransactionData(transaction), std::nullopt);
        expected[counter] = {{"operationType", text}, {"clientId", text + "c"}, {"processType", text + "t"}};
        tse::SystemData system;
        system.operationType = text;
        sign(tse::LogType::System, tse::encodeSystemData(system), std::nullopt);
        expected[counter] = {{"operationType", text}};
        sign(tse::LogType::Audit, {}, tse::Bytes{0x30, 0x00});
    }
    const std::string tar = dir.path("hostile.tar");
    fixtures::writeTar(tar, members);

    const Audit a = audit({"--cert", certificate, tar});
    ASSERT_FALSE(a.report.is_discarded()) << a.err;
    ASSERT_EQ(a.report["logs"].size(), counter);
    for (const json& log : a.report["logs"]) {
        const std::string file = unescape(log["file"].get<std::string>());
        const uint64_t number = log["signatureCounter"];
        EXPECT_EQ(file, members[number].first);
        EXPECT_EQ(log["verdict"], "valid") << file;
        for (const auto& [field, bytes] : expected[number]) {
            EXPECT_EQ(unescape(log[field].get<std::string>()), bytes) << field << " of " << file;
        }
    }
    EXPECT_TRUE(a.report["exports"][0]["info"].is_object());

    const fixtures::RunResult text =
        fixtures::run(fixtures::tseCheckPath(), {"audit", "--cert", certificate, tar}, {}, LIMITS);
    const fixtures::RunResult csv =
        fixtures::run(fixtures::tseCheckPath(), {"audit", "--csv", "-", "--cert", certificate, tar}, {}, LIMITS);
    for (const std::string& output : {text.out, csv.out}) {
        EXPECT_EQ(output.find('\x1B'), std::string::npos);
        EXPECT_EQ(output.find("\xC2\x9B"), std::string::npos);
        EXPECT_EQ(output.find('\r'), std::string::npos);
    }
    const auto rows = fixtures::parseCsv(csv.out);
    ASSERT_EQ(rows.size(), counter + 1);
    for (const auto& row : rows) {
        ASSERT_EQ(row.size(), rows[0].size());
        for (const std::string& cell : row) {
            EXPECT_TRUE(cell.empty() || std::string("=+-@").find(cell[0]) == std::string::npos) << cell;
        }
    }

    // verify --json on the same logs as files.
    std::vector<std::string> arguments{"verify", "--json", "--cert", certificate};
    for (size_t i = 1; i < members.size(); ++i) arguments.push_back(dir.write(members[i].first, members[i].second));
    const fixtures::RunResult verify = fixtures::run(fixtures::tseCheckPath(), arguments, {}, LIMITS);
    const json verified = json::parse(verify.out, nullptr, false);
    ASSERT_FALSE(verified.is_discarded()) << verify.out;
    for (const json& log : verified) {
        EXPECT_EQ(log["verdict"], "valid");
        EXPECT_TRUE(fs::exists(unescape(log["file"].get<std::string>())));
    }
}

// receipt --json with a client ID and processData that are no UTF-8.
TEST(AuditHostile, HostileTextInReceipts)
{
    const tse::Signer signer(tse::Curve::Secp256r1);
    tse::TransactionData transaction;
    transaction.clientId = "\xFF\xFE\x1B[31m\\x41";
    transaction.processType = "Kassenbeleg-V1";
    transaction.processData = {'B', 0xC3, '(', 0x9B, '@'};
    const std::string text = tse::signedReceiptText(signer, tse::Hash::Sha256, transaction, 5, 1627903700, 1627903738);
    const fixtures::RunResult run = fixtures::run(fixtures::tseCheckPath(), {"receipt", "--json", text}, {}, LIMITS);
    const json results = json::parse(run.out, nullptr, false);
    ASSERT_TRUE(results.is_array()) << run.out << run.err;
    EXPECT_EQ(results[0]["verdict"], "valid");
    EXPECT_EQ(unescape(results[0]["clientId"].get<std::string>()), transaction.clientId);
    EXPECT_EQ(unescape(results[0]["text"].get<std::string>()), text);
    const fixtures::RunResult line = fixtures::run(fixtures::tseCheckPath(), {"receipt", text}, {}, LIMITS);
    EXPECT_EQ(line.out.find('\x1B'), std::string::npos);
}

// Several exports together: every finding and row names its export, each
// export's info.csv is shown; a certificate repeated in a file counts once.
TEST(AuditHostile, SeveralExportsAndRepeatedCertificates)
{
    fixtures::TempDir dir;
    const std::string first = REAL + "logMessages1.tar", second = REAL + "6e6c6a42-5c8d-4a9c-9572-26c10619d020.tar";
    const Audit a = audit({first, second});
    ASSERT_EQ(a.report["exports"].size(), 2u);
    for (const json& e : a.report["exports"]) EXPECT_TRUE(e["info"].is_object()) << e["path"];
    std::set<std::string> exports;
    for (const json& log : a.report["logs"]) exports.insert(log["export"].get<std::string>());
    EXPECT_EQ(exports, (std::set<std::string>{first, second}));
    const fixtures::RunResult text = fixtures::run(fixtures::tseCheckPath(), {"audit", first, second}, {}, LIMITS);
    EXPECT_NE(text.out.find("info.csv of " + first + ":"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("info.csv of " + second + ":"), std::string::npos) << text.out;

    // As many copies as fit into a certificate file's 1 MiB.
    const std::string pem = tse::Signer(tse::Curve::Secp256r1).selfSignedCertificatePem("Same", 1500000000, 3650);
    const size_t copies = (size_t{1} << 20) / pem.size();
    std::string many;
    for (size_t i = 0; i < copies; ++i) many += pem;
    const fixtures::RunResult repeated =
        fixtures::run(fixtures::tseCheckPath(), {"audit", "--cert", dir.write("many.pem", many), first}, {}, LIMITS);
    EXPECT_NE(repeated.out.find("(" + std::to_string(copies) + " identical copies)"), std::string::npos)
        << repeated.err;
    EXPECT_LT(std::count(repeated.out.begin(), repeated.out.end(), '\n'), 40);
}

// A link or a FIFO named like a log with a far higher counter is no log:
// it is reported, but the counter range ends with the real logs.
TEST(AuditHostile, SpecialMembersFillNoCounterRange)
{
    fixtures::TempDir dir;
    const std::string tar = dir.path("special.tar");
    {
        const std::string real = fileText(REAL + "6e6c6a42-5c8d-4a9c-9572-26c10619d020.tar");
        archive* in = archive_read_new();
        archive_read_support_format_tar(in);
        archive_read_open_memory(in, real.data(), real.size());
        archive* out = archive_write_new();
        archive_write_set_format_pax_restricted(out);
        archive_write_open_filename(out, tar.c_str());
        archive_entry* entry = nullptr;
        std::string block(65536, '\0');
        while (archive_read_next_header(in, &entry) == ARCHIVE_OK) {
            archive_write_header(out, entry);
            for (la_ssize_t got; (got = archive_read_data(in, block.data(), block.size())) > 0;) {
                archive_write_data(out, block.data(), static_cast<size_t>(got));
            }
        }
        for (const auto& [name, type] : {std::pair<const char*, mode_t>{"Unixt_1_Sig-900000_Log-Aud.log", AE_IFLNK},
                                         {"Unixt_1_Sig-900001_Log-Aud.log", AE_IFIFO}}) {
            archive_entry* special = archive_entry_new();
            archive_entry_set_pathname(special, name);
            archive_entry_set_filetype(special, type);
            if (type == AE_IFLNK) archive_entry_set_symlink(special, "/etc/passwd");
            archive_entry_set_perm(special, 0644);
            archive_write_header(out, special);
            archive_entry_free(special);
        }
        archive_write_close(out);
        archive_write_free(out);
        archive_read_free(in);
    }
    const Audit a = audit({tar});
    EXPECT_EQ(a.status, 1);  // two members that cannot be read
    EXPECT_EQ(a.report["summary"]["unreadable"], 2);
    EXPECT_EQ(finding(a.report, "counter-gap"), nullptr) << a.report["findings"].dump();
}

// Log files given one by one, as a shell expands dir/*.log, are verified
// with the certificates beside them, as verify does.
TEST(AuditHostile, LogFilesFindTheirCertificatesBesideThem)
{
    fixtures::TempDir dir;
    const std::string unpacked = fixtures::unpackRealExport(dir, "logMessages1");
    std::vector<std::string> logs;
    for (const auto& entry : fs::directory_iterator(unpacked)) {
        if (entry.path().extension() == ".log") logs.push_back(entry.path().string());
    }
    const Audit a = audit(logs);
    EXPECT_EQ(a.status, 0) << a.err;
    EXPECT_EQ(a.report["summary"]["valid"], 17);
    EXPECT_EQ(finding(a.report, "certificate-missing"), nullptr);
    EXPECT_EQ(finding(a.report, "info-missing"), nullptr);  // log files carry none
}

// Output options that cannot work are refused with a reason.
TEST(AuditHostile, OutputRefusals)
{
    const std::string tar = REAL + "logMessages1.tar";
    fixtures::TempDir dir;
    struct Case {
        std::vector<std::string> arguments;
        std::string says;
    };
    for (const Case& c : std::vector<Case>{
             {{"audit", "--json", "-", "--csv", "-", tar}, "cannot share standard output"},
             {{"audit", "--json", "/nonexistent/dir/report.json", tar},
              "Cannot write /nonexistent/dir/report.json: No such file"},
             {{"audit", "--csv", dir.path(""), tar}, "Cannot write " + dir.path("") + ": Is a directory"}}) {
        const fixtures::RunResult run = fixtures::run(fixtures::tseCheckPath(), c.arguments, {}, LIMITS);
        EXPECT_EQ(run.status, 2);
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
    }
}

}  // namespace
