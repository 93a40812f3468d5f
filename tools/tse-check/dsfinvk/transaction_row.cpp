#include "dsfinvk/transaction_row.h"

namespace tsecheck {

const std::vector<std::string>& transactionColumns()
{
    static const std::vector<std::string> columns{"bonId",
                                                  "kasseId",
                                                  "closing",
                                                  "clientId",
                                                  "serialNumber",
                                                  "transactionNumber",
                                                  "signatureCounter",
                                                  "processType",
                                                  "logTime",
                                                  "verdict",
                                                  "match",
                                                  "differences",
                                                  "reason",
                                                  "file"};
    return columns;
}

std::vector<std::string> transactionCells(const tse::BookedTransaction& t)
{
    std::string differences;
    for (const std::string& d : t.differences) differences += (differences.empty() ? "" : " ") + d;
    return {t.bonId,
            t.kasseId,
            t.closing,
            t.clientId,
            t.serialNumber,
            t.transactionNumber ? std::to_string(*t.transactionNumber) : "",
            t.signatureCounter ? std::to_string(*t.signatureCounter) : "",
            t.processType,
            t.logTime(),
            std::string(tse::rowVerdictName(t.verdict)),
            t.match ? std::string(tse::matchStateName(*t.match)) : "",
            differences,
            t.reason,
            t.file};
}

}  // namespace tsecheck
