// tse-check verify: checks each log file's signature with the certificate
// whose key hashes to the log's serial number.
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "algorithms.h"
#include "certificate.h"
#include "export_names.h"
#include "file_reader.h"
#include "log_judgement.h"
#include "log_message.h"
#include "parallel.h"

#include "commands.h"
#include "shared/inputs.h"
#include "shared/output.h"

namespace tsecheck {
namespace {

struct VerifyOptions {
    std::vector<std::string> certificates;
    std::vector<std::string> logs;
    bool json = false;
    unsigned jobs = tse::defaultJobs();
};

const char* verdictWord(tse::LogVerdict verdict)
{
    switch (verdict) {
    case tse::LogVerdict::Valid: return "VALID";
    case tse::LogVerdict::Invalid: return "INVALID";
    case tse::LogVerdict::NoCertificate: return "NO-CERTIFICATE";
    case tse::LogVerdict::Unreadable: return "UNREADABLE";
    }
    return "";
}

struct LogResult {
    std::string file;
    std::optional<tse::LogMessage> message;
    std::string certificate;  // the file whose key verified or refuted it
    tse::LogJudgement judgement;
};

using tse::KeyIndex;

void addCertificates(KeyIndex& index, const std::string& path, bool refuseUnreadable)
{
    const tse::Result<tse::Bytes> read = tse::readFileBounded(path, MAX_CERTIFICATE_SIZE);
    if (!read) {
        if (refuseUnreadable) refuse(EXIT_BAD_INPUT, "Certificate " + path + " " + read.error().message);
        return;
    }
    const tse::Result<std::vector<tse::Certificate>> load = tse::loadCertificates(*read);
    if (!load && refuseUnreadable) {
        refuse(EXIT_BAD_INPUT, "Certificate " + path + " holds no certificate: " + load.error().message);
    }
    for (const tse::Certificate& certificate : load.value_or({})) {
        if (certificate.key()) {
            index.add(*certificate.key(), path);
        }
    }
}

// The certificates of a TSE export lie beside its logs, named as the
// export names them: <SERIAL>_X509.<ext>, sometimes with _Fc-N before the
// extension.
const KeyIndex& exportKeys(std::map<std::string, KeyIndex>& byDirectory, const std::string& logPath)
{
    namespace fs = std::filesystem;
    const std::string directory = fs::path(logPath).parent_path().string();
    auto found = byDirectory.find(directory);
    if (found != byDirectory.end()) return found->second;
    KeyIndex& index = byDirectory[directory];
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory.empty() ? "." : directory, error)) {
        const std::string name = entry.path().filename().string();
        if (tse::classifyMember(name) == tse::MemberKind::Certificate && entry.is_regular_file(error)) {
            addCertificates(index, entry.path().string(), false);
        }
    }
    return index;
}

LogResult verifyOne(const std::string& path, const KeyIndex& keys)
{
    LogResult result;
    result.file = path;
    const tse::Result<tse::Bytes> read = tse::readFileBounded(path, MAX_LOG_SIZE);
    if (!read) {
        result.judgement.reason = "the file " + read.error().message;
        return result;
    }
    tse::Result<tse::LogMessage> parse = tse::parseLogMessage(*read);
    if (!parse) {
        result.judgement = tse::unreadableLog(parse.error());
        return result;
    }
    result.message = std::move(parse).value();
    const KeyIndex::Entry* key = keys.find(result.message->serialNumber);
    if (key != nullptr) result.certificate = key->source;
    result.judgement = tse::judgeLog(*result.message, key ? &key->key : nullptr);
    return result;
}

nlohmann::json toJson(const LogResult& r)
{
    nlohmann::json j = {
        {"file", tse::escapeText(r.file)},
        {"verdict", tse::logVerdictName(r.judgement.verdict)},
        {"reason", r.judgement.reason.empty() ? nlohmann::json(nullptr) : nlohmann::json(r.judgement.reason)},
        {"certificate", r.certificate.empty() ? nlohmann::json(nullptr) : nlohmann::json(r.certificate)}};
    if (!r.message) {
        for (const char* key : {"type", "signatureCounter", "signatureAlgorithm", "logTime", "logTimeFormat",
                                "serialNumber", "operationType"}) {
            j[key] = nullptr;
        }
        return j;
    }
    const tse::LogMessage& m = *r.message;
    j["type"] = tse::logTypeName(m.type);
    j["signatureCounter"] = m.signatureCounter;
    j["signatureAlgorithm"] = tse::algorithmName(m.signatureAlgorithmOid);
    j["logTime"] = m.logTime.iso();
    j["logTimeFormat"] = tse::timeFormatName(m.logTime.format);
    j["serialNumber"] = tse::toHex(m.serialNumber);
    j["operationType"] = tse::escapeText(m.operation());
    return j;
}

std::vector<std::string> textColumns(const LogResult& r)
{
    std::vector<std::string> columns{verdictWord(r.judgement.verdict), tse::escapeText(r.file)};
    if (r.message) {
        columns.push_back(std::string(tse::logTypeName(r.message->type)));
        columns.push_back("Sig-" + std::to_string(r.message->signatureCounter));
        columns.push_back(std::string(tse::algorithmName(r.message->signatureAlgorithmOid)));
        columns.push_back(r.message->logTime.iso());
    } else {
        columns.insert(columns.end(), 4, "-");
    }
    columns.push_back(r.judgement.reason);
    return columns;
}

int exitStatus(const std::vector<LogResult>& results)
{
    int status = EXIT_OK;
    for (const LogResult& r : results) {
        if (r.judgement.verdict == tse::LogVerdict::Unreadable) return EXIT_BAD_INPUT;
        if (r.judgement.verdict != tse::LogVerdict::Valid) status = EXIT_NOT_VERIFIED;
    }
    return status;
}

int verifyCommand(const VerifyOptions& options)
{
    KeyIndex given;
    for (const std::string& path : options.certificates) addCertificates(given, path, true);
    std::map<std::string, KeyIndex> beside;
    std::vector<const KeyIndex*> keysFor;
    for (const std::string& log : options.logs) {
        keysFor.push_back(options.certificates.empty() ? &exportKeys(beside, log) : &given);
    }
    std::vector<LogResult> results(options.logs.size());
    tse::parallelFor(options.logs.size(), options.jobs,
                     [&](size_t i) { results[i] = verifyOne(options.logs[i], *keysFor[i]); });

    if (options.json) {
        nlohmann::json document = nlohmann::json::array();
        for (const LogResult& r : results) document.push_back(toJson(r));
        // A file name or an operation type is whatever bytes it is; they are
        // escaped as everywhere else, so that nothing is lost.
        makeJsonSafe(document);
        std::cout << document.dump(2) << std::endl;
    } else {
        std::vector<std::vector<std::string>> rows;
        for (const LogResult& r : results) rows.push_back(textColumns(r));
        printAligned(std::cout, rows);
    }
    return exitStatus(results);
}

}  // namespace

Command addVerifyCommand(CLI::App& parent)
{
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* app = parent.add_subcommand("verify", "Verify exported log messages of any type");
    app->footer("Without --cert, the certificates named <SERIAL>_X509.<ext> beside each log file are used.\n"
                "Exit status: 0 all valid, 1 any invalid or without certificate, 2 usage or unreadable file.");
    app->add_option("LOGFILE", options->logs, "Exported log messages (DER)")->required()->type_name("FILE...");
    addCertOption(*app, options->certificates);
    addJsonFlag(*app, options->json);
    addJobsOption(*app, options->jobs);
    return Command{app, [options] { return verifyCommand(*options); }};
}

}  // namespace tsecheck
