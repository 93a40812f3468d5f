// make-receipts COUNT [CURVE]: prints COUNT receipt QR code texts of one TSE
// (P-256 unless a curve is named), one a line, each signing its own
// transaction, for bench/receipts.sh.
#include <cstdlib>
#include <iostream>
#include <string>

#include "log_encoder.h"
#include "signer.h"

namespace {

std::string receiptText(const tse::Signer& signer, uint64_t number, int64_t logTime)
{
    tse::TransactionData data;
    data.clientId = "BENCH-KASSE-01";
    const std::string processData = "Beleg^" + std::to_string(number % 1000) + ".00_0.00_0.00_0.00_0.00^0.00:Bar";
    data.processData = tse::Bytes(processData.begin(), processData.end());
    data.processType = "Kassenbeleg-V1";
    data.transactionNumber = number;
    return tse::signedReceiptText(signer, tse::Hash::Sha256, data, 2 * number, logTime, logTime);
}

}  // namespace

int main(int argc, char** argv)
{
    const long count = argc == 2 || argc == 3 ? std::strtol(argv[1], nullptr, 10) : 0;
    const tse::CurveInfo* curve = &tse::curveInfo(tse::Curve::Secp256r1);
    if (argc == 3) {
        curve = nullptr;
        for (const tse::CurveInfo& info : tse::supportedCurves()) {
            if (info.displayName == argv[2]) curve = &info;
        }
    }
    if (count <= 0 || count > 10000000 || curve == nullptr) {
        std::cerr << "usage: make-receipts COUNT (1 to 10000000) [CURVE, e.g. brainpoolP384r1]" << std::endl;
        return 2;
    }
    const tse::Signer signer(curve->curve);
    const int64_t start = 1700000000;
    for (long i = 1; i <= count; ++i)
        std::cout << receiptText(signer, static_cast<uint64_t>(i), start + 30 * i) << '\n';
    return 0;
}
