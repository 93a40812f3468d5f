// make-dsfinvk: turns TSE exports into the DSFinV-K export of the same
// sales - one closing per register and day, every Finish log one row with
// its real signature, the transaction, VAT and payment tables from the
// processData - optionally with one planted defect. For the tests, the
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
#include <set>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "certificate.h"
#include "dsfinvk_check.h"
#include "dsfinvk_csv.h"
#include "dsfinvk_index.h"
#include "export_names.h"
#include "export_reader.h"
#include "file_reader.h"
#include "log_message.h"

namespace {

namespace fs = std::filesystem;
using tse::Bytes;

constexpr size_t CERTIFICATE_PART = 1000;  // TSE_ZERTIFIKAT_I holds the first 1000 characters
constexpr int64_t DAY = 86400;

const std::vector<std::string> DEFECTS{"row-dropped", "amount-edited", "local-time", "tse-failure", "extra-row",
                                       "old-column", "wrong-serial", "malformed-line", "amounts-differ"};

struct Options {
    std::vector<std::string> tse;
    std::string out;
    std::string format = "dir";
    std::string index = DSFINVK_INDEX_XML;
    std::string defect;
    std::string part = "1/1";
    bool spkiKey = false;
    bool terminals = false;
};

struct TseKey {
    std::string keyBase64, certificateBase64;
};

struct Sale {
    std::string serial;  // hex
    uint64_t transaction = 0, counter = 0;
    int64_t seconds = 0;
    std::string fraction;
    std::optional<int64_t> startSeconds;
    std::string clientId, processType, processData, signature;
    std::string algorithm, timeFormat;
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

std::string isoText(int64_t seconds, const std::string& fraction)
{
    tse::LogTime time;
    time.seconds = seconds;
    time.fraction = fraction;
    return time.iso();
}

std::string germanLocalText(int64_t utc)
{
    const int64_t summer = utc + 7200;
    const int64_t local = tse::germanLocalToUtc(summer) == utc ? summer : utc + 3600;
    std::string text = tse::isoSeconds(local);
    if (!text.empty() && text.back() == 'Z') text.pop_back();
    return text;
}

std::string comma(int64_t hundredths)
{
    std::string text = tse::formatAmount(hundredths);
    std::replace(text.begin(), text.end(), '.', ',');
    return text;
}

std::string timeFormatName(const tse::LogTime& time)
{
    if (time.format == tse::TimeFormat::GeneralizedTime && !time.fraction.empty()) return "generalizedTimeWithMilliseconds";
    return std::string(tse::timeFormatName(time.format));
}

// Reads the TSE exports as audit does, keeping what the rows need.
void readTse(const Options& options, std::vector<Sale>& sales, std::map<std::string, TseKey>& keys)
{
    std::map<std::pair<std::string, uint64_t>, int64_t> starts;
    const tse::Result<std::vector<tse::ExportSource>> grouping = tse::groupExportPaths(options.tse);
    if (!grouping) throw std::runtime_error(grouping.error().message);
    for (const tse::ExportSource& source : *grouping) {
        const tse::Result<tse::ExportRead> read = tse::readExportSource(source, 16u << 20, [&](tse::ExportMember&& member) {
            if (!member.contents) return;
            const tse::MemberKind kind = tse::classifyMember(member.name);
            if (kind == tse::MemberKind::Certificate) {
                for (const tse::Certificate& certificate : tse::loadCertificates(*member.contents).value_or({})) {
                    if (!certificate.key()) continue;
                    TseKey key;
                    key.keyBase64 = tse::toBase64(options.spkiKey ? der(encodeKey, certificate.key()->evpKey())
                                                                  : certificate.key()->point());
                    key.certificateBase64 = tse::toBase64(der(encodeCertificate, certificate.x509()));
                    keys.emplace(tse::toHex(certificate.key()->serialNumber()), key);
                }
                return;
            }
            if (kind != tse::MemberKind::Log) return;
            const tse::Result<tse::LogMessage> parse = tse::parseLogMessage(*member.contents);
            if (!parse || parse->type != tse::LogType::Transaction) return;
            const tse::LogMessage& m = *parse;
            const std::optional<uint64_t> number = m.transactionNumber();
            if (!number) return;
            std::string operation = m.operation();
            std::transform(operation.begin(), operation.end(), operation.begin(), ::tolower);
            if (operation.rfind("start", 0) == 0) starts.emplace(std::make_pair(tse::toHex(m.serialNumber), *number), m.logTime.seconds);
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

std::string csvValue(const std::string& value, bool forceBare)
{
    if (forceBare || value.find_first_of(";\"\r\n") == std::string::npos) return value;
    std::string quoted = "\"";
    for (const char c : value) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

// Each table's text, written row by row as the rows come, so that a
// hundred thousand sales need no more memory than the files themselves.
class Writer {
public:
    Writer(const std::vector<tse::TableDescription>& tables, const std::string& renamedColumn, std::string bareValue)
        : tables_(tables), bareValue_(std::move(bareValue))
    {
        for (const tse::TableDescription& table : tables_) {
            std::string& text = texts_[table.url];
            for (size_t i = 0; i < table.columns.size(); ++i) {
                const std::string& name = table.columns[i].name;
                text += (i ? ";" : "") + (name == "TSE_VORGANGSDATEN" && !renamedColumn.empty() ? renamedColumn : name);
            }
            text += "\r\n";
        }
    }

    void add(const std::string& url, const std::map<std::string, std::string>& row)
    {
        for (const tse::TableDescription& table : tables_) {
            if (table.url != url) continue;
            std::string& text = texts_[url];
            for (size_t i = 0; i < table.columns.size(); ++i) {
                const auto value = row.find(table.columns[i].name);
                const std::string& v = value == row.end() ? EMPTY : value->second;
                text += (i ? ";" : "") + csvValue(v, !bareValue_.empty() && v == bareValue_);
            }
            text += "\r\n";
        }
    }

    std::map<std::string, std::string>& files() { return texts_; }

private:
    inline static const std::string EMPTY;
    const std::vector<tse::TableDescription>& tables_;
    std::string bareValue_;
    std::map<std::string, std::string> texts_;
};

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

// The sales of part K of N, in time order.
std::vector<Sale> partOf(const std::vector<Sale>& sales, const std::string& part)
{
    const size_t slash = part.find('/');
    const size_t k = std::stoul(part.substr(0, slash)), n = std::stoul(part.substr(slash + 1));
    if (k < 1 || k > n) throw std::runtime_error("--part must be K/N with 1 <= K <= N");
    const size_t begin = sales.size() * (k - 1) / n, end = sales.size() * k / n;
    return std::vector<Sale>(sales.begin() + static_cast<long>(begin), sales.begin() + static_cast<long>(end));
}

size_t middle(const std::vector<Sale>& sales, bool receipt)
{
    std::vector<size_t> candidates;
    for (size_t i = 0; i < sales.size(); ++i) {
        if (!receipt || sales[i].processType == "Kassenbeleg-V1") candidates.push_back(i);
    }
    if (candidates.empty()) {
        for (size_t i = 0; i < sales.size(); ++i) candidates.push_back(i);
    }
    return candidates[candidates.size() / 2];
}

int run(const Options& options)
{
    const tse::Result<tse::Bytes> indexFile = tse::readFileBounded(options.index, tse::MAX_INDEX_XML);
    if (!indexFile) throw std::runtime_error(options.index + " " + indexFile.error().message);
    const tse::Result<std::vector<tse::TableDescription>> index = tse::parseIndexXml(*indexFile);
    if (!index) throw std::runtime_error(options.index + " " + index.error().message);

    std::vector<Sale> all;
    std::map<std::string, TseKey> keys;
    readTse(options, all, keys);
    if (all.empty()) throw std::runtime_error("the TSE export holds no finished transaction");
    // The part's number among all closings, so that consecutive parts
    // number their closings on.
    std::vector<Sale> sales = partOf(all, options.part);
    std::map<std::string, std::string> registerOf;  // client ID -> Z_KASSE_ID
    std::map<std::string, std::string> terminalOf;  // client ID -> TERMINAL_ID
    for (const Sale& sale : all) {
        if (options.terminals) {
            registerOf.emplace(sale.clientId, "Kasse 1");
            terminalOf.emplace(sale.clientId, "T" + std::to_string(terminalOf.size() + 1));
        } else {
            registerOf.emplace(sale.clientId, "Kasse " + std::to_string(registerOf.size() + 1));
        }
    }
    const size_t firstOfPart = static_cast<size_t>(std::find_if(all.begin(), all.end(), [&](const Sale& s) {
                                                       return !sales.empty() && s.serial == sales.front().serial &&
                                                              s.transaction == sales.front().transaction;
                                                   }) - all.begin());

    const bool receiptDefect = options.defect == "amount-edited" || options.defect == "amounts-differ";
    const size_t target = sales.empty() ? 0 : middle(sales, receiptDefect);
    if (options.defect == "extra-row" && !sales.empty()) {
        Sale extra = sales[target];
        uint64_t highest = 0;
        for (const Sale& s : all) {
            if (s.serial == extra.serial) highest = std::max(highest, s.transaction);
        }
        extra.transaction = highest + 1;
        extra.counter += 1000;
        sales.insert(sales.begin() + static_cast<long>(target) + 1, extra);
    }

    Writer writer(*index, options.defect == "old-column" ? "TSE_TA_VORGANGSDATEN" : "",
                  options.defect == "malformed-line" ? "Kunde \"Nord" : "");
    struct ClosingState {
        std::string kasseId, created, number;
        std::string first, last;
        int64_t payments = 0, cash = 0;
        std::map<std::string, int> tseIds;
    };
    std::map<std::string, uint64_t> closingCount, bonCount;  // per register
    // Closings by register and day; those of earlier parts are counted too.
    std::map<std::string, int64_t> lastDay;
    for (size_t i = 0; i < firstOfPart; ++i) {
        const std::string& kasse = registerOf[all[i].clientId];
        const int64_t day = all[i].seconds / DAY;
        if (!lastDay.count(kasse) || lastDay[kasse] != day) ++closingCount[kasse], lastDay[kasse] = day;
        ++bonCount[kasse];
    }
    std::map<std::pair<std::string, int64_t>, ClosingState> closings;
    std::vector<ClosingState*> closingOrder;
    std::string wrongSerial;
    // Closings first, so that every row knows the closing's end.
    for (const Sale& sale : sales) {
        const std::string& kasse = registerOf[sale.clientId];
        const auto key = std::make_pair(kasse, sale.seconds / DAY);
        auto found = closings.find(key);
        if (found == closings.end()) {
            found = closings.emplace(key, ClosingState{}).first;
            found->second.kasseId = kasse;
            found->second.number = std::to_string(++closingCount[kasse]);
            closingOrder.push_back(&found->second);
        }
        found->second.created = tse::isoSeconds(sale.seconds + 1);
    }
    for (size_t i = 0; i < sales.size(); ++i) {
        Sale sale = sales[i];
        const std::string& kasse = registerOf[sale.clientId];
        ClosingState& closing = closings[{kasse, sale.seconds / DAY}];
        const std::string bon = std::to_string(++bonCount[kasse]);
        if (closing.first.empty()) closing.first = bon;
        closing.last = bon;
        auto tseId = closing.tseIds.find(sale.serial);
        if (tseId == closing.tseIds.end()) {
            tseId = closing.tseIds.emplace(sale.serial, static_cast<int>(closing.tseIds.size()) + 1).first;
            const auto key = keys.find(sale.serial);
            std::string serial = sale.serial;
            if (options.defect == "wrong-serial" && (wrongSerial.empty() || wrongSerial == sale.serial)) {
                wrongSerial = sale.serial;
                serial[0] = serial[0] == '0' ? '1' : '0';
            }
            const std::string certificate = key == keys.end() ? std::string() : key->second.certificateBase64;
            writer.add("tse.csv", {{"Z_KASSE_ID", kasse},
                                   {"Z_ERSTELLUNG", closing.created},
                                   {"Z_NR", closing.number},
                                   {"TSE_ID", std::to_string(tseId->second)},
                                   {"TSE_SERIAL", serial},
                                   {"TSE_SIG_ALGO", sale.algorithm},
                                   {"TSE_ZEITFORMAT", sale.timeFormat},
                                   {"TSE_PD_ENCODING", "UTF-8"},
                                   {"TSE_PUBLIC_KEY", key == keys.end() ? std::string() : key->second.keyBase64},
                                   {"TSE_ZERTIFIKAT_I", certificate.substr(0, CERTIFICATE_PART)},
                                   {"TSE_ZERTIFIKAT_II", certificate.size() > CERTIFICATE_PART ? certificate.substr(CERTIFICATE_PART) : ""}});
        }
        if (options.defect == "row-dropped" && i == target) continue;
        const std::map<std::string, std::string> closingKey = {
            {"Z_KASSE_ID", kasse}, {"Z_ERSTELLUNG", closing.created}, {"Z_NR", closing.number}, {"BON_ID", bon}};
        const std::optional<tse::ReceiptAmounts> amounts =
            sale.processType == "Kassenbeleg-V1" ? tse::parseReceiptAmounts(sale.processData) : std::nullopt;
        std::map<std::string, std::string> row = closingKey;
        std::string processData = sale.processData;
        if (options.defect == "amount-edited" && i == target) {
            const size_t digit = processData.find_first_of("123456789");
            if (digit != std::string::npos) processData[digit] = processData[digit] == '9' ? '1' : static_cast<char>(processData[digit] + 1);
            else processData += "0";
        }
        row.insert({{"TSE_ID", std::to_string(tseId->second)},
                    {"TSE_TANR", std::to_string(sale.transaction)},
                    {"TSE_TA_START", isoText(sale.startSeconds.value_or(sale.seconds), {})},
                    {"TSE_TA_ENDE", options.defect == "local-time" && i == target ? germanLocalText(sale.seconds)
                                                                                  : isoText(sale.seconds, sale.fraction)},
                    {"TSE_TA_VORGANGSART", sale.processType},
                    {"TSE_TA_SIGZ", std::to_string(sale.counter)},
                    {"TSE_TA_SIG", sale.signature},
                    {"TSE_VORGANGSDATEN", processData}});
        if (options.defect == "tse-failure" && i == target) {
            row["TSE_TA_SIG"] = row["TSE_TA_SIGZ"] = row["TSE_TA_START"] = row["TSE_TA_ENDE"] = row["TSE_VORGANGSDATEN"] = "";
            row["TSE_TA_FEHLER"] = "TSE ausgefallen";
        }
        writer.add("transactions_tse.csv", row);

        int64_t gross = 0;
        if (amounts) {
            for (size_t v = 0; v < 5; ++v) {
                gross += amounts->vat[v];
                int64_t booked = amounts->vat[v];
                if (options.defect == "amounts-differ" && i == target && v == 0) booked += 100;
                if (booked == 0) continue;
                std::map<std::string, std::string> vat = closingKey;
                vat.insert({{"UST_SCHLUESSEL", std::to_string(v + 1)}, {"BON_BRUTTO", comma(booked)}});
                writer.add("transactions_vat.csv", vat);
            }
            for (const tse::ReceiptAmounts::Payment& p : amounts->payments) {
                std::map<std::string, std::string> payment = closingKey;
                payment.insert({{"ZAHLART_TYP", p.cash ? "Bar" : "Unbar"},
                                {"ZAHLART_NAME", p.cash ? "Bar" : "Karte"},
                                {"ZAHLWAEH_CODE", p.currency},
                                {"ZAHLWAEH_BETRAG", comma(p.amount)},
                                {"BASISWAEH_BETRAG", p.currency.empty() ? comma(p.amount) : ""}});
                writer.add("datapayment.csv", payment);
                closing.payments += p.amount;
                if (p.cash) closing.cash += p.amount;
            }
        }
        std::map<std::string, std::string> bonRow = closingKey;
        bonRow.insert({{"BON_NR", bon},
                       {"BON_TYP", "Beleg"},
                       {"BON_NAME", options.defect == "malformed-line" && i == target ? "Kunde \"Nord" : "Kunde"},
                       {"TERMINAL_ID", options.terminals ? terminalOf[sale.clientId] : ""},
                       {"BON_STORNO", "0"},
                       {"BON_START", isoText(sale.startSeconds.value_or(sale.seconds), {})},
                       {"BON_ENDE", isoText(sale.seconds, {})},
                       {"UMS_BRUTTO", comma(gross)}});
        writer.add("transactions.csv", bonRow);
    }
    for (const ClosingState* closing : closingOrder) {
        const std::map<std::string, std::string> key = {
            {"Z_KASSE_ID", closing->kasseId}, {"Z_ERSTELLUNG", closing->created}, {"Z_NR", closing->number}};
        auto row = key;
        row.insert({{"TAXONOMIE_VERSION", "2.3"},
                    {"Z_START_ID", closing->first},
                    {"Z_ENDE_ID", closing->last},
                    {"NAME", "Beispiel GmbH"},
                    {"Z_SE_ZAHLUNGEN", comma(closing->payments)},
                    {"Z_SE_BARZAHLUNGEN", comma(closing->cash)}});
        writer.add("cashpointclosing.csv", row);
        row = key;
        std::string serial;
        for (const auto& [client, kasse] : registerOf) {
            if (kasse == closing->kasseId) serial = client;
        }
        row.insert({{"KASSE_BRAND", "make-dsfinvk"},
                    {"KASSE_SERIENNR", options.terminals ? "REGISTER-1" : serial},
                    {"KASSE_BASISWAEH_CODE", "EUR"},
                    {"KEINE_UST_ZUORDNUNG", "0"}});
        writer.add("cashregister.csv", row);
        for (const auto& [client, terminal] : terminalOf) {
            row = key;
            row.insert({{"TERMINAL_ID", terminal}, {"TERMINAL_SERIENNR", client}});
            writer.add("slaves.csv", row);
        }
        const char* rates[] = {"19,00", "7,00", "10,70", "5,50", "0,00"};
        for (size_t v = 0; v < 5; ++v) {
            row = key;
            row.insert({{"UST_SCHLUESSEL", std::to_string(v + 1)}, {"UST_SATZ", rates[v]}});
            writer.add("vat.csv", row);
        }
    }
    std::map<std::string, std::string>& files = writer.files();
    files["index.xml"] = std::string(indexFile->begin(), indexFile->end());
    writeFiles(options, files);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app{"Writes the DSFinV-K export of the sales in TSE exports, with their real signatures.", "make-dsfinvk"};
    app.add_option("--tse", options.tse, "TSE exports to read (TAR, folder, log files)")->required();
    app.add_option("--out,-o", options.out, "Folder or archive to write")->required();
    app.add_option("--format", options.format, "dir, zip or tar")->check(CLI::IsMember({"dir", "zip", "tar"}));
    app.add_option("--index", options.index, "The index.xml to describe the tables with");
    app.add_option("--defect", options.defect, "Plant one defect")->check(CLI::IsMember(DEFECTS));
    app.add_option("--part", options.part, "Only part K of N of the sales, e.g. 1/2 (consecutive periods)");
    app.add_flag("--spki-key", options.spkiKey, "Write TSE_PUBLIC_KEY as SubjectPublicKeyInfo instead of the raw point");
    app.add_flag("--terminals", options.terminals, "One register; every client ID a terminal of it (slaves.csv)");
    CLI11_PARSE(app, argc, argv);
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "make-dsfinvk: " << error.what() << std::endl;
        return 2;
    }
}
