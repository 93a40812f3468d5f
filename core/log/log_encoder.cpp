#include "log_encoder.h"

#include "ber.h"
#include "der.h"
#include "oid.h"

namespace tse {
namespace {

constexpr uint8_t context(int number)
{
    return static_cast<uint8_t>(tag::CONTEXT | number);
}

Bytes textElement(uint8_t tagValue, std::string_view text)
{
    return derElement(tagValue, ByteView(text));
}

Bytes oidElement(std::string_view dotted)
{
    const std::optional<Bytes> content = oidFromText(dotted);
    return derElement(tag::OID, content ? ByteView(*content) : ByteView());
}

std::string_view typeOid(LogType type)
{
    switch (type) {
    case LogType::Transaction: return oid::TRANSACTION_LOG;
    case LogType::System: return oid::SYSTEM_LOG;
    case LogType::Audit: return oid::AUDIT_LOG;
    }
    return oid::TRANSACTION_LOG;
}

}  // namespace

Bytes encodeTransactionData(const TransactionData& data)
{
    Bytes out = textElement(context(0), data.operationType);
    append(out, textElement(context(1), data.clientId));
    append(out, data.processDataForm.indefinite
                    ? berIndefiniteChunks(context(2), data.processData, data.processDataForm.chunkSize)
                    : derElement(context(2), data.processData));
    if (data.processType) append(out, textElement(context(3), *data.processType));
    if (data.additionalExternalData) append(out, derElement(context(4), *data.additionalExternalData));
    append(out, derUnsigned(context(5), data.transactionNumber));
    return out;
}

Bytes encodeSystemData(const SystemData& data, uint64_t version)
{
    Bytes out = textElement(context(0), data.operationType);
    if (data.operationData) {
        const uint8_t dataTag = version >= 3 ? static_cast<uint8_t>(context(3) | tag::CONSTRUCTED) : context(1);
        append(out, derElement(dataTag, *data.operationData));
    }
    return out;
}

Bytes encodeLogTime(TimeFormat format, int64_t seconds, std::string_view fraction, bool withSeconds)
{
    switch (format) {
    case TimeFormat::UnixTime: return derUnsigned(tag::INTEGER, static_cast<uint64_t>(seconds));
    case TimeFormat::UtcTime: return textElement(tag::UTC_TIME, utcTimeText(seconds, withSeconds));
    case TimeFormat::GeneralizedTime: return textElement(tag::GENERALIZED_TIME, generalizedTimeText(seconds, fraction));
    }
    return {};
}

Bytes encodeSignedOctets(const LogContent& content)
{
    Bytes out = derUnsigned(tag::INTEGER, content.version);
    append(out, oidElement(typeOid(content.type)));
    append(out, content.certifiedData);
    append(out, derElement(tag::OCTET_STRING, content.serialNumber));
    append(out, derElement(tag::SEQUENCE, oidElement(content.algorithmOid)));
    if (content.seAuditData) append(out, derElement(tag::OCTET_STRING, *content.seAuditData));
    append(out, derUnsigned(tag::INTEGER, content.signatureCounter));
    append(out, content.logTime);
    return out;
}

Bytes encodeLogMessage(ByteView signedOctets, ByteView signature)
{
    Bytes content = signedOctets.copy();
    append(content, derElement(tag::OCTET_STRING, signature));
    return derElement(tag::SEQUENCE, content);
}

}  // namespace tse
