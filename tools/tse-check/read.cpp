// tse-check read: prints every element of a log message of any type.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "algorithms.h"
#include "ber.h"
#include "log_message.h"

#include "commands.h"
#include "shared/inputs.h"

namespace tsecheck {
namespace {

using Line = std::pair<std::string, std::string>;

std::string fieldValue(const tse::LogField& field)
{
    if (field.name == "transactionNumber") {
        return "";  // printed as a number by the caller
    }
    return field.text ? tse::escapeText(field.value) : tse::toHex(field.value);
}

std::string algorithmText(const std::string& oid)
{
    const tse::SignatureAlgorithm* algorithm = tse::algorithmByOid(oid);
    return algorithm ? std::string(algorithm->name) + " (" + oid + ")" : oid;
}

std::string encodingNote(const tse::LogField& field)
{
    return field.indefinite
               ? "indefinite length, " + std::to_string(field.chunks) + (field.chunks == 1 ? " chunk" : " chunks")
               : "";
}

// A transaction log keeps the nine lines that tse-check always printed, in
// their order; everything else the message holds follows.
std::vector<Line> transactionLines(const tse::LogMessage& m)
{
    std::vector<Line> lines;
    for (const char* name : {"operationType", "clientId", "processData", "processType"}) {
        if (const tse::LogField* f = m.field(name)) lines.emplace_back(name, fieldValue(*f));
    }
    lines.emplace_back("transactionNumber", std::to_string(m.transactionNumber().value_or(0)));
    lines.emplace_back("signatureCounter", std::to_string(m.signatureCounter));
    lines.emplace_back("logTime", m.logTime.iso());
    lines.emplace_back("serialNumber", tse::toHex(m.serialNumber));
    lines.emplace_back("signature", tse::toBase64(m.signatureValue));
    lines.emplace_back("logType", "transaction");
    lines.emplace_back("version", std::to_string(m.version));
    for (const char* name : {"additionalExternalData", "additionalInternalData"}) {
        if (const tse::LogField* f = m.field(name)) lines.emplace_back(name, fieldValue(*f));
    }
    if (const tse::LogField* f = m.field("processData"); f && f->indefinite) {
        lines.emplace_back("processDataEncoding", encodingNote(*f));
    }
    return lines;
}

bool printable(tse::ByteView value)
{
    for (uint8_t c : value) {
        if (c < 0x20 || c > 0x7E) return false;
    }
    return true;
}

// systemOperationData is a run of elements tagged 0x81, 0x82, ... (a user
// ID, a role, the time before and after an update); shown one per line when
// it parses as such, else the hex above stands alone.
void innerElementLines(const tse::LogField& field, std::vector<Line>& lines)
{
    std::vector<Line> inner;
    try {
        tse::BerReader reader(field.value);
        while (!reader.atEnd()) {
            const tse::BerElement element = reader.read();
            const std::string value = !element.constructed() && printable(element.content)
                                          ? element.content.text()
                                          : tse::toHex(element.content);
            inner.emplace_back(field.name + "." + tse::tagName(element.tag), value);
        }
    } catch (const tse::ParseError&) {
        return;
    }
    lines.insert(lines.end(), inner.begin(), inner.end());
}

std::vector<Line> otherLines(const tse::LogMessage& m)
{
    std::vector<Line> lines{{"logType", std::string(tse::logTypeName(m.type))}, {"version", std::to_string(m.version)}};
    for (const tse::LogField& f : m.certifiedData) {
        lines.emplace_back(f.name, fieldValue(f));
        if (f.name == "systemOperationData" || f.name == "eventData") innerElementLines(f, lines);
    }
    if (m.seAuditData) lines.emplace_back("seAuditData", tse::toHex(*m.seAuditData));
    lines.emplace_back("signatureCounter", std::to_string(m.signatureCounter));
    lines.emplace_back("logTime", m.logTime.iso());
    lines.emplace_back("serialNumber", tse::toHex(m.serialNumber));
    lines.emplace_back("signature", tse::toBase64(m.signatureValue));
    return lines;
}

int readCommand(const std::string& path)
{
    const tse::LogMessage message = readLogFile(path);
    std::vector<Line> lines =
        message.type == tse::LogType::Transaction ? transactionLines(message) : otherLines(message);
    lines.emplace_back("signatureAlgorithm", algorithmText(message.signatureAlgorithmOid));
    if (message.signatureAlgorithmParameters) {
        lines.emplace_back("signatureAlgorithmParameters", tse::toHex(*message.signatureAlgorithmParameters));
    }
    lines.emplace_back("logTimeFormat", std::string(tse::timeFormatName(message.logTime.format)));
    lines.emplace_back("logTimeEncoded", message.logTime.text);
    for (const Line& line : lines) std::cout << line.first << ": " << line.second << '\n';
    std::cout.flush();
    return EXIT_OK;
}

}  // namespace

Command addReadCommand(CLI::App& parent)
{
    auto path = std::make_shared<std::string>();
    CLI::App* app = parent.add_subcommand("read", "Print every element of an exported log message of any type");
    app->add_option("LOGFILE", *path, "Exported log message (DER)")->required()->type_name("FILE");
    return Command{app, [path] { return readCommand(*path); }};
}

}  // namespace tsecheck
