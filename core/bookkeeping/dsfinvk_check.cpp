#include "dsfinvk_check.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <atomic>
#include <deque>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <unordered_map>

#include "audit.h"
#include "certificate.h"
#include "dsfinvk_csv.h"
#include "dsfinvk_index.h"
#include "export_reader.h"
#include "log_time.h"
#include "receipt_text.h"
#include "receipt_verify.h"
#include "text.h"
#include "thread_annotations.h"

namespace tse {
namespace {

constexpr char SEP = '\x1f';  // joins key parts; never in a CSV value of an honest export
constexpr size_t PROBLEMS_PER_FILE = 100;
constexpr size_t SHOWN_PROCESS_DATA = 80;
constexpr int64_t TIME_TOLERANCE = 1;  // exporters round log times instead of cutting them
constexpr std::string_view TSE_TABLE = "tse.csv";
constexpr std::string_view ROWS_TABLE = "transactions_tse.csv";

// The tables of the official description, for an export without index.xml.
const std::vector<std::string_view> STANDARD_TABLES = {
    "cashpointclosing.csv", "location.csv",  "cashregister.csv",     "slaves.csv",      "pa.csv",
    "tse.csv",              "vat.csv",       "businesscases.csv",    "payment.csv",     "cash_per_currency.csv",
    "transactions.csv",     "datapayment.csv", "lines.csv",          "itemamounts.csv", "subitems.csv",
    "transactions_tse.csv", "transactions_vat.csv", "lines_vat.csv", "allocation_groups.csv", "references.csv"};

std::string shown(std::string_view value)
{
    return quoted(value, SHOWN_PROCESS_DATA);
}

size_t hashOf(std::string_view text)
{
    return std::hash<std::string_view>()(text);
}

// A table's columns by name, looked up once per header.
class Columns {
public:
    size_t operator()(const std::vector<std::string>& header, std::string_view name)
    {
        if (&header != header_ || header.size() != size_) {
            header_ = &header;
            size_ = header.size();
            at_.clear();
            for (size_t i = 0; i < header.size(); ++i) at_.emplace(header[i], i);
        }
        const auto found = at_.find(std::string(name));
        return found == at_.end() ? SIZE_MAX : found->second;
    }

private:
    const std::vector<std::string>* header_ = nullptr;
    size_t size_ = 0;
    std::unordered_map<std::string, size_t> at_;
};

const std::string& field(const CsvRecord& record, size_t column)
{
    static const std::string none;
    return column < record.fields.size() ? record.fields[column] : none;
}

struct Closing {
    std::string kasseId, created, number;
    std::string kasseSerial;  // KASSE_SERIENNR
};

// A TSE of tse.csv, decoded once.
struct TseEntry {
    BookedTse shown;
    std::string keyText, certificateText;
    std::optional<PublicKey> key;
    std::vector<PublicKey> otherKeys;
    const SignatureAlgorithm* algorithm = nullptr;
    std::optional<ReceiptTimeFormat> format;
    std::string problem;  // why its rows cannot be verified
};

struct Row {
    std::string file;
    size_t line = 0;
    uint32_t closing = 0;
    std::string bonId, tseId, tanr, start, end, processType, counter, signature, failure;
    std::string processData;
    bool hasProcessData = false;
};

// What matching needs of a row besides its report entry.
struct RowExtra {
    std::optional<uint32_t> serial;  // index into the serial table, when the TSE export knows it
    size_t processDataHash = 0, signatureHash = 0;
    bool signatureComparable = false;  // r || s, as a log holds it
    std::string processData;
};

struct BonAmounts {
    bool vatRows = false, paymentRows = false;
    int64_t vat[5] = {0, 0, 0, 0, 0};
    std::map<std::pair<bool, std::string>, int64_t> payments;  // (cash, currency)
};

// A Start log: only when it began.
struct TseStart {
    uint32_t serial = 0;
    uint64_t transaction = 0;
    int64_t seconds = 0;
};

struct TseLog {
    uint32_t serial = 0;
    uint64_t transaction = 0;
    bool finish = false;
    uint64_t counter = 0;
    int64_t seconds = 0;
    std::string fraction;
    uint64_t ordinal = 0;     // of its record in the audit report: file, client, processType
    std::string processData;  // the start, for messages
    size_t processDataHash = 0, signatureHash = 0;
    LogVerdict verdict = LogVerdict::Unreadable;
    bool booked = false;
};

struct Range {
    bool any = false;
    uint64_t minNumber = UINT64_MAX, maxNumber = 0;
    int64_t minTime = INT64_MAX, maxTime = INT64_MIN;

    void add(uint64_t number, std::optional<int64_t> time)
    {
        any = true;
        minNumber = std::min(minNumber, number), maxNumber = std::max(maxNumber, number);
        if (time) minTime = std::min(minTime, *time), maxTime = std::max(maxTime, *time);
    }
    // Inside when the number or the time lies within what the other side covers.
    bool holds(uint64_t number, std::optional<int64_t> time) const
    {
        if (!any) return false;
        if (number >= minNumber && number <= maxNumber) return true;
        return time && *time >= minTime && *time <= maxTime;
    }
};

struct PairHash {
    size_t operator()(const std::pair<uint32_t, uint64_t>& key) const
    {
        return std::hash<uint64_t>()(key.second * 0x9E3779B97F4A7C15ULL ^ key.first);
    }
};
using TransactionKey = std::pair<uint32_t, uint64_t>;

std::string normalCurrency(std::string_view code)
{
    return code.empty() || equalsIgnoringCase(code, "EUR") ? std::string() : std::string(code);
}

std::vector<Bytes> signatureReadings(std::string_view text)
{
    std::vector<Bytes> readings;
    if (std::optional<Bytes> base64 = fromBase64(text); base64 && !base64->empty()) readings.push_back(*base64);
    if (std::optional<Bytes> hex = fromHex(text); hex && !hex->empty()) readings.push_back(*hex);
    return readings;
}

// TSE_SERIAL as hex (in practice) or base64 (seen, and converted by other checkers).
std::optional<Bytes> declaredSerial(std::string_view text)
{
    if (std::optional<Bytes> hex = fromHex(text); hex && hex->size() == 32) return hex;
    if (std::optional<Bytes> base64 = fromBase64(text); base64 && base64->size() == 32) return base64;
    return std::nullopt;
}

class Check {
public:
    explicit Check(const BookkeepingOptions& options) : options_(options)
    {
        report_.dsfinvk = options.dsfinvk;
        report_.tse = options.tse;
        report_.tseGiven = !options.tse.empty();
    }

    Result<BookkeepingReport> run();

private:
    std::string readExport(const ExportSource& source);
    void readTable(const std::string& label, std::string_view table, ByteView data, const TableDescription* description);
    uint32_t closingOf(const CsvRecord& record, const std::vector<std::string>& header, Columns& columns);
    void readTseTable(const std::string& file, const std::vector<std::string>& header, const CsvRecord& record);
    void readRow(const std::string& file, const std::vector<std::string>& header, const CsvRecord& record);
    void decodeTses();
    void verifyRows();
    void verifyRow(const Row& row, BookedTransaction& out, RowExtra& extra);
    void checkAmounts(const Row& row, const BookedTransaction& out);
    void readTseExport();
    void findDuplicates();
    void match();
    void compare(BookedTransaction& booked, const RowExtra& extra, const TseLog& finish);
    void finish();
    void addFinding(Severity severity, std::string code, std::string message, std::vector<std::string> transactions);

    const BookkeepingOptions& options_;
    BookkeepingReport report_;
    // Rows are judged on several threads; their findings join the report
    // when finish() starts.
    Mutex findingsLock_;
    std::vector<BookkeepingFinding> findings_ TSE_GUARDED_BY(findingsLock_);

    std::vector<Closing> closings_;
    std::unordered_map<std::string, uint32_t> closingIndex_;
    std::unordered_map<std::string, std::string> terminalSerial_;  // closing, TERMINAL_ID
    std::unordered_map<std::string, std::string> bonTerminal_;     // closing, BON_ID
    std::unordered_map<std::string, size_t> tseOfClosing_;         // closing, TSE_ID
    std::map<std::string, size_t> tseByContent_;
    std::vector<TseEntry> tses_;
    std::vector<Row> rows_;
    std::unordered_map<std::string, BonAmounts> amounts_;  // closing, BON_ID
    std::vector<RowExtra> extras_;
    std::set<std::string> tablesSeen_;
    Columns tseColumns_, rowColumns_, registerColumns_, terminalColumns_, bonColumns_, vatColumns_, paymentColumns_;

    // What the audit's threads hand over while the TSE export is read;
    // moved into the members below once it is.
    struct TseIntake {
        Mutex lock;
        std::unordered_map<std::string, uint32_t> serials TSE_GUARDED_BY(lock);
        std::deque<TseLog> logs TSE_GUARDED_BY(lock);
        std::deque<TseStart> starts TSE_GUARDED_BY(lock);
    } intake_;
    std::unordered_map<std::string, uint32_t> serials_;  // hex, of both sides
    // Deques grow without copying what they hold: no doubling at the peak.
    std::deque<TseLog> tseLogs_;  // Finish logs
    std::deque<TseStart> tseStarts_;
    AuditSummary tseSummary_;
    std::optional<AuditReport> tseReport_;  // kept until matching is done: the logs' records

    LogRecord recordOf(const TseLog& log) const;
};

void Check::addFinding(Severity severity, std::string code, std::string message, std::vector<std::string> transactions)
{
    ExclusiveLock<Mutex> lock(findingsLock_);
    findings_.push_back(BookkeepingFinding{severity, std::move(code), std::move(message), std::move(transactions)});
}

uint32_t Check::closingOf(const CsvRecord& record, const std::vector<std::string>& header, Columns& columns)
{
    const std::string& kasse = field(record, columns(header, "Z_KASSE_ID"));
    const std::string& created = field(record, columns(header, "Z_ERSTELLUNG"));
    const std::string& number = field(record, columns(header, "Z_NR"));
    const std::string key = kasse + SEP + created + SEP + number;
    const auto found = closingIndex_.find(key);
    if (found != closingIndex_.end()) return found->second;
    const auto index = static_cast<uint32_t>(closings_.size());
    closings_.push_back(Closing{kasse, created, number, {}});
    closingIndex_.emplace(key, index);
    return index;
}

void Check::readTseTable(const std::string& file, const std::vector<std::string>& header, const CsvRecord& record)
{
    Columns& c = tseColumns_;
    const uint32_t closing = closingOf(record, header, c);
    TseEntry entry;
    entry.shown.declaredSerial = field(record, c(header, "TSE_SERIAL"));
    entry.shown.algorithm = field(record, c(header, "TSE_SIG_ALGO"));
    entry.shown.timeFormat = field(record, c(header, "TSE_ZEITFORMAT"));
    entry.shown.encoding = field(record, c(header, "TSE_PD_ENCODING"));
    entry.keyText = field(record, c(header, "TSE_PUBLIC_KEY"));
    entry.certificateText = field(record, c(header, "TSE_ZERTIFIKAT_I")) + field(record, c(header, "TSE_ZERTIFIKAT_II"));
    // One TSE stands in tse.csv once per closing; it is judged once.
    const std::string content = entry.shown.declaredSerial + SEP + entry.shown.algorithm + SEP + entry.shown.timeFormat +
                                SEP + entry.shown.encoding + SEP + entry.keyText + SEP + entry.certificateText;
    auto found = tseByContent_.find(content);
    if (found == tseByContent_.end()) {
        found = tseByContent_.emplace(content, tses_.size()).first;
        tses_.push_back(std::move(entry));
    }
    const std::string key = std::to_string(closing) + SEP + field(record, c(header, "TSE_ID"));
    if (!tseOfClosing_.emplace(key, found->second).second) {
        addFinding(Severity::Error, "csv-malformed",
                   file + ": line " + std::to_string(record.line) + " repeats TSE_ID " +
                       field(record, c(header, "TSE_ID")) + " of closing " + closings_[closing].number,
                   {});
    }
}

void Check::readRow(const std::string& file, const std::vector<std::string>& header, const CsvRecord& record)
{
    Columns& c = rowColumns_;
    Row row;
    row.file = file;
    row.line = record.line;
    row.closing = closingOf(record, header, c);
    row.bonId = field(record, c(header, "BON_ID"));
    row.tseId = field(record, c(header, "TSE_ID"));
    row.tanr = field(record, c(header, "TSE_TANR"));
    row.start = field(record, c(header, "TSE_TA_START"));
    row.end = field(record, c(header, "TSE_TA_ENDE"));
    row.processType = field(record, c(header, "TSE_TA_VORGANGSART"));
    row.counter = field(record, c(header, "TSE_TA_SIGZ"));
    row.signature = field(record, c(header, "TSE_TA_SIG"));
    row.failure = field(record, c(header, "TSE_TA_FEHLER"));
    // The official description and the DSFinV-K text name the column differently.
    size_t data = c(header, "TSE_VORGANGSDATEN");
    if (data == SIZE_MAX) data = c(header, "TSE_TA_VORGANGSDATEN");
    row.processData = field(record, data);
    row.hasProcessData = data != SIZE_MAX && !row.processData.empty();
    rows_.push_back(std::move(row));
}

void Check::readTable(const std::string& label, std::string_view table, ByteView data, const TableDescription* description)
{
    const CsvDialect dialect = description ? description->dialect : CsvDialect();
    const std::vector<CsvColumn> declared = description ? description->columns : std::vector<CsvColumn>();
    CsvVisitor visit;
    if (table == TSE_TABLE) {
        visit = [&](const std::vector<std::string>& h, const CsvRecord& r) { readTseTable(label, h, r); };
    } else if (table == ROWS_TABLE) {
        visit = [&](const std::vector<std::string>& h, const CsvRecord& r) { readRow(label, h, r); };
    } else if (table == "cashregister.csv") {
        visit = [&](const std::vector<std::string>& h, const CsvRecord& r) {
            const uint32_t closing = closingOf(r, h, registerColumns_);
            closings_[closing].kasseSerial = field(r, registerColumns_(h, "KASSE_SERIENNR"));
        };
    } else if (table == "slaves.csv") {
        visit = [&](const std::vector<std::string>& h, const CsvRecord& r) {
            const uint32_t closing = closingOf(r, h, terminalColumns_);
            terminalSerial_[std::to_string(closing) + SEP + field(r, terminalColumns_(h, "TERMINAL_ID"))] =
                field(r, terminalColumns_(h, "TERMINAL_SERIENNR"));
        };
    } else if (table == "transactions.csv") {
        visit = [&](const std::vector<std::string>& h, const CsvRecord& r) {
            const std::string& terminal = field(r, bonColumns_(h, "TERMINAL_ID"));
            if (terminal.empty()) return;
            const uint32_t closing = closingOf(r, h, bonColumns_);
            bonTerminal_[std::to_string(closing) + SEP + field(r, bonColumns_(h, "BON_ID"))] = terminal;
        };
    } else if (table == "transactions_vat.csv") {
        visit = [&](const std::vector<std::string>& h, const CsvRecord& r) {
            const uint32_t closing = closingOf(r, h, vatColumns_);
            BonAmounts& bon = amounts_[std::to_string(closing) + SEP + field(r, vatColumns_(h, "BON_ID"))];
            bon.vatRows = true;
            const std::optional<uint64_t> key = parseDecimal(field(r, vatColumns_(h, "UST_SCHLUESSEL")));
            const std::optional<int64_t> amount = parseAmount(field(r, vatColumns_(h, "BON_BRUTTO")),
                                                              dialect.decimalSymbol, dialect.digitGroupingSymbol);
            if (key && *key >= 1 && *key <= 5 && amount) bon.vat[*key - 1] += *amount;
        };
    } else if (table == "datapayment.csv") {
        visit = [&](const std::vector<std::string>& h, const CsvRecord& r) {
            const uint32_t closing = closingOf(r, h, paymentColumns_);
            BonAmounts& bon = amounts_[std::to_string(closing) + SEP + field(r, paymentColumns_(h, "BON_ID"))];
            bon.paymentRows = true;
            const bool cash = field(r, paymentColumns_(h, "ZAHLART_TYP")) == "Bar";
            const std::optional<int64_t> amount = parseAmount(field(r, paymentColumns_(h, "ZAHLWAEH_BETRAG")),
                                                              dialect.decimalSymbol, dialect.digitGroupingSymbol);
            if (amount) bon.payments[{cash, normalCurrency(field(r, paymentColumns_(h, "ZAHLWAEH_CODE")))}] += *amount;
        };
    } else {
        return;  // read only for its presence
    }
    const CsvRead read = readCsv(data, dialect, declared, visit);
    report_.tablesRead.push_back(label + " (" + std::to_string(read.records) + " rows)");
    for (size_t i = 0; i < read.problems.size() && i < PROBLEMS_PER_FILE; ++i) {
        addFinding(Severity::Error, "csv-malformed", label + ": " + read.problems[i].message,
                   {label + ":" + std::to_string(read.problems[i].line)});
    }
    if (read.problems.size() > PROBLEMS_PER_FILE) {
        addFinding(Severity::Error, "csv-malformed",
                   label + ": " + std::to_string(read.problems.size() - PROBLEMS_PER_FILE) + " more malformed lines",
                   {});
    }
}

// Two passes: the description first, wherever it stands in the archive,
// then the tables one at a time, so that only one file is ever in memory.
std::string Check::readExport(const ExportSource& source)
{
    std::optional<std::vector<TableDescription>> index;
    std::string indexProblem = "has no index.xml";
    const Result<ExportRead> first = readExportSource(source, MAX_INDEX_XML, [&](ExportMember&& member) {
        if (!equalsIgnoringCase(baseName(member.name), "index.xml") || index) return;
        if (!member.contents) {
            indexProblem = "has an index.xml that " + member.error;
            return;
        }
        Result<std::vector<TableDescription>> parse = parseIndexXml(*member.contents);
        if (parse) index = std::move(parse).value();
        else indexProblem = "has an index.xml that " + parse.error().message;
    });
    if (!first) return first.error().message;
    if (!index) {
        addFinding(Severity::Warning, "index-missing",
                   source.label() + " " + indexProblem + "; its tables are read in the standard dialect (UTF-8, \";\", "
                                                         "quotes, decimal comma, a header line)",
                   {});
    }
    std::set<std::string> present;
    const Result<ExportRead> second = readExportSource(source, options_.maxTableSize, [&](ExportMember&& member) {
        const std::string table = asciiLower(baseName(member.name));
        const TableDescription* description = index ? findTable(*index, table) : nullptr;
        const bool known = description != nullptr ||
                           std::find(STANDARD_TABLES.begin(), STANDARD_TABLES.end(), table) != STANDARD_TABLES.end();
        if (!known) return;
        const std::string label = source.label() + ":" + member.name;
        if (!member.contents) {
            addFinding(Severity::Error, "csv-malformed", label + " " + member.error, {});
            return;
        }
        present.insert(table);
        tablesSeen_.insert(table);
        readTable(label, table, *member.contents, description);
    });
    if (!second) return second.error().message;
    if (second->truncation) addFinding(Severity::Error, "csv-malformed", *second->truncation, {});
    std::vector<std::string> expected;
    if (index) {
        for (const TableDescription& table : *index) expected.push_back(asciiLower(baseName(table.url)));
    } else {
        expected.assign(STANDARD_TABLES.begin(), STANDARD_TABLES.end());
    }
    for (const std::string& table : expected) {
        if (present.count(table) || table == TSE_TABLE || table == ROWS_TABLE) continue;
        addFinding(Severity::Warning, "table-missing", source.label() + " has no " + table, {});
    }
    return {};
}

void Check::decodeTses()
{
    for (TseEntry& entry : tses_) {
        BookedTse& shown = entry.shown;
        ReceiptKeys keys = receiptKeys(entry.keyText);
        if (keys.key.has_value()) {
            entry.key = *keys.key;
            entry.otherKeys = std::move(keys.otherKeys);
            shown.serialNumber = toHex(entry.key->serialNumber());
            shown.curve = std::string(entry.key->curveInfo().displayName);
        } else {
            shown.keyProblem = entry.keyText.empty() ? "TSE_PUBLIC_KEY is empty" : "TSE_PUBLIC_KEY is no usable key: " + keys.key.error().message;
            const std::optional<Bytes> serial = declaredSerial(shown.declaredSerial);
            shown.serialNumber = serial ? toHex(*serial) : shown.declaredSerial;
            entry.problem = shown.keyProblem;
            addFinding(Severity::Error, "certificate-mismatch", "tse.csv: TSE " + shown.declaredSerial + ": " + shown.keyProblem, {});
        }
        entry.algorithm = algorithmByName(shown.algorithm);
        if (entry.algorithm == nullptr) {
            entry.problem = "TSE_SIG_ALGO \"" + shown.algorithm + "\" is no known signature algorithm";
        } else if (!entry.algorithm->supported) {
            entry.problem = "TSE_SIG_ALGO \"" + shown.algorithm + "\" is recognised but not verified by this tool";
        }
        entry.format = receiptTimeFormatByName(shown.timeFormat);
        if (!entry.key) continue;
        const std::optional<Bytes> declared = declaredSerial(shown.declaredSerial);
        if (!declared || *declared != entry.key->serialNumber()) {
            addFinding(Severity::Error, "serial-mismatch",
                       "tse.csv: TSE_SERIAL " + shown.declaredSerial + " is not the SHA-256 of TSE_PUBLIC_KEY, " +
                           shown.serialNumber + "; the key's serial number is used",
                       {});
        }
        if (entry.certificateText.empty()) continue;
        shown.certificate = true;
        const std::optional<Bytes> der = fromBase64(entry.certificateText);
        const std::vector<Certificate> certificates = der ? loadCertificates(*der).value_or({}) : std::vector<Certificate>{};
        if (certificates.empty()) {
            addFinding(Severity::Error, "certificate-mismatch",
                       "tse.csv: TSE " + shown.serialNumber + ": TSE_ZERTIFIKAT_I and II hold no certificate", {});
        } else if (!certificates.front().key() || certificates.front().key()->point() != entry.key->point()) {
            addFinding(Severity::Error, "certificate-mismatch",
                       "tse.csv: TSE " + shown.serialNumber +
                           ": the certificate in TSE_ZERTIFIKAT_I and II holds another key than TSE_PUBLIC_KEY",
                       {});
        }
    }
}

void Check::verifyRow(const Row& row, BookedTransaction& out, RowExtra& extra)
{
    const Closing& closing = closings_[row.closing];
    out.file = row.file + ":" + std::to_string(row.line);
    out.bonId = row.bonId;
    out.kasseId = closing.kasseId;
    out.closing = closing.number;
    out.closingTime = closing.created;
    out.processType = row.processType;
    out.failure = row.failure;
    out.transactionNumber = parseDecimal(row.tanr);
    out.signatureCounter = parseDecimal(row.counter);
    if (std::optional<IsoTime> start = parseIsoTime(row.start)) {
        out.startSeconds = start->hadZone ? start->seconds : germanLocalToUtc(start->seconds);
    }
    const std::optional<IsoTime> end = parseIsoTime(row.end);
    if (end) {
        out.logSeconds = end->hadZone ? end->seconds : germanLocalToUtc(end->seconds);
        out.logFraction = end->fraction;
    }
    const auto tse = tseOfClosing_.find(std::to_string(row.closing) + SEP + row.tseId);
    const TseEntry* entry = tse == tseOfClosing_.end() ? nullptr : &tses_[tse->second];
    if (entry) out.serialNumber = entry->shown.serialNumber;
    extra.processData = row.processData;
    extra.processDataHash = hashOf(row.processData);
    const std::vector<Bytes> readings = signatureReadings(row.signature);
    if (!readings.empty()) {
        extra.signatureHash = hashOf(std::string_view(reinterpret_cast<const char*>(readings.front().data()), readings.front().size()));
        extra.signatureComparable = true;
    }

    if (!row.failure.empty() || row.signature.empty()) {
        out.verdict = RowVerdict::Unsigned;
        out.reason = row.failure.empty() ? "the row has neither a signature nor a TSE_TA_FEHLER text"
                                         : "TSE failure: " + row.failure;
        return;
    }
    if (!entry) {
        out.verdict = RowVerdict::Unverifiable;
        out.reason = "tse.csv has no TSE_ID " + row.tseId + " for closing " + closing.number + " of " + closing.kasseId;
        return;
    }
    if (!entry->problem.empty()) {
        out.verdict = RowVerdict::Unverifiable;
        out.reason = entry->problem;
        return;
    }
    if (!row.hasProcessData) {
        out.verdict = RowVerdict::Unverifiable;
        out.reason = "the export does not hold the processData (TSE_VORGANGSDATEN), so the signature cannot be rebuilt";
        return;
    }
    out.verdict = RowVerdict::Invalid;
    if (!out.transactionNumber) return void(out.reason = "TSE_TANR \"" + row.tanr + "\" is no whole number");
    if (!out.signatureCounter) return void(out.reason = "TSE_TA_SIGZ \"" + row.counter + "\" is no whole number");
    if (!end) return void(out.reason = "TSE_TA_ENDE \"" + row.end + "\" is no ISO 8601 time");
    if (readings.empty()) return void(out.reason = "TSE_TA_SIG is neither base64 nor hexadecimal");

    // The client IDs the TSE may have signed, most specific first.
    std::vector<std::pair<std::string_view, std::string>> clients;
    const auto terminal = bonTerminal_.find(std::to_string(row.closing) + SEP + row.bonId);
    if (terminal != bonTerminal_.end()) {
        const auto serial = terminalSerial_.find(std::to_string(row.closing) + SEP + terminal->second);
        if (serial != terminalSerial_.end() && !serial->second.empty()) clients.emplace_back("TERMINAL_SERIENNR", serial->second);
    }
    if (!closing.kasseSerial.empty()) clients.emplace_back("KASSE_SERIENNR", closing.kasseSerial);
    if (!closing.kasseId.empty()) clients.emplace_back("Z_KASSE_ID", closing.kasseId);
    clients.erase(std::unique(clients.begin(), clients.end(),
                              [](const auto& a, const auto& b) { return a.second == b.second; }),
                  clients.end());
    if (clients.empty()) return void(out.reason = "neither a terminal, the register nor Z_KASSE_ID names the client");
    out.clientId = clients.front().second;

    Receipt receipt(ReceiptFields{}, *entry->key, entry->otherKeys);
    receipt.version = "V0";
    receipt.processType = row.processType;
    receipt.processData = row.processData;
    receipt.transactionNumber = *out.transactionNumber;
    receipt.signatureCounter = *out.signatureCounter;
    receipt.logTime = ReceiptTime{row.end, *end};
    receipt.startTime = receipt.logTime;
    receipt.algorithm = entry->algorithm;
    receipt.algorithmText = entry->shown.algorithm;
    receipt.signatureReadings = readings;
    receipt.signatureText = row.signature;
    // The label is a hint: TSEs labelled utcTime sign with seconds, some
    // labels are misspelt. The others are tried with the likeliest client.
    std::vector<ReceiptTimeFormat> formats = {entry->format.value_or(ReceiptTimeFormat::UnixTime)};
    for (const ReceiptTimeFormat f : {ReceiptTimeFormat::UnixTime, ReceiptTimeFormat::UtcTime, ReceiptTimeFormat::GeneralizedTime}) {
        if (elementFormat(f) != elementFormat(formats.front())) formats.push_back(f);
    }
    std::vector<std::pair<int64_t, bool>> moments;  // seconds, read as local time
    if (end->hadZone) {
        moments.emplace_back(end->seconds, false);
    } else {
        moments.emplace_back(germanLocalToUtc(end->seconds), true);
        moments.emplace_back(end->seconds, false);
    }
    std::string firstReason;
    for (const auto& [seconds, local] : moments) {
        for (size_t f = 0; f < formats.size(); ++f) {
            for (size_t c = 0; c < (f == 0 ? clients.size() : 1); ++c) {
                receipt.clientId = clients[c].second;
                receipt.logTime.time.seconds = seconds;
                receipt.logTimeFormat = formats[f];
                const ReceiptVerification verification = verifyReceipt(receipt);
                if (firstReason.empty()) firstReason = verification.reason;
                if (!verification.valid()) continue;
                out.verdict = RowVerdict::Valid;
                out.form = verification.form;
                out.clientId = clients[c].second;
                out.clientIdSource = clients[c].first;
                out.logSeconds = seconds;
                out.localTime = !end->hadZone;
                std::vector<std::string> notes;
                if (!end->hadZone) {
                    notes.push_back(std::string("TSE_TA_ENDE has no time zone; it held as ") +
                                    (local ? "German local time" : "UTC"));
                }
                if (f != 0) {
                    notes.push_back("signed in " + std::string(receiptTimeFormatName(formats[f])) +
                                    " though tse.csv says " + entry->shown.timeFormat);
                }
                if (verification.heldKey) notes.push_back("the key held on " + std::string(verification.heldKey->curveInfo().displayName));
                for (const std::string& note : notes) out.reason += (out.reason.empty() ? "" : "; ") + note;
                return;
            }
        }
    }
    out.reason = firstReason + "; tried client ID";
    for (size_t c = 0; c < clients.size(); ++c) out.reason += (c ? ", " : " ") + clients[c].second;
    out.reason += " and every time format";
}

void Check::checkAmounts(const Row& row, const BookedTransaction& out)
{
    if (out.verdict != RowVerdict::Valid || row.processType != "Kassenbeleg-V1") return;
    const auto found = amounts_.find(std::to_string(row.closing) + SEP + row.bonId);
    if (found == amounts_.end()) return;
    const std::optional<ReceiptAmounts> signed_ = parseReceiptAmounts(row.processData);
    if (!signed_) return;
    const BonAmounts& booked = found->second;
    std::vector<std::string> differences;
    if (booked.vatRows) {
        for (size_t i = 0; i < 5; ++i) {
            if (signed_->vat[i] == booked.vat[i]) continue;
            differences.push_back("VAT key " + std::to_string(i + 1) + ": processData " + formatAmount(signed_->vat[i]) +
                                  ", transactions_vat.csv " + formatAmount(booked.vat[i]));
        }
    }
    if (booked.paymentRows) {
        std::map<std::pair<bool, std::string>, int64_t> payments;
        for (const ReceiptAmounts::Payment& p : signed_->payments) payments[{p.cash, normalCurrency(p.currency)}] += p.amount;
        std::set<std::pair<bool, std::string>> keys;
        for (const auto& entry : payments) keys.insert(entry.first);
        for (const auto& entry : booked.payments) keys.insert(entry.first);
        for (const auto& key : keys) {
            const int64_t a = payments.count(key) ? payments.at(key) : 0;
            const int64_t b = booked.payments.count(key) ? booked.payments.at(key) : 0;
            if (a == b) continue;
            differences.push_back(std::string(key.first ? "Bar" : "Unbar") + (key.second.empty() ? "" : " " + key.second) +
                                  ": processData " + formatAmount(a) + ", datapayment.csv " + formatAmount(b));
        }
    }
    if (differences.empty()) return;
    std::string message = out.label() + ": the signed amounts differ from the booked ones: ";
    for (size_t i = 0; i < differences.size(); ++i) message += (i ? "; " : "") + differences[i];
    addFinding(Severity::Warning, "amounts-differ", message, {out.label()});
}

void Check::verifyRows()
{
    report_.transactions.resize(rows_.size());
    extras_.resize(rows_.size());
    std::atomic<uint64_t> done{0};
    parallelFor(rows_.size(), options_.jobs, [&](size_t i) {
        verifyRow(rows_[i], report_.transactions[i], extras_[i]);
        checkAmounts(rows_[i], report_.transactions[i]);
        const uint64_t now = ++done;
        if (options_.progress && i % 256 == 0) options_.progress(BookkeepingProgress{"bookkeeping", now, rows_.size()});
    });
    for (const BookedTransaction& t : report_.transactions) {
        const std::vector<std::string> label = {t.label()};
        if (t.verdict == RowVerdict::Invalid) {
            addFinding(Severity::Error, "signature-invalid", t.label() + ": " + t.reason, label);
        } else if (t.verdict == RowVerdict::Unverifiable && t.reason.find("TSE_VORGANGSDATEN") != std::string::npos) {
            addFinding(Severity::Warning, "processdata-missing", t.label() + ": " + t.reason, label);
        } else if (t.verdict == RowVerdict::Unverifiable && t.reason.rfind("tse.csv has no", 0) == 0) {
            addFinding(Severity::Error, "csv-malformed", t.file + ": " + t.reason, label);
        }
        if (t.localTime) {
            addFinding(Severity::Warning, "local-time", t.label() + ": " + t.reason, label);
        }
    }
}

void Check::readTseExport()
{
    AuditOptions audit;
    audit.exports = options_.tse;
    audit.certificateFiles = options_.certificateFiles;
    audit.trustDirectories = options_.trustDirectories;
    audit.jobs = options_.jobs;
    if (options_.progress) {
        audit.progress = [this](const AuditProgress& p) {
            options_.progress(BookkeepingProgress{"tse", p.bytesDone, p.bytesTotal});
        };
    }
    audit.inspect = [this](const LogMessage& message, const LogRecord& record) {
        if (message.type != LogType::Transaction) return;
        const std::optional<uint64_t> number = message.transactionNumber();
        if (!number) return;
        const std::string operation = asciiLower(message.operation());
        const bool finish = operation.rfind("finish", 0) == 0;
        if (!finish && operation.rfind("start", 0) != 0) return;
        const std::string serial = toHex(message.serialNumber);
        if (!finish) {
            ExclusiveLock<Mutex> lock(intake_.lock);
            const uint32_t index =
                intake_.serials.emplace(serial, static_cast<uint32_t>(intake_.serials.size())).first->second;
            intake_.starts.push_back(TseStart{index, *number, message.logTime.seconds});
            return;
        }
        TseLog log;
        log.transaction = *number;
        log.finish = true;
        log.counter = message.signatureCounter;
        log.seconds = message.logTime.seconds;
        log.fraction = message.logTime.fraction;
        log.verdict = record.verdict;
        log.ordinal = record.ordinal;
        log.processData = message.text("processData");
        log.processDataHash = hashOf(log.processData);
        if (log.processData.size() > SHOWN_PROCESS_DATA) log.processData.resize(SHOWN_PROCESS_DATA + 1);
        log.processData.shrink_to_fit();
        log.signatureHash = hashOf(std::string_view(reinterpret_cast<const char*>(message.signatureValue.data()),
                                                    message.signatureValue.size()));
        ExclusiveLock<Mutex> lock(intake_.lock);
        log.serial = intake_.serials.emplace(serial, static_cast<uint32_t>(intake_.serials.size())).first->second;
        intake_.logs.push_back(std::move(log));
    };
    Result<AuditReport> outcome = auditExport(audit);
    {
        ExclusiveLock<Mutex> lock(intake_.lock);
        serials_ = std::move(intake_.serials);
        tseLogs_ = std::move(intake_.logs);
        tseStarts_ = std::move(intake_.starts);
    }
    if (!outcome) throw std::runtime_error(outcome.error().message);
    tseSummary_ = outcome->summary;
    tseReport_ = std::move(outcome).value();
}

LogRecord Check::recordOf(const TseLog& log) const
{
    // The table is in ordinal order; a log dropped as a copy has no record.
    const LogTable& logs = tseReport_->logs;
    size_t low = 0, high = logs.size();
    while (low < high) {
        const size_t middle = low + (high - low) / 2;
        if (logs.row(middle).ordinal < log.ordinal) low = middle + 1;
        else high = middle;
    }
    return low < logs.size() && logs.row(low).ordinal == log.ordinal ? logs[low] : LogRecord{};
}

void Check::compare(BookedTransaction& booked, const RowExtra& extra, const TseLog& finish)
{
    const LogRecord& record = recordOf(finish);
    std::vector<std::string> details;
    const auto differ = [&](const char* name, std::string detail) {
        booked.differences.emplace_back(name);
        details.push_back(std::string(name) + " " + detail);
    };
    if (booked.signatureCounter && *booked.signatureCounter != finish.counter) {
        differ("signatureCounter", std::to_string(*booked.signatureCounter) + " against the TSE's " + std::to_string(finish.counter));
    }
    if (booked.processType != record.processType) differ("processType", shown(booked.processType) + " against the TSE's " + shown(record.processType));
    if (!extra.processData.empty() && extra.processDataHash != finish.processDataHash) {
        differ("processData", shown(extra.processData) + " against the TSE's " + shown(finish.processData));
    }
    if (booked.logSeconds && std::llabs(*booked.logSeconds - finish.seconds) > TIME_TOLERANCE) {
        differ("logTime", isoSeconds(*booked.logSeconds) + " against the Finish log's " + isoSeconds(finish.seconds));
    }
    const bool der = booked.form && (booked.form->signature == SignatureEncoding::DerBase64 ||
                                     booked.form->signature == SignatureEncoding::DerHex);
    if (extra.signatureComparable && !der && booked.verdict != RowVerdict::Unsigned && extra.signatureHash != finish.signatureHash) {
        differ("signature", "is not the Finish log's");
    }
    if (booked.differences.empty()) {
        booked.match = MatchState::Matched;
        return;
    }
    booked.match = MatchState::Differs;
    std::string message = booked.label() + " differs from the TSE's Finish log " + record.file + ":";
    for (size_t i = 0; i < details.size(); ++i) message += (i ? "; " : " ") + details[i];
    addFinding(Severity::Error, "transaction-differs", message, {booked.label()});
}

// The same TSE transaction in several rows, whatever the TSE export says.
void Check::findDuplicates()
{
    std::vector<size_t> order;
    const auto& rows = report_.transactions;
    for (size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].row && !rows[i].serialNumber.empty() && rows[i].transactionNumber && rows[i].verdict != RowVerdict::Unsigned) {
            order.push_back(i);
        }
    }
    const auto key = [&](size_t i) { return std::tie(rows[i].serialNumber, *rows[i].transactionNumber); };
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return key(a) < key(b); });
    for (size_t first = 0; first < order.size();) {
        size_t last = first + 1;
        while (last < order.size() && key(order[last]) == key(order[first])) ++last;
        if (last - first > 1) {
            std::vector<std::string> labels;
            for (size_t i = first; i < last; ++i) labels.push_back(rows[order[i]].label());
            const BookedTransaction& t = rows[order[first]];
            std::string message = "transaction " + std::to_string(*t.transactionNumber) + " of TSE " +
                                  t.serialNumber.substr(0, 16) + "... stands in " + std::to_string(labels.size()) + " rows:";
            for (size_t i = 0; i < labels.size(); ++i) message += (i ? ", " : " ") + labels[i];
            addFinding(Severity::Error, "transaction-duplicate", message, labels);
        }
        first = last;
    }
}

void Check::match()
{
    std::unordered_map<TransactionKey, size_t, PairHash> finishes, starts;
    std::vector<Range> tseRange(serials_.size()), rowRange;
    for (size_t i = 0; i < tseLogs_.size(); ++i) {
        const TseLog& log = tseLogs_[i];
        tseRange[log.serial].add(log.transaction, log.seconds);
        finishes.emplace(TransactionKey{log.serial, log.transaction}, i);
    }
    for (size_t i = 0; i < tseStarts_.size(); ++i) {
        const TseStart& log = tseStarts_[i];
        tseRange[log.serial].add(log.transaction, log.seconds);
        const auto [at, inserted] = starts.emplace(TransactionKey{log.serial, log.transaction}, i);
        if (!inserted && log.seconds < tseStarts_[at->second].seconds) at->second = i;
    }
    report_.summary.tseFinishLogs = finishes.size();
    // Serial numbers of the bookkeeping that the TSE export lacks get their
    // own index, so that both sides' ranges are kept alike.
    for (size_t i = 0; i < report_.transactions.size(); ++i) {
        const BookedTransaction& t = report_.transactions[i];
        if (t.serialNumber.empty()) continue;
        const auto found = serials_.find(t.serialNumber);
        if (found != serials_.end()) extras_[i].serial = found->second;
    }
    rowRange.resize(serials_.size());
    for (size_t i = 0; i < report_.transactions.size(); ++i) {
        const BookedTransaction& t = report_.transactions[i];
        if (extras_[i].serial && t.transactionNumber) rowRange[*extras_[i].serial].add(*t.transactionNumber, t.logSeconds);
    }
    findDuplicates();

    for (size_t i = 0; i < report_.transactions.size(); ++i) {
        BookedTransaction& t = report_.transactions[i];
        const RowExtra& extra = extras_[i];
        if (!t.transactionNumber || t.serialNumber.empty()) continue;
        const bool unsignedRow = t.verdict == RowVerdict::Unsigned;
        if (!extra.serial) {
            if (!unsignedRow) t.match = MatchState::Outside;
            continue;
        }
        const TransactionKey key{*extra.serial, *t.transactionNumber};
        const auto finish = finishes.find(key);
        if (finish != finishes.end()) {
            TseLog& log = tseLogs_[finish->second];
            log.booked = true;
            if (unsignedRow) {
                t.match = MatchState::Differs;
                t.differences.emplace_back("signature");
                addFinding(Severity::Error, "unsigned-but-signed",
                           t.label() + " is booked as a TSE failure (" + t.failure + "), but the TSE signed transaction " +
                               std::to_string(*t.transactionNumber) + " in " + recordOf(log).file,
                           {t.label()});
                continue;
            }
            if (t.clientId.empty()) t.clientId = std::string(recordOf(log).clientId);
            compare(t, extra, log);
            const auto start = starts.find(key);
            if (start != starts.end() && t.startSeconds &&
                std::llabs(*t.startSeconds - tseStarts_[start->second].seconds) > TIME_TOLERANCE) {
                t.differences.emplace_back("startTime");
                const bool first = t.match == MatchState::Matched;
                t.match = MatchState::Differs;
                const std::string message = t.label() + " differs from the TSE's Start log: startTime " +
                                            isoSeconds(*t.startSeconds) + " against the Start log's " +
                                            isoSeconds(tseStarts_[start->second].seconds);
                if (first) addFinding(Severity::Error, "transaction-differs", message, {t.label()});
            }
            continue;
        }
        if (unsignedRow) continue;
        if (tseRange[*extra.serial].holds(*t.transactionNumber, t.logSeconds)) {
            t.match = MatchState::Unknown;
            addFinding(Severity::Error, "transaction-unknown",
                       t.label() + ": the TSE export has no Finish log of transaction " +
                           std::to_string(*t.transactionNumber) + " though it lies inside the export's range",
                       {t.label()});
        } else {
            t.match = MatchState::Outside;
        }
    }
    // What the TSE signed and the bookkeeping does not hold.
    std::vector<size_t> unbooked;
    for (const auto& entry : finishes) {
        if (!tseLogs_[entry.second].booked) unbooked.push_back(entry.second);
    }
    std::sort(unbooked.begin(), unbooked.end(), [&](size_t a, size_t b) {
        return std::tie(tseLogs_[a].serial, tseLogs_[a].transaction) < std::tie(tseLogs_[b].serial, tseLogs_[b].transaction);
    });
    std::vector<std::string> serialNames(serials_.size());
    for (const auto& [name, index] : serials_) serialNames[index] = name;
    report_.transactions.reserve(report_.transactions.size() + unbooked.size());
    for (const size_t i : unbooked) {
        const TseLog& log = tseLogs_[i];
        const LogRecord& record = recordOf(log);
        BookedTransaction t;
        t.row = false;
        t.file = record.file;
        t.clientId = std::string(record.clientId);
        t.serialNumber = serialNames[log.serial];
        t.transactionNumber = log.transaction;
        t.signatureCounter = log.counter;
        t.processType = std::string(record.processType);
        t.logSeconds = log.seconds;
        t.logFraction = log.fraction;
        t.verdict = log.verdict == LogVerdict::Valid ? RowVerdict::Valid
                    : log.verdict == LogVerdict::Invalid ? RowVerdict::Invalid
                                                         : RowVerdict::Unverifiable;
        const auto start = starts.find({log.serial, log.transaction});
        if (start != starts.end()) t.startSeconds = tseStarts_[start->second].seconds;
        if (rowRange[log.serial].holds(log.transaction, log.seconds)) {
            t.match = MatchState::Unbooked;
            t.reason = "the TSE signed this sale and the bookkeeping does not hold it";
            addFinding(Severity::Error, "transaction-unbooked",
                       "transaction " + std::to_string(log.transaction) + " (" + record.file + ", processData " +
                           shown(log.processData) + ") was signed by the TSE but is missing from the bookkeeping",
                       {t.label()});
        } else {
            t.match = MatchState::Outside;
            t.reason = "outside the period of the bookkeeping";
        }
        report_.transactions.push_back(std::move(t));
    }
    // Transactions the TSE started and never finished.
    std::vector<std::pair<TransactionKey, size_t>> open;
    for (const auto& entry : starts) {
        if (!finishes.count(entry.first)) open.push_back(entry);
    }
    std::sort(open.begin(), open.end());
    for (const auto& [key, index] : open) {
        const std::string label = "TSE " + serialNames[key.first].substr(0, 16) + ".../" + std::to_string(key.second);
        addFinding(Severity::Warning, "transaction-open",
                   "transaction " + std::to_string(key.second) + " of TSE " + serialNames[key.first].substr(0, 16) +
                       "... was started at " + isoSeconds(tseStarts_[index].seconds) + " and never finished",
                   {label});
    }
}

void Check::finish()
{
    BookkeepingSummary& s = report_.summary;
    for (const BookedTransaction& t : report_.transactions) {
        if (t.row) {
            ++s.rows;
            s.valid += t.verdict == RowVerdict::Valid;
            s.invalid += t.verdict == RowVerdict::Invalid;
            s.unsigned_ += t.verdict == RowVerdict::Unsigned;
            s.unverifiable += t.verdict == RowVerdict::Unverifiable;
        }
        if (!t.match) continue;
        s.matched += *t.match == MatchState::Matched;
        s.differs += *t.match == MatchState::Differs;
        s.unbooked += *t.match == MatchState::Unbooked;
        s.unknown += *t.match == MatchState::Unknown;
        s.outside += *t.match == MatchState::Outside;
    }
    {
        ExclusiveLock<Mutex> lock(findingsLock_);
        report_.findings = std::move(findings_);
    }
    // An unsigned sale the TSE did sign is reported as that alone.
    std::set<std::string> signedAfterAll;
    for (const BookkeepingFinding& f : report_.findings) {
        if (f.code == "unsigned-but-signed") signedAfterAll.insert(f.transactions.begin(), f.transactions.end());
    }
    for (const BookedTransaction& t : report_.transactions) {
        if (t.row && t.verdict == RowVerdict::Unsigned && !signedAfterAll.count(t.label())) {
            report_.findings.push_back({Severity::Warning, "unsigned-transaction",
                                        t.label() + " was booked without a TSE signature: " + t.reason, {t.label()}});
        }
    }
    s.closings = closings_.size();
    s.tseLogs = tseSummary_.logs;
    s.tseInvalidLogs = tseSummary_.invalid;
    for (size_t i = 0; i < tses_.size(); ++i) report_.tses.push_back(tses_[i].shown);
    for (const BookedTransaction& t : report_.transactions) {
        for (BookedTse& tse : report_.tses) tse.rows += t.row && tse.serialNumber == t.serialNumber;
    }
    std::stable_sort(report_.findings.begin(), report_.findings.end(), [](const BookkeepingFinding& a, const BookkeepingFinding& b) {
        return std::tie(a.severity, a.code) < std::tie(b.severity, b.code);
    });
    for (BookkeepingFinding& f : report_.findings) {
        if (options_.strict) f.severity = Severity::Error;
        (f.severity == Severity::Error ? s.errors : s.warnings) += 1;
    }
}

Result<BookkeepingReport> Check::run()
{
    Result<std::vector<ExportSource>> grouping = groupExportPaths(options_.dsfinvk);
    if (!grouping) return grouping.error();
    for (ExportSource& source : std::move(grouping).value()) {
        source.zip = true;
        if (std::string error = readExport(source); !error.empty()) return Error{error};
    }
    for (const std::string_view table : {ROWS_TABLE, TSE_TABLE}) {
        if (!tablesSeen_.count(std::string(table))) {
            return Error{"the bookkeeping export has no " + std::string(table) + ", so there is nothing to check"};
        }
    }
    decodeTses();
    verifyRows();
    // What only the rows needed goes before the TSE export comes in.
    rows_ = std::vector<Row>();
    amounts_ = std::unordered_map<std::string, BonAmounts>();
    bonTerminal_ = std::unordered_map<std::string, std::string>();
#ifdef __GLIBC__
    // The rows' many small strings leave free pages inside the heap that the
    // TSE export's threads, allocating in arenas of their own, would not
    // reuse; handing them back keeps the peak at the larger of the two
    // phases instead of their sum.
    malloc_trim(0);
#endif
    if (!report_.tseGiven) findDuplicates();
    if (report_.tseGiven) {
        try {
            readTseExport();
        } catch (const std::exception& error) {
            return Error{error.what()};
        }
        match();
        tseReport_.reset();
    }
    finish();
    return std::move(report_);
}

}  // namespace

std::string_view rowVerdictName(RowVerdict verdict)
{
    switch (verdict) {
    case RowVerdict::Valid: return "valid";
    case RowVerdict::Invalid: return "invalid";
    case RowVerdict::Unsigned: return "unsigned";
    case RowVerdict::Unverifiable: return "unverifiable";
    }
    return "";
}

std::string_view matchStateName(MatchState state)
{
    switch (state) {
    case MatchState::Matched: return "matched";
    case MatchState::Differs: return "differs";
    case MatchState::Unbooked: return "unbooked";
    case MatchState::Unknown: return "unknown";
    case MatchState::Outside: return "outside";
    }
    return "";
}

std::string BookedTransaction::label() const
{
    if (row) return kasseId + "/" + bonId;
    return "TSE " + serialNumber.substr(0, 16) + ".../" + (transactionNumber ? std::to_string(*transactionNumber) : "?");
}

std::string BookedTransaction::logTime() const
{
    if (!logSeconds) return {};
    LogTime time;
    time.seconds = *logSeconds;
    time.fraction = logFraction;
    return time.iso();
}

int64_t germanLocalToUtc(int64_t localSeconds)
{
    constexpr int64_t DAY = 86400, HOUR = 3600;
    const int64_t year = civilFromSeconds(localSeconds).year;
    const auto lastSunday = [&](unsigned month, unsigned lastDay) {
        const int64_t days = daysFromCivil(year, month, lastDay);
        const int64_t weekday = ((days % 7) + 11) % 7;  // 1970-01-01 was a Thursday; 0 is Sunday
        return (days - weekday) * DAY + HOUR;
    };
    const int64_t summerStart = lastSunday(3, 31), summerEnd = lastSunday(10, 31);
    const int64_t summer = localSeconds - 2 * HOUR;
    if (summer >= summerStart && summer < summerEnd) return summer;
    return localSeconds - HOUR;
}

std::optional<ReceiptAmounts> parseReceiptAmounts(std::string_view processData)
{
    const size_t first = processData.find('^');
    if (first == std::string_view::npos) return std::nullopt;
    const size_t second = processData.find('^', first + 1);
    if (second == std::string_view::npos || processData.find('^', second + 1) != std::string_view::npos) return std::nullopt;
    const std::string_view vat = processData.substr(first + 1, second - first - 1);
    const std::string_view payments = processData.substr(second + 1);
    ReceiptAmounts out;
    size_t at = 0;
    for (size_t i = 0; i < 5; ++i) {
        const size_t end = vat.find('_', at);
        if ((end == std::string_view::npos) != (i == 4)) return std::nullopt;
        const std::optional<int64_t> amount = parseAmount(vat.substr(at, end == std::string_view::npos ? vat.npos : end - at), '.', ',');
        if (!amount) return std::nullopt;
        out.vat[i] = *amount;
        at = end + 1;
    }
    at = 0;
    while (at < payments.size()) {
        size_t end = payments.find('_', at);
        if (end == std::string_view::npos) end = payments.size();
        const std::string_view part = payments.substr(at, end - at);
        at = end + 1;
        const size_t colon = part.find(':');
        if (colon == std::string_view::npos) return std::nullopt;
        const std::optional<int64_t> amount = parseAmount(part.substr(0, colon), '.', ',');
        const std::string_view rest = part.substr(colon + 1);
        const size_t colon2 = rest.find(':');
        const std::string_view type = rest.substr(0, colon2);
        if (!amount || (type != "Bar" && type != "Unbar")) return std::nullopt;
        out.payments.push_back({type == "Bar", colon2 == std::string_view::npos ? std::string() : std::string(rest.substr(colon2 + 1)), *amount});
    }
    return out;
}

Result<BookkeepingReport> checkBookkeeping(const BookkeepingOptions& options)
{
    Check check(options);
    return check.run();
}

}  // namespace tse
