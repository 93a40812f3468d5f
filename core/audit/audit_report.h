#ifndef TSE_CORE_AUDIT_REPORT_H
#define TSE_CORE_AUDIT_REPORT_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "certificate_chain.h"
#include "findings.h"
#include "info_csv.h"
#include "log_judgement.h"
#include "log_message.h"
#include "log_time.h"

namespace tse {

// One log as the report gives it out: enough for every report and
// integrity rule, but not the log itself. The views point into the report's
// log table, and stay valid as long as the report.
struct LogRecord {
    std::string file;         // the member name as in the archive, escaped (escapeText)
    std::string_view source;  // the export it came from, as given
    uint64_t ordinal = 0;
    std::optional<LogType> type;  // from the content, or the name when unreadable
    LogVerdict verdict = LogVerdict::Unreadable;
    std::optional<uint64_t> counter;
    std::string_view serialNumber;  // hex; empty when unreadable
    std::string_view algorithm;
    std::optional<int64_t> seconds;
    std::string fraction;
    std::optional<TimeFormat> timeFormat;
    std::optional<uint64_t> transactionNumber;
    std::string_view operation;
    std::string_view clientId;
    std::string_view processType;
    std::string reason;
    std::string nameProblem;  // how the name disagrees with the content

    std::optional<LogTime> logTime() const;
};

// The logs of a report, 80 bytes each whatever their names and reasons: a
// year of a busy shop is a million logs and more. Texts are kept once in a
// pool, and a member name once per pattern, with its counter, transaction
// number and time taken out (TSE names differ in little else). Reading a
// log gives a LogRecord by value; the rules read the compact rows.
class LogTable {
public:
    struct Row {
        uint64_t ordinal = 0, counter = 0, transactionNumber = 0;
        int64_t seconds = 0;
        // Pool ids; 0 is the empty text.
        uint32_t file = 0, serialNumber = 0, algorithm = 0, operation = 0, clientId = 0, processType = 0, fraction = 0,
                 reason = 0, nameProblem = 0, source = 0;
        uint8_t type = NONE, verdict = 0, timeFormat = NONE, present = 0;

        static constexpr uint8_t NONE = 0xff;
        static constexpr uint8_t HAS_COUNTER = 1, HAS_TRANSACTION = 2, HAS_SECONDS = 4, LITERAL_NAME = 8;
        bool hasCounter() const { return (present & HAS_COUNTER) != 0; }
    };

    class const_iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = LogRecord;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = LogRecord;

        const_iterator(const LogTable* table, size_t index) : table_(table), index_(index) {}
        LogRecord operator*() const { return (*table_)[index_]; }
        const_iterator& operator++() { return ++index_, *this; }
        bool operator==(const const_iterator& other) const { return index_ == other.index_; }
        bool operator!=(const const_iterator& other) const { return index_ != other.index_; }

    private:
        const LogTable* table_;
        size_t index_;
    };

    // Keeps the record's texts; its views may point anywhere.
    void push_back(const LogRecord& record);
    // Moves the other table's rows to the end of this one, row by row, so
    // that the two never hold them all at once.
    void append(LogTable&& other);
    size_t size() const { return rows_.size(); }
    bool empty() const { return rows_.empty(); }
    LogRecord operator[](size_t index) const;
    // The same into a record that is used again, whose strings keep their
    // room: for the writers that read every log.
    void read(size_t index, LogRecord& record) const;
    const Row& row(size_t index) const { return rows_[index]; }
    std::string_view text(uint32_t id) const { return texts_[id]; }
    std::string file(size_t index) const;
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, rows_.size()); }

    void sortByOrdinal();
    // Drops the logs with these ordinals.
    void removeOrdinals(const std::unordered_set<uint64_t>& ordinals);

private:
    // The columns of pooled texts; each remembers the id it took last,
    // since consecutive logs nearly always share their TSE, client and so on.
    enum Column {
        FILE,
        SERIAL,
        ALGORITHM,
        OPERATION,
        CLIENT,
        PROCESS,
        FRACTION,
        REASON,
        NAME_PROBLEM,
        SOURCE,
        COLUMNS
    };
    uint32_t intern(std::string_view text, Column column);
    void appendFile(const Row& row, std::string& name) const;

    std::deque<Row> rows_;
    std::deque<std::string> texts_{std::string()};  // never moved, so the views stay valid
    std::unordered_map<std::string_view, uint32_t> ids_;
    uint32_t last_[COLUMNS] = {};
    std::string pattern_;  // room to make a name's pattern in
};

struct Finding {
    Severity severity = Severity::Warning;  // the catalogue's for the code
    FindingCode code = FindingCode::SignatureInvalid;
    std::string message;
    std::vector<std::string> files;
    std::string source;  // the export it concerns; empty when it spans several
};

struct CertificateRecord {
    std::string file;
    std::string serialNumber;  // SHA-256 of the key's point, hex
    std::string subject, issuer;
    std::optional<int64_t> notBefore, notAfter;
    std::string curve;
    std::string keyProblem;  // why its key cannot check logs, e.g. an unsupported curve
    ChainJudgement chain;
    bool given = false;  // from --cert rather than the export
    size_t copies = 1;   // identical certificates met, counted once
};

struct AuditSummary {
    size_t logs = 0, valid = 0, invalid = 0, noCertificate = 0, unreadable = 0;
    size_t transaction = 0, system = 0, audit = 0;
    size_t duplicatesSkipped = 0;  // members with the bytes of one seen before
    size_t errors = 0, warnings = 0;
};

// One of the exports audited together, with what it holds.
struct AuditedExport {
    std::string path;         // the archive (first part), directory or file, as given
    bool standalone = false;  // a log file given by itself, which carries no info.csv
    size_t logMembers = 0;
    std::optional<InfoCsv> info;
    std::string infoProblem;  // why its info.csv cannot be read
};

struct AuditReport {
    std::vector<std::string> exports;
    std::vector<AuditedExport> audited;  // one per export, in the order given
    AuditSummary summary;
    std::optional<InfoCsv> info;  // the first export's that has one
    std::string infoProblem;
    std::vector<CertificateRecord> certificates;
    LogTable logs;  // in reading order
    std::vector<Finding> findings;
};

}  // namespace tse

#endif
