#include "dsfinvk_tse_export.h"

#include <algorithm>
#include <functional>

#include "text.h"
#include "thread_annotations.h"

namespace tse {
namespace {

bool startsWithWord(const std::string& operation, std::string_view word)
{
    return operation.size() >= word.size() &&
           equalsIgnoringCase(std::string_view(operation).substr(0, word.size()), word);
}

// Collects the transaction logs on the audit's verifying threads.
class Collector {
public:
    explicit Collector(TseExport& out) : out_(out) {}

    void inspect(const LogMessage& message, const LogRecord& record)
    {
        if (message.type != LogType::Transaction) return;
        const std::optional<uint64_t> number = message.transactionNumber();
        if (!number) return;
        const std::string operation = message.operation();
        const bool finish = startsWithWord(operation, "finish");
        if (!finish && !startsWithWord(operation, "start")) return;
        const std::string serial = toHex(message.serialNumber);
        ExclusiveLock<Mutex> hold(lock_);
        const uint32_t index = serialOf(serial);
        if (!finish) {
            out_.starts.push_back(TseStart{index, *number, message.logTime.seconds});
            return;
        }
        TseFinish log;
        log.serial = index;
        log.transaction = *number;
        log.counter = message.signatureCounter;
        log.seconds = message.logTime.seconds;
        log.ordinal = record.ordinal;
        log.signatureHash = signatureHash(message.signatureValue);
        log.processData = out_.pool.add({message.text("processData")});
        log.fraction = out_.texts.add(message.logTime.fraction);
        log.clientId = out_.texts.add(message.text("clientId"));
        log.processType = out_.texts.add(message.text("processType"));
        log.verdict = record.verdict;
        out_.finishes.push_back(log);
    }

private:
    uint32_t serialOf(const std::string& serial) TSE_REQUIRES(lock_)
    {
        const auto found = std::find(out_.serials.begin(), out_.serials.end(), serial);
        if (found != out_.serials.end()) return static_cast<uint32_t>(found - out_.serials.begin());
        out_.serials.push_back(serial);
        return static_cast<uint32_t>(out_.serials.size() - 1);
    }

    Mutex lock_;
    TseExport& out_ TSE_GUARDED_BY(lock_);
};

template <typename Log>
bool byTransaction(const Log& a, const Log& b)
{
    return std::tie(a.serial, a.transaction) < std::tie(b.serial, b.transaction);
}

}  // namespace

uint64_t signatureHash(ByteView plainSignature)
{
    return std::hash<std::string_view>()(
        std::string_view(reinterpret_cast<const char*>(plainSignature.data()), plainSignature.size()));
}

std::optional<uint32_t> TseExport::serialIndex(std::string_view hex) const
{
    for (size_t i = 0; i < serials.size(); ++i) {
        if (equalsIgnoringCase(serials[i], hex)) return static_cast<uint32_t>(i);
    }
    return std::nullopt;
}

const TseFinish* TseExport::finish(uint32_t serial, uint64_t transaction) const
{
    const TseFinish key{serial, transaction, 0, 0, 0, 0, 0, 0, 0, 0, LogVerdict::Unreadable};
    const auto found = std::lower_bound(finishes.begin(), finishes.end(), key, byTransaction<TseFinish>);
    return found != finishes.end() && found->serial == serial && found->transaction == transaction ? &*found : nullptr;
}

std::optional<int64_t> TseExport::startSeconds(uint32_t serial, uint64_t transaction) const
{
    const TseStart key{serial, transaction, 0};
    const auto found = std::lower_bound(starts.begin(), starts.end(), key, byTransaction<TseStart>);
    if (found == starts.end() || found->serial != serial || found->transaction != transaction) return std::nullopt;
    return found->seconds;
}

std::optional<uint64_t> TseExport::firstStarted(uint32_t serial) const
{
    const TseStart key{serial, 0, 0};
    const auto found = std::lower_bound(starts.begin(), starts.end(), key, byTransaction<TseStart>);
    if (found == starts.end() || found->serial != serial) return std::nullopt;
    return found->transaction;
}

std::string TseExport::file(const TseFinish& log) const
{
    // The table is in ordinal order; a log dropped as a copy has no record.
    const LogTable& logs = audit.logs;
    size_t low = 0, high = logs.size();
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        if (logs.row(middle).ordinal < log.ordinal) low = middle + 1;
        else high = middle;
    }
    return low < logs.size() && logs.row(low).ordinal == log.ordinal ? logs.file(low) : std::string();
}

Result<TseExport> readTseExport(const TseExportOptions& options)
{
    TseExport out;
    Collector collector(out);
    AuditOptions audit;
    audit.exports = options.exports;
    audit.certificateFiles = options.certificateFiles;
    audit.trustDirectories = options.trustDirectories;
    audit.jobs = options.jobs;
    audit.progress = options.progress;
    audit.cancel = options.cancel;
    audit.inspect = [&collector](const LogMessage& message, const LogRecord& record) {
        collector.inspect(message, record);
    };
    Result<AuditReport> report = auditExport(audit);
    if (!report) return report.error();
    out.audit = std::move(report).value();
    // Logs arrive from many threads in any order; the first Start of a
    // transaction counts, as the TSE wrote it first.
    std::stable_sort(out.finishes.begin(), out.finishes.end(), byTransaction<TseFinish>);
    std::stable_sort(out.starts.begin(), out.starts.end(), [](const TseStart& a, const TseStart& b) {
        return std::tie(a.serial, a.transaction, a.seconds) < std::tie(b.serial, b.transaction, b.seconds);
    });
    return out;
}

}  // namespace tse
