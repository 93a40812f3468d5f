#ifndef TSE_CORE_VERIFICATION_PIPELINE_H
#define TSE_CORE_VERIFICATION_PIPELINE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "audit.h"
#include "audit_report.h"
#include "log_judgement.h"
#include "result.h"
#include "thread_annotations.h"
#include "work_queue.h"

namespace tse {

// A log member on its way from the reading thread to a verifying one.
struct LogItem {
    uint64_t ordinal = 0;  // the member's place in the reading, the same in every pass
    std::string name;
    Bytes bytes;
    bool standalone = false;  // given by itself, so its name need not follow the TSE's pattern
    std::string_view source;  // the export as shown; the run keeps the text
};

struct KeyTables;
struct RecordTexts;
struct WorkerMemory;

// A log's TSE key as the pipeline found it; no key when none has its
// serial number.
struct FoundKey {
    const PublicKey* key = nullptr;  // in the key index, whose entries never move
    std::shared_ptr<KeyTables> tables;
};

// Parses, verifies and judges the logs that the reading thread hands over,
// on `jobs` threads while the reading goes on, and keeps a row for each.
//
// A log whose certificate has not come by yet is held in memory until it
// does, up to maxPendingBytes; a log beyond that is only noted, and read
// again in a final pass once every certificate is known.
class VerificationPipeline {
public:
    explicit VerificationPipeline(const AuditOptions& options);
    ~VerificationPipeline();
    VerificationPipeline(const VerificationPipeline&) = delete;
    VerificationPipeline& operator=(const VerificationPipeline&) = delete;

    // A certificate's key; the logs held for it go to the threads.
    void addKey(const PublicKey& key) TSE_EXCLUDES(keysLock_);

    // A pass of reading: the threads start, take every log submitted, and
    // are done when endPass returns. How many started, or why none did.
    Result<unsigned> startPass();
    void submit(LogItem&& item);
    // A log member whose bytes could not be had, kept as it is.
    void keepUnread(LogRecord&& record) TSE_EXCLUDES(logsLock_);
    void endPass();

    // After the first pass every certificate is known: the held logs are
    // verified with the keys there are, and no log is held any more.
    void verifyHeld() TSE_EXCLUDES(keysLock_, logsLock_);
    // Whether the final pass must read anything, and which members.
    bool rereadWanted() const TSE_EXCLUDES(keysLock_);
    bool rereads(uint64_t ordinal) const TSE_EXCLUDES(keysLock_);

    uint64_t logsDone() const { return logsDone_; }
    // Every log's row, once the last pass has ended.
    LogTable takeLogs() TSE_EXCLUDES(logsLock_);

private:
    void work() TSE_EXCLUDES(keysLock_, logsLock_);
    void checkGuarded(LogItem&& item, WorkerMemory& memory) TSE_EXCLUDES(keysLock_);
    void check(LogItem& item, WorkerMemory& memory) TSE_EXCLUDES(keysLock_);
    // The key of the log's TSE; nullptr when the log is held, or noted to
    // be read again, instead.
    const FoundKey* findKey(const Bytes& serial, LogItem& item, WorkerMemory& memory) TSE_EXCLUDES(keysLock_);
    const KeyVerifier* fastVerifier(const PublicKey& key, KeyTables& tables);
    void settle(LogRecord&& record, const RecordTexts& texts, const LogMessage& message, Verification verification,
                WorkerMemory& memory);
    void settleBatch(WorkerMemory& memory);
    void finishBatch(WorkerMemory& memory) TSE_EXCLUDES(logsLock_);
    void flushBatch();

    const AuditOptions& options_;
    // Written only while no thread runs: before the first pass and by verifyHeld.
    bool allKeysKnown_ = false;

    // The keys, shared by the reading thread, which adds them, and the
    // threads, which look them up. Their entries carry the tables built
    // for a key with many logs.
    mutable SharedMutex keysLock_;
    BasicKeyIndex<std::shared_ptr<KeyTables>> keys_ TSE_GUARDED_BY(keysLock_);
    std::atomic<size_t> keysWithTables_{0};
    // Logs held in memory until their certificate comes, by raw serial
    // number, and what they cost; the ordinals of those that could not be
    // held and are read again in the final pass.
    std::unordered_map<std::string, std::vector<LogItem>> held_ TSE_GUARDED_BY(keysLock_);
    size_t heldBytes_ TSE_GUARDED_BY(keysLock_) = 0;
    std::set<uint64_t> reread_ TSE_GUARDED_BY(keysLock_);

    Mutex logsLock_;
    LogTable logs_ TSE_GUARDED_BY(logsLock_);
    std::atomic<uint64_t> logsDone_{0};

    std::unique_ptr<WorkQueue<std::vector<LogItem>>> queue_;
    std::vector<LogItem> batch_;  // what the reading thread gathers before queueing
    std::vector<std::thread> threads_;
};

}  // namespace tse

#endif
