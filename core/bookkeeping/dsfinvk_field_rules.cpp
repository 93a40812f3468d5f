#include "dsfinvk_field_rules.h"

#include <algorithm>
#include <array>

#include "algorithms.h"
#include "receipt_text.h"
#include "text.h"

namespace tse {
namespace {

constexpr std::array<std::string_view, 9> RECEIPT_TYPES = {"Beleg",       "AVTransfer",    "AVBestellung",
                                                           "AVTraining",  "AVBelegstorno", "AVBelegabbruch",
                                                           "AVSachbezug", "AVSonstige",    "AVRechnung"};
constexpr std::array<std::string_view, 25> BUSINESS_CASES = {"Umsatz",
                                                             "Pfand",
                                                             "PfandRueckzahlung",
                                                             "Rabatt",
                                                             "Aufschlag",
                                                             "ZuschussEcht",
                                                             "ZuschussUnecht",
                                                             "TrinkgeldAG",
                                                             "TrinkgeldAN",
                                                             "EinzweckgutscheinKauf",
                                                             "EinzweckgutscheinEinloesung",
                                                             "MehrzweckgutscheinKauf",
                                                             "MehrzweckgutscheinEinloesung",
                                                             "Forderungsentstehung",
                                                             "Forderungsaufloesung",
                                                             "Anzahlungseinstellung",
                                                             "Anzahlungsaufloesung",
                                                             "Anfangsbestand",
                                                             "Privatentnahme",
                                                             "Privateinlage",
                                                             "Geldtransit",
                                                             "Lohnzahlung",
                                                             "Einzahlung",
                                                             "Auszahlung",
                                                             "DifferenzSollIst"};
constexpr std::array<std::string_view, 7> PAYMENT_TYPES = {
    "Bar", "Unbar", "Keine", "ECKarte", "Kreditkarte", "ElZahlungsdienstleister", "Guthabenkarte"};
constexpr std::array<std::string_view, 4> REFERENCE_TYPES = {"Transaktion", "ExterneRechnung", "ExternerLieferschein",
                                                             "ExterneSonstige"};

template <size_t N>
bool among(const std::array<std::string_view, N>& words, std::string_view value)
{
    return std::find(words.begin(), words.end(), value) != words.end();
}

bool hasVocabulary(std::string_view column)
{
    return column == "BON_TYP" || column == "GV_TYP" || column == "ZAHLART_TYP" || column == "REF_TYP" ||
           column == "TSE_ZEITFORMAT" || column == "TSE_SIG_ALGO";
}

// The key of every row; BON_ID and POS_ZEILE where a table has them (a
// reference may stand for the whole receipt, without POS_ZEILE).
bool isKey(std::string_view table, std::string_view column)
{
    if (column == "Z_KASSE_ID" || column == "Z_ERSTELLUNG" || column == "Z_NR" || column == "BON_ID") return true;
    return column == "POS_ZEILE" && table != "references.csv";
}

uint64_t placeId(RowPlace place)
{
    return (static_cast<uint64_t>(place.file) << 32) | place.line;
}

size_t characters(std::string_view utf8)
{
    size_t count = 0;
    for (const char c : utf8) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return count;
}

}  // namespace

std::optional<unsigned> writtenDecimals(std::string_view text, char decimalSymbol, char groupingSymbol)
{
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
    bool digits = false, inFraction = false;
    unsigned decimals = 0;
    for (const char c : text) {
        if (c >= '0' && c <= '9') {
            digits = true;
            decimals += inFraction;
        } else if (c == decimalSymbol && !inFraction) {
            inFraction = true;
        } else if (c != groupingSymbol || groupingSymbol == '\0' || inFraction || !digits) {
            return std::nullopt;
        }
    }
    if (!digits || !groupedByThousands(text, decimalSymbol, groupingSymbol)) return std::nullopt;
    return decimals;
}

bool inVocabulary(std::string_view column, std::string_view value)
{
    if (column == "BON_TYP") return among(RECEIPT_TYPES, value);
    if (column == "GV_TYP") return among(BUSINESS_CASES, value);
    if (column == "ZAHLART_TYP") return among(PAYMENT_TYPES, value);
    if (column == "REF_TYP") return among(REFERENCE_TYPES, value);
    // Time formats and algorithm names are read in any letter case, as
    // the signatures are checked; another case changes no value.
    if (column == "TSE_ZEITFORMAT") return receiptTimeFormatByName(value).has_value();
    if (column == "TSE_SIG_ALGO") return algorithmByName(value) != nullptr;
    return true;
}

void FieldRules::beginFile(std::string_view table, std::string label, const std::vector<std::string>& header,
                           const std::vector<CsvColumn>* declared, const CsvDialect& dialect)
{
    table_ = table;
    label_ = std::move(label);
    dialect_ = dialect;
    columns_.clear();
    for (size_t i = 0; i < header.size(); ++i) {
        Column column;
        column.index = i;
        column.name = header[i];
        column.key = isKey(table, header[i]);
        column.vocabulary = hasVocabulary(header[i]);
        if (declared) {
            for (const CsvColumn& d : *declared) {
                if (d.name != header[i]) continue;
                column.maxLength = d.maxLength;
                column.numeric = d.numeric && !column.key;
                column.accuracy = d.accuracy;
            }
        }
        if (column.key || column.vocabulary || column.maxLength || column.numeric)
            columns_.push_back(std::move(column));
    }
}

void FieldRules::checkKey(const Column& column, std::string_view value, RowPlace place)
{
    if (!value.empty() && (column.name != "Z_NR" || parseDecimal(value))) return;
    tally_.add(FindingCode::FieldInvalid, table_ + ": rows without their full key", "row", [&] {
        return where(place) + " (" + column.name +
               (value.empty() ? " empty" : " " + quoted(value) + " is no whole number") + ")";
    });
}

void FieldRules::checkNumber(const Column& column, std::string_view value, RowPlace place)
{
    const std::optional<unsigned> decimals =
        writtenDecimals(value, dialect_.decimalSymbol, dialect_.digitGroupingSymbol);
    if (!decimals) return note(FindingCode::FieldInvalid, column.name + " is no number", place, value);
    if (*decimals <= column.accuracy) return;
    tally_.addOnce(FindingCode::FieldFormat,
                   table_ + ": " + column.name + " with more than the " + std::to_string(column.accuracy) +
                       " decimal places index.xml declares",
                   "row", placeId(place), [&] { return where(place) + " (" + quoted(value) + ")"; });
}

void FieldRules::check(const CsvRecord& record, RowPlace place)
{
    for (const Column& column : columns_) {
        const std::string_view value =
            column.index < record.fields.size() ? std::string_view(record.fields[column.index]) : std::string_view();
        if (column.key) checkKey(column, value, place);
        if (column.vocabulary && !inVocabulary(column.name, value)) {
            note(FindingCode::FieldInvalid, column.name + " outside its fixed vocabulary", place, value);
        }
        if (value.empty()) continue;
        if (column.numeric) checkNumber(column, value, place);
        if (column.maxLength && value.size() > column.maxLength && characters(value) > column.maxLength) {
            tally_.add(FindingCode::FieldFormat,
                       table_ + ": " + column.name + " longer than the " + std::to_string(column.maxLength) +
                           " characters index.xml declares",
                       "row", [&] { return where(place) + " (" + std::to_string(characters(value)) + " characters)"; });
        }
    }
}

void FieldRules::note(FindingCode code, std::string_view rule, RowPlace place, std::string_view value)
{
    tally_.addOnce(code, table_ + ": " + std::string(rule), "row", placeId(place),
                   [&] { return where(place) + (value.empty() ? std::string() : " (" + quoted(value) + ")"); });
}

}  // namespace tse
