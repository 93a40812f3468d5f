#ifndef TSE_CORE_DSFINVK_MODEL_H
#define TSE_CORE_DSFINVK_MODEL_H

// The bookkeeping as plain data: what intake reads from the tables, and
// what verification and reconciliation then look at. Rows keep their texts
// in one pool, not in strings of their own: an export of half a million
// rows must not take ten times its size in memory.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "dsfinvk_csv.h"
#include "public_key.h"
#include "receipt_text.h"

namespace tse {

// The texts of many rows, each row's fields one after another, each behind
// its length. A record never moves once written, so views into it stay good.
class RecordPool {
public:
    using Ref = uint64_t;

    Ref add(std::initializer_list<std::string_view> fields);
    // The field at `index` of the record (empty beyond its last field).
    std::string_view field(Ref ref, size_t index) const;
    size_t bytes() const { return bytes_; }

private:
    static constexpr size_t CHUNK = 1u << 20;
    std::vector<std::string> chunks_;  // each filled up to its capacity, never beyond
    size_t bytes_ = 0;
};

// Texts that recur (reasons, client IDs), kept once and named by a number;
// 0 is the empty text. The texts never move, so their views stay good.
class TextSet {
public:
    TextSet();
    uint32_t add(std::string_view text);
    std::string_view operator[](uint32_t id) const { return texts_[id]; }

private:
    std::deque<std::string> texts_;
    std::unordered_map<std::string_view, uint32_t> ids_;
};

// A table file that was read: the rows refer to it by number.
struct TableFile {
    std::string label;  // "shop.zip:transactions_tse.csv"
    std::string table;  // "transactions_tse.csv"
    CsvEncoding encoding = CsvEncoding::Utf8;
    size_t rows = 0;
    char decimalSymbol = ',', groupingSymbol = '.';  // for the texts kept as written
};

// Where a row stands: its file and line.
struct RowPlace {
    uint16_t file = 0;
    uint32_t line = 0;
};

// A closing is named by register, creation time and number in every table.
struct ClosingKey {
    std::string kasse, created, number;
    bool operator<(const ClosingKey& other) const
    {
        return std::tie(kasse, created, number) < std::tie(other.kasse, other.created, other.number);
    }
};

// An amount as the tables write it, exact: in units of 10^-5, the finest
// the description declares.
using Amount = int64_t;
constexpr Amount AMOUNT_UNIT = 100000;  // one euro
constexpr Amount CENT = AMOUNT_UNIT / 100;

struct Closing {
    ClosingKey key;
    bool booked = false;  // cashpointclosing.csv holds it
    RowPlace place;
    std::optional<int64_t> createdSeconds;       // Z_ERSTELLUNG, UTC
    std::string businessDay;                     // Z_BUCHUNGSTAG
    std::string startId, endId;                  // Z_START_ID, Z_ENDE_ID
    std::string kasseSerial;                     // KASSE_SERIENNR of cashregister.csv
    std::string baseCurrency;                    // KASSE_BASISWAEH_CODE; empty: EUR
    std::optional<Amount> payments, cash;        // Z_SE_ZAHLUNGEN, Z_SE_BARZAHLUNGEN
    bool registerRow = false, location = false;  // cashregister.csv and location.csv hold it
    uint16_t source = 0;                         // the export that first named it
};

// A TSE as tse.csv describes it, once however many closings repeat it.
struct TseDeclaration {
    std::string declaredSerial, algorithmText, timeFormatText, encoding, keyText, certificateText;
    RowPlace place;
    // Decoded once:
    std::optional<PublicKey> key;
    std::vector<PublicKey> otherKeys;  // a compressed point on the other curve of its size
    std::string serialNumber;          // hex, of the key; of TSE_SERIAL when the key is unusable
    std::string curve;
    const SignatureAlgorithm* algorithm = nullptr;
    std::optional<ReceiptTimeFormat> timeFormat;  // a hint: the others are tried too
    std::string problem;                          // why its rows cannot be verified; empty when they can
    bool certificate = false;
    bool inTseExport = false;  // the TSE export holds its certificate or its logs
};

// A row of transactions_tse.csv; its fields are in the pool in this order.
enum TseRowField : size_t {
    ROW_BON_ID,
    ROW_TSE_ID,
    ROW_TANR,
    ROW_START,
    ROW_END,
    ROW_PROCESS_TYPE,
    ROW_COUNTER,
    ROW_SIGNATURE,
    ROW_FAILURE,
    ROW_PROCESS_DATA,
    ROW_OTHER_PROCESS_DATA
};
struct TseRow {
    RecordPool::Ref record = 0;
    uint32_t closing = 0;
    RowPlace place;
    bool processDataColumn = false;  // the table has a processData column at all
};

// A receipt of transactions.csv.
enum ReceiptField : size_t { BON_ID, BON_NR, BON_TYP, BON_TERMINAL, BON_START, BON_END, BON_GROSS, BON_NAME };
struct BookedReceipt {
    RecordPool::Ref record = 0;
    uint32_t closing = 0;
    RowPlace place;
};

// A row of transactions_vat.csv: one VAT key of a receipt.
struct VatRow {
    RecordPool::Ref bonId = 0;
    uint32_t closing = 0;
    RowPlace place;
    uint32_t key = 0;
    Amount gross = 0;
    Amount netVatOff = 0;  // BON_NETTO + BON_UST - BON_BRUTTO; 0 when neither is written
};

// A row of datapayment.csv: one payment of a receipt, in the base currency.
enum PaymentField : size_t { PAY_BON_ID, PAY_TYPE, PAY_NAME, PAY_CURRENCY };
struct PaymentRow {
    RecordPool::Ref record = 0;  // BON_ID, ZAHLART_TYP, ZAHLART_NAME, ZAHLWAEH_CODE
    uint32_t closing = 0;
    RowPlace place;
    Amount base = 0;
    Amount paid = 0;  // in its currency (ZAHLWAEH_BETRAG); the base amount when none is named
};

// A line item of lines.csv; its texts are in Bookkeeping::linePool.
enum LineField : size_t { LINE_BON_ID, LINE_POS, LINE_TEXT, LINE_QUANTITY, LINE_PRICE };
struct LineRow {
    RecordPool::Ref record = 0;  // BON_ID, POS_ZEILE, ARTIKELTEXT, MENGE, STK_BR
    uint32_t closing = 0;
    uint32_t businessCase = 0;  // GV_TYP, GV_NAME and AGENTUR_ID, in Bookkeeping::texts
    RowPlace place;
};

// A line's amount under one VAT key, of lines_vat.csv.
struct LineVatRow {
    RecordPool::Ref record = 0;  // BON_ID, POS_ZEILE, in Bookkeeping::linePool
    uint32_t closing = 0;
    uint32_t key = 0;
    Amount gross = 0;
    Amount netVatOff = 0;  // POS_NETTO + POS_UST - POS_BRUTTO; 0 when neither is written
    RowPlace place;
};

// A total of the closing module: businesscases.csv (a business case and
// VAT key), payment.csv (a payment type and name) or cash_per_currency.csv
// (a currency).
struct ClosingAmount {
    uint32_t closing = 0;
    uint32_t what = 0;  // in Bookkeeping::texts
    uint32_t key = 0;   // the VAT key of a business case
    Amount amount = 0;
    RowPlace place;
};

// The rate vat.csv gives a key for a closing, in units of 10^-5 percent.
struct VatRate {
    uint32_t closing = 0;
    uint32_t key = 0;
    Amount rate = 0;
    RowPlace place;
};

// A row of references.csv of type Transaktion: a receipt naming another.
enum ReferenceField : size_t { REF_BON_ID, REF_KASSE, REF_CLOSING, REF_TARGET };
struct ReferenceRow {
    RecordPool::Ref record = 0;  // BON_ID, REF_Z_KASSE_ID, REF_Z_NR, REF_BON_ID
    uint32_t closing = 0;
    RowPlace place;
};

struct Terminal {
    uint32_t closing = 0;
    std::string id, serial;  // TERMINAL_ID, TERMINAL_SERIENNR
};

// A time as the tables write it (ISO 8601), in UTC seconds; one without a
// zone is German time.
std::optional<int64_t> bookedSeconds(std::string_view text);

// The whole bookkeeping as read.
struct Bookkeeping {
    RecordPool pool;
    RecordPool linePool;  // the texts of the line items, released once they are checked
    TextSet texts;        // business cases, payment types, currencies
    std::vector<TableFile> files;
    std::vector<Closing> closings;
    std::map<ClosingKey, uint32_t> closingIndex;
    std::vector<TseDeclaration> tses;
    std::map<std::pair<uint32_t, std::string>, uint32_t, std::less<>> tseOfClosing;  // (closing, TSE_ID)
    std::vector<Terminal> terminals;
    std::vector<TseRow> rows;
    std::vector<BookedReceipt> receipts;
    std::vector<VatRow> vat;
    std::vector<PaymentRow> payments;
    std::vector<LineRow> lines;
    std::vector<LineVatRow> lineVat;
    std::vector<ClosingAmount> businessCases, closingPayments, cashPerCurrency;
    std::vector<VatRate> vatRates;
    std::vector<ReferenceRow> references;
    std::vector<std::string> tablesRead;  // per file: "shop.zip:transactions_tse.csv (51 rows)"
    bool receiptsTable = false, closingsTable = false, vatTable = false, paymentsTable = false;
    // Per export: the tables it holds whole (every file read), by name.
    std::vector<std::set<std::string, std::less<>>> sourceTables;
    std::vector<std::string> sourceLabels;

    // The export of the closing holds the table whole: the checks that need
    // it can be made for the closing.
    bool hasTable(uint32_t closing, std::string_view table) const;
    void releaseLines();  // the line items, once the checks that need them are done

    uint32_t closingOf(ClosingKey key);
    std::string_view rowField(const TseRow& row, TseRowField field) const { return pool.field(row.record, field); }
    std::string_view receiptField(const BookedReceipt& r, ReceiptField field) const
    {
        return pool.field(r.record, field);
    }
    std::string where(const RowPlace& place) const;  // "shop.zip:transactions_tse.csv:17"
    // The receipt of (closing, BON_ID), once receipts are sorted by
    // sortReceipts(); nullptr when transactions.csv has none.
    void sortReceipts();
    const BookedReceipt* findReceipt(uint32_t closing, std::string_view bonId) const;
    // The TSE of (closing, TSE_ID), or nullptr.
    const TseDeclaration* tseOf(uint32_t closing, std::string_view tseId) const;
};

}  // namespace tse

#endif
