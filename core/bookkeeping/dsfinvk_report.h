#ifndef TSE_CORE_DSFINVK_REPORT_H
#define TSE_CORE_DSFINVK_REPORT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "audit_report.h"
#include "receipt_verify.h"

namespace tse {

// What the signature of one bookkeeping row says.
enum class RowVerdict { Valid, Invalid, Unsigned, Unverifiable };
std::string_view rowVerdictName(RowVerdict verdict);  // "valid", "invalid", "unsigned", "unverifiable"

// How a transaction of the bookkeeping and one of the TSE export meet.
enum class MatchState { Matched, Differs, Unbooked, Unknown, Outside };
std::string_view matchStateName(MatchState state);  // "matched", "differs", "unbooked", "unknown", "outside"

// One transaction: a row of transactions_tse.csv, or a Finish log of the
// TSE export that no row books (then `row` is false and the bookkeeping
// fields are empty). A plain value, so that every output renders it alone.
struct BookedTransaction {
    bool row = true;
    std::string file;  // the table and line, "shop.zip:transactions_tse.csv:17"; the log's member otherwise
    std::string bonId, kasseId;
    std::string closing;   // Z_NR
    std::string closingTime;  // Z_ERSTELLUNG
    std::string clientId;
    std::string_view clientIdSource;  // "TERMINAL_SERIENNR", "KASSE_SERIENNR", "Z_KASSE_ID"; empty when none held
    std::string serialNumber;    // hex, of the key (not TSE_SERIAL)
    std::optional<uint64_t> transactionNumber, signatureCounter;
    std::string processType;
    std::optional<int64_t> logSeconds;  // the Finish log time, UTC
    std::string logFraction;
    std::optional<int64_t> startSeconds;
    RowVerdict verdict = RowVerdict::Unverifiable;
    std::optional<MatchState> match;  // none without a TSE export
    std::vector<std::string> differences;  // "signatureCounter", "processType", "processData", "logTime", "startTime", "signature"
    std::string reason;  // why it is not valid, or how it held ("read as German local time", ...)
    std::optional<ReceiptForm> form;  // the message shape, time and signature encoding that held
    bool localTime = false;  // TSE_TA_ENDE had no zone and was read as German local time
    std::string failure;  // TSE_TA_FEHLER

    std::string label() const;  // how findings name it: "KASSE-1/B17" or "TSE 1A2B3C4D.../42"
    std::string logTime() const;  // ISO 8601 UTC, or ""
};

struct BookkeepingFinding {
    Severity severity = Severity::Warning;
    std::string code;  // "signature-invalid", "transaction-unbooked", ...
    std::string message;
    std::vector<std::string> transactions;  // labels of the transactions it concerns
};

// A TSE as the bookkeeping describes it in tse.csv (once, however many
// closings repeat it).
struct BookedTse {
    std::string serialNumber;  // of the key; TSE_SERIAL when the key is unusable
    std::string declaredSerial;  // TSE_SERIAL as written
    std::string algorithm, timeFormat, encoding;
    std::string curve;  // of the key, when it is usable
    std::string keyProblem;
    bool certificate = false;  // TSE_ZERTIFIKAT_I holds one
    size_t rows = 0;
};

struct BookkeepingSummary {
    size_t rows = 0, valid = 0, invalid = 0, unsigned_ = 0, unverifiable = 0;
    size_t matched = 0, differs = 0, unbooked = 0, unknown = 0, outside = 0;
    size_t errors = 0, warnings = 0;
    size_t closings = 0;
    size_t tseLogs = 0, tseFinishLogs = 0, tseInvalidLogs = 0;  // of the TSE export, when given
};

struct BookkeepingReport {
    std::vector<std::string> dsfinvk;  // the paths as given
    std::vector<std::string> tse;
    bool tseGiven = false;
    BookkeepingSummary summary;
    std::vector<BookedTse> tses;
    std::vector<std::string> tablesRead;  // "transactions_tse.csv (51 rows)", per export
    // Rows in reading order, then the TSE's unbooked and outside Finish logs.
    std::vector<BookedTransaction> transactions;
    std::vector<BookkeepingFinding> findings;
};

}  // namespace tse

#endif
