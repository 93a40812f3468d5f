#ifndef TSE_CORE_RECEIPT_TEXT_H
#define TSE_CORE_RECEIPT_TEXT_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "algorithms.h"
#include "bytes.h"
#include "log_time.h"
#include "public_key.h"
#include "result.h"
#include "thread_annotations.h"

namespace tse {

// The log time format as a receipt names it. The two "With..." names ask
// for the same element as their short forms, only with seconds or a
// fraction, so they share the rebuild.
enum class ReceiptTimeFormat {
    UnixTime,
    UtcTime,
    UtcTimeWithSeconds,
    GeneralizedTime,
    GeneralizedTimeWithMilliseconds
};

std::string_view receiptTimeFormatName(ReceiptTimeFormat format);
TimeFormat elementFormat(ReceiptTimeFormat format);
std::optional<ReceiptTimeFormat> receiptTimeFormatByName(std::string_view name);

// A time as printed on the receipt and as read.
struct ReceiptTime {
    std::string text;
    IsoTime time;
};

// The twelve fields of a receipt QR code, each checked and decoded.
// The printed fields of a receipt but its key.
struct ReceiptFields {
    std::string version;  // "V0"
    std::string clientId;
    std::string processType;
    std::string processData;
    uint64_t transactionNumber = 0;
    uint64_t signatureCounter = 0;
    ReceiptTime startTime;
    ReceiptTime logTime;
    const SignatureAlgorithm* algorithm = nullptr;
    std::string algorithmText;  // as printed
    ReceiptTimeFormat logTimeFormat = ReceiptTimeFormat::UnixTime;
    std::string logTimeFormatText;
    // The signature field decoded every way it can be read: base64 first,
    // then hexadecimal r || s; the verifier tells which one holds.
    std::vector<Bytes> signatureReadings;
    std::string signatureText;
};

// A receipt as read: never without the key its publicKey field holds.
struct Receipt : ReceiptFields {
    Receipt(ReceiptFields fields, PublicKey publicKey, std::vector<PublicKey> others = {})
        : ReceiptFields(std::move(fields)), key(std::move(publicKey)), otherKeys(std::move(others))
    {}

    PublicKey key;
    // A compressed point names only x, and an x may lie on both curves of
    // its size; the signature tells which one the TSE uses.
    std::vector<PublicKey> otherKeys;
};

// Decoded public keys by their base64 text. Checking that a point lies on a
// curve costs as much as a verification, and a batch of receipts from one
// TSE carries the same key thousands of times. Safe to share among threads.
struct ReceiptKeys {
    Result<PublicKey> key;
    std::vector<PublicKey> otherKeys;
};
ReceiptKeys receiptKeys(std::string_view encoded);

class KeyCache {
public:
    ReceiptKeys get(const std::string& encoded);

private:
    Mutex lock_;
    std::map<std::string, ReceiptKeys> keys_ TSE_GUARDED_BY(lock_);
};

// The text as a scanner, a file or a command line hands it over: blanks, a
// line end and a byte order mark around it, or double quotes, are not part
// of the receipt.
std::string_view trimReceiptText(std::string_view text);

Result<Receipt> parseReceiptText(std::string_view text, KeyCache* keys = nullptr);

}  // namespace tse

#endif
