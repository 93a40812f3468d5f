#ifndef TSE_CORE_LOG_ENCODER_H
#define TSE_CORE_LOG_ENCODER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "bytes.h"
#include "log_message.h"
#include "log_time.h"

namespace tse {

// How processData is written: definite (DER), or constructed with an
// indefinite length in chunks of at most `chunkSize` octets (one chunk when
// 0), as D-Trust devices write it.
struct ProcessDataForm {
    bool indefinite = false;
    size_t chunkSize = 0;
};

struct TransactionData {
    std::string operationType = "FinishTransaction";
    std::string clientId;
    Bytes processData;
    std::optional<std::string> processType;
    std::optional<Bytes> additionalExternalData;
    uint64_t transactionNumber = 1;
    ProcessDataForm processDataForm;
};

struct SystemData {
    std::string operationType;           // eventType in version 3
    std::optional<Bytes> operationData;  // systemOperationData (v2) or eventData (v3)
};

// Everything a log message holds but its signature; certifiedData is the
// encoded type-specific part (see the encode... functions below).
struct LogContent {
    uint64_t version = 2;
    LogType type = LogType::Transaction;
    Bytes certifiedData;
    Bytes serialNumber;
    std::string algorithmOid;
    std::optional<Bytes> seAuditData;
    uint64_t signatureCounter = 1;
    Bytes logTime;  // an encoded element, see encodeLogTime
};

Bytes encodeTransactionData(const TransactionData& data);
Bytes encodeSystemData(const SystemData& data, uint64_t version = 2);
// unixTime: INTEGER; utcTime: YYMMDDhhmm[ss]Z; generalizedTime with the
// fraction digits when given.
Bytes encodeLogTime(TimeFormat format, int64_t seconds, std::string_view fraction = {}, bool withSeconds = true);
// The signed octets: version through log time.
Bytes encodeSignedOctets(const LogContent& content);
// The exported message: the outer SEQUENCE around signed octets and the
// signatureValue.
Bytes encodeLogMessage(ByteView signedOctets, ByteView signature);

}  // namespace tse

#endif
