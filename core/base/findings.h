#ifndef TSE_CORE_FINDINGS_H
#define TSE_CORE_FINDINGS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tse {

enum class Severity { Error, Warning };
std::string_view severityName(Severity severity);  // "error", "warning"

// Every finding any check of the core can raise, declared once: its code
// (part of every report's interface), its severity, the parts that raise
// it and what it means in one line. Reports, the generators' planted
// defects, the README and the man page all take their codes from here.
//
// X(Name, "code", Severity, "parts", "meaning")
#define TSE_FINDINGS(X)                                                                                                \
    X(ExportTruncated, "export-truncated", Error, "audit",                                                             \
      "a TSE export ends before its end: no end marker, cut inside a member, a split part missing or short, or a "     \
      "compressed stream that stops early")                                                                            \
    X(SignatureInvalid, "signature-invalid", Error, "audit bookkeeping",                                               \
      "a signature does not hold over what it signs: a log, or a bookkeeping row rebuilt as its Finish log")           \
    X(CertificateMissing, "certificate-missing", Error, "audit", "no certificate fits a log's serial number")          \
    X(LogUnreadable, "log-unreadable", Error, "audit", "a log cannot be parsed, is cut short or too large")            \
    X(CounterDuplicate, "counter-duplicate", Error, "audit",                                                           \
      "two different logs of one TSE carry the same signature counter")                                                \
    X(NameMismatch, "name-mismatch", Error, "audit",                                                                   \
      "a file name's time, counter, transaction number, operation or type disagrees with the content")                 \
    X(CounterGap, "counter-gap", Warning, "audit", "signature counters missing between a TSE's lowest and highest")    \
    X(TransactionIncomplete, "transaction-incomplete", Warning, "audit",                                               \
      "a Start without Finish, or an Update or Finish without Start, away from the export's edges")                    \
    X(TimeRegression, "time-regression", Warning, "audit",                                                             \
      "a log is older than the one with the next lower counter, and no updateTime log lies between")                   \
    X(CertificateChain, "certificate-chain", Warning, "audit",                                                         \
      "a chain is not trusted, or logs lie outside their certificate's validity")                                      \
    X(UnexpectedMember, "unexpected-member", Warning, "audit bookkeeping",                                             \
      "a member that is no part of the export, or whose name leads outside it")                                        \
    X(InfoMissing, "info-missing", Warning, "audit", "an archive or folder holds logs but no info.csv")                \
    X(MemberUnreadable, "member-unreadable", Error, "bookkeeping",                                                     \
      "a table of the bookkeeping export cannot be read: encrypted, a link, too large, or cut short")                  \
    X(TableUnreadable, "table-unreadable", Error, "bookkeeping",                                                       \
      "a table lacks columns the checks need, by name, so none of its rows can be read")                               \
    X(CsvMalformed, "csv-malformed", Error, "bookkeeping", "a line that cannot be read, or a repeated key")            \
    X(RequiredTableMissing, "required-table-missing", Error, "bookkeeping",                                            \
      "a table the verdict needs is missing: the closings, or the receipts")                                           \
    X(EncodingMismatch, "encoding-mismatch", Error, "bookkeeping",                                                     \
      "the rows verify only when read in another encoding than index.xml declares")                                    \
    X(ColumnConflict, "column-conflict", Error, "bookkeeping",                                                         \
      "both processData columns hold values, and they differ")                                                         \
    X(FieldInvalid, "field-invalid", Error, "bookkeeping",                                                             \
      "a row without its full key, a value outside its fixed vocabulary, a number or time that is none, a receipt "    \
      "or closing without what it must have")                                                                          \
    X(SignatureUnverifiable, "signature-unverifiable", Error, "bookkeeping",                                           \
      "a signed row's signature cannot be checked: no usable key or algorithm, or no processData to rebuild it")       \
    X(SignatureMissing, "signature-missing", Error, "bookkeeping",                                                     \
      "a row has neither a signature nor a TSE_TA_FEHLER text")                                                        \
    X(SerialMismatch, "serial-mismatch", Error, "bookkeeping", "TSE_SERIAL is not the SHA-256 of TSE_PUBLIC_KEY")      \
    X(CertificateMismatch, "certificate-mismatch", Error, "bookkeeping",                                               \
      "TSE_ZERTIFIKAT_I and II hold another key than TSE_PUBLIC_KEY, or the key is unusable")                          \
    X(TseMismatch, "tse-mismatch", Error, "bookkeeping", "the bookkeeping's TSEs and the TSE export's share no TSE")   \
    X(TransactionUnbooked, "transaction-unbooked", Error, "bookkeeping",                                               \
      "the TSE signed a sale of a register and period the bookkeeping covers, and no row books it")                    \
    X(TransactionUnknown, "transaction-unknown", Error, "bookkeeping",                                                 \
      "a booked transaction the TSE export lacks although it lies inside the export's range")                          \
    X(TransactionDiffers, "transaction-differs", Error, "bookkeeping",                                                 \
      "a row and the TSE's Finish or Start log of its transaction disagree")                                           \
    X(TransactionDuplicate, "transaction-duplicate", Error, "bookkeeping",                                             \
      "one TSE transaction stands in several rows")                                                                    \
    X(UnsignedButSigned, "unsigned-but-signed", Error, "bookkeeping",                                                  \
      "a row booked as a TSE failure whose transaction the TSE did sign")                                              \
    X(AmountsDiffer, "amounts-differ", Error, "bookkeeping",                                                           \
      "the booked gross amounts or payments of a receipt differ from the signed processData")                          \
    X(ReferenceMissing, "reference-missing", Error, "bookkeeping",                                                     \
      "a row names a receipt, closing or TSE that its table does not hold")                                            \
    X(ReceiptWithoutTse, "receipt-without-tse", Error, "bookkeeping",                                                  \
      "a receipt of type Beleg has no row in transactions_tse.csv, neither signed nor a TSE failure")                  \
    X(ReceiptTimeDiffers, "receipt-time-differs", Error, "bookkeeping",                                                \
      "a receipt's TSE transaction was signed outside the receipt's own start and end")                                \
    X(ReceiptSumDiffers, "receipt-sum-differs", Error, "bookkeeping",                                                  \
      "a receipt's lines, VAT table, total and payments do not add up")                                                \
    X(ClosingSumDiffers, "closing-sum-differs", Error, "bookkeeping",                                                  \
      "a closing's totals or first and last receipt differ from what its receipts add up to")                          \
    X(ClosingGap, "closing-gap", Error, "bookkeeping", "a register's closing numbers skip or repeat one")              \
    X(BonDuplicate, "bon-duplicate", Error, "bookkeeping", "a register gives one BON_ID to several receipts")          \
    X(VatRateWrong, "vat-rate-wrong", Error, "bookkeeping",                                                            \
      "vat.csv gives a VAT key another rate than the key stood for on the receipt's day")                              \
    X(UnsignedTransaction, "unsigned-transaction", Warning, "bookkeeping",                                             \
      "a row booked as a TSE failure (TSE_TA_FEHLER), which the TSE export does not contradict")                       \
    X(FailureWhileSigning, "failure-while-signing", Warning, "bookkeeping",                                            \
      "a row booked as a TSE failure while the same TSE signed other transactions within five minutes")                \
    X(BonGap, "bon-gap", Warning, "bookkeeping", "a register's receipt numbers (BON_NR) skip some")                    \
    X(ReceiptOutsideClosing, "receipt-outside-closing", Warning, "bookkeeping",                                        \
      "a receipt ends outside its closing's period: after the closing, or before the closing before it")               \
    X(FieldFormat, "field-format", Warning, "bookkeeping",                                                             \
      "a value longer or with more decimal places than index.xml declares")                                            \
    X(LocalTime, "local-time", Warning, "bookkeeping", "TSE_TA_ENDE has no time zone and was read as German time")     \
    X(ProcessDataMissing, "processdata-missing", Warning, "bookkeeping",                                               \
      "a row without processData, verified through the TSE export's Finish log instead")                               \
    X(TableMissing, "table-missing", Warning, "bookkeeping",                                                           \
      "a table of the description is missing; the checks that need it were skipped")                                   \
    X(IndexMissing, "index-missing", Warning, "bookkeeping", "no usable index.xml; the standard dialect was assumed")

enum class FindingCode : uint8_t {
#define TSE_FINDING_ENUM(name, code, severity, parts, meaning) name,
    TSE_FINDINGS(TSE_FINDING_ENUM)
#undef TSE_FINDING_ENUM
};

struct FindingInfo {
    FindingCode code;
    std::string_view name;
    Severity severity;
    std::string_view parts;  // "audit", "bookkeeping" or both, blank-separated
    std::string_view meaning;
};

const FindingInfo& findingInfo(FindingCode code);
std::string_view findingName(FindingCode code);
Severity findingSeverity(FindingCode code);
std::optional<FindingCode> findingByName(std::string_view name);

// The whole catalogue, in the order declared: errors and warnings of each
// part together, as the documentation lists them.
struct FindingCatalogue {
    const FindingInfo* begin() const;
    const FindingInfo* end() const;
    size_t size() const;
};
FindingCatalogue findingCatalogue();

}  // namespace tse

#endif
