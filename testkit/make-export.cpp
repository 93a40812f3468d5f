// make-export: writes a synthetic TSE export - transactions with Start,
// Update and Finish, system and audit logs, the certificate and info.csv -
// signed with a fresh key, optionally with one planted defect. For tests
// and benchmarks of `tse-check audit`, and as the sales `make-dsfinvk`
// books (--start and --interval place them in time, --varied gives them
// several VAT rates, payments, orders and other processes).
#include <archive.h>
#include <archive_entry.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "algorithms.h"
#include "dsfinvk_csv.h"
#include "findings.h"
#include "log_encoder.h"
#include "log_time.h"
#include "parallel.h"
#include "signer.h"

namespace {

namespace fs = std::filesystem;
using tse::Bytes;

constexpr int64_t FIRST_LOG_TIME = 1700000000;  // 2023-11-14
constexpr int64_t CLOCK_STEP_BACK = 30;
// The first transaction starts this long after the first log: audit,
// initialize and registerClient a second apart, then the clock set back.
constexpr int64_t FIRST_TRANSACTION_OFFSET = 4 - CLOCK_STEP_BACK;
constexpr int64_t LOGS_PER_TRANSACTION = 3;
constexpr std::string_view ECSDSA_PLAIN_SHA256 = "0.4.0.127.0.7.1.1.4.4.2";

struct Options {
    std::string out;
    uint64_t transactions = 10;
    std::string curve = "brainpoolP384r1";
    std::string timeFormat = "unixTime";
    std::string format = "tar";
    uint64_t splitSize = 0;
    std::string defect;
    bool listDefects = false;
    std::string client = "KASSE-01";
    uint64_t firstCounter = 1;
    unsigned jobs = tse::defaultJobs();
    std::string start;                        // ISO 8601 time of the first transaction's Start log
    int64_t interval = LOGS_PER_TRANSACTION;  // seconds from one transaction's Start to the next
    bool varied = false;
    int64_t firstLogTime = FIRST_LOG_TIME;  // from `start`
};

// A log before it is signed: what it says and under which name.
struct PlannedLog {
    tse::LogType type = tse::LogType::Transaction;
    std::string operation;  // Start/Update/Finish or the system event
    uint64_t transaction = 0;
    uint64_t counter = 0;
    int64_t seconds = 0;
    std::string processType = "Kassenbeleg-V1";
    std::string processData = "Beleg^12.50_0.00_0.00_0.00_0.00^12.50:Bar";
    int64_t nameSeconds = 0;
    std::string nameSuffix;
    const tse::Signer* signer = nullptr;
    std::string client = "KASSE-01";
    bool ecsdsa = false;  // names a recognised algorithm this system does not verify
};

struct Member {
    std::string name;
    Bytes bytes;
};

const tse::CurveInfo& curveNamed(const std::string& name)
{
    for (const tse::CurveInfo& info : tse::supportedCurves()) {
        if (tse::equalsIgnoringCase(info.displayName, name) || tse::equalsIgnoringCase(info.name, name)) return info;
    }
    throw std::runtime_error("unknown curve " + name);
}

tse::TimeFormat timeFormatNamed(const std::string& name)
{
    for (tse::TimeFormat f : {tse::TimeFormat::UnixTime, tse::TimeFormat::UtcTime, tse::TimeFormat::GeneralizedTime}) {
        if (tse::equalsIgnoringCase(tse::timeFormatName(f), name)) return f;
    }
    throw std::runtime_error("unknown time format " + name);
}

// TSEs pair the curve's size with the hash of the same strength.
tse::Hash hashFor(const tse::CurveInfo& curve)
{
    return curve.fieldSize <= 32 ? tse::Hash::Sha256 : curve.fieldSize <= 48 ? tse::Hash::Sha384 : tse::Hash::Sha512;
}

std::string timeText(tse::TimeFormat format, int64_t seconds)
{
    switch (format) {
    case tse::TimeFormat::UnixTime: return std::to_string(seconds);
    case tse::TimeFormat::UtcTime: return tse::utcTimeText(seconds);
    case tse::TimeFormat::GeneralizedTime: return tse::generalizedTimeText(seconds);
    }
    return {};
}

std::string prefix(tse::TimeFormat format)
{
    return format == tse::TimeFormat::UnixTime ? "Unixt" : format == tse::TimeFormat::UtcTime ? "Utc" : "Gent";
}

std::string fileName(const PlannedLog& log, tse::TimeFormat format)
{
    std::string name = prefix(format) + "_" + timeText(format, log.nameSeconds) + "_Sig-" + std::to_string(log.counter);
    if (log.type == tse::LogType::Transaction) {
        name += "_Log-Tra_No-" + std::to_string(log.transaction) + "_" + log.operation + "_Client-" + log.client;
    } else if (log.type == tse::LogType::System) {
        name += "_Log-Sys_" + log.operation;
    } else {
        name += "_Log-Aud";
    }
    return name + log.nameSuffix + ".log";
}

Bytes certifiedData(const PlannedLog& log)
{
    if (log.type == tse::LogType::Transaction) {
        tse::TransactionData data;
        data.operationType = log.operation + "Transaction";
        data.clientId = log.client;
        data.processData = Bytes(log.processData.begin(), log.processData.end());
        data.processType = log.processType;
        data.transactionNumber = log.transaction;
        return tse::encodeTransactionData(data);
    }
    tse::SystemData data;
    data.operationType = log.operation;
    return tse::encodeSystemData(data);
}

Bytes signedLog(const PlannedLog& log, tse::TimeFormat format, tse::Hash hash)
{
    tse::LogContent content;
    content.type = log.type;
    if (log.type != tse::LogType::Audit) content.certifiedData = certifiedData(log);
    if (log.type == tse::LogType::Audit) content.seAuditData = Bytes{0x30, 0x00};
    content.serialNumber = log.signer->publicKey().serialNumber();
    content.algorithmOid = log.ecsdsa ? std::string(ECSDSA_PLAIN_SHA256) : std::string(tse::ecdsaPlain(hash).oid);
    content.signatureCounter = log.counter;
    content.logTime = tse::encodeLogTime(format, log.seconds);
    const Bytes octets = tse::encodeSignedOctets(content);
    return tse::encodeLogMessage(octets, log.signer->signPlain(hash, octets));
}

// What a register hands the TSE for sale t with --varied: receipts with one
// to four VAT rates and every kind of payment, among them a return, a zero
// receipt, a foreign currency and one whose payments exceed its VAT part (as
// a real cloud TSE's register signs them), and now and then an order or
// another process. The amounts change from sale to sale.
std::pair<std::string, std::string> variedSale(uint64_t t)
{
    const int64_t a = 100 + static_cast<int64_t>((t * 7919) % 9000), b = 50 + static_cast<int64_t>((t * 104729) % 3000);
    const auto money = [](int64_t cents) { return tse::formatAmount(cents); };
    const auto receipt = [&](std::initializer_list<int64_t> gross, const std::string& payments) {
        std::string fields;
        for (const int64_t amount : gross) fields += (fields.empty() ? "" : "_") + money(amount);
        return std::make_pair(std::string("Kassenbeleg-V1"), "Beleg^" + fields + "^" + payments);
    };
    switch (t % 10) {
    case 0: return {"Bestellung-V1", "2;\"Kaffee\";" + money(b) + "\r1;\"Kuchen \"\"Erdbeer\"\"\";" + money(a)};
    case 1: return receipt({a, b, 0, 0, 0}, money(a + b) + ":Bar");
    case 2: return receipt({a, b, 0, 0, 250}, money(a + b + 250) + ":Unbar");
    case 3: return receipt({a, 0, 0, 0, 0}, money(a - 100) + ":Bar_1.00:Unbar");
    case 4: return receipt({a + b, 0, 0, 0, 0}, money(a) + ":Bar_" + money(b + b / 10) + ":Bar:CHF");
    case 5: return receipt({-a, 0, 0, 0, 0}, money(-a) + ":Bar");
    case 6: return receipt({0, 0, a, b, 0}, money(a + b) + ":Unbar");
    case 7: return receipt({0, 0, 0, 0, 0}, "");
    case 8: return {"SonstigerVorgang", "Kassenlade ohne Verkauf geoeffnet"};
    default: return receipt({a, 0, 0, 0, 0}, money(a + 430) + ":Bar");
    }
}

// The logs of a TSE's life: an audit log, start-up system logs with a clock
// set back (legal, as updateTime logs it), then the transactions, each
// `interval` seconds after the one before.
std::vector<PlannedLog> plan(const Options& options, const tse::Signer& signer)
{
    std::vector<PlannedLog> logs;
    uint64_t counter = options.firstCounter;
    int64_t seconds = options.firstLogTime;
    auto add = [&](tse::LogType type, const std::string& operation, uint64_t transaction) {
        PlannedLog log;
        log.type = type;
        log.operation = operation;
        log.transaction = transaction;
        log.counter = counter++;
        log.seconds = log.nameSeconds = seconds++;
        log.signer = &signer;
        log.client = options.client;
        if (options.varied && type == tse::LogType::Transaction)
            std::tie(log.processType, log.processData) = variedSale(transaction);
        logs.push_back(log);
    };
    add(tse::LogType::Audit, "", 0);
    add(tse::LogType::System, "initialize", 0);
    add(tse::LogType::System, "registerClient", 0);
    seconds -= CLOCK_STEP_BACK;
    add(tse::LogType::System, "updateTime", 0);
    const int64_t firstStart = seconds;
    for (uint64_t t = 1; t <= options.transactions; ++t) {
        seconds = firstStart + static_cast<int64_t>(t - 1) * options.interval;
        add(tse::LogType::Transaction, "Start", t);
        add(tse::LogType::Transaction, "Update", t);
        add(tse::LogType::Transaction, "Finish", t);
    }
    return logs;
}

// Where defects go: the Update of the middle transaction, far from the
// export's edges where gaps and open transactions are normal.
size_t middleUpdate(const Options& options)
{
    return 4 + 3 * (options.transactions / 2) + 1;
}

// How the certificate differs from a sound one.
enum class CertificatePlant {
    None,
    ValidFromMiddle,  // valid from the middle transaction on, so the logs before it lie outside
    CaExpired,        // the TSE's certificate holds, its CA's ended before the first log
    Renamed,          // the file name gives another key's hash
};

// A defect make-export can plant alone, and the audit finding it gives.
// Variants of a finding are named by what they plant.
struct Defect {
    std::string_view name;
    tse::FindingCode finding;
    void (*inPlan)(std::vector<PlannedLog>& logs, size_t at, const tse::Signer& foreign);
    void (*inMembers)(std::vector<Member>& members, size_t at);
    CertificatePlant certificate = CertificatePlant::None;
};

using tse::FindingCode;
const Defect DEFECTS[] = {
    {"signature-invalid", FindingCode::SignatureInvalid, nullptr,
     [](std::vector<Member>& members, size_t at) { members[at].bytes.back() ^= 0x01; }},
    {"certificate-missing", FindingCode::CertificateMissing,
     [](std::vector<PlannedLog>& logs, size_t, const tse::Signer& foreign) {
         PlannedLog stranger = logs[1];
         stranger.counter = 1;
         stranger.signer = &foreign;
         stranger.nameSuffix = "_Fc-1";
         logs.push_back(stranger);
     },
     nullptr},
    {"log-unreadable", FindingCode::LogUnreadable, nullptr,
     [](std::vector<Member>& members, size_t at) { members[at].bytes.resize(members[at].bytes.size() / 2); }},
    {"counter-duplicate", FindingCode::CounterDuplicate,
     [](std::vector<PlannedLog>& logs, size_t at, const tse::Signer&) {
         PlannedLog twin = logs[at];
         twin.processData = "Beleg^99.00_0.00_0.00_0.00_0.00^99.00:Bar";
         twin.nameSuffix = "_Fc-1";
         logs.push_back(twin);
     },
     nullptr},
    {"name-mismatch", FindingCode::NameMismatch,
     [](std::vector<PlannedLog>& logs, size_t at, const tse::Signer&) { logs[at].nameSeconds += 1; }, nullptr},
    {"counter-gap", FindingCode::CounterGap,
     [](std::vector<PlannedLog>& logs, size_t at, const tse::Signer&) {
         for (size_t i = at; i < logs.size(); ++i) ++logs[i].counter;
     },
     nullptr},
    {"transaction-incomplete", FindingCode::TransactionIncomplete,
     [](std::vector<PlannedLog>& logs, size_t at, const tse::Signer&) {
         logs.erase(logs.begin() + static_cast<long>(at) + 1);
         for (size_t i = at + 1; i < logs.size(); ++i) --logs[i].counter;
     },
     nullptr},
    {"time-regression", FindingCode::TimeRegression,
     [](std::vector<PlannedLog>& logs, size_t at, const tse::Signer&) {
         logs[at].seconds = logs[at].nameSeconds = logs[at].seconds - 3600;
     },
     nullptr},
    {"certificate-chain", FindingCode::CertificateChain, nullptr, nullptr, CertificatePlant::ValidFromMiddle},
    {"unexpected-member", FindingCode::UnexpectedMember, nullptr,
     [](std::vector<Member>& members, size_t) {
         members.push_back(Member{"notes.txt", Bytes{'h', 'i', '\n'}});
     }},
    {"ca-expired", FindingCode::CertificateChain, nullptr, nullptr, CertificatePlant::CaExpired},
    {"certificate-renamed", FindingCode::NameMismatch, nullptr, nullptr, CertificatePlant::Renamed},
    {"ecsdsa", FindingCode::SignatureInvalid,
     [](std::vector<PlannedLog>& logs, size_t at, const tse::Signer&) { logs[at].ecsdsa = true; }, nullptr},
};

const Defect NO_DEFECT{"", FindingCode::SignatureInvalid, nullptr, nullptr};

const Defect& defectOf(const Options& options)
{
    if (options.defect.empty()) return NO_DEFECT;
    for (const Defect& d : DEFECTS) {
        if (d.name == options.defect) return d;
    }
    throw std::runtime_error("no defect is named " + options.defect);
}

std::vector<std::string> defectNames()
{
    std::vector<std::string> names;
    for (const Defect& d : DEFECTS) names.emplace_back(d.name);
    return names;
}

std::vector<Member> exportMembers(const Options& options)
{
    const tse::CurveInfo& curve = curveNamed(options.curve);
    const tse::TimeFormat format = timeFormatNamed(options.timeFormat);
    const tse::Hash hash = hashFor(curve);
    const tse::Signer signer(curve.curve), foreign(curve.curve);
    std::vector<PlannedLog> logs = plan(options, signer);
    const Defect& defect = defectOf(options);
    if (!defect.name.empty() && options.transactions < 3) throw std::runtime_error("defects need 3 transactions");
    if (defect.inPlan) defect.inPlan(logs, middleUpdate(options), foreign);

    std::vector<Member> members(logs.size());
    tse::parallelFor(logs.size(), options.jobs, [&](size_t i) {
        members[i] = Member{fileName(logs[i], format), signedLog(logs[i], format, hash)};
    });
    if (defect.inMembers) defect.inMembers(members, middleUpdate(options));

    // A certificate valid from the middle transaction on leaves the logs
    // before it outside its validity.
    const int64_t notBefore = defect.certificate == CertificatePlant::ValidFromMiddle
                                  ? logs[middleUpdate(options)].seconds
                                  : options.firstLogTime - 86400;
    const std::string info =
        "\"description:\",\"synthetic export\",\"manufacturer:\",\"make-export\",\"version:\",\"1.0\"\n";
    // Certificates and info.csv first, as devices write them.
    members.insert(members.begin(), {Member{"info.csv", Bytes(info.begin(), info.end())}});
    std::string pem = signer.selfSignedCertificatePem("Synthetic TSE", notBefore, 3650);
    if (defect.certificate == CertificatePlant::CaExpired) {
        // The TSE's certificate is valid, but its CA's ended before the first log.
        const tse::Signer ca(curve.curve);
        const std::string caPem = ca.selfSignedCertificatePem("Synthetic CA", options.firstLogTime - 400 * 86400, 365);
        pem = signer.issuedCertificatePem("Synthetic TSE", ca, "Synthetic CA", notBefore, 3650);
        members.insert(members.begin(), Member{"Synthetic-CA_X509.pem", Bytes(caPem.begin(), caPem.end())});
    }
    const std::string named = defect.certificate == CertificatePlant::Renamed
                                  ? tse::toHex(foreign.publicKey().serialNumber())
                                  : tse::toHex(signer.publicKey().serialNumber());
    members.insert(members.begin(), Member{named + "_X509.pem", Bytes(pem.begin(), pem.end())});
    return members;
}

void check(archive* a, int status)
{
    if (status < ARCHIVE_WARN)
        throw std::runtime_error(archive_error_string(a) ? archive_error_string(a) : "archive error");
}

void writeArchive(const std::string& path, const std::string& format, const std::vector<Member>& members, int64_t mtime)
{
    std::unique_ptr<archive, int (*)(archive*)> a(archive_write_new(), archive_write_free);
    check(a.get(), archive_write_set_format_ustar(a.get()));
    if (format == "tar.gz") check(a.get(), archive_write_add_filter_gzip(a.get()));
    else if (format == "tar.bz2") check(a.get(), archive_write_add_filter_bzip2(a.get()));
    else if (format == "tar.xz") check(a.get(), archive_write_add_filter_xz(a.get()));
    else if (format != "tar") throw std::runtime_error("unknown format " + format);
    check(a.get(), archive_write_open_filename(a.get(), path.c_str()));
    for (const Member& member : members) {
        std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(entry.get(), member.name.c_str());
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(member.bytes.size()));
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0644);
        archive_entry_set_mtime(entry.get(), mtime, 0);
        check(a.get(), archive_write_header(a.get(), entry.get()));
        if (archive_write_data(a.get(), member.bytes.data(), member.bytes.size()) < 0) check(a.get(), ARCHIVE_FATAL);
    }
    check(a.get(), archive_write_close(a.get()));
}

void writeFile(const std::string& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

// X.tar.001, X.tar.002, ...: the pieces that concatenate into the archive.
void split(const std::string& path, uint64_t size)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<char> buffer(size);
    for (int part = 1; in; ++part) {
        in.read(buffer.data(), static_cast<std::streamsize>(size));
        if (in.gcount() == 0) break;
        char suffix[16];
        std::snprintf(suffix, sizeof suffix, ".%03d", part);
        writeFile(path + suffix, Bytes(buffer.begin(), buffer.begin() + in.gcount()));
    }
    fs::remove(path);
}

int run(const Options& options)
{
    const std::vector<Member> members = exportMembers(options);
    if (options.format == "dir") {
        fs::create_directories(options.out);
        for (const Member& member : members) writeFile((fs::path(options.out) / member.name).string(), member.bytes);
    } else {
        writeArchive(options.out, options.format, members, options.firstLogTime);
        if (options.splitSize) split(options.out, options.splitSize);
    }
    return 0;
}

int runProgram(int argc, char** argv)
{
    Options options;
    CLI::App app{"Writes a synthetic TSE export signed with a fresh key.", "make-export"};
    app.add_option("--out,-o", options.out, "Archive or directory to write");
    app.add_option("--transactions,-n", options.transactions, "Transactions (3 logs each)");
    app.add_option("--curve", options.curve, "secp256r1, brainpoolP384r1, ... (default brainpoolP384r1)");
    app.add_option("--time-format", options.timeFormat, "unixTime, utcTime or generalizedTime");
    app.add_option("--format", options.format, "tar, tar.gz, tar.bz2, tar.xz or dir")
        ->check(CLI::IsMember({"tar", "tar.gz", "tar.bz2", "tar.xz", "dir"}));
    app.add_option("--split", options.splitSize, "Split the archive into X.001, X.002, ... of this many bytes");
    app.add_option("--defect", options.defect, "Plant one defect: the audit finding's code")
        ->check(CLI::IsMember(defectNames()));
    app.add_flag("--list-defects", options.listDefects, "List the defects and the finding each gives, then exit");
    app.add_option("--client", options.client, "Client ID of the transactions (default KASSE-01)");
    app.add_option("--first-counter", options.firstCounter, "Signature counter of the first log");
    app.add_option("--jobs,-j", options.jobs, "Threads to sign with")->check(CLI::Range(1u, 1024u));
    app.add_option("--start", options.start, "Time of the first transaction, ISO 8601 (e.g. 2020-12-31T22:00:00Z)");
    app.add_option("--interval", options.interval, "Seconds from one transaction to the next (default 3)")
        ->check(CLI::Range(LOGS_PER_TRANSACTION, int64_t{366} * 86400));
    app.add_flag("--varied", options.varied,
                 "Sales with several VAT rates and payments, returns, a foreign currency, orders and other processes");
    CLI11_PARSE(app, argc, argv);
    if (options.listDefects) {
        for (const Defect& d : DEFECTS) std::cout << d.name << ' ' << tse::findingName(d.finding) << '\n';
        return 0;
    }
    if (options.out.empty()) {
        std::cerr << "make-export: --out is required\n";
        return 2;
    }
    try {
        if (!options.start.empty()) {
            const std::optional<tse::IsoTime> start = tse::parseIsoTime(options.start);
            if (!start) throw std::runtime_error("--start: not an ISO 8601 time: " + options.start);
            options.firstLogTime = start->seconds - FIRST_TRANSACTION_OFFSET;
        }
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "make-export: " << error.what() << std::endl;
        return 2;
    }
}

}  // namespace

// Whatever escapes the program (building the command line can throw, so can
// memory running out) still ends with a message and a defined status.
int main(int argc, char** argv)
{
    try {
        return runProgram(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "make-export: " << error.what() << std::endl;
    } catch (...) {
        std::cerr << "make-export: an unexpected error" << std::endl;
    }
    return 2;
}
