#ifndef QRCODEDATADSFINVK_H
#define QRCODEDATADSFINVK_H

#include <cstdint>
#include <string>
#include <vector>

// The fields of one DSFinV-K receipt QR code, kept as text exactly as given,
// plus the values the log message needs in byte form.
class QRCodeDataDSFinVK {
public:
    static constexpr int FIELD_COUNT = 12;
    static constexpr int PUBLIC_KEY_SIZE = 97;
    static constexpr int SIGNATURE_SIZE = 96;

    std::string qrCodeVersion = "V0";
    std::string clientId;
    std::string processType;
    std::string processData;
    std::string transactionNumber;
    std::string signatureCounter;
    std::string startTime;
    std::string logTime;
    std::string signatureAlgorithm = "ecdsa-plain-SHA384";
    std::string logTimeFormat = "unixTime";
    std::string signature;
    std::string publicKey;
    std::vector<uint8_t> serialNumber;
    std::vector<uint8_t> signatureValue;
    std::string operationType;

    // Splits the text into the twelve fields, checks the supported values and
    // derives the byte values. False (with one [ERROR] line) when the text is
    // rejected; the derivations throw an int when a field does not decode.
    bool parseQrString(std::string qrString);
    void makeSerialBinary();
    void makeSignatureBinary();
    void print();

private:
    std::string* field(int index);
};

#endif
