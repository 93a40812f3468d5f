// make-dsfinvk: turns TSE exports into the DSFinV-K export of the same
// sales - one closing per register and German business day, every Finish
// log one receipt with its real signature, and every table of the
// bookkeeping written so that its totals agree - optionally with one
// planted defect or in the manner of another writer. For the tests, the
// benchmark and the demo of `tse-check dsfinvk`.
#include <archive.h>
#include <archive_entry.h>
#include <openssl/x509.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "certificate.h"
#include "dsfinvk_index.h"
#include "export_names.h"
#include "export_reader.h"
#include "file_reader.h"
#include "log_message.h"
#include "make_dsfinvk_book.h"
#include "make_dsfinvk_defects.h"
#include "make_dsfinvk_tables.h"
#include "text.h"

namespace {

namespace fs = std::filesystem;
using namespace makedsfinvk;
using tse::Bytes;

// How writers seen in the field differ, none of it a fault: --variant NAME.
const std::pair<std::string_view, bool Variants::*> VARIANTS[] = {
    {"empty-zero-amounts", &Variants::emptyZeroAmounts},
    {"no-cashless-currency-row", &Variants::noCashlessCurrencyRow},
    {"vat-from-lines", &Variants::vatFromLines},
};

struct Options {
    std::vector<std::string> tse;
    std::string out;
    std::string format = "dir";
    std::string index = DSFINVK_INDEX_XML;
    std::string defect;
    std::vector<std::string> variants;
    std::string part = "1/1";
    size_t lines = 0;
    bool spkiKey = false;
    bool terminals = false;
};

Bytes der(int (*encode)(const void*, unsigned char**), const void* object)
{
    const int size = encode(object, nullptr);
    if (size <= 0) return {};
    Bytes out(static_cast<size_t>(size));
    unsigned char* at = out.data();
    encode(object, &at);
    return out;
}

int encodeCertificate(const void* x, unsigned char** out)
{
    return i2d_X509(static_cast<X509*>(const_cast<void*>(x)), out);
}

int encodeKey(const void* key, unsigned char** out)
{
    return i2d_PUBKEY(static_cast<EVP_PKEY*>(const_cast<void*>(key)), out);
}

std::string timeFormatName(const tse::LogTime& time)
{
    if (time.format == tse::TimeFormat::GeneralizedTime && !time.fraction.empty())
        return "generalizedTimeWithMilliseconds";
    return std::string(tse::timeFormatName(time.format));
}

void readCertificates(const Bytes& contents, bool spkiKey, std::map<std::string, TseInfo>& keys)
{
    for (const tse::Certificate& certificate : tse::loadCertificates(contents).value_or({})) {
        if (!certificate.key()) continue;
        TseInfo key;
        key.keyBase64 =
            tse::toBase64(spkiKey ? der(encodeKey, certificate.key()->evpKey()) : certificate.key()->point());
        key.certificateBase64 = tse::toBase64(der(encodeCertificate, certificate.x509()));
        keys.emplace(tse::toHex(certificate.key()->serialNumber()), key);
    }
}

using Starts = std::map<std::pair<std::string, uint64_t>, int64_t>;

// A Finish log becomes a sale; a Start log gives a sale its start time.
void readLog(const Bytes& contents, std::vector<Sale>& sales, Starts& starts)
{
    const tse::Result<tse::LogMessage> parse = tse::parseLogMessage(contents);
    if (!parse || parse->type != tse::LogType::Transaction) return;
    const tse::LogMessage& m = *parse;
    const std::optional<uint64_t> number = m.transactionNumber();
    if (!number) return;
    const std::string operation = tse::asciiLower(m.operation());
    if (operation.rfind("start", 0) == 0)
        starts.emplace(std::make_pair(tse::toHex(m.serialNumber), *number), m.logTime.seconds);
    if (operation.rfind("finish", 0) != 0) return;
    Sale sale;
    sale.serial = tse::toHex(m.serialNumber);
    sale.transaction = *number;
    sale.counter = m.signatureCounter;
    sale.seconds = m.logTime.seconds;
    sale.fraction = m.logTime.fraction;
    sale.clientId = m.text("clientId");
    sale.processType = m.text("processType");
    sale.processData = m.text("processData");
    sale.signature = tse::toBase64(m.signatureValue);
    const tse::SignatureAlgorithm* algorithm = tse::algorithmByOid(m.signatureAlgorithmOid);
    sale.algorithm = algorithm ? std::string(algorithm->name) : m.signatureAlgorithmOid;
    sale.timeFormat = timeFormatName(m.logTime);
    sales.push_back(std::move(sale));
}

// Reads the TSE exports as audit does, keeping what the rows need; the
// sales in time order.
void readTse(const Options& options, std::vector<Sale>& sales, std::map<std::string, TseInfo>& keys)
{
    Starts starts;
    const tse::Result<std::vector<tse::ExportSource>> grouping = tse::groupExportPaths(options.tse);
    if (!grouping) throw std::runtime_error(grouping.error().message);
    for (const tse::ExportSource& source : *grouping) {
        const tse::Result<tse::ExportRead> read =
            tse::readExportSource(source, 16u << 20, [&](tse::ExportMember&& member) {
                if (!member.contents) return;
                const tse::MemberKind kind = tse::classifyMember(member.name);
                if (kind == tse::MemberKind::Certificate) readCertificates(*member.contents, options.spkiKey, keys);
                if (kind == tse::MemberKind::Log) readLog(*member.contents, sales, starts);
            });
        if (!read) throw std::runtime_error(read.error().message);
    }
    for (Sale& sale : sales) {
        const auto start = starts.find({sale.serial, sale.transaction});
        if (start != starts.end()) sale.startSeconds = start->second;
    }
    std::sort(sales.begin(), sales.end(), [](const Sale& a, const Sale& b) {
        return std::tie(a.seconds, a.serial, a.counter) < std::tie(b.seconds, b.serial, b.counter);
    });
}

void writeFiles(const Options& options, const std::map<std::string, std::string>& files)
{
    if (options.format == "dir") {
        fs::create_directories(options.out);
        for (const auto& [name, text] : files) {
            std::ofstream out(fs::path(options.out) / name, std::ios::binary);
            out << text;
            if (!out) throw std::runtime_error("cannot write " + name);
        }
        return;
    }
    std::unique_ptr<archive, int (*)(archive*)> a(archive_write_new(), archive_write_free);
    if (options.format == "zip") archive_write_set_format_zip(a.get());
    else archive_write_set_format_ustar(a.get());
    if (archive_write_open_filename(a.get(), options.out.c_str()) != ARCHIVE_OK) {
        throw std::runtime_error("cannot write " + options.out);
    }
    for (const auto& [name, text] : files) {
        std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(entry.get(), name.c_str());
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(text.size()));
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0644);
        if (archive_write_header(a.get(), entry.get()) != ARCHIVE_OK ||
            archive_write_data(a.get(), text.data(), text.size()) < 0) {
            throw std::runtime_error(archive_error_string(a.get()));
        }
    }
    archive_write_close(a.get());
}

// "K/N" of --part.
PlanOptions planOptions(const Options& options)
{
    PlanOptions plan;
    plan.terminals = options.terminals;
    plan.lines = options.lines;
    const size_t slash = options.part.find('/');
    try {
        if (slash == std::string::npos) throw std::invalid_argument("no slash");
        plan.part = std::stoul(options.part.substr(0, slash));
        plan.parts = std::stoul(options.part.substr(slash + 1));
    } catch (const std::logic_error&) {
        plan.parts = 0;
    }
    if (plan.part < 1 || plan.part > plan.parts || plan.parts > 1000)
        throw std::runtime_error("--part must be K/N with 1 <= K <= N <= 1000");
    return plan;
}

Variants variantsOf(const std::vector<std::string>& names)
{
    Variants variants;
    for (const auto& [name, flag] : VARIANTS) {
        if (std::find(names.begin(), names.end(), name) != names.end()) variants.*flag = true;
    }
    return variants;
}

int run(const Options& options)
{
    const tse::Result<tse::Bytes> indexFile = tse::readFileBounded(options.index, tse::MAX_INDEX_XML);
    if (!indexFile) throw std::runtime_error(options.index + " " + indexFile.error().message);
    const tse::Result<std::vector<tse::TableDescription>> index = tse::parseIndexXml(*indexFile);
    if (!index) throw std::runtime_error(options.index + " " + index.error().message);
    const Defect* defect = options.defect.empty() ? nullptr : defectNamed(options.defect);

    std::vector<Sale> sales;
    std::map<std::string, TseInfo> keys;
    readTse(options, sales, keys);
    if (sales.empty()) throw std::runtime_error("the TSE export holds no finished transaction");
    Book book = planBook(sales, keys, planOptions(options));
    sales = std::vector<Sale>();
    book.variants = variantsOf(options.variants);
    if (defect && !defect->afterTotals) defect->plant(book);
    computeTotals(book);
    if (defect && defect->afterTotals) defect->plant(book);

    std::map<std::string, std::string> files = writeTables(book, *index);
    files["index.xml"] = std::string(indexFile->begin(), indexFile->end());
    writeFiles(options, files);
    return 0;
}

// One line a defect: its name, the findings it should give and what it plants.
void listDefects()
{
    std::vector<std::string> codes;
    size_t nameWidth = 0, codesWidth = 0;
    for (const Defect& defect : defects()) {
        std::string joined;
        for (const std::string_view code : defect.codes) joined += (joined.empty() ? "" : ",") + std::string(code);
        codes.push_back(joined.empty() ? "-" : joined);
        nameWidth = std::max(nameWidth, defect.name.size());
        codesWidth = std::max(codesWidth, codes.back().size());
    }
    for (size_t i = 0; i < defects().size(); ++i) {
        const Defect& defect = defects()[i];
        std::cout << defect.name << std::string(nameWidth + 2 - defect.name.size(), ' ') << codes[i]
                  << std::string(codesWidth + 2 - codes[i].size(), ' ') << defect.what << "\n";
    }
}

int runProgram(int argc, char** argv)
{
    Options options;
    CLI::App app{"Writes the DSFinV-K export of the sales in TSE exports, with their real signatures.", "make-dsfinvk"};
    app.add_option("--tse", options.tse, "TSE exports to read (TAR, folder, log files)")->required();
    app.add_option("--out,-o", options.out, "Folder or archive to write")->required();
    app.add_option("--format", options.format, "dir, zip or tar")->check(CLI::IsMember({"dir", "zip", "tar"}));
    app.add_option("--index", options.index, "The index.xml to describe the tables with");
    std::vector<std::string> defectNames;
    for (const Defect& defect : defects()) defectNames.emplace_back(defect.name);
    std::vector<std::string> variantNames;
    for (const auto& variant : VARIANTS) variantNames.emplace_back(variant.first);
    app.add_option("--defect", options.defect, "Plant one defect (--list-defects shows them)")
        ->check(CLI::IsMember(defectNames));
    app.add_option("--variant", options.variants,
                   "Write as writers seen in the field do: empty-zero-amounts (line amounts left empty when zero), "
                   "no-cashless-currency-row (no base-currency row in cash_per_currency.csv without cash), "
                   "vat-from-lines (line net to the cent, a receipt's net the sum of its lines')")
        ->check(CLI::IsMember(variantNames));
    app.add_option("--part", options.part,
                   "Only part K of N of the sales, e.g. 1/2 (consecutive periods of whole days)");
    app.add_option("--lines", options.lines,
                   "Line items a sale, spread over its VAT keys (default: one to three a key)")
        ->check(CLI::Range(size_t{1}, size_t{1000}));
    app.add_flag("--spki-key", options.spkiKey,
                 "Write TSE_PUBLIC_KEY as SubjectPublicKeyInfo instead of the raw point");
    app.add_flag("--terminals", options.terminals, "One register; every client ID a terminal of it (slaves.csv)");
    app.add_flag_callback(
        "--list-defects",
        [] {
            listDefects();
            throw CLI::Success();
        },
        "Show the defects: name, the findings each should give, what it plants");
    CLI11_PARSE(app, argc, argv);
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "make-dsfinvk: " << error.what() << std::endl;
        return 2;
    }
}

}  // namespace

// Whatever escapes the program (building the command line can throw, so can
// memory running out) still ends with a message and a defined status.
int main(int argc, char** argv)
{
    try {
        return runProgram(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "make-dsfinvk: " << error.what() << std::endl;
    } catch (...) {
        std::cerr << "make-dsfinvk: an unexpected error" << std::endl;
    }
    return 2;
}
