// Bytes read as a DSFinV-K table in both encodings and with and without a
// header line, and as an index.xml. Every record handed over must have the
// header's width, every problem must name its line, and a description that
// cannot be used must say why.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "dsfinvk_csv.h"
#include "dsfinvk_index.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const tse::ByteView input(data, size);
    const std::vector<tse::CsvColumn> declared = {{"Z_KASSE_ID", 50}, {"BON_ID", 40}, {"TSE_VORGANGSDATEN", 1000}};
    for (const tse::CsvEncoding encoding : {tse::CsvEncoding::Utf8, tse::CsvEncoding::Windows1252}) {
        for (const bool header : {true, false}) {
            tse::CsvDialect dialect;
            dialect.encoding = encoding;
            dialect.headerLine = header;
            size_t lastLine = 0;
            const tse::CsvRead read = tse::readCsv(
                input, dialect, declared, [&](const std::vector<std::string>& columns, const tse::CsvRecord& record) {
                    if (record.fields.size() != columns.size()) std::abort();
                    if (record.line <= lastLine) std::abort();
                    lastLine = record.line;
                });
            for (const tse::CsvProblem& problem : read.problems) {
                if (problem.line == 0 || problem.message.empty()) std::abort();
            }
        }
    }
    const tse::Result<std::vector<tse::TableDescription>> index = tse::parseIndexXml(input);
    if (!index && index.error().message.empty()) std::abort();
    if (index && index->empty()) std::abort();
    (void)tse::parseAmount(std::string(reinterpret_cast<const char*>(data), size), ',', '.');
    return 0;
}
