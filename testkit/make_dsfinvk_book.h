#ifndef TOOLS_MAKE_DSFINVK_BOOK_H
#define TOOLS_MAKE_DSFINVK_BOOK_H

// The bookkeeping make-dsfinvk writes, held whole before it is written:
// closings of registers, their receipts with lines, VAT keys, payments and
// TSE rows. It is built from the sales of TSE exports, a defect is planted
// in it, and then every table is written from it, so that every total
// agrees with what it sums unless a defect says otherwise.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace makedsfinvk {

// One Finish log: a sale as the TSE signed it.
struct Sale {
    std::string serial;  // hex
    uint64_t transaction = 0, counter = 0;
    int64_t seconds = 0;
    std::string fraction;
    std::optional<int64_t> startSeconds;
    std::string clientId, processType, processData, signature;
    std::string algorithm, timeFormat;
};

// What tse.csv says about a TSE.
struct TseInfo {
    std::string algorithm, timeFormat, keyBase64, certificateBase64;
};

// Line amounts are held in hundred-thousandths (the five decimals of
// lines_vat.csv), receipt amounts in cents.
constexpr int64_t LINE_UNITS_PER_CENT = 1000;
// Quantities in thousandths (the three decimals of MENGE).
constexpr int64_t ONE = 1000;
// The register's own key for what a receipt's payments hold beyond the VAT
// part it signed (keys from 1000 on are the business's to define).
constexpr int DIFFERENCE_KEY = 1000;

struct Line {
    std::string type = "Umsatz", name = "Warenverkauf", text;  // GV_TYP, GV_NAME, ARTIKELTEXT
    int key = 1;
    int64_t quantity = ONE;
    int64_t unitPrice = 0;  // STK_BR, hundred-thousandths
    int64_t gross = 0;      // POS_BRUTTO, hundred-thousandths
};

// transactions_vat.csv: the receipt's gross per VAT key, in cents.
struct KeyGross {
    int key = 1;
    int64_t gross = 0;
};

struct Payment {
    std::string type = "Bar", name = "Bar";
    std::string currency;  // empty for the base currency
    int64_t amount = 0;    // in the foreign currency, cents
    int64_t base = 0;      // in the base currency, cents
};

// A row of transactions_tse.csv, as text, so that a defect can blank or
// change any field.
struct TseRow {
    std::string serial;  // finds the TSE_ID in the closing
    std::string number, start, end, processType, counter, signature, failure, processData;
};

// A references.csv row from the receipt's head.
struct Reference {
    std::string type, date, kasse, closing, bonId;
};

struct Receipt {
    uint64_t bon = 0;  // BON_ID and BON_NR
    std::string type = "Beleg", name = "Kunde", terminal;
    int64_t start = 0, end = 0;
    std::vector<KeyGross> keys;
    std::vector<Line> lines;
    std::vector<Payment> payments;
    std::vector<TseRow> tse;
    std::vector<Reference> references;
    bool extraDecimal = false;  // UMS_BRUTTO written with one decimal more than declared
    bool brokenCopy = false;    // its transactions.csv row written again, unreadably (Book::bareValue)

    int64_t gross() const;  // UMS_BRUTTO
};

// What cashpointclosing.csv says of its receipts.
struct ClosingTotals {
    uint64_t firstBon = 0, lastBon = 0;
    int64_t payments = 0, cash = 0;
};

struct Closing {
    std::string kasse, registerSerial;
    uint64_t number = 0;
    int64_t created = 0;  // Z_ERSTELLUNG, UTC seconds
    int64_t day = 0;      // the German business day, days since 1970-01-01
    std::vector<Receipt> receipts;
    std::vector<std::string> tses;  // the serials of its TSEs: TSE_ID 1, 2, ...
    std::map<int, int64_t> rates;   // a key's rate where vat.csv says another than the law
    ClosingTotals totals;
};

// How writers seen in the field differ; none of it is a fault.
struct Variants {
    bool emptyZeroAmounts = false;       // line amounts left empty when zero
    bool noCashlessCurrencyRow = false;  // no base-currency cash row when no cash was taken
    bool vatFromLines = false;           // line net to the cent, a receipt's net the sum of its lines'
};

struct Book {
    std::vector<Closing> closings;                    // in the order they were opened
    std::map<std::string, TseInfo> tses;              // by serial
    std::map<std::string, std::string> terminals;     // client ID -> TERMINAL_ID (--terminals)
    std::map<std::string, uint64_t> lastTransaction;  // by serial, over every part
    Variants variants;
    // What defects change in the writing.
    std::string processDataColumn;  // another name for TSE_VORGANGSDATEN
    std::string bareValue;          // a value written without its quotes
    std::string falseSerial;        // a TSE whose TSE_SERIAL is written wrong
};

struct PlanOptions {
    size_t part = 1, parts = 1;
    bool terminals = false;
    size_t lines = 0;  // line items a receipt, 0: one to three a VAT key
};

// The closings of part `part` of `parts` of the sales (sorted by time): one
// per register and German business day, numbered on over the earlier parts,
// one receipt per sale. A part holds whole business days.
Book planBook(const std::vector<Sale>& sales, const std::map<std::string, TseInfo>& keys, const PlanOptions& options);

// The receipt of a sale: its type, VAT keys, lines and payments as the
// signed processData gives them; `lines` line items in all, or when 0 one
// to three a key.
Receipt receiptOf(const Sale& sale, uint64_t bon, size_t lines = 0);
TseRow tseRowOf(const Sale& sale);

// cashpointclosing.csv's view of every closing, from its receipts.
void computeTotals(Book& book);

// Receipt numbers of the register from this receipt on change by `delta`.
void renumber(Book& book, size_t closing, size_t receipt, int64_t delta);

// Every receipt in the order the tables hold them, with where it is.
struct ReceiptAt {
    size_t closing, receipt;
};
std::vector<ReceiptAt> receiptsWhere(const Book& book, const std::function<bool(const Receipt&)>& fits);

// The German business day of a moment, and its date as YYYY-MM-DD.
int64_t germanDay(int64_t utc);
std::string dateText(int64_t day);

// VAT: the rate of a key on a day in hundredths of a percent (1900 = 19 %),
// and the net of a gross amount at a rate, rounded half away from zero to
// a multiple of `unit`.
std::optional<int64_t> legalRate(int key, int64_t day);
int64_t rateOf(const Closing& closing, int key);
int64_t netOf(int64_t gross, int64_t rate, int64_t unit = 1);
std::string vatDescription(int key);

// An amount in units of 10^-decimals with a decimal comma: 1250000, 5 -> "12,50000".
std::string decimalText(int64_t units, int decimals);
// Units of 10^-decimals to the nearest unit of 10^-fewer, half away from zero.
int64_t roundUnits(int64_t units, int64_t divisor);

}  // namespace makedsfinvk

#endif
