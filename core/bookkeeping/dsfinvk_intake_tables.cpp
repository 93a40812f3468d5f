#include "dsfinvk_intake_tables.h"

#include <algorithm>

#include "text.h"

namespace tse {
namespace {

// The tables of the TSE, the closing and its master data.
std::vector<TableLayout> closingSpecs()
{
    return {
        {"transactions_tse.csv",
         Table::Rows,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "TSE_ID", "TSE_TANR", "TSE_TA_START", "TSE_TA_ENDE",
          "TSE_TA_VORGANGSART", "TSE_TA_SIGZ", "TSE_TA_SIG", "TSE_TA_FEHLER", "TSE_VORGANGSDATEN",
          "TSE_TA_VORGANGSDATEN"},
         12},
        {"tse.csv",
         Table::Tse,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "TSE_ID", "TSE_SERIAL", "TSE_SIG_ALGO", "TSE_ZEITFORMAT",
          "TSE_PD_ENCODING", "TSE_PUBLIC_KEY", "TSE_ZERTIFIKAT_I", "TSE_ZERTIFIKAT_II"},
         9},
        {"cashpointclosing.csv",
         Table::Closings,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "Z_BUCHUNGSTAG", "Z_START_ID", "Z_ENDE_ID", "Z_SE_ZAHLUNGEN",
          "Z_SE_BARZAHLUNGEN"},
         3},
        {"cashregister.csv",
         Table::Registers,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "KASSE_SERIENNR", "KASSE_BASISWAEH_CODE"},
         4},
        {"slaves.csv", Table::Terminals, {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "TERMINAL_ID", "TERMINAL_SERIENNR"}, 5},
        {"location.csv", Table::Location, {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR"}, 3},
    };
}

// The receipts and their parts, the closing module, rates and references.
std::vector<TableLayout> receiptSpecs()
{
    return {
        {"transactions.csv",
         Table::Receipts,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "BON_TYP", "BON_NR", "TERMINAL_ID", "BON_START", "BON_ENDE",
          "UMS_BRUTTO", "BON_NAME"},
         5},
        {"transactions_vat.csv",
         Table::Vat,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "UST_SCHLUESSEL", "BON_BRUTTO", "BON_NETTO", "BON_UST"},
         6},
        {"datapayment.csv",
         Table::Payments,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "ZAHLART_TYP", "ZAHLART_NAME", "ZAHLWAEH_CODE",
          "ZAHLWAEH_BETRAG", "BASISWAEH_BETRAG"},
         5},
        {"lines.csv",
         Table::Lines,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "POS_ZEILE", "GV_TYP", "GV_NAME", "AGENTUR_ID", "ARTIKELTEXT",
          "MENGE", "STK_BR"},
         6},
        {"lines_vat.csv",
         Table::LineVat,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "POS_ZEILE", "UST_SCHLUESSEL", "POS_BRUTTO", "POS_NETTO",
          "POS_UST"},
         7},
        {"businesscases.csv",
         Table::BusinessCases,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "GV_TYP", "UST_SCHLUESSEL", "Z_UMS_BRUTTO", "GV_NAME", "AGENTUR_ID"},
         6},
        {"payment.csv",
         Table::ClosingPayments,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "ZAHLART_TYP", "Z_ZAHLART_BETRAG", "ZAHLART_NAME"},
         5},
        {"cash_per_currency.csv",
         Table::CashPerCurrency,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "ZAHLART_WAEH", "ZAHLART_BETRAG_WAEH"},
         5},
        {"vat.csv", Table::VatRates, {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "UST_SCHLUESSEL", "UST_SATZ"}, 5},
        {"references.csv",
         Table::References,
         {"Z_KASSE_ID", "Z_ERSTELLUNG", "Z_NR", "BON_ID", "REF_TYP", "REF_BON_ID", "REF_Z_KASSE_ID", "REF_Z_NR"},
         6},
    };
}

const std::vector<TableLayout>& tableLayouts()
{
    static const std::vector<TableLayout> layouts = [] {
        std::vector<TableLayout> all = closingSpecs();
        for (TableLayout& layout : receiptSpecs()) all.push_back(std::move(layout));
        return all;
    }();
    return layouts;
}

// The three parts of a business case as one text (they never hold this byte).
std::string businessCase(std::string_view type, std::string_view name, std::string_view agency)
{
    return std::string(type) + '\x1f' + std::string(name) + '\x1f' + std::string(agency.empty() ? "0" : agency);
}

}  // namespace

const TableLayout* layoutOf(std::string_view file)
{
    for (const TableLayout& layout : tableLayouts()) {
        if (layout.file == file) return &layout;
    }
    return nullptr;
}

const TableLayout& otherTableLayout()
{
    static const TableLayout other{"", Table::Other, {}, 0};
    return other;
}

FileColumns columnsOf(const TableLayout& layout, const std::vector<std::string>& header)
{
    FileColumns columns;
    for (const std::string_view name : layout.columns) {
        const auto found = std::find(header.begin(), header.end(), name);
        columns.at.push_back(found == header.end() ? SIZE_MAX : static_cast<size_t>(found - header.begin()));
    }
    return columns;
}

uint32_t RecordReader::closingOf(const FileColumns& c, const CsvRecord& record)
{
    return books_.closingOf(
        ClosingKey{std::string(c(record, 0)), std::string(c(record, 1)), std::string(c(record, 2))});
}

std::optional<Amount> RecordReader::amount(std::string_view text, std::string_view column, RowPlace place,
                                           const CsvDialect& dialect)
{
    const std::optional<int64_t> value = parseExactAmount(text, dialect.decimalSymbol, dialect.digitGroupingSymbol);
    if (!value) rules_.note(FindingCode::FieldInvalid, std::string(column) + " is no number", place, text);
    return value;
}

std::optional<Amount> RecordReader::optionalAmount(std::string_view text, std::string_view column, RowPlace place,
                                                   const CsvDialect& dialect)
{
    if (text.empty()) return Amount{0};
    return amount(text, column, place, dialect);
}

std::optional<uint32_t> RecordReader::vatKey(std::string_view text, RowPlace place)
{
    const std::optional<uint64_t> key = parseDecimal(text);
    if (key && *key <= UINT32_MAX) return static_cast<uint32_t>(*key);
    rules_.note(FindingCode::FieldInvalid, "UST_SCHLUESSEL is no number", place, text);
    return std::nullopt;
}

void RecordReader::read(const TableLayout& layout, const FileColumns& c, const CsvRecord& record, RowPlace place,
                        const CsvDialect& dialect)
{
    switch (layout.table) {
    case Table::Tse: return readTse(c, record, place);
    case Table::Rows: return readRow(c, record, place);
    case Table::Closings: return readClosing(c, record, place, dialect);
    case Table::Registers: {
        Closing& closing = books_.closings[closingOf(c, record)];
        closing.kasseSerial = c(record, 3);
        closing.baseCurrency = c(record, 4);
        closing.registerRow = true;
        return;
    }
    case Table::Terminals:
        books_.terminals.push_back(
            Terminal{closingOf(c, record), std::string(c(record, 3)), std::string(c(record, 4))});
        return;
    case Table::Location: books_.closings[closingOf(c, record)].location = true; return;
    case Table::Receipts: return readReceipt(c, record, place);
    case Table::Vat: return readVat(c, record, place, dialect);
    case Table::Payments: return readPayment(c, record, place, dialect);
    case Table::Lines: return readLine(c, record, place);
    case Table::LineVat: return readLineVat(c, record, place, dialect);
    case Table::BusinessCases:
    case Table::ClosingPayments:
    case Table::CashPerCurrency: return readClosingAmount(layout.table, c, record, place, dialect);
    case Table::VatRates: return readVatRate(c, record, place, dialect);
    case Table::References: return readReference(c, record, place);
    case Table::Other: return;
    }
}

void RecordReader::readTse(const FileColumns& c, const CsvRecord& record, RowPlace place)
{
    const uint32_t closing = closingOf(c, record);
    TseDeclaration d;
    d.declaredSerial = c(record, 4), d.algorithmText = c(record, 5), d.timeFormatText = c(record, 6);
    d.encoding = c(record, 7), d.keyText = c(record, 8);
    d.certificateText = std::string(c(record, 9)) + std::string(c(record, 10));
    d.place = place;
    // One TSE stands in tse.csv once per closing; it is judged once.
    const auto content =
        std::make_tuple(d.declaredSerial, d.algorithmText, d.timeFormatText, d.encoding, d.keyText, d.certificateText);
    auto found = tseByContent_.find(content);
    if (found == tseByContent_.end()) {
        found = tseByContent_.emplace(content, static_cast<uint32_t>(books_.tses.size())).first;
        books_.tses.push_back(std::move(d));
    }
    const std::string tseId(c(record, 3));
    if (!books_.tseOfClosing.emplace(std::make_pair(closing, tseId), found->second).second) {
        findings_.raise(FindingCode::CsvMalformed, books_.where(place) + ": TSE_ID " + quoted(tseId) +
                                                       " stands twice for closing " +
                                                       books_.closings[closing].key.number);
    }
}

void RecordReader::readRow(const FileColumns& c, const CsvRecord& record, RowPlace place)
{
    TseRow row;
    row.closing = closingOf(c, record);
    row.place = place;
    row.processDataColumn = c.has(12) || c.has(13);
    // The official description and the DSFinV-K text name the column
    // differently; an export that fills both with different values is a
    // finding, and both are kept for the signature to decide.
    std::string_view data = c(record, 12), other = c(record, 13);
    if (data.empty()) std::swap(data, other);
    if (other == data) other = {};
    row.record = books_.pool.add({c(record, 3), c(record, 4), c(record, 5), c(record, 6), c(record, 7), c(record, 8),
                                  c(record, 9), c(record, 10), c(record, 11), data, other});
    if (!other.empty()) {
        findings_.raise(FindingCode::ColumnConflict, FindingSubject::Row, books_.rows.size(),
                        "TSE_VORGANGSDATEN " + rowValue(ROW_PROCESS_DATA) + " and TSE_TA_VORGANGSDATEN " +
                            rowValue(ROW_OTHER_PROCESS_DATA) + " differ");
    }
    books_.rows.push_back(row);
}

void RecordReader::readClosing(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect)
{
    Closing& closing = books_.closings[closingOf(c, record)];
    if (closing.booked) {
        findings_.raise(FindingCode::CsvMalformed, books_.where(place) + ": closing " + closing.key.number + " of " +
                                                       quoted(closing.key.kasse) + " stands twice, first at " +
                                                       books_.where(closing.place));
        return;
    }
    closing.booked = true;
    closing.place = place;
    closing.createdSeconds = bookedSeconds(closing.key.created);
    if (!closing.createdSeconds)
        rules_.note(FindingCode::FieldInvalid, "Z_ERSTELLUNG is no ISO 8601 time", place, closing.key.created);
    closing.businessDay = c(record, 3);
    closing.startId = c(record, 4);
    closing.endId = c(record, 5);
    if (c.has(6) && !c(record, 6).empty()) closing.payments = amount(c(record, 6), "Z_SE_ZAHLUNGEN", place, dialect);
    if (c.has(7) && !c(record, 7).empty()) closing.cash = amount(c(record, 7), "Z_SE_BARZAHLUNGEN", place, dialect);
}

void RecordReader::readReceipt(const FileColumns& c, const CsvRecord& record, RowPlace place)
{
    for (const size_t time : {size_t{7}, size_t{8}}) {
        if (c.has(time) && !bookedSeconds(c(record, time))) {
            rules_.note(FindingCode::FieldInvalid,
                        std::string(time == 7 ? "BON_START" : "BON_ENDE") + " is no ISO 8601 time", place,
                        c(record, time));
        }
    }
    books_.receipts.push_back(BookedReceipt{books_.pool.add({c(record, 3), c(record, 5), c(record, 4), c(record, 6),
                                                             c(record, 7), c(record, 8), c(record, 9), c(record, 10)}),
                                            closingOf(c, record), place});
}

void RecordReader::readVat(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect)
{
    VatRow row;
    row.closing = closingOf(c, record);
    row.place = place;
    row.bonId = books_.pool.add({c(record, 3)});
    const std::optional<uint32_t> key = vatKey(c(record, 4), place);
    const std::optional<Amount> gross = amount(c(record, 5), "BON_BRUTTO", place, dialect);
    if (!key || !gross) return;
    row.key = *key;
    row.gross = *gross;
    const std::string_view net = c(record, 6), vat = c(record, 7);
    if (!net.empty() || !vat.empty()) {
        const std::optional<Amount> n = optionalAmount(net, "BON_NETTO", place, dialect);
        const std::optional<Amount> v = optionalAmount(vat, "BON_UST", place, dialect);
        if (n && v) row.netVatOff = *n + *v - *gross;
    }
    books_.vat.push_back(row);
}

// BASISWAEH_BETRAG is the amount in the base currency, the one every writer
// fills; ZAHLWAEH_BETRAG stands in for it only when no foreign currency is
// named.
void RecordReader::readPayment(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect)
{
    PaymentRow row;
    row.closing = closingOf(c, record);
    row.place = place;
    const std::string_view currency = c(record, 6), base = c(record, 8), paid = c(record, 7);
    const bool foreign = !currency.empty() && !equalsIgnoringCase(currency, "EUR");
    std::optional<Amount> value;
    if (!base.empty()) value = amount(base, "BASISWAEH_BETRAG", place, dialect);
    else if (!foreign && !paid.empty()) value = amount(paid, "ZAHLWAEH_BETRAG", place, dialect);
    else {
        rules_.note(FindingCode::FieldInvalid,
                    std::string("a payment") + (foreign ? " in a foreign currency" : "") +
                        " without BASISWAEH_BETRAG, the amount in the base currency",
                    place, {});
    }
    if (!value) return;
    row.base = *value;
    row.paid = *value;
    if (foreign && !paid.empty()) {
        const std::optional<Amount> inCurrency = amount(paid, "ZAHLWAEH_BETRAG", place, dialect);
        if (!inCurrency) return;
        row.paid = *inCurrency;
    }
    row.record = books_.pool.add({c(record, 3), c(record, 4), c(record, 5), currency});
    books_.payments.push_back(row);
}

void RecordReader::readLine(const FileColumns& c, const CsvRecord& record, RowPlace place)
{
    LineRow row;
    row.closing = closingOf(c, record);
    row.place = place;
    row.businessCase = books_.texts.add(businessCase(c(record, 5), c(record, 6), c(record, 7)));
    row.record = books_.linePool.add({c(record, 3), c(record, 4), c(record, 8), c(record, 9), c(record, 10)});
    books_.lines.push_back(row);
}

void RecordReader::readLineVat(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect)
{
    LineVatRow row;
    row.closing = closingOf(c, record);
    row.place = place;
    row.record = books_.linePool.add({c(record, 3), c(record, 4)});
    // One writer leaves line amounts empty where they are zero.
    const std::optional<uint32_t> key = vatKey(c(record, 5), place);
    const std::optional<Amount> gross = optionalAmount(c(record, 6), "POS_BRUTTO", place, dialect);
    if (!key || !gross) return;
    row.key = *key;
    row.gross = *gross;
    const std::string_view net = c(record, 7), vat = c(record, 8);
    if (!net.empty() || !vat.empty()) {
        const std::optional<Amount> n = optionalAmount(net, "POS_NETTO", place, dialect);
        const std::optional<Amount> v = optionalAmount(vat, "POS_UST", place, dialect);
        if (n && v) row.netVatOff = *n + *v - *gross;
    }
    books_.lineVat.push_back(row);
}

void RecordReader::readClosingAmount(Table table, const FileColumns& c, const CsvRecord& record, RowPlace place,
                                     const CsvDialect& dialect)
{
    ClosingAmount row;
    row.closing = closingOf(c, record);
    row.place = place;
    std::optional<Amount> value;
    if (table == Table::BusinessCases) {
        const std::optional<uint32_t> key = vatKey(c(record, 4), place);
        value = amount(c(record, 5), "Z_UMS_BRUTTO", place, dialect);
        if (!key) return;
        row.key = *key;
        row.what = books_.texts.add(businessCase(c(record, 3), c(record, 6), c(record, 7)));
    } else if (table == Table::ClosingPayments) {
        value = amount(c(record, 4), "Z_ZAHLART_BETRAG", place, dialect);
        row.what = books_.texts.add(std::string(c(record, 3)) + '\x1f' + std::string(c(record, 5)));
    } else {
        value = amount(c(record, 4), "ZAHLART_BETRAG_WAEH", place, dialect);
        row.what = books_.texts.add(c(record, 3));
    }
    if (!value) return;
    row.amount = *value;
    (table == Table::BusinessCases     ? books_.businessCases
     : table == Table::ClosingPayments ? books_.closingPayments
                                       : books_.cashPerCurrency)
        .push_back(row);
}

void RecordReader::readVatRate(const FileColumns& c, const CsvRecord& record, RowPlace place, const CsvDialect& dialect)
{
    const std::optional<uint32_t> key = vatKey(c(record, 3), place);
    const std::optional<Amount> rate = amount(c(record, 4), "UST_SATZ", place, dialect);
    if (key && rate) books_.vatRates.push_back(VatRate{closingOf(c, record), *key, *rate, place});
}

// Only references within the bookkeeping can be followed.
void RecordReader::readReference(const FileColumns& c, const CsvRecord& record, RowPlace place)
{
    if (c(record, 4) != "Transaktion") return;
    books_.references.push_back(ReferenceRow{books_.pool.add({c(record, 3), c(record, 6), c(record, 7), c(record, 5)}),
                                             closingOf(c, record), place});
}

}  // namespace tse
