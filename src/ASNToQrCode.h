#ifndef ASNTOQRCODE_H
#define ASNTOQRCODE_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "QrCodeDataDSFinVK.h"

// Why a transaction log message cannot be read.
enum LogParseError : int32_t {
    Success = 0,
    WrongLogVersion = 1,
    WrongCertfiedDataType = 2,
    ExpectedHeader = 3,
    ExpectedOperationType = 4,
    WrongOperationType = 5,
    ExpectedClientID = 6,
    ExpectedProcessData = 7,
    ExpectedProcessType = 8,
    ExpectedTransactionNumber = 9,
    WrongSignatureAlgorithm = 10,
    ExpectedSignatureAlgorithm = 11,
    ExpectedSerialNumber = 12,
    ExpectedSignatureCounter = 13,
    ExpectedLogtime = 14,
    InvalidSignatureSize = 15
};

std::string getParseError(LogParseError error);

// Fills the record with the UTC calendar time of the seconds (gmtime_r with
// its arguments swapped).
void cmp_gmtime_s(std::tm* calendar, const int64_t* seconds);

// Reads an exported transaction log message back into QR code fields. Every
// read goes through the bounded cursor (position, end): a length that runs
// past the end of the data is the element's own parse error.
class ASNToQrCode {
public:
    using Position = std::vector<uint8_t>::iterator;

    QRCodeDataDSFinVK qrCodeData;
    Position position{};
    Position end{};

    // Throws the int -1 after one [ERROR] line when the message does not
    // follow the layout.
    void parse(std::vector<uint8_t>& message);

    void doASN_header();
    void doASN_version();
    void doASN_certifiedDataType();
    void doASN_certifiedData();
    void doASN_operationType();
    void doASN_clientId();
    void doASN_processData();
    void doASN_processType();
    void doASN_transactionNumber();
    void doASN_serialNumber();
    void doASN_signatureAlgorithm();
    void doASN_signatureCounter();
    void doASN_logTime();
    void doASN_signatureValue();

    // Each conversion starts on the first length octet and throws onOverrun
    // when the length octets or the content do not fit in what remains.
    std::string convertASNString(LogParseError onOverrun);
    int32_t convertASNNumber(LogParseError onOverrun);
    void convertASNBinary(std::vector<uint8_t>& target, LogParseError onOverrun);
    bool compareBytes(std::vector<uint8_t> expected);

private:
    size_t remaining() const;
    void expectTag(uint8_t tag, LogParseError missing);
    uint64_t readLength(LogParseError onOverrun);
    std::vector<uint8_t> readContent(LogParseError onOverrun);
    std::string readUnsignedNumberText(uint8_t tag, LogParseError missing);
};

#endif
