// Writes the demo samples: the demo TSE's key and certificate, one exported
// log message and one receipt QR code text, both signed with the demo key,
// and a picture of the receipt with that QR code, as a slightly turned and
// unevenly lit photo.
// An existing demo key in the folder is reused, so the certificate and the
// signed samples stay consistent with it.
#include <cstdio>
#include <fstream>
#include <iostream>

#include <openssl/pem.h>

#include "fixtures.h"
#include "receipt_pictures.h"

namespace {

EcKeyPtr loadOrMakeKey(const std::string& path)
{
    BioPtr file(BIO_new_file(path.c_str(), "r"));
    if (file) {
        EcKeyPtr key(PEM_read_bio_ECPrivateKey(file.get(), nullptr, nullptr, nullptr));
        if (key) {
            return key;
        }
    }
    EcKeyPtr key = fixtures::makeEcKey();
    BioPtr out(BIO_new_file(path.c_str(), "w"));
    if (!out || PEM_write_bio_ECPrivateKey(out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        return nullptr;
    }
    return key;
}

bool writeFile(const std::string& path, const std::string& contents)
{
    std::ofstream out(path, std::ios::binary);
    out << contents;
    return out.good();
}

}  // namespace

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::cerr << "usage: make-samples DIRECTORY\n";
        return 2;
    }
    const std::string dir = argv[1];
    EcKeyPtr key = loadOrMakeKey(dir + "/demo-tse-private-key.pem");
    if (!key) {
        std::cerr << "cannot read or write the demo key in " << dir << "\n";
        return 1;
    }
    fixtures::LogFields fields;
    fields.clientId = "DEMO-KASSE-01";
    fields.transactionNumber = 538;
    fields.signatureCounter = 1207;
    fields.logTime = 1627903738;  // 2021-08-02T11:28:58Z
    fields.processData = "Beleg^8.57_0.00_0.00_0.00_0.00^8.57:Bar";
    const fixtures::Bytes log = fixtures::signedExportedLog(key.get(), fields);

    fixtures::QrFields qr = fixtures::signedQrFields(key.get(), fields);
    qr.startTime = "2021-08-02T11:28:41.000Z";
    // The receipt carries the signature of the same finish log message.
    qr.signature = fixtures::base64(fixtures::Bytes(log.end() - 96, log.end()));

    const pictures::Picture photo = pictures::shaded(pictures::rotated(pictures::receipt({qr.text()}, 4), -6), 0.4);
    const pictures::Bytes picture = pictures::png(photo);

    const bool written =
        writeFile(dir + "/demo-tse-certificate.pem", fixtures::certificatePem(key.get(), "Demo TSE (not a real device)")) &&
        writeFile(dir + "/Unixt_1627903738_Sig-1207_Log-Tra_No-538_Finish_Client-DEMO-KASSE-01.log",
                  std::string(log.begin(), log.end())) &&
        writeFile(dir + "/demo-receipt-qr-code.txt", qr.text() + "\n") &&
        writeFile(dir + "/demo-receipt.png", std::string(picture.begin(), picture.end()));
    if (!written) {
        std::cerr << "cannot write the samples to " << dir << "\n";
        return 1;
    }
    std::cout << "samples written to " << dir << "\n";
    return 0;
}
