#ifndef QRCODETOASN_H
#define QRCODETOASN_H

#include <cstdint>
#include <string>
#include <vector>

#include "QrCodeDataDSFinVK.h"

// Rebuilds, from the text of a DSFinV-K QR code, the DER transaction log
// message that the TSE signed. All the work happens in the constructor,
// which throws when the text cannot be parsed or the message not built.
class QrCodeToASN {
public:
    struct ASN1 {
        std::vector<uint8_t> header;
        std::vector<uint8_t> version;
        std::vector<uint8_t> certifiedDataType;
        std::vector<uint8_t> certifiedData;
        std::vector<uint8_t> serialNumber;
        std::vector<uint8_t> signatureAlgorithm;
        std::vector<uint8_t> signatureCounter;
        std::vector<uint8_t> logTime;
        std::vector<uint8_t> signatureValue;
        std::vector<uint8_t> asn1Data;
    };

    std::vector<uint8_t> operationType;
    std::vector<uint8_t> clientId;
    std::vector<uint8_t> processData;
    std::vector<uint8_t> processType;
    std::vector<uint8_t> transactionNumber;
    ASN1 asn1;
    QRCodeDataDSFinVK qrCodeData;

    explicit QrCodeToASN(std::string qrString);

    // Header plus the signed octets.
    std::vector<uint8_t> getASN1Data() const;
    std::vector<uint8_t> getSignature() const;
    // The first 97 decoded octets of the public key text.
    std::vector<uint8_t> getPublicKey() const;

    void doASN_version();
    void doASN_certifiedDataType();
    void doASN_operationType();
    void doASN_clientId();
    void doASN_processData();
    void doASN_processType();
    void doASN_transactionNumber();
    void doASN_certifiedData();
    void doASN_serialNumber();
    void doASN_signatureAlgorithm();
    void doASN_signatureCounter();
    void doASN_logTime();
    void doASN_header();
    void doASN_signatureValue();
};

#endif
