#ifndef TSE_CORE_DSFINVK_REPORT_H
#define TSE_CORE_DSFINVK_REPORT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "audit_report.h"
#include "findings.h"
#include "receipt_verify.h"

namespace tse {

// What the signature of one bookkeeping row says.
enum class RowVerdict : uint8_t { Valid, Invalid, Unsigned, Unverifiable };
std::string_view rowVerdictName(RowVerdict verdict);  // "valid", "invalid", "unsigned", "unverifiable"

// How a transaction of the bookkeeping and one of the TSE export meet.
enum class MatchState { Matched, Differs, Unbooked, Unknown, Outside };
std::string_view matchStateName(MatchState state);  // "matched", "differs", "unbooked", "unknown", "outside"

// One transaction: a row of transactions_tse.csv, or a Finish log of the
// TSE export that no row books (then `row` is false and the bookkeeping
// fields are empty). A plain value, made when asked for.
struct BookedTransaction {
    bool row = true;
    std::string file;  // the table and line, "shop.zip:transactions_tse.csv:17"; the log's member otherwise
    std::string bonId, kasseId;
    std::string closing;      // Z_NR
    std::string closingTime;  // Z_ERSTELLUNG
    std::string clientId;
    std::string_view clientIdSource;  // "TERMINAL_SERIENNR", "KASSE_SERIENNR", "Z_KASSE_ID"; empty when none held
    std::string serialNumber;         // hex, of the key (not TSE_SERIAL)
    std::optional<uint64_t> transactionNumber, signatureCounter;
    std::string processType;
    std::optional<int64_t> logSeconds;  // the Finish log time, UTC
    std::string logFraction;
    std::optional<int64_t> startSeconds;
    RowVerdict verdict = RowVerdict::Unverifiable;
    std::optional<MatchState> match;  // none without a TSE export
    std::vector<std::string>
        differences;     // "signatureCounter", "processType", "processData", "logTime", "startTime", "signature"
    std::string reason;  // why it is not valid, or how it held
    std::optional<ReceiptForm> form;  // the message shape, time and signature encoding that held
    bool localTime = false;           // TSE_TA_ENDE had no zone and was read as German time
    std::string failure;              // TSE_TA_FEHLER

    std::string label() const;    // how findings name it: "KASSE-1/B17" or "TSE 1A2B3C4D.../42"
    std::string logTime() const;  // ISO 8601 UTC, or ""
};

struct BookkeepingFinding {
    Severity severity = Severity::Warning;
    std::string code;  // "signature-invalid", "transaction-unbooked", ...
    std::string message;
    std::vector<std::string> transactions;  // labels of the transactions, or the TSE export's files, it concerns
    bool tseExport = false;                 // raised by the audit of the TSE export
};

// A TSE as the bookkeeping describes it in tse.csv (once, however many
// closings repeat it).
struct BookedTse {
    std::string serialNumber;    // of the key; TSE_SERIAL when the key is unusable
    std::string declaredSerial;  // TSE_SERIAL as written
    std::string algorithm, timeFormat, encoding;
    std::string curve;  // of the key, when it is usable
    std::string keyProblem;
    bool certificate = false;  // TSE_ZERTIFIKAT_I holds one
    bool inTseExport = false;  // the TSE export holds its certificate or logs
    size_t rows = 0;
};

// The time a closing of the bookkeeping covers: from the previous closing of
// its register (for the first one, from the start of its business day) to
// its own creation.
struct CoveredPeriod {
    std::string kasseId, closing;
    int64_t from = 0, to = 0;
};

// Sales the TSE signed outside every period the bookkeeping covers, by
// register (or by client ID, where no register of the bookkeeping has it).
struct UncoveredSales {
    std::string kasseId;  // empty when the client is no register of the bookkeeping
    std::string clientId;
    size_t sales = 0;
    int64_t first = 0, last = 0;
};

// One total of a closing checked against what its receipts add up to: a
// column of cashpointclosing.csv or a row of the closing module.
struct ClosingTotal {
    std::string name;    // "Z_SE_BARZAHLUNGEN", "payment.csv Bar/Bar", "businesscases.csv Umsatz/Warenverkauf/0 key 1"
    std::string booked;  // as the table books it (an exact decimal, or a BON_ID); empty when it books none
    std::string computed;  // from the receipts
    bool differs = false;
};

struct ClosingCheck {
    std::string kasseId, closing, created;  // Z_KASSE_ID, Z_NR, Z_ERSTELLUNG
    size_t receipts = 0;
    std::vector<ClosingTotal> totals;
    bool differs() const;
};

struct BookkeepingSummary {
    size_t rows = 0, valid = 0, invalid = 0, unsigned_ = 0, unverifiable = 0;
    size_t matched = 0, differs = 0, unbooked = 0, unknown = 0, outside = 0;
    size_t errors = 0, warnings = 0;
    size_t closings = 0, receipts = 0;
    size_t tseLogs = 0, tseFinishLogs = 0, tseInvalidLogs = 0;  // of the TSE export, when given
};

// A list whose entries are made when they are read: a report of half a
// million transactions keeps them in their compact form until then.
template <typename T>
class LazyList {
public:
    LazyList() = default;
    LazyList(size_t size, std::function<T(size_t)> make) : size_(size), make_(std::move(make)) {}

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    T operator[](size_t index) const { return make_(index); }

    class const_iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = T;

        const_iterator(const LazyList* list, size_t index) : list_(list), index_(index) {}
        T operator*() const { return (*list_)[index_]; }
        const_iterator& operator++() { return ++index_, *this; }
        bool operator==(const const_iterator& other) const { return index_ == other.index_; }
        bool operator!=(const const_iterator& other) const { return index_ != other.index_; }

    private:
        const LazyList* list_;
        size_t index_;
    };
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, size_); }

private:
    size_t size_ = 0;
    std::function<T(size_t)> make_;
};

struct BookkeepingReport {
    std::vector<std::string> dsfinvk;  // the paths as given
    std::vector<std::string> tse;
    bool tseGiven = false;
    BookkeepingSummary summary;
    std::vector<BookedTse> tses;
    std::vector<std::string> tablesRead;  // "transactions_tse.csv (51 rows)", per export
    std::vector<CoveredPeriod> periods;
    std::vector<UncoveredSales> uncovered;
    std::vector<ClosingCheck> closings;    // the closings' totals against their receipts
    std::optional<AuditSummary> tseAudit;  // the TSE export's own audit, when given
    // Rows in reading order, then the TSE's Finish logs that no row books.
    LazyList<BookedTransaction> transactions;
    // Errors first, then warnings; each code in catalogue order.
    LazyList<BookkeepingFinding> findings;

    bool passed() const { return summary.errors == 0; }
    std::string_view verdict() const;  // "PASSED", "PASSED WITH WARNINGS", "FAILED"
};

// The earliest start and the latest end of the covered periods (0 without any).
int64_t coveredFrom(const BookkeepingReport& report);
int64_t coveredTo(const BookkeepingReport& report);

}  // namespace tse

#endif
