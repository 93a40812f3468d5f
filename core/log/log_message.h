#ifndef TSE_CORE_LOG_MESSAGE_H
#define TSE_CORE_LOG_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bytes.h"
#include "log_time.h"
#include "result.h"
#include "text.h"  // escapeText, which every user of log texts needs

namespace tse {

enum class LogType { Transaction, System, Audit };

std::string_view logTypeName(LogType type);  // "transaction", "system", "audit"

namespace oid {
constexpr std::string_view TRANSACTION_LOG = "0.4.0.127.0.7.3.7.1.1";
constexpr std::string_view SYSTEM_LOG = "0.4.0.127.0.7.3.7.1.2";
constexpr std::string_view AUDIT_LOG = "0.4.0.127.0.7.3.7.1.3";
}  // namespace oid

// One element of the type-specific part, as it stands in the file: its
// name for people, its tag and its value (chunks of a constructed string
// joined).
struct LogField {
    std::string name;
    uint8_t tag = 0;
    Bytes value;
    bool text = true;         // a string a person reads, not binary data
    bool indefinite = false;  // written as constructed with indefinite length
    size_t chunks = 1;
};

// An exported log message of any type and either format generation. Every
// value is a copy, so the message outlives the file's bytes.
struct LogMessage {
    uint64_t version = 2;
    LogType type = LogType::Transaction;
    std::vector<LogField> certifiedData;  // in file order

    Bytes serialNumber;
    std::string signatureAlgorithmOid;
    std::optional<Bytes> signatureAlgorithmParameters;  // the whole element
    std::optional<Bytes> seAuditData;
    uint64_t signatureCounter = 0;
    LogTime logTime;
    Bytes signatureValue;
    // The octets the signature covers: every element from the version
    // through the log time, exactly as stored.
    Bytes signedOctets;

    const LogField* field(std::string_view name) const;
    // The field's value as text, or "" when the message has no such field.
    std::string text(std::string_view name) const;

    // operationType (v2, transaction and system) or eventType (v3 system).
    std::string operation() const;
    std::optional<uint64_t> transactionNumber() const;
};

// Reads a message; never reads outside the view and never throws. The
// error says in words what is wrong and at which byte reading stopped.
Result<LogMessage> parseLogMessage(ByteView data);

}  // namespace tse

#endif
