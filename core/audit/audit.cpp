#include "audit.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "audit_rules.h"
#include "export_names.h"
#include "export_reader.h"
#include "file_reader.h"
#include "log_verify.h"
#include "work_queue.h"

namespace tse {
namespace {

// Items travel through the queue in batches so that the verifying threads
// take the queue's lock once per batch, not once per log.
constexpr size_t BATCH_SIZE = 32;
constexpr size_t QUEUE_CAPACITY = 2048 / BATCH_SIZE;
// Logs whose certificate comes later in the export wait in memory up to
// this many bytes; beyond it they are read a second time at the end.
constexpr size_t MAX_PENDING_BYTES = 16u << 20;
constexpr size_t ITEM_OVERHEAD = 160;  // what a queued item costs beside its bytes
constexpr size_t MAX_CERTIFICATE_FILE = 1u << 20;

struct WorkItem {
    uint64_t ordinal = 0;
    std::string name;
    Bytes bytes;
    bool standalone = false;  // given by itself, so its name need not follow the TSE's pattern
};

using Batch = std::vector<WorkItem>;
using Digest = std::array<uint8_t, 32>;
struct DigestHash {
    size_t operator()(const Digest& d) const
    {
        size_t h;
        std::memcpy(&h, d.data(), sizeof h);
        return h;
    }
};

bool isKeyHash(std::string_view text)
{
    return text.size() == 64 &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
}

size_t pendingCost(const WorkItem& item)
{
    return item.bytes.size() + item.name.size() + ITEM_OVERHEAD;
}

std::string_view algorithmName(const LogMessage& message)
{
    const SignatureAlgorithm* algorithm = algorithmByOid(message.signatureAlgorithmOid);
    return algorithm ? std::string_view(algorithm->name) : std::string_view(message.signatureAlgorithmOid);
}

Digest digestOf(ByteView data)
{
    const Bytes hash = sha256(data);
    Digest digest;
    std::copy(hash.begin(), hash.end(), digest.begin());
    return digest;
}

// The key hash of any certificate, even one whose curve this tool cannot
// verify with: the SHA-256 of the public key's bit string, the raw point.
std::string certificateSerial(const Certificate& certificate)
{
    if (certificate.key()) return toHex(certificate.key()->serialNumber());
    const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(certificate.x509());
    if (bits == nullptr) return {};
    return toHex(sha256(ByteView(ASN1_STRING_get0_data(bits), static_cast<size_t>(ASN1_STRING_length(bits)))));
}

// The texts of a record before they are interned into the report's pool.
struct RecordTexts {
    std::string_view serialNumber;  // the worker's memory of it
    std::string_view algorithm;     // the table's name, or the message's OID text
    std::string operation, clientId, processType;
};

// What a verifying thread remembers from its last log: consecutive logs
// nearly always come from one TSE, so its serial number is spelt out once.
struct WorkerMemory {
    Bytes serial;
    std::string serialHex;

    const std::string& hexOf(const Bytes& raw)
    {
        if (raw != serial) serial = raw, serialHex = toHex(raw);
        return serialHex;
    }
};

void fillFromMessage(LogRecord& record, RecordTexts& texts, const LogMessage& message, WorkerMemory& memory)
{
    record.type = message.type;
    record.counter = message.signatureCounter;
    texts.serialNumber = memory.hexOf(message.serialNumber);
    texts.algorithm = algorithmName(message);
    record.seconds = message.logTime.seconds;
    record.fraction = message.logTime.fraction;
    record.timeFormat = message.logTime.format;
    record.transactionNumber = message.transactionNumber();
    texts.operation = message.operation();
    if (const LogField* field = message.field("clientId")) texts.clientId = escapeText(field->value);
    if (const LogField* field = message.field("processType")) texts.processType = escapeText(field->value);
}

// Logs that may be byte-for-byte copies of one another: those of one TSE
// with one signature counter, or unreadable ones that fail alike. Only
// these are hashed, in a second read, instead of hashing every member.
std::vector<std::vector<const LogRecord*>> possibleCopies(const std::deque<LogRecord>& logs)
{
    std::vector<const LogRecord*> sorted;
    for (const LogRecord& log : logs) {
        if (log.counter || !log.reason.empty()) sorted.push_back(&log);
    }
    // Interned serial numbers are equal exactly when their texts are the
    // same object, so the pointer stands in for 64 characters.
    const auto key = [](const LogRecord* log) {
        return std::make_tuple(reinterpret_cast<std::uintptr_t>(log->serialNumber.data()), log->counter,
                               log->serialNumber.empty() ? std::string_view(log->reason) : std::string_view());
    };
    std::sort(sorted.begin(), sorted.end(), [&](const LogRecord* a, const LogRecord* b) { return key(a) < key(b); });
    std::vector<std::vector<const LogRecord*>> groups;
    for (size_t i = 0; i < sorted.size();) {
        size_t j = i + 1;
        while (j < sorted.size() && key(sorted[j]) == key(sorted[i])) ++j;
        if (j - i > 1) groups.emplace_back(sorted.begin() + static_cast<std::ptrdiff_t>(i),
                                           sorted.begin() + static_cast<std::ptrdiff_t>(j));
        i = j;
    }
    return groups;
}

LogVerdict verdictOf(const Verification& verification)
{
    switch (verification.verdict) {
    case Verdict::Valid: return LogVerdict::Valid;
    case Verdict::Invalid:
    case Verdict::Malformed:
    case Verdict::WrongKey: return LogVerdict::Invalid;
    case Verdict::UnsupportedAlgorithm: return LogVerdict::Unreadable;
    }
    return LogVerdict::Unreadable;
}

class AuditRun {
public:
    explicit AuditRun(const AuditOptions& options) : options_(options) { report_.exports = options.exports; }

    AuditOutcome run();

private:
    std::string loadGivenCertificates();
    void addCertificates(const std::string& file, ByteView data, bool trusted, bool given);
    void addKey(const Certificate& certificate);
    void checkCertificateName(const std::string& file, const std::vector<Certificate>& certificates);
    std::string readAll();
    void visit(ExportMember&& member);
    void visitLog(ExportMember&& member);
    bool firstSighting(ByteView data);
    void work();
    void process(WorkItem&& item, WorkerMemory& memory);
    void queueItem(WorkItem&& item);
    void flushBatch();
    void processWaiting();
    void keep(LogRecord&& record, const RecordTexts& texts = {});
    void dropCopies();
    void addFinding(Severity severity, const std::string& code, const std::string& message,
                    std::vector<std::string> files);
    void finish();

    const AuditOptions& options_;
    AuditReport report_;
    std::vector<Certificate> certificates_;  // beside report_.certificates
    CertificatePool pool_;

    std::shared_mutex keysLock_;
    std::unordered_map<std::string, PublicKey> keys_;  // by raw serial number
    std::unordered_map<std::string, std::vector<WorkItem>> pending_;
    size_t pendingBytes_ = 0;
    std::set<uint64_t> deferred_;
    bool finalPass_ = false;  // set once every certificate has been read

    std::mutex resultsLock_;
    std::atomic<uint64_t> logsDone_{0};
    std::unique_ptr<WorkQueue<Batch>> queue_;
    Batch batch_;  // what the reading thread gathers before queueing
    std::unordered_set<Digest, DigestHash> seen_;
    uint64_t ordinal_ = 0;
    uint64_t bytesBefore_ = 0, bytesTotal_ = 0;
};

void AuditRun::addFinding(Severity severity, const std::string& code, const std::string& message,
                          std::vector<std::string> files)
{
    std::lock_guard<std::mutex> lock(resultsLock_);
    report_.findings.push_back(Finding{severity, code, message, std::move(files)});
}

void AuditRun::addKey(const Certificate& certificate)
{
    const PublicKey& key = *certificate.key();
    const std::string serial = key.serialNumber().empty()
                                   ? std::string()
                                   : std::string(key.serialNumber().begin(), key.serialNumber().end());
    std::vector<WorkItem> waiting;
    {
        std::unique_lock<std::shared_mutex> lock(keysLock_);
        keys_.emplace(serial, key);
        auto found = pending_.find(serial);
        if (found != pending_.end()) {
            waiting = std::move(found->second);
            pending_.erase(found);
            for (const WorkItem& item : waiting) pendingBytes_ -= pendingCost(item);
        }
    }
    if (!waiting.empty()) queue_->push(std::move(waiting));
}

void AuditRun::addCertificates(const std::string& file, ByteView data, bool trusted, bool given)
{
    CertificateLoad load = loadCertificates(data);
    if (load.certificates.empty()) {
        addFinding(Severity::Warning, "unexpected-member", file + " holds no certificate: " + load.error, {file});
        return;
    }
    if (!given) checkCertificateName(file, load.certificates);
    for (const Certificate& certificate : load.certificates) {
        pool_.add(certificate, trusted);
        if (certificate.key() && queue_) addKey(certificate);
        if (trusted) continue;
        CertificateRecord record;
        record.file = file;
        record.serialNumber = certificateSerial(certificate);
        record.subject = certificate.subject();
        record.issuer = certificate.issuer();
        record.notBefore = certificate.notBefore();
        record.notAfter = certificate.notAfter();
        record.curve = certificate.curveName();
        record.keyProblem = certificate.keyError();
        record.given = given;
        report_.certificates.push_back(std::move(record));
        certificates_.push_back(certificate);
    }
}

// A name that starts with a key hash must be that of a key in the file;
// other names (a vendor's CA, say) claim nothing.
void AuditRun::checkCertificateName(const std::string& file, const std::vector<Certificate>& certificates)
{
    const std::optional<std::string> claimed = certificateNameSerial(file);
    if (!claimed || !isKeyHash(*claimed)) return;
    for (const Certificate& certificate : certificates) {
        if (equalsIgnoringCase(certificateSerial(certificate), *claimed)) return;
    }
    addFinding(Severity::Error, "name-mismatch",
               file + ": the name gives the key hash " + *claimed + ", but the certificate's key hash is " +
                   certificateSerial(certificates.front()),
               {file});
}

std::string AuditRun::loadGivenCertificates()
{
    for (const std::string& path : options_.certificateFiles) {
        FileRead read = readFileBounded(path, MAX_CERTIFICATE_FILE);
        if (!read.contents) return "the certificate " + path + " " + read.error;
        if (loadCertificates(*read.contents).certificates.empty()) return "the certificate " + path + " holds no certificate";
        addCertificates(path, *read.contents, false, true);
    }
    namespace fs = std::filesystem;
    for (const std::string& directory : options_.trustDirectories) {
        std::error_code error;
        if (!fs::is_directory(directory, error)) return "the trust directory " + directory + " is not a directory";
        for (const auto& entry : fs::directory_iterator(directory, error)) {
            if (!entry.is_regular_file(error)) continue;
            FileRead read = readFileBounded(entry.path().string(), MAX_CERTIFICATE_FILE);
            if (read.contents && !loadCertificates(*read.contents).certificates.empty()) {
                addCertificates(entry.path().string(), *read.contents, true, true);
            }
        }
    }
    return {};
}

bool AuditRun::firstSighting(ByteView data)
{
    return seen_.insert(digestOf(data)).second;
}

void AuditRun::keep(LogRecord&& record, const RecordTexts& texts)
{
    std::lock_guard<std::mutex> lock(resultsLock_);
    StringPool& pool = report_.strings;
    record.serialNumber = pool.intern(texts.serialNumber);
    record.algorithm = pool.intern(texts.algorithm);
    record.operation = pool.intern(texts.operation);
    record.clientId = pool.intern(texts.clientId);
    record.processType = pool.intern(texts.processType);
    report_.logs.push_back(std::move(record));
    ++logsDone_;
}

void AuditRun::process(WorkItem&& item, WorkerMemory& memory)
{
    LogRecord record;
    record.file = item.name;
    record.ordinal = item.ordinal;
    const std::optional<LogName> name = parseLogName(item.name);
    LogParse parse = parseLogMessage(item.bytes);
    if (!parse.message) {
        if (name) record.type = name->type, record.counter = name->counter;
        record.reason = parse.error + " (at byte " + std::to_string(parse.errorOffset) + ")";
        return keep(std::move(record));
    }
    const LogMessage& message = *parse.message;
    RecordTexts texts;
    fillFromMessage(record, texts, message, memory);
    // A file given by itself may be named anything; in an export the name is
    // the TSE's, and a name that does not follow its pattern is a finding.
    if (name) record.nameProblem = nameMismatch(*name, message);
    else if (!item.standalone) record.nameProblem = "the name does not follow the TSE's naming pattern";
    const std::string serial(message.serialNumber.begin(), message.serialNumber.end());
    std::optional<PublicKey> key;
    {
        std::shared_lock<std::shared_mutex> lock(keysLock_);
        auto found = keys_.find(serial);
        if (found != keys_.end()) key = found->second;
    }
    if (!key && !finalPass_) {
        std::unique_lock<std::shared_mutex> lock(keysLock_);
        auto found = keys_.find(serial);
        if (found != keys_.end()) {
            key = found->second;
        } else if (pendingBytes_ + pendingCost(item) <= MAX_PENDING_BYTES) {
            pendingBytes_ += pendingCost(item);
            pending_[serial].push_back(std::move(item));
            return;
        } else {
            deferred_.insert(item.ordinal);
            return;
        }
    }
    if (!key) {
        record.verdict = LogVerdict::NoCertificate;
        record.reason =
            "no certificate has a key whose SHA-256 is the serial number " + std::string(texts.serialNumber);
        if (options_.inspect) options_.inspect(message, record);
        return keep(std::move(record), texts);
    }
    const Verification verification = verifyLog(message, *key);
    record.verdict = verdictOf(verification);
    // A recognised algorithm this system cannot check leaves the signature
    // unproven, and the reason says why; an unknown one is no TSE log.
    if (verification.verdict == Verdict::UnsupportedAlgorithm && algorithmByOid(message.signatureAlgorithmOid)) {
        record.verdict = LogVerdict::Invalid;
    }
    record.reason = verification.reason;
    if (options_.inspect) options_.inspect(message, record);
    keep(std::move(record), texts);
}

void AuditRun::work()
{
    WorkerMemory memory;
    while (std::optional<Batch> batch = queue_->pop()) {
        for (WorkItem& item : *batch) process(std::move(item), memory);
    }
}

void AuditRun::queueItem(WorkItem&& item)
{
    batch_.push_back(std::move(item));
    if (batch_.size() >= BATCH_SIZE) flushBatch();
}

void AuditRun::flushBatch()
{
    if (batch_.empty()) return;
    queue_->push(std::move(batch_));
    batch_ = Batch();
    batch_.reserve(BATCH_SIZE);
}

void AuditRun::visitLog(ExportMember&& member)
{
    if (!member.contents) {
        LogRecord record;
        record.file = member.name;
        record.ordinal = ordinal_;
        if (const auto name = parseLogName(member.name)) record.type = name->type, record.counter = name->counter;
        record.reason = "the member " + member.error;
        return keep(std::move(record));
    }
    queueItem(WorkItem{ordinal_, std::move(member.name), std::move(*member.contents), member.standalone});
}

void AuditRun::visit(ExportMember&& member)
{
    ++ordinal_;
    if (finalPass_) {
        if (deferred_.count(ordinal_) && member.contents) {
            queueItem(WorkItem{ordinal_, std::move(member.name), std::move(*member.contents), member.standalone});
        }
        return;
    }
    // A path the user gave is used as given; only names from inside an
    // export could lead somewhere they should not.
    if (!member.standalone && unsafeMemberName(member.name)) {
        return addFinding(Severity::Warning, "unexpected-member",
                          "the member name " + member.name + " in " + member.source +
                              " leads outside the export; it was not used",
                          {member.name});
    }
    const MemberKind kind = classifyMember(member.name);
    if (kind == MemberKind::Log) return visitLog(std::move(member));
    if (!member.contents) {
        return addFinding(Severity::Warning, "unexpected-member", member.name + " " + member.error, {member.name});
    }
    if (!firstSighting(*member.contents)) return;
    if (kind == MemberKind::Certificate) return addCertificates(member.name, *member.contents, false, false);
    if (kind == MemberKind::Info) {
        InfoParse parse = parseInfoCsv(*member.contents);
        if (parse.info && !report_.info) report_.info = std::move(parse.info);
        if (!parse.info) report_.infoProblem = member.name + ": " + parse.error;
        return;
    }
    addFinding(Severity::Warning, "unexpected-member",
               member.name + " is neither a log, a certificate nor info.csv", {member.name});
}

// One pass over every export: this thread reads, the workers parse and
// verify what it queues. The second pass, when needed, only picks up the
// logs that could not wait for their certificate in memory.
std::string AuditRun::readAll()
{
    ordinal_ = 0;
    queue_ = std::make_unique<WorkQueue<Batch>>(QUEUE_CAPACITY);
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < std::max(1u, options_.jobs); ++i) workers.emplace_back([this] { work(); });
    const ExportGrouping grouping = groupExportPaths(options_.exports);
    std::string failure = grouping.error;
    bytesTotal_ = 0;
    for (const ExportSource& source : grouping.sources) bytesTotal_ += sourceSize(source);
    bytesBefore_ = 0;
    for (const ExportSource& source : grouping.sources) {
        if (!failure.empty()) break;
        const ExportRead read = readExportSource(
            source, options_.maxMemberSize, [&](ExportMember&& member) { visit(std::move(member)); },
            [&](uint64_t bytes) {
                if (options_.progress) options_.progress(AuditProgress{logsDone_, bytesBefore_ + bytes, bytesTotal_});
            });
        bytesBefore_ += sourceSize(source);
        if (!read.opened) failure = read.error;
        else if (!read.error.empty() && !finalPass_) addFinding(Severity::Error, "log-unreadable", read.error, {source.label()});
    }
    flushBatch();
    queue_->close();
    for (std::thread& worker : workers) worker.join();
    return failure;
}

void AuditRun::processWaiting()
{
    std::vector<WorkItem> waiting;
    for (auto& entry : pending_) {
        for (WorkItem& item : entry.second) waiting.push_back(std::move(item));
    }
    pending_.clear();
    parallelFor(waiting.size(), options_.jobs, [&](size_t i) {
        WorkerMemory memory;
        process(std::move(waiting[i]), memory);
    });
}

// Reads the members that may be copies once more and drops every log whose
// bytes equal those of an earlier one: a copy counts once.
void AuditRun::dropCopies()
{
    const std::vector<std::vector<const LogRecord*>> groups = possibleCopies(report_.logs);
    if (groups.empty()) return;
    std::unordered_map<uint64_t, size_t> groupOf;
    for (size_t g = 0; g < groups.size(); ++g) {
        for (const LogRecord* log : groups[g]) groupOf.emplace(log->ordinal, g);
    }
    std::vector<std::unordered_set<Digest, DigestHash>> seen(groups.size());
    std::unordered_set<uint64_t> copies;
    uint64_t ordinal = 0;
    for (const ExportSource& source : groupExportPaths(options_.exports).sources) {
        readExportSource(source, options_.maxMemberSize, [&](ExportMember&& member) {
            auto found = groupOf.find(++ordinal);
            if (found == groupOf.end() || !member.contents) return;
            if (!seen[found->second].insert(digestOf(*member.contents)).second) copies.insert(ordinal);
        });
    }
    if (copies.empty()) return;
    auto& logs = report_.logs;
    const auto isCopy = [&](const LogRecord& log) { return copies.count(log.ordinal) > 0; };
    logs.erase(std::remove_if(logs.begin(), logs.end(), isCopy), logs.end());
    report_.summary.duplicatesSkipped += copies.size();
}

void AuditRun::finish()
{
    std::sort(report_.logs.begin(), report_.logs.end(),
              [](const LogRecord& a, const LogRecord& b) { return a.ordinal < b.ordinal; });
    dropCopies();
    for (size_t i = 0; i < certificates_.size(); ++i) report_.certificates[i].chain = pool_.judge(certificates_[i]);
    applyIntegrityRules(report_, !options_.trustDirectories.empty());
    AuditSummary& s = report_.summary;
    for (const LogRecord& log : report_.logs) {
        ++s.logs;
        s.valid += log.verdict == LogVerdict::Valid;
        s.invalid += log.verdict == LogVerdict::Invalid;
        s.noCertificate += log.verdict == LogVerdict::NoCertificate;
        s.unreadable += log.verdict == LogVerdict::Unreadable;
        s.transaction += log.type == LogType::Transaction;
        s.system += log.type == LogType::System;
        s.audit += log.type == LogType::Audit;
    }
    for (Finding& finding : report_.findings) {
        if (options_.strict) finding.severity = Severity::Error;
        (finding.severity == Severity::Error ? s.errors : s.warnings) += 1;
    }
}

AuditOutcome AuditRun::run()
{
    queue_ = std::make_unique<WorkQueue<Batch>>(QUEUE_CAPACITY);
    if (std::string error = loadGivenCertificates(); !error.empty()) return AuditOutcome{std::nullopt, error};
    if (std::string error = readAll(); !error.empty()) return AuditOutcome{std::nullopt, error};
    // Every certificate is known now, so nothing waits any longer.
    finalPass_ = true;
    processWaiting();
    if (!deferred_.empty()) readAll();
    finish();
    return AuditOutcome{std::move(report_), {}};
}

}  // namespace

AuditOutcome auditExport(const AuditOptions& options)
{
    AuditRun run(options);
    return run.run();
}

}  // namespace tse
