// Writes the demo samples: the demo TSE's key and certificate, one exported
// log message and one receipt QR code text, both signed with the demo key,
// and a picture of the receipt with that QR code, as a slightly turned and
// unevenly lit photo.
// An existing demo key in the folder is reused, so the certificate and the
// signed samples stay consistent with it.
#include <ctime>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "log_encoder.h"
#include "receipt_pictures.h"
#include "signer.h"

namespace {

// The demo sale, 8.57 EUR paid in cash.
constexpr std::string_view CLIENT_ID = "DEMO-KASSE-01";
constexpr std::string_view PROCESS_TYPE = "Kassenbeleg-V1";
constexpr std::string_view PROCESS_DATA = "Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar";
constexpr uint64_t TRANSACTION_NUMBER = 538;
constexpr uint64_t SIGNATURE_COUNTER = 1207;
constexpr int64_t START_TIME = 1627903721;  // 2021-08-02T11:28:41Z
constexpr int64_t LOG_TIME = 1627903738;    // 2021-08-02T11:28:58Z
constexpr int CERTIFICATE_DAYS = 3650;
constexpr tse::Hash HASH = tse::Hash::Sha384;

std::optional<std::string> readText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool writeFile(const std::string& path, std::string_view contents)
{
    std::ofstream out(path, std::ios::binary);
    out << contents;
    return out.good();
}

// The demo key in the folder, or a new one on brainpoolP384r1 written there.
std::optional<tse::Signer> loadOrMakeKey(const std::string& path)
{
    if (const std::optional<std::string> pem = readText(path)) {
        try {
            return tse::Signer::fromPem(*pem);
        } catch (const std::runtime_error&) {
            std::cerr << path << " holds no usable key; a new one replaces it\n";
        }
    }
    tse::Signer signer(tse::Curve::BrainpoolP384r1);
    if (!writeFile(path, signer.privateKeyPem())) return std::nullopt;
    return signer;
}

// The signed part of the demo sale's Finish log, as both of the verifier's
// modes rebuild it: version 2, ecdsa-plain-SHA384, a unixTime log time.
tse::Bytes signedOctets(const tse::Signer& signer)
{
    tse::TransactionData sale;
    sale.clientId = std::string(CLIENT_ID);
    sale.processData = tse::Bytes(PROCESS_DATA.begin(), PROCESS_DATA.end());
    sale.processType = std::string(PROCESS_TYPE);
    sale.transactionNumber = TRANSACTION_NUMBER;
    tse::LogContent content;
    content.certifiedData = tse::encodeTransactionData(sale);
    content.serialNumber = signer.publicKey().serialNumber();
    content.algorithmOid = std::string(tse::ecdsaPlain(HASH).oid);
    content.signatureCounter = SIGNATURE_COUNTER;
    content.logTime = tse::encodeLogTime(tse::TimeFormat::UnixTime, LOG_TIME);
    return tse::encodeSignedOctets(content);
}

// "2021-08-02T11:28:58.000Z", as registers print it.
std::string receiptTime(int64_t seconds)
{
    tse::LogTime time;
    time.seconds = seconds;
    return time.iso();
}

// The receipt's QR code carries the signature of the same Finish log.
std::string receiptText(const tse::Signer& signer, tse::ByteView signature)
{
    return "V0;" + std::string(CLIENT_ID) + ";" + std::string(PROCESS_TYPE) + ";" + std::string(PROCESS_DATA) + ";" +
           std::to_string(TRANSACTION_NUMBER) + ";" + std::to_string(SIGNATURE_COUNTER) + ";" +
           receiptTime(START_TIME) + ";" + receiptTime(LOG_TIME) + ";" + std::string(tse::ecdsaPlain(HASH).name) +
           ";unixTime;" + tse::toBase64(signature) + ";" + tse::toBase64(signer.publicKey().point());
}

}  // namespace

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::cerr << "usage: make-samples DIRECTORY\n";
        return 2;
    }
    const std::string dir = argv[1];
    const std::optional<tse::Signer> signer = loadOrMakeKey(dir + "/demo-tse-private-key.pem");
    if (!signer) {
        std::cerr << "cannot read or write the demo key in " << dir << "\n";
        return 1;
    }
    const tse::Bytes octets = signedOctets(*signer);
    const tse::Bytes signature = signer->signPlain(HASH, octets);
    const tse::Bytes log = tse::encodeLogMessage(octets, signature);
    const std::string qr = receiptText(*signer, signature);
    const pictures::Picture photo = pictures::shaded(pictures::rotated(pictures::receipt({qr}, 4), -6), 0.4);
    const pictures::Bytes picture = pictures::png(photo);
    const std::string certificate =
        signer->selfSignedCertificatePem("Demo TSE (not a real device)", std::time(nullptr), CERTIFICATE_DAYS);

    const bool written = writeFile(dir + "/demo-tse-certificate.pem", certificate) &&
                         writeFile(dir + "/Unixt_1627903738_Sig-1207_Log-Tra_No-538_Finish_Client-DEMO-KASSE-01.log",
                                   tse::ByteView(log).text()) &&
                         writeFile(dir + "/demo-receipt-qr-code.txt", qr + "\n") &&
                         writeFile(dir + "/demo-receipt.png", tse::ByteView(picture).text());
    if (!written) {
        std::cerr << "cannot write the samples to " << dir << "\n";
        return 1;
    }
    std::cout << "samples written to " << dir << "\n";
    return 0;
}
