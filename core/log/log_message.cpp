#include "log_message.h"

#include <algorithm>
#include <cstdio>

#include "ber.h"
#include "oid.h"
#include "text.h"

namespace tse {
namespace {

struct FieldLayout {
    uint8_t tag;  // context tag number, 0 to 6
    const char* name;
    bool text;
    bool required;
};

// The type-specific elements of each log type and generation.
const std::vector<FieldLayout>& transactionFields()
{
    static const std::vector<FieldLayout> fields = {
        {0, "operationType", true, true},
        {1, "clientId", true, true},
        {2, "processData", true, true},
        {3, "processType", true, false},
        {4, "additionalExternalData", false, false},
        {5, "transactionNumber", false, true},
        {6, "additionalInternalData", false, false},
    };
    return fields;
}

const std::vector<FieldLayout>& systemFieldsV2()
{
    static const std::vector<FieldLayout> fields = {
        {0, "operationType", true, true},
        {1, "systemOperationData", false, false},
        {2, "additionalInternalData", false, false},
    };
    return fields;
}

const std::vector<FieldLayout>& systemFieldsV3()
{
    static const std::vector<FieldLayout> fields = {
        {0, "eventType", true, true},
        {1, "eventOrigin", true, false},
        {2, "eventTriggeredByUser", true, false},
        {3, "eventData", false, false},
        {4, "additionalInternalData", false, false},
    };
    return fields;
}

const std::vector<FieldLayout>& fieldLayouts(LogType type, uint64_t version)
{
    static const std::vector<FieldLayout> none;
    switch (type) {
    case LogType::Transaction: return transactionFields();
    case LogType::System: return version >= 3 ? systemFieldsV3() : systemFieldsV2();
    case LogType::Audit: return none;
    }
    return none;
}

LogType typeFromOid(const BerElement& element)
{
    // Compared as encoded, which spares every log the dotted text.
    static const Bytes transaction = *oidFromText(oid::TRANSACTION_LOG);
    static const Bytes system = *oidFromText(oid::SYSTEM_LOG);
    static const Bytes audit = *oidFromText(oid::AUDIT_LOG);
    if (element.content == ByteView(transaction)) return LogType::Transaction;
    if (element.content == ByteView(system)) return LogType::System;
    if (element.content == ByteView(audit)) return LogType::Audit;
    const std::optional<std::string> dotted = oidToText(element.content);
    if (dotted == oid::TRANSACTION_LOG) return LogType::Transaction;
    if (dotted == oid::SYSTEM_LOG) return LogType::System;
    if (dotted == oid::AUDIT_LOG) return LogType::Audit;
    throw ParseError(element.offset, "certifiedDataType " + dotted.value_or("(malformed)") +
                                         " is none of transaction, system or audit log");
}

// The elements context-tagged [0] to [6] that follow the log type.
std::vector<LogField> readCertifiedData(BerReader& reader, LogType type, uint64_t version)
{
    const std::vector<FieldLayout>& layouts = fieldLayouts(type, version);
    std::vector<LogField> fields;
    fields.reserve(layouts.size());  // each field has one place, so this is the most there can be
    int lastNumber = -1;
    while (!reader.atEnd() && (reader.peekTag() & 0xC0) == tag::CONTEXT) {
        const BerElement element = reader.read();
        const int number = element.tag & 0x1F;
        const auto layout =
            std::find_if(layouts.begin(), layouts.end(), [&](const FieldLayout& s) { return s.tag == number; });
        if (layout == layouts.end()) {
            throw ParseError(element.offset, "element " + tagName(element.tag) + " has no place in a " +
                                                 std::string(logTypeName(type)) + " log");
        }
        if (number <= lastNumber) {
            throw ParseError(element.offset,
                             std::string(layout->name) + " (" + tagName(element.tag) + ") is out of order or repeated");
        }
        lastNumber = number;
        LogField field{layout->name, element.tag, {}, layout->text, element.indefinite, 1};
        // eventData is a SEQUENCE whose content is kept whole; strings may
        // come in chunks.
        const bool structured = number == 3 && type == LogType::System && version >= 3;
        field.value = structured ? element.content.copy() : stringOctets(element);
        field.chunks = structured ? 1 : stringChunkCount(element);
        fields.push_back(std::move(field));
    }
    for (const FieldLayout& layout : layouts) {
        const bool present =
            std::any_of(fields.begin(), fields.end(), [&](const LogField& f) { return f.name == layout.name; });
        if (layout.required && !present) {
            throw ParseError(reader.offset(), "the " + std::string(logTypeName(type)) + " log has no " + layout.name +
                                                  " (tag " + tagName(static_cast<uint8_t>(0x80 | layout.tag)) + ")");
        }
    }
    return fields;
}

void checkTransactionNumber(const std::vector<LogField>& fields, size_t offset)
{
    for (const LogField& field : fields) {
        if (field.name != "transactionNumber") continue;
        BerElement element;
        element.offset = offset;
        element.content = ByteView(field.value);
        unsignedValue(element, "transactionNumber");
    }
}

LogTime readLogTime(BerReader& reader)
{
    if (reader.atEnd()) {
        throw ParseError(reader.offset(), "the data ends where the log time should begin");
    }
    const uint8_t found = reader.peekTag();
    const BerElement element = reader.read();
    if (found == tag::INTEGER) {
        const uint64_t seconds = unsignedValue(element, "the log time");
        if (seconds > static_cast<uint64_t>(INT64_MAX) / 2) {
            throw ParseError(element.offset, "the log time " + std::to_string(seconds) + " is beyond any calendar");
        }
        return LogTime{TimeFormat::UnixTime, static_cast<int64_t>(seconds), {}, std::to_string(seconds)};
    }
    if (found != tag::UTC_TIME && found != tag::GENERALIZED_TIME) {
        throw ParseError(element.offset, "expected the log time (tag 0x02, 0x17 or 0x18), found tag " + tagName(found));
    }
    const std::string text = element.content.text();
    const Result<LogTime> parsed = found == tag::UTC_TIME ? parseUtcTime(text) : parseGeneralizedTime(text);
    if (!parsed) {
        throw ParseError(element.offset, "the log time is malformed: " + parsed.error().message);
    }
    return *parsed;
}

LogMessage readMessage(ByteView data)
{
    BerReader file(data);
    const BerElement outer = file.expect(tag::SEQUENCE, "the log message's SEQUENCE");
    if (!file.atEnd()) {
        throw ParseError(file.offset(),
                         counted(file.remaining(), "octet follows", "octets follow") + " the log message");
    }
    BerReader reader = file.inside(outer);
    const size_t signedStart = reader.offset();
    LogMessage message;

    const BerElement version = reader.expect(tag::INTEGER, "the version");
    message.version = unsignedValue(version, "the version");
    if (message.version != 2 && message.version != 3) {
        throw ParseError(version.offset, "version " + std::to_string(message.version) + " is neither 2 nor 3");
    }
    message.type = typeFromOid(reader.expect(tag::OID, "the certifiedDataType"));
    const size_t dataOffset = reader.offset();
    message.certifiedData = readCertifiedData(reader, message.type, message.version);
    checkTransactionNumber(message.certifiedData, dataOffset);

    message.serialNumber = reader.expect(tag::OCTET_STRING, "the serialNumber").content.copy();
    const BerElement algorithm = reader.expect(tag::SEQUENCE, "the signatureAlgorithm");
    BerReader algorithmReader = reader.inside(algorithm);
    const BerElement algorithmOid = algorithmReader.expect(tag::OID, "the signature algorithm's OID");
    const std::optional<std::string> dotted = oidToText(algorithmOid.content);
    if (!dotted) throw ParseError(algorithmOid.offset, "the signature algorithm's OID is malformed");
    message.signatureAlgorithmOid = *dotted;
    if (!algorithmReader.atEnd()) {
        message.signatureAlgorithmParameters = algorithmReader.read().whole.copy();
        if (!algorithmReader.atEnd()) {
            throw ParseError(algorithmReader.offset(), "the signatureAlgorithm holds more than OID and parameters");
        }
    }
    if (message.type == LogType::Audit) {
        const uint8_t found = reader.atEnd() ? 0 : reader.peekTag();
        if (found != tag::OCTET_STRING && found != (tag::OCTET_STRING | tag::CONSTRUCTED)) {
            reader.expect(tag::OCTET_STRING, "the seAuditData");
        }
        message.seAuditData = stringOctets(reader.read());
    }
    message.signatureCounter =
        unsignedValue(reader.expect(tag::INTEGER, "the signatureCounter"), "the signatureCounter");
    message.logTime = readLogTime(reader);
    message.signedOctets = data.sub(signedStart, reader.offset() - signedStart).copy();
    message.signatureValue = reader.expect(tag::OCTET_STRING, "the signatureValue").content.copy();
    if (!reader.atEnd()) {
        throw ParseError(reader.offset(), "an element follows the signatureValue");
    }
    return message;
}

}  // namespace

std::string_view logTypeName(LogType type)
{
    switch (type) {
    case LogType::Transaction: return "transaction";
    case LogType::System: return "system";
    case LogType::Audit: return "audit";
    }
    return "unknown";
}

const LogField* LogMessage::field(std::string_view name) const
{
    for (const LogField& f : certifiedData) {
        if (f.name == name) return &f;
    }
    return nullptr;
}

std::string LogMessage::text(std::string_view name) const
{
    const LogField* f = field(name);
    return f ? std::string(f->value.begin(), f->value.end()) : std::string();
}

std::string LogMessage::operation() const
{
    return type == LogType::System && version >= 3 ? text("eventType") : text("operationType");
}

std::optional<uint64_t> LogMessage::transactionNumber() const
{
    const LogField* f = field("transactionNumber");
    if (f == nullptr) return std::nullopt;
    BerElement element;
    element.content = ByteView(f->value);
    return unsignedValue(element, "transactionNumber");
}

Result<LogMessage> parseLogMessage(ByteView data)
{
    try {
        return readMessage(data);
    } catch (const ParseError& error) {
        return Error{error.what(), error.offset()};
    }
}

}  // namespace tse
