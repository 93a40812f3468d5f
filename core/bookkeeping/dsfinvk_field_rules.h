#ifndef TSE_CORE_DSFINVK_FIELD_RULES_H
#define TSE_CORE_DSFINVK_FIELD_RULES_H

// The rules the administration's own checking software applies to every
// row before anything else: each row carries its full key, each value keeps
// to the length and decimal places index.xml declares, and the fixed
// vocabularies hold. A rule broken is counted per table and column, one
// finding each: field-invalid (an error) for keys, numbers and
// vocabularies, field-format (a warning) for lengths and decimal places,
// which change no value a check reads.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dsfinvk_csv.h"
#include "dsfinvk_model.h"
#include "dsfinvk_tally.h"

namespace tse {

// The decimal places a number is written with ("12,50" -> 2), or nullopt
// when the text is no number in these symbols.
std::optional<unsigned> writtenDecimals(std::string_view text, char decimalSymbol, char groupingSymbol);

// The value is one of the column's fixed vocabulary (BON_TYP, GV_TYP,
// ZAHLART_TYP, REF_TYP, TSE_ZEITFORMAT, TSE_SIG_ALGO); true for a column
// that has none.
bool inVocabulary(std::string_view column, std::string_view value);

class FieldRules {
public:
    explicit FieldRules(FindingTally& tally) : tally_(tally) {}

    // The file whose records follow: `declared` is what index.xml says of
    // its columns, nullptr without a description (then only the key and
    // the vocabularies are checked).
    void beginFile(std::string_view table, std::string label, const std::vector<std::string>& header,
                   const std::vector<CsvColumn>* declared, const CsvDialect& dialect);
    void check(const CsvRecord& record, RowPlace place);

    // A value a check reads that breaks a rule of its own (a time that is
    // none, a name that must be there): counted with the rules above.
    void note(FindingCode code, std::string_view rule, RowPlace place, std::string_view value);

private:
    struct Column {
        size_t index = 0;
        std::string name;
        size_t maxLength = 0;
        bool numeric = false, key = false, vocabulary = false;
        unsigned accuracy = 0;
    };
    void checkKey(const Column& column, std::string_view value, RowPlace place);
    void checkNumber(const Column& column, std::string_view value, RowPlace place);
    std::string where(RowPlace place) const { return label_ + ":" + std::to_string(place.line); }

    FindingTally& tally_;
    std::string table_, label_;
    CsvDialect dialect_;
    std::vector<Column> columns_;  // those with a rule
};

}  // namespace tse

#endif
