#include "verification_pipeline.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <unordered_set>

#include "algorithms.h"
#include "export_names.h"
#include "key_verifier.h"
#include "log_verify.h"
#include "parallel.h"

namespace tse {

namespace {

// Items travel through the queue in batches so that the verifying threads
// take the queue's lock once per batch, not once per log.
constexpr size_t BATCH_SIZE = 32;
constexpr size_t QUEUE_CAPACITY = 2048 / BATCH_SIZE;
constexpr size_t ITEM_OVERHEAD = 160;  // what a held item costs beside its bytes
// Keys that get tables of their own (each up to KeyVerifier::MAX_TABLE_BYTES);
// the logs of any further key take the plain path.
constexpr size_t MAX_KEYS_WITH_TABLES = 4;

size_t heldCost(const LogItem& item)
{
    return item.bytes.size() + item.name.size() + ITEM_OVERHEAD;
}

}  // namespace

// Once enough of a TSE's logs have come by, the tables that check them fast.
struct KeyTables {
    std::atomic<size_t> logs{0};
    std::once_flag built;
    std::shared_ptr<const KeyVerifier> verifier;  // written once, inside `built`
    std::atomic<bool> ready{false};
};

// The texts of a record before they are pooled in the log table. The views
// stay good as long as the thread's memory.
struct RecordTexts {
    std::string_view serialNumber;
    std::string_view algorithm;  // the table's name, or the message's OID text
    std::string operation, clientId, processType;
};

namespace {

// A log checked through its key's tables waits for the rest of its batch,
// so that the inversions are shared.
struct BatchedLog {
    LogRecord record;
    RecordTexts texts;
    LogMessage message;
    std::shared_ptr<KeyTables> tables;
};

}  // namespace

// What a verifying thread keeps from log to log: its rows, merged into the
// pipeline's table when it ends, and what consecutive logs, which nearly
// always come from one TSE, share.
struct WorkerMemory {
    LogTable logs;
    uint64_t done = 0;                                         // rows not yet counted in logsDone_
    std::unordered_map<std::string, std::string> serialTexts;  // raw serial number -> hex
    std::unordered_set<std::string> oidTexts;                  // algorithms no table names
    Bytes lastSerial;
    std::string_view lastSerialText;
    Bytes keySerial;  // of the key found last
    std::optional<FoundKey> key;
    std::unique_ptr<VerifyScratch> scratch;  // made when first needed
    std::vector<BatchedLog> batched;

    VerifyScratch& verifyScratch()
    {
        if (!scratch) scratch = std::make_unique<VerifyScratch>();
        return *scratch;
    }

    std::string_view serialText(const Bytes& raw)
    {
        if (raw != lastSerial || lastSerialText.empty()) {
            std::string& hex = serialTexts[std::string(raw.begin(), raw.end())];
            if (hex.empty()) hex = toHex(raw);
            lastSerial = raw;
            lastSerialText = hex;
        }
        return lastSerialText;
    }

    std::string_view algorithmText(const LogMessage& message)
    {
        if (const SignatureAlgorithm* algorithm = algorithmByOid(message.signatureAlgorithmOid)) {
            return algorithm->name;
        }
        return *oidTexts.insert(message.signatureAlgorithmOid).first;
    }

    void keep(LogRecord&& record, const RecordTexts* texts)
    {
        if (texts) {
            record.serialNumber = texts->serialNumber;
            record.algorithm = texts->algorithm;
            record.operation = texts->operation;
            record.clientId = texts->clientId;
            record.processType = texts->processType;
        }
        logs.push_back(record);
        ++done;
    }
};

namespace {

void fillFromMessage(LogRecord& record, RecordTexts& texts, const LogMessage& message, WorkerMemory& memory)
{
    record.type = message.type;
    record.counter = message.signatureCounter;
    texts.serialNumber = memory.serialText(message.serialNumber);
    texts.algorithm = memory.algorithmText(message);
    record.seconds = message.logTime.seconds;
    record.fraction = message.logTime.fraction;
    record.timeFormat = message.logTime.format;
    record.transactionNumber = message.transactionNumber();
    // As LogMessage::operation() reads it, without the copy.
    const bool event = message.type == LogType::System && message.version >= 3;
    if (const LogField* field = message.field(event ? "eventType" : "operationType")) {
        texts.operation = escapeText(field->value);
    }
    if (const LogField* field = message.field("clientId")) texts.clientId = escapeText(field->value);
    if (const LogField* field = message.field("processType")) texts.processType = escapeText(field->value);
}

}  // namespace

VerificationPipeline::VerificationPipeline(const AuditOptions& options) : options_(options) {}

VerificationPipeline::~VerificationPipeline()
{
    if (threads_.empty()) return;
    queue_->close();
    for (std::thread& thread : threads_) thread.join();
}

void VerificationPipeline::addKey(const PublicKey& key)
{
    const std::string serial(key.serialNumber().begin(), key.serialNumber().end());
    std::vector<LogItem> waiting;
    {
        ExclusiveLock<SharedMutex> lock(keysLock_);
        keys_.add(key, {}, std::make_shared<KeyTables>());
        // Between passes the held logs stay where verifyHeld finds them.
        if (threads_.empty()) return;
        const auto found = held_.find(serial);
        if (found != held_.end()) {
            waiting = std::move(found->second);
            held_.erase(found);
            for (const LogItem& item : waiting) heldBytes_ -= heldCost(item);
        }
    }
    if (!waiting.empty()) queue_->push(std::move(waiting));
}

// As many verifying threads as asked for and the system grants: a system
// out of threads or memory gets the work done on fewer.
Result<unsigned> VerificationPipeline::startPass()
{
    queue_ = std::make_unique<WorkQueue<std::vector<LogItem>>>(QUEUE_CAPACITY);
    threads_ = startThreads(std::max(1u, options_.jobs), [this] { work(); });
    if (threads_.empty()) {
        return Error{"no thread could be started to verify with (the system is out of threads or memory)"};
    }
    return static_cast<unsigned>(threads_.size());
}

void VerificationPipeline::submit(LogItem&& item)
{
    batch_.push_back(std::move(item));
    if (batch_.size() >= BATCH_SIZE) flushBatch();
}

void VerificationPipeline::flushBatch()
{
    if (batch_.empty()) return;
    queue_->push(std::move(batch_));
    batch_ = std::vector<LogItem>();
    batch_.reserve(BATCH_SIZE);
}

void VerificationPipeline::endPass()
{
    flushBatch();
    queue_->close();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
}

void VerificationPipeline::keepUnread(LogRecord&& record)
{
    ExclusiveLock<Mutex> lock(logsLock_);
    logs_.push_back(record);
    ++logsDone_;
}

void VerificationPipeline::verifyHeld()
{
    allKeysKnown_ = true;
    std::vector<LogItem> waiting;
    {
        ExclusiveLock<SharedMutex> lock(keysLock_);
        for (auto& entry : held_) {
            for (LogItem& item : entry.second) waiting.push_back(std::move(item));
        }
        held_.clear();
        heldBytes_ = 0;
    }
    parallelFor(waiting.size(), options_.jobs, [&](size_t i) {
        WorkerMemory memory;
        checkGuarded(std::move(waiting[i]), memory);
        finishBatch(memory);
        ExclusiveLock<Mutex> lock(logsLock_);
        logs_.append(std::move(memory.logs));
    });
}

bool VerificationPipeline::rereadWanted() const
{
    SharedLock lock(keysLock_);
    return !reread_.empty();
}

bool VerificationPipeline::rereads(uint64_t ordinal) const
{
    SharedLock lock(keysLock_);
    return reread_.count(ordinal) > 0;
}

LogTable VerificationPipeline::takeLogs()
{
    ExclusiveLock<Mutex> lock(logsLock_);
    return std::move(logs_);
}

void VerificationPipeline::work()
{
    WorkerMemory memory;
    while (std::optional<std::vector<LogItem>> batch = queue_->pop()) {
        for (LogItem& item : *batch) checkGuarded(std::move(item), memory);
        finishBatch(memory);
    }
    ExclusiveLock<Mutex> lock(logsLock_);
    logs_.append(std::move(memory.logs));
}

void VerificationPipeline::finishBatch(WorkerMemory& memory)
{
    settleBatch(memory);
    logsDone_ += memory.done;
    memory.done = 0;
}

// A log that cannot be checked (libcrypto out of memory, say) is no invalid
// signature; it is reported as not checked.
void VerificationPipeline::checkGuarded(LogItem&& item, WorkerMemory& memory)
{
    try {
        check(item, memory);
    } catch (const std::exception& error) {
        LogRecord failed;
        failed.source = item.source;
        failed.ordinal = item.ordinal;
        failed.file = escapeText(item.name);
        failed.reason = std::string("could not be checked: ") + error.what();
        memory.keep(std::move(failed), nullptr);
    }
}

void VerificationPipeline::check(LogItem& item, WorkerMemory& memory)
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
        return memory.keep(std::move(record), nullptr);
    }
    const LogMessage& message = *parse;
    RecordTexts texts;
    fillFromMessage(record, texts, message, memory);
    // A file given by itself may be named anything; in an export the name is
    // the TSE's, and a name that does not follow its pattern is a finding.
    if (name) record.nameProblem = nameMismatch(*name, message);
    else if (!item.standalone) record.nameProblem = "the name does not follow the TSE's naming pattern";
    const FoundKey* found = findKey(message.serialNumber, item, memory);
    if (!found) return;
    if (!found->key) {
        LogJudgement judgement = judgeLog(message, nullptr);
        record.verdict = judgement.verdict;
        record.reason = std::move(judgement.reason);
        if (options_.inspect) options_.inspect(message, record);
        return memory.keep(std::move(record), &texts);
    }
    if (fastVerifier(*found->key, *found->tables)) {
        memory.batched.push_back(
            BatchedLog{std::move(record), std::move(texts), std::move(parse).value(), found->tables});
        return;
    }
    settle(std::move(record), texts, message, verifyLog(message, *found->key), memory);
}

// Consecutive logs nearly always come from one TSE, whose key is then found
// without the lock. Keys are never replaced, so a key found stays right.
const FoundKey* VerificationPipeline::findKey(const Bytes& serial, LogItem& item, WorkerMemory& memory)
{
    if (memory.key && serial == memory.keySerial) return &*memory.key;
    {
        SharedLock lock(keysLock_);
        if (const auto* entry = keys_.find(serial)) {
            memory.keySerial = serial;
            return &memory.key.emplace(FoundKey{&entry->key, entry->extra});
        }
    }
    static const FoundKey none;
    if (allKeysKnown_) return &none;
    ExclusiveLock<SharedMutex> lock(keysLock_);
    if (const auto* entry = keys_.find(serial)) {
        memory.keySerial = serial;
        return &memory.key.emplace(FoundKey{&entry->key, entry->extra});
    }
    if (heldBytes_ + heldCost(item) <= options_.maxPendingBytes) {
        heldBytes_ += heldCost(item);
        held_[std::string(serial.begin(), serial.end())].push_back(std::move(item));
    } else {
        reread_.insert(item.ordinal);
    }
    return nullptr;
}

// The many logs of one TSE are checked through tables of its key, built by
// the first thread that sees the key's logs pass the curve's threshold (the
// others wait for it, which is less than a hundred signatures take).
const KeyVerifier* VerificationPipeline::fastVerifier(const PublicKey& key, KeyTables& tables)
{
    // Once decided, the threads need not count (and share a cache line) any more.
    if (tables.ready.load(std::memory_order_acquire)) return tables.verifier.get();
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

// Whichever path checked the signature, the log is judged in one place, as
// verify judges it.
void VerificationPipeline::settle(LogRecord&& record, const RecordTexts& texts, const LogMessage& message,
                                  Verification verification, WorkerMemory& memory)
{
    LogJudgement judgement = judgeVerification(message, std::move(verification));
    record.verdict = judgement.verdict;
    record.reason = std::move(judgement.reason);
    if (options_.inspect) options_.inspect(message, record);
    memory.keep(std::move(record), &texts);
}

// The batched logs, key by key, through their verifiers.
void VerificationPipeline::settleBatch(WorkerMemory& memory)
{
    std::vector<BatchedLog>& waiting = memory.batched;
    std::vector<bool> done(waiting.size(), false);
    std::vector<size_t> group;
    std::vector<const LogMessage*> messages;
    for (size_t first = 0; first < waiting.size(); ++first) {
        if (done[first]) continue;
        KeyTables* tables = waiting[first].tables.get();
        group.clear();
        messages.clear();
        for (size_t i = first; i < waiting.size(); ++i) {
            if (!done[i] && waiting[i].tables.get() == tables) {
                group.push_back(i);
                messages.push_back(&waiting[i].message);
                done[i] = true;
            }
        }
        const std::vector<Verification> verifications = verifyLogs(messages, *tables->verifier, memory.verifyScratch());
        for (size_t k = 0; k < group.size(); ++k) {
            BatchedLog& log = waiting[group[k]];
            settle(std::move(log.record), log.texts, log.message, verifications[k], memory);
        }
    }
    waiting.clear();
}

}  // namespace tse
