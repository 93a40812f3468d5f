#ifndef TSE_CORE_DSFINVK_VERIFY_H
#define TSE_CORE_DSFINVK_VERIFY_H

// The second stage of the bookkeeping check: every row of
// transactions_tse.csv rebuilt as the Finish log it stands for and its
// signature checked, on every core, through the one judgement of a log.

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "dsfinvk_findings.h"
#include "dsfinvk_model.h"
#include "dsfinvk_rebuild.h"
#include "dsfinvk_report.h"
#include "receipt_verify.h"
#include "thread_annotations.h"

namespace tse {

// Why a row is not valid, for the finding it raises once it is judged.
enum class RowCause : uint8_t {
    None,
    Failure,          // booked as a TSE failure
    NoSignature,      // neither signature nor failure text
    NoTse,            // tse.csv has no TSE of that TSE_ID for the closing
    TseUnusable,      // the TSE's key or algorithm cannot check signatures
    NoProcessData,    // nothing to rebuild the signed message from
    BadField,         // a number or time that must be one is not
    Mismatch,         // the signature does not hold over the rebuilt log
    RebuiltMismatch,  // nor over processData rebuilt from the booked amounts, the row having none
};

constexpr int64_t NO_TIME = INT64_MIN;
constexpr uint64_t NO_NUMBER = UINT64_MAX;
constexpr uint32_t NONE = UINT32_MAX;

// What is known of one row: written by verification, then by
// reconciliation.
struct RowCheck {
    int64_t logSeconds = NO_TIME, startSeconds = NO_TIME;
    uint64_t transaction = NO_NUMBER, counter = NO_NUMBER;
    uint64_t signatureHash = 0;
    uint32_t tse = NONE;                // index into Bookkeeping::tses
    uint32_t clientId = 0, reason = 0;  // in RowChecks::texts
    uint32_t log = NONE;                // index into TseExport::finishes
    RowVerdict verdict = RowVerdict::Unverifiable;
    RowCause cause = RowCause::None;
    uint8_t clientSource = 0;  // 1 TERMINAL_SERIENNR, 2 KASSE_SERIENNR, 3 Z_KASSE_ID
    uint8_t match = 0;         // 0 none, else 1 + MatchState
    uint8_t differences = 0;   // DIFFERS_* bits
    uint8_t formTime = 0, formSignature = 0, formVersion = 0;
    bool formIndefinite = false;
    bool localTime = false;
    bool badStart = false;  // a signed row whose TSE_TA_START is no time
    bool hasForm = false, hasSignature = false;
    bool provenByLog = false;  // its signature is the TSE's own Finish log's, which holds

    std::optional<ReceiptForm> form() const;
    void setForm(const ReceiptForm& form);
    std::optional<MatchState> matchState() const;
    void setMatch(MatchState state) { match = static_cast<uint8_t>(1 + static_cast<int>(state)); }
};

enum : uint8_t {
    DIFFERS_COUNTER = 1,
    DIFFERS_PROCESS_TYPE = 2,
    DIFFERS_PROCESS_DATA = 4,
    DIFFERS_LOG_TIME = 8,
    DIFFERS_START_TIME = 16,
    DIFFERS_SIGNATURE = 32
};
std::vector<std::string> differenceNames(uint8_t differences);
std::string_view clientSourceName(uint8_t source);  // "TERMINAL_SERIENNR", ...; "" for none

struct RowChecks {
    std::vector<RowCheck> rows;  // one per Bookkeeping::rows
    TextSet texts;
    Mutex lock;  // for texts while rows are verified on many threads

    uint32_t text(std::string_view value)
    {
        ExclusiveLock<Mutex> hold(lock);
        return texts.add(value);
    }
    std::string textOf(uint32_t id)
    {
        ExclusiveLock<Mutex> hold(lock);
        return std::string(texts[id]);
    }
};

// Decodes the keys of tse.csv and judges each declaration: TSE_SERIAL
// against the key, the key against the certificate.
void judgeDeclarations(Bookkeeping& books, RaisedFindings& findings);

struct VerifyOptions {
    unsigned jobs = 1;
    std::function<void(uint64_t done, uint64_t total)> progress;
    // For rows without processData: the texts rebuilt from the bookkeeping.
    const RebuiltProcessData* rebuilt = nullptr;
    const std::atomic<bool>* cancel = nullptr;  // rows left once it is set stay unverified
};

// Every row's verdict and what it stands for: numbers, times, client.
void verifyRows(const Bookkeeping& books, const VerifyOptions& options, RowChecks& checks);

// When every signed row of a table fails and the rows read in the other
// encoding verify, the table's declared encoding is wrong: raises
// encoding-mismatch and verifies the rows again as they really are.
void checkEncodings(const Bookkeeping& books, const VerifyOptions& options, RowChecks& checks,
                    RaisedFindings& findings);

}  // namespace tse

#endif
