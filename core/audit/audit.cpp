#include "audit.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cstring>
#include <deque>
#include <filesystem>
#include <set>
#include <system_error>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "audit_rules.h"
#include "export_names.h"
#include "export_reader.h"
#include "file_reader.h"
#include "log_judgement.h"
#include "thread_annotations.h"
#include "work_queue.h"

namespace tse {
namespace {

// Items travel through the queue in batches so that the verifying threads
// take the queue's lock once per batch, not once per log.
constexpr size_t BATCH_SIZE = 32;
constexpr size_t QUEUE_CAPACITY = 2048 / BATCH_SIZE;
// Logs whose certificate comes later in the export wait in memory up to
// this many bytes; beyond it they are read a second time at the end.
constexpr size_t ITEM_OVERHEAD = 160;  // what a queued item costs beside its bytes
constexpr size_t MAX_CERTIFICATE_FILE = 1u << 20;
// Keys that get tables of their own (each up to KeyVerifier::MAX_TABLE_BYTES);
// the logs of any further key take the plain path.
constexpr size_t MAX_KEYS_WITH_TABLES = 4;

struct WorkItem {
    uint64_t ordinal = 0;
    std::string name;
    Bytes bytes;
    bool standalone = false;  // given by itself, so its name need not follow the TSE's pattern
    std::string_view source;  // the export, interned in the report's pool
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

// Once enough of a TSE's logs have come by, the tables that check them fast.
struct KeyTables {
    std::atomic<size_t> logs{0};
    std::once_flag built;
    std::shared_ptr<const KeyVerifier> verifier;  // written once, inside `built`
    std::atomic<bool> ready{false};
};

// A log whose signature waits for the rest of its batch, so that the
// inversions are shared. The texts' views are set again when it is settled:
// they point into the strings beside them, which move with it.
struct Deferred {
    LogRecord record;
    RecordTexts texts;
    std::string serial, algorithm;
    LogMessage message;
    std::shared_ptr<KeyTables> tables;
};

// What a verifying thread remembers from its last log: consecutive logs
// nearly always come from one TSE, so its serial number is spelt out once.
struct WorkerMemory {
    Bytes serial;
    std::string serialHex;
    std::unique_ptr<VerifyScratch> scratch;  // made when first needed
    std::vector<Deferred> deferred;

    VerifyScratch& verifyScratch()
    {
        if (!scratch) scratch = std::make_unique<VerifyScratch>();
        return *scratch;
    }

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
    texts.algorithm = algorithmName(message.signatureAlgorithmOid);
    record.seconds = message.logTime.seconds;
    record.fraction = message.logTime.fraction;
    record.timeFormat = message.logTime.format;
    record.transactionNumber = message.transactionNumber();
    texts.operation = escapeText(message.operation());
    if (const LogField* field = message.field("clientId")) texts.clientId = escapeText(field->value);
    if (const LogField* field = message.field("processType")) texts.processType = escapeText(field->value);
}

// Logs that may be byte-for-byte copies of one another: those of one TSE
// with one signature counter, or unreadable ones that fail alike. Only
// these are hashed, in a second read, instead of hashing every member. The
// groups hold ordinals.
std::vector<std::vector<uint64_t>> possibleCopies(const LogTable& logs)
{
    std::vector<const LogTable::Row*> sorted;
    for (size_t i = 0; i < logs.size(); ++i) {
        const LogTable::Row& row = logs.row(i);
        if (row.hasCounter() || row.reason != 0) sorted.push_back(&row);
    }
    // Texts are pooled, so equal ids are equal texts.
    const auto key = [](const LogTable::Row* row) {
        return std::make_tuple(row->serialNumber, row->hasCounter(), row->counter,
                               row->serialNumber == 0 ? row->reason : 0u);
    };
    std::sort(sorted.begin(), sorted.end(),
              [&](const LogTable::Row* a, const LogTable::Row* b) { return key(a) < key(b); });
    std::vector<std::vector<uint64_t>> groups;
    for (size_t i = 0; i < sorted.size();) {
        size_t j = i + 1;
        while (j < sorted.size() && key(sorted[j]) == key(sorted[i])) ++j;
        if (j - i > 1) {
            groups.emplace_back();
            for (size_t k = i; k < j; ++k) groups.back().push_back(sorted[k]->ordinal);
        }
        i = j;
    }
    return groups;
}

void escapeInfo(InfoCsv& info)
{
    for (InfoRecord& record : info.records) {
        for (auto& [key, value] : record) key = escapeText(key), value = escapeText(value);
    }
}

class AuditRun {
public:
    explicit AuditRun(const AuditOptions& options) : options_(options) { report_.exports = options.exports; }

    Result<AuditReport> run();

private:
    std::string loadGivenCertificates();
    void loadCertificatesBesideLogs();
    void addCertificates(const std::string& file, ByteView data, bool trusted, bool given);
    void addKey(const Certificate& certificate);
    void checkCertificateName(const std::string& file, const std::vector<Certificate>& certificates);
    std::string readAll();
    void visit(ExportMember&& member);
    void visitLog(ExportMember&& member);
    bool firstSighting(ByteView data);
    void work();
    void process(WorkItem&& item, WorkerMemory& memory);
    const KeyVerifier* fastVerifier(const PublicKey& key, KeyTables& tables);
    void settle(LogRecord&& record, const RecordTexts& texts, const LogMessage& message,
                Verification verification);
    void settleDeferred(WorkerMemory& memory);
    void queueItem(WorkItem&& item);
    void flushBatch();
    void processWaiting();
    void keep(LogRecord&& record, const RecordTexts& texts = {});
    void dropCopies();
    void addFinding(Severity severity, const std::string& code, const std::string& message,
                    std::vector<std::string> files, std::string source = {});
    void exportFindings();
    std::string startWorkers(std::vector<std::thread>& workers);
    void finish();

    const AuditOptions& options_;
    AuditReport report_;
    std::vector<Certificate> certificates_;  // beside report_.certificates
    CertificatePool pool_;

    // The keys and the logs that wait for theirs, shared by the reading
    // thread, which adds keys, and the workers, which look them up. The
    // audit's entries carry the tables built for a key with many logs.
    SharedMutex keysLock_;
    BasicKeyIndex<std::shared_ptr<KeyTables>> keys_ TSE_GUARDED_BY(keysLock_);
    std::atomic<size_t> keysWithTables_{0};
    std::unordered_map<std::string, std::vector<WorkItem>> pending_ TSE_GUARDED_BY(keysLock_);
    size_t pendingBytes_ TSE_GUARDED_BY(keysLock_) = 0;
    std::set<uint64_t> deferred_ TSE_GUARDED_BY(keysLock_);
    bool finalPass_ = false;  // set once every certificate has been read

    Mutex resultsLock_;  // over what the workers add to report_: logs, findings, strings
    std::atomic<uint64_t> logsDone_{0};
    std::unique_ptr<WorkQueue<Batch>> queue_;
    Batch batch_;  // what the reading thread gathers before queueing
    std::unordered_set<Digest, DigestHash> seen_;
    std::unordered_map<Digest, size_t, DigestHash> certificateSeen_;  // DER digest -> record
    size_t current_ = 0;            // the index in report_.audited being read
    std::deque<std::string> labels_;  // the exports' paths as shown; a deque keeps views valid
    std::string_view currentLabel_;  // its path, in labels_
    uint64_t ordinal_ = 0;
    uint64_t bytesBefore_ = 0, bytesTotal_ = 0;
};

void AuditRun::addFinding(Severity severity, const std::string& code, const std::string& message,
                          std::vector<std::string> files, std::string source)
{
    ExclusiveLock<Mutex> lock(resultsLock_);
    report_.findings.push_back(Finding{severity, code, message, std::move(files), std::move(source)});
}

void AuditRun::addKey(const Certificate& certificate)
{
    const PublicKey& key = *certificate.key();
    const std::string serial(key.serialNumber().begin(), key.serialNumber().end());
    std::vector<WorkItem> waiting;
    {
        ExclusiveLock<SharedMutex> lock(keysLock_);
        keys_.add(key, {}, std::make_shared<KeyTables>());
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
    const Result<std::vector<Certificate>> load = loadCertificates(data);
    if (!load) {
        addFinding(Severity::Warning, "unexpected-member", file + " holds no certificate: " + load.error().message, {file});
        return;
    }
    if (!given) checkCertificateName(file, *load);
    for (const Certificate& certificate : *load) {
        // A file may repeat one certificate many times: it is one certificate.
        if (trusted) {
            pool_.add(certificate, true);
            if (certificate.key() && queue_) addKey(certificate);
            continue;
        }
        const Digest digest = digestOf(certificate.der());
        if (const auto found = certificateSeen_.find(digest); found != certificateSeen_.end()) {
            ++report_.certificates[found->second].copies;
            continue;
        }
        certificateSeen_.emplace(digest, report_.certificates.size());
        pool_.add(certificate, false);
        if (certificate.key() && queue_) addKey(certificate);
        CertificateRecord record;
        record.file = escapeText(file);
        record.serialNumber = certificateSerial(certificate);
        record.subject = escapeText(certificate.subject());
        record.issuer = escapeText(certificate.issuer());
        record.notBefore = certificate.notBefore();
        record.notAfter = certificate.notAfter();
        record.curve = certificate.curveName();
        if (!certificate.key()) record.keyProblem = certificate.key().error().message;
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
        const Result<Bytes> read = readFileBounded(path, MAX_CERTIFICATE_FILE);
        if (!read) return "the certificate " + path + " " + read.error().message;
        if (!loadCertificates(*read)) return "the certificate " + path + " holds no certificate";
        addCertificates(path, *read, false, true);
    }
    namespace fs = std::filesystem;
    for (const std::string& directory : options_.trustDirectories) {
        std::error_code error;
        if (!fs::is_directory(directory, error)) return "the trust directory " + directory + " is not a directory";
        for (const auto& entry : fs::directory_iterator(directory, error)) {
            if (!entry.is_regular_file(error)) continue;
            const Result<Bytes> read = readFileBounded(entry.path().string(), MAX_CERTIFICATE_FILE);
            if (read && loadCertificates(*read)) {
                addCertificates(entry.path().string(), *read, true, true);
            }
        }
    }
    return {};
}

// Log files given by themselves (dir/*.log) come with the certificates
// beside them, named <SERIAL>_X509.<ext> in a TSE export, as verify finds
// them; one given as an EXPORT itself is read with the others.
void AuditRun::loadCertificatesBesideLogs()
{
    namespace fs = std::filesystem;
    std::set<std::string> directories, given(options_.exports.begin(), options_.exports.end());
    for (const ExportSource& source : groupExportPaths(options_.exports).value_or({})) {
        if (source.kind == ExportSource::Kind::File && classifyMember(source.label()) == MemberKind::Log) {
            directories.insert(fs::path(source.label()).parent_path().string());
        }
    }
    for (const std::string& directory : directories) {
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(directory.empty() ? "." : directory, error)) {
            const std::string path = (directory.empty() ? entry.path().filename() : entry.path()).string();
            if (given.count(path) || classifyMember(path) != MemberKind::Certificate || !entry.is_regular_file(error)) {
                continue;
            }
            const Result<Bytes> read = readFileBounded(path, MAX_CERTIFICATE_FILE);
            if (read && firstSighting(*read)) addCertificates(path, *read, false, false);
        }
    }
}

bool AuditRun::firstSighting(ByteView data)
{
    return seen_.insert(digestOf(data)).second;
}

void AuditRun::keep(LogRecord&& record, const RecordTexts& texts)
{
    ExclusiveLock<Mutex> lock(resultsLock_);
    record.serialNumber = texts.serialNumber;
    record.algorithm = texts.algorithm;
    record.operation = texts.operation;
    record.clientId = texts.clientId;
    record.processType = texts.processType;
    report_.logs.push_back(record);
    ++logsDone_;
}

void AuditRun::process(WorkItem&& item, WorkerMemory& memory)
{
    LogRecord record;
    record.file = escapeText(item.name);
    record.source = item.source;
    record.ordinal = item.ordinal;
    const std::optional<LogName> name = parseLogName(item.name);
    Result<LogMessage> parse = parseLogMessage(item.bytes);
    if (!parse) {
        if (name) record.type = name->type, record.counter = name->counter;
        record.reason = unreadableLog(parse.error()).reason;
        return keep(std::move(record));
    }
    const LogMessage& message = *parse;
    RecordTexts texts;
    fillFromMessage(record, texts, message, memory);
    // A file given by itself may be named anything; in an export the name is
    // the TSE's, and a name that does not follow its pattern is a finding.
    if (name) record.nameProblem = nameMismatch(*name, message);
    else if (!item.standalone) record.nameProblem = "the name does not follow the TSE's naming pattern";
    std::optional<PublicKey> key;
    std::shared_ptr<KeyTables> tables;
    {
        SharedLock lock(keysLock_);
        if (const auto* found = keys_.find(message.serialNumber)) key = found->key, tables = found->extra;
    }
    if (!key && !finalPass_) {
        ExclusiveLock<SharedMutex> lock(keysLock_);
        if (const auto* found = keys_.find(message.serialNumber)) {
            key = found->key, tables = found->extra;
        } else if (pendingBytes_ + pendingCost(item) <= options_.maxPendingBytes) {
            pendingBytes_ += pendingCost(item);
            pending_[std::string(message.serialNumber.begin(), message.serialNumber.end())].push_back(std::move(item));
            return;
        } else {
            deferred_.insert(item.ordinal);
            return;
        }
    }
    if (!key) {
        LogJudgement judgement = judgeLog(message, nullptr);
        record.verdict = judgement.verdict;
        record.reason = std::move(judgement.reason);
        if (options_.inspect) options_.inspect(message, record);
        return keep(std::move(record), texts);
    }
    if (fastVerifier(*key, *tables)) {
        Deferred waiting;
        waiting.serial = std::string(texts.serialNumber);
        waiting.algorithm = std::string(texts.algorithm);
        waiting.record = std::move(record);
        waiting.texts = std::move(texts);
        waiting.message = std::move(parse).value();
        waiting.tables = std::move(tables);
        memory.deferred.push_back(std::move(waiting));
        return;
    }
    settle(std::move(record), texts, message, verifyLog(message, *key));
}

// Whichever path checked the signature, the log is judged in one place, as
// verify judges it.
void AuditRun::settle(LogRecord&& record, const RecordTexts& texts, const LogMessage& message,
                      Verification verification)
{
    LogJudgement judgement = judgeVerification(message, std::move(verification));
    record.verdict = judgement.verdict;
    record.reason = std::move(judgement.reason);
    if (options_.inspect) options_.inspect(message, record);
    keep(std::move(record), texts);
}

// The deferred logs of a batch, key by key, through their verifiers.
void AuditRun::settleDeferred(WorkerMemory& memory)
{
    std::vector<Deferred>& waiting = memory.deferred;
    std::vector<bool> done(waiting.size(), false);
    for (size_t first = 0; first < waiting.size(); ++first) {
        if (done[first]) continue;
        KeyTables* tables = waiting[first].tables.get();
        std::vector<size_t> group;
        std::vector<const LogMessage*> messages;
        for (size_t i = first; i < waiting.size(); ++i) {
            if (!done[i] && waiting[i].tables.get() == tables) {
                group.push_back(i);
                messages.push_back(&waiting[i].message);
                done[i] = true;
            }
        }
        const std::vector<Verification> verifications = verifyLogs(messages, *tables->verifier, memory.verifyScratch());
        for (size_t k = 0; k < group.size(); ++k) {
            Deferred& d = waiting[group[k]];
            d.texts.serialNumber = d.serial;
            d.texts.algorithm = d.algorithm;
            settle(std::move(d.record), d.texts, d.message, verifications[k]);
        }
    }
    waiting.clear();
}

// The many logs of one TSE are checked through tables of its key, built by
// the first thread that sees the key's logs pass the curve's threshold (the
// others wait for it, which is less than a hundred signatures take).
const KeyVerifier* AuditRun::fastVerifier(const PublicKey& key, KeyTables& tables)
{
    const size_t seen = ++tables.logs;
    if (!tables.ready.load(std::memory_order_acquire) && seen >= KeyVerifier::minSignatures(key.curve())) {
        std::call_once(tables.built, [&] {
            if (++keysWithTables_ <= MAX_KEYS_WITH_TABLES) {
                auto verifier = std::make_shared<const KeyVerifier>(key, seen);
                if (verifier->usesTables()) tables.verifier = std::move(verifier);
            }
            tables.ready.store(true, std::memory_order_release);
        });
    }
    return tables.ready.load(std::memory_order_acquire) ? tables.verifier.get() : nullptr;
}

void AuditRun::work()
{
    WorkerMemory memory;
    while (std::optional<Batch> batch = queue_->pop()) {
        for (WorkItem& item : *batch) {
            // A log that cannot be checked (libcrypto out of memory, say) is
            // no invalid signature; it is reported as not checked.
            LogRecord failed;
            failed.source = item.source;
            failed.ordinal = item.ordinal;
            std::string name = item.name;
            try {
                process(std::move(item), memory);
            } catch (const std::exception& error) {
                failed.file = escapeText(name);
                failed.reason = std::string("could not be checked: ") + error.what();
                keep(std::move(failed));
            }
        }
        settleDeferred(memory);
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
    ++report_.audited[current_].logMembers;
    if (!member.contents) {
        LogRecord record;
        record.file = escapeText(member.name);
        record.source = currentLabel_;
        record.ordinal = ordinal_;
        // A link, device or FIFO with a log's name is no log: its name
        // claims a counter that nothing backs, so it fills no counter range.
        if (const auto name = parseLogName(member.name)) {
            record.type = name->type;
            if (!member.special) record.counter = name->counter;
        }
        record.reason = "the member " + member.error;
        return keep(std::move(record));
    }
    queueItem(WorkItem{ordinal_, std::move(member.name), std::move(*member.contents), member.standalone, currentLabel_});
}

void AuditRun::visit(ExportMember&& member)
{
    ++ordinal_;
    if (finalPass_) {
        bool wanted = false;
        {
            SharedLock lock(keysLock_);
            wanted = deferred_.count(ordinal_) > 0;
        }
        if (wanted && member.contents) {
            queueItem(
                WorkItem{ordinal_, std::move(member.name), std::move(*member.contents), member.standalone, currentLabel_});
        }
        return;
    }
    // A path the user gave is used as given; only names from inside an
    // export could lead somewhere they should not.
    const std::string shown = escapeText(member.name);
    const std::string source(currentLabel_);
    if (!member.standalone && unsafeMemberName(member.name)) {
        return addFinding(Severity::Warning, "unexpected-member",
                          "the member name " + shown + " in " + source + " leads outside the export; it was not used",
                          {shown}, source);
    }
    const MemberKind kind = classifyMember(member.name);
    if (kind == MemberKind::Log) return visitLog(std::move(member));
    if (!member.contents) {
        return addFinding(Severity::Warning, "unexpected-member", shown + " " + member.error, {shown}, source);
    }
    // Every export shows its own info.csv, even one identical to another's.
    if (kind == MemberKind::Info) {
        AuditedExport& audited = report_.audited[current_];
        Result<InfoCsv> parse = parseInfoCsv(*member.contents);
        if (parse) {
            InfoCsv info = std::move(parse).value();
            escapeInfo(info);
            if (!report_.info) report_.info = info;
            if (!audited.info) audited.info = std::move(info);
        } else {
            audited.infoProblem = shown + ": " + escapeUnsafe(parse.error().message);
            if (report_.infoProblem.empty()) report_.infoProblem = audited.infoProblem;
        }
        return;
    }
    if (!firstSighting(*member.contents)) return;
    if (kind == MemberKind::Certificate) return addCertificates(member.name, *member.contents, false, false);
    addFinding(Severity::Warning, "unexpected-member", shown + " is neither a log, a certificate nor info.csv",
               {shown}, source);
}

// One pass over every export: this thread reads, the workers parse and
// verify what it queues. The second pass, when needed, only picks up the
// logs that could not wait for their certificate in memory.
std::string AuditRun::readAll()
{
    ordinal_ = 0;
    queue_ = std::make_unique<WorkQueue<Batch>>(QUEUE_CAPACITY);
    std::vector<std::thread> workers;
    if (std::string failure = startWorkers(workers); !failure.empty()) return failure;
    const Result<std::vector<ExportSource>> grouping = groupExportPaths(options_.exports);
    std::string failure = grouping ? std::string() : grouping.error().message;
    const std::vector<ExportSource> sources = grouping.value_or({});
    bytesTotal_ = 0;
    for (const ExportSource& source : sources) bytesTotal_ += sourceSize(source);
    bytesBefore_ = 0;
    if (!finalPass_) report_.audited.clear();
    for (size_t index = 0; index < sources.size(); ++index) {
        const ExportSource& source = sources[index];
        if (!failure.empty()) break;
        if (!finalPass_) {
            report_.audited.push_back(
                AuditedExport{source.label(), source.kind == ExportSource::Kind::File, 0, std::nullopt, {}});
        }
        current_ = index;
        {
            ExclusiveLock<Mutex> lock(resultsLock_);
            currentLabel_ = labels_.emplace_back(escapeText(source.label()));
        }
        const Result<ExportRead> read = readExportSource(
            source, options_.maxMemberSize, [&](ExportMember&& member) { visit(std::move(member)); },
            [&](uint64_t bytes) {
                if (options_.progress) options_.progress(AuditProgress{logsDone_, bytesBefore_ + bytes, bytesTotal_});
            });
        bytesBefore_ += sourceSize(source);
        if (!read) failure = read.error().message;
        else if (read->truncation && !finalPass_) {
            const std::string label(currentLabel_);
            addFinding(Severity::Error, "export-truncated", escapeUnsafe(*read->truncation), {label}, label);
        }
    }
    flushBatch();
    queue_->close();
    for (std::thread& worker : workers) worker.join();
    return failure;
}

// As many verifying threads as asked for and the system grants: a system
// out of threads or memory gets the work done on fewer.
std::string AuditRun::startWorkers(std::vector<std::thread>& workers)
{
    workers = startThreads(std::max(1u, options_.jobs), [this] { work(); });
    if (!workers.empty()) return {};
    return "no thread could be started to verify with (the system is out of threads or memory)";
}

void AuditRun::processWaiting()
{
    std::vector<WorkItem> waiting;
    {
        ExclusiveLock<SharedMutex> lock(keysLock_);
        for (auto& entry : pending_) {
            for (WorkItem& item : entry.second) waiting.push_back(std::move(item));
        }
        pending_.clear();
    }
    parallelFor(waiting.size(), options_.jobs, [&](size_t i) {
        WorkerMemory memory;
        process(std::move(waiting[i]), memory);
        settleDeferred(memory);
    });
}

// Reads the members that may be copies once more and drops every log whose
// bytes equal those of an earlier one: a copy counts once.
void AuditRun::dropCopies()
{
    const std::vector<std::vector<uint64_t>> groups = possibleCopies(report_.logs);
    if (groups.empty()) return;
    std::unordered_map<uint64_t, size_t> groupOf;
    for (size_t g = 0; g < groups.size(); ++g) {
        for (const uint64_t ordinal : groups[g]) groupOf.emplace(ordinal, g);
    }
    std::vector<std::unordered_set<Digest, DigestHash>> seen(groups.size());
    std::unordered_set<uint64_t> copies;
    uint64_t ordinal = 0;
    for (const ExportSource& source : groupExportPaths(options_.exports).value_or({})) {
        const Result<ExportRead> reread = readExportSource(source, options_.maxMemberSize, [&](ExportMember&& member) {
            auto found = groupOf.find(++ordinal);
            if (found == groupOf.end() || !member.contents) return;
            if (!seen[found->second].insert(digestOf(*member.contents)).second) copies.insert(ordinal);
        });
        // The first pass reported any failure; the copies met before it stand.
        if (!reread) break;
    }
    if (copies.empty()) return;
    report_.logs.removeOrdinals(copies);
    report_.summary.duplicatesSkipped += copies.size();
}

// Findings about an export as a whole: one whose logs come without the
// info.csv that describes the device. Log files given by themselves carry none.
void AuditRun::exportFindings()
{
    for (const AuditedExport& audited : report_.audited) {
        if (audited.standalone || audited.logMembers == 0 || audited.info || !audited.infoProblem.empty()) continue;
        const std::string label = escapeText(audited.path);
        addFinding(Severity::Warning, "info-missing",
                   label + " holds " + std::to_string(audited.logMembers) + " log members but no info.csv", {label},
                   label);
    }
}

void AuditRun::finish()
{
    report_.logs.sortByOrdinal();
    dropCopies();
    for (size_t i = 0; i < certificates_.size(); ++i) report_.certificates[i].chain = pool_.judge(certificates_[i]);
    applyIntegrityRules(report_, !options_.trustDirectories.empty());
    exportFindings();
    AuditSummary& s = report_.summary;
    for (size_t i = 0; i < report_.logs.size(); ++i) {
        const LogTable::Row& row = report_.logs.row(i);
        const auto verdict = static_cast<LogVerdict>(row.verdict);
        ++s.logs;
        s.valid += verdict == LogVerdict::Valid;
        s.invalid += verdict == LogVerdict::Invalid;
        s.noCertificate += verdict == LogVerdict::NoCertificate;
        s.unreadable += verdict == LogVerdict::Unreadable;
        s.transaction += row.type == static_cast<uint8_t>(LogType::Transaction);
        s.system += row.type == static_cast<uint8_t>(LogType::System);
        s.audit += row.type == static_cast<uint8_t>(LogType::Audit);
    }
    for (Finding& finding : report_.findings) {
        if (options_.strict) finding.severity = Severity::Error;
        (finding.severity == Severity::Error ? s.errors : s.warnings) += 1;
    }
}

Result<AuditReport> AuditRun::run()
{
    queue_ = std::make_unique<WorkQueue<Batch>>(QUEUE_CAPACITY);
    if (std::string error = loadGivenCertificates(); !error.empty()) return Error{error, {}};
    loadCertificatesBesideLogs();
    if (std::string error = readAll(); !error.empty()) return Error{error, {}};
    // Every certificate is known now, so nothing waits any longer.
    finalPass_ = true;
    processWaiting();
    bool deferred = false;
    {
        SharedLock lock(keysLock_);
        deferred = !deferred_.empty();
    }
    if (deferred) {
        if (std::string error = readAll(); !error.empty()) return Error{error, {}};
    }
    finish();
    // Nothing to audit is no passed audit; a cut archive with nothing left
    // in it still gets its report, which says where it was cut.
    const bool truncated = std::any_of(report_.findings.begin(), report_.findings.end(),
                                       [](const Finding& f) { return f.code == "export-truncated"; });
    if (report_.logs.empty() && !truncated) {
        std::string names;
        for (const std::string& path : options_.exports) names += (names.empty() ? "" : ", ") + escapeText(path);
        return Error{"no log messages found in " + names, {}};
    }
    return std::move(report_);
}

}  // namespace

Result<AuditReport> auditExport(const AuditOptions& options)
{
    AuditRun run(options);
    return run.run();
}

}  // namespace tse
