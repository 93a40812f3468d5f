#ifndef TSE_CORE_RECEIPT_VERIFY_H
#define TSE_CORE_RECEIPT_VERIFY_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bytes.h"
#include "key_verifier.h"
#include "log_verify.h"
#include "receipt_text.h"
#include "result.h"
#include "signature_search.h"

namespace tse {

// The ways TSEs write the log time element for one receipt time format.
enum class TimeEncoding {
    MinimalInteger,    // unixTime, DER
    FourOctetInteger,  // unixTime padded to four octets, as some builders write it
    UtcWithSeconds,
    UtcWithoutSeconds,
    GeneralizedPlain,     // no fraction
    GeneralizedFraction,  // the printed fraction without trailing zeros (DER)
    GeneralizedMillis,    // exactly three fraction digits
};

// The parts of the signed log message that a receipt does not print and
// that differ between TSEs.
struct MessageShape {
    uint64_t version = 2;                // 3 for TSEs of the newer guideline: "finishTransaction"
    bool indefiniteProcessData = false;  // D-Trust: A2 80 04 LL ... 00 00
};

enum class SignatureEncoding { PlainBase64, DerBase64, PlainHex, DerHex };

// The combination under which a signature held.
struct ReceiptForm {
    MessageShape shape;
    TimeEncoding time = TimeEncoding::MinimalInteger;
    SignatureEncoding signature = SignatureEncoding::PlainBase64;
};

// "version 2, processData definite, log time INTEGER, signature r||s base64"
std::string describeForm(const ReceiptForm& form);

struct ReceiptVerification {
    Verdict verdict = Verdict::Malformed;  // Valid, Invalid or Malformed
    std::string reason;                    // empty when valid
    ReceiptForm form;                      // meaningful when valid
    std::optional<PublicKey> heldKey;      // set when one of the receipt's other keys held

    bool valid() const { return verdict == Verdict::Valid; }
};

// The receipt's signature field decoded the ways that fit its key; an
// error that says why when none does.
struct ReceiptSignature {
    DecodedSignature value;
    SignatureEncoding encoding;
};
Result<std::vector<ReceiptSignature>> receiptSignatures(const Receipt& receipt);
// Each as r || s of the key's field size, as the tables and a signature
// search take them; empty for one whose r or s does not fit.
std::vector<Bytes> plainOctets(const Receipt& receipt, const std::vector<ReceiptSignature>& signatures);

// What a signed message can look like, most common first.
std::vector<MessageShape> messageShapes();
std::vector<TimeEncoding> timeEncodings(ReceiptTimeFormat format);

// The signed octets up to the log time element, and that element, so that a
// search over log times rebuilds only the end of the message.
Bytes signedPrefix(const Receipt& receipt, const MessageShape& shape);
Bytes logTimeElement(TimeEncoding encoding, int64_t seconds, const std::string& fraction);

// The log time elements for a moment, one per encoding, leaving out those
// that come out the same octets as an earlier one.
struct EncodedTime {
    TimeEncoding encoding;
    Bytes element;
};
std::vector<EncodedTime> distinctTimeElements(const Receipt& receipt, int64_t seconds);

// The one search over message shape x time encoding x signature form, for
// a receipt and its decoded signatures; receipt checks and their
// explanations both go through it. The message up to the log time is built
// once per shape, so a search over log times rebuilds only its end.
class ReceiptMatcher {
public:
    // All are kept by reference and must outlive the matcher. A verifier of
    // the receipt's key checks through its tables; of another key, it is
    // not used. A search made for the receipt's key and these signatures
    // (in their order) checks a message against all of them at once, as a
    // search over many messages should.
    ReceiptMatcher(const Receipt& receipt, const std::vector<ReceiptSignature>& signatures,
                   const KeyVerifier* verifier = nullptr, const SignatureSearch* search = nullptr);

    // Called before each signature check; false stops the search. A search
    // with a bound counts its work here.
    using CheckGate = std::function<bool()>;

    // The form under which a signature holds with the log time at `seconds`.
    // With a verifier or a search, `scratch` is the calling thread's own.
    std::optional<ReceiptForm> holdsAt(int64_t seconds, const CheckGate& mayCheck = {},
                                       VerifyScratch* scratch = nullptr) const;

private:
    std::optional<size_t> holdingSignature(ByteView message, const CheckGate& mayCheck, VerifyScratch* scratch,
                                           bool& refused) const;

    const Receipt& receipt_;
    const std::vector<ReceiptSignature>& signatures_;
    const KeyVerifier* verifier_;
    const SignatureSearch* search_;
    std::vector<Bytes> octets_;  // r || s for the verifier, one per signature
    std::vector<std::pair<MessageShape, Bytes>> prefixes_;
};

// The receipt under each key its public key field can stand for: with its
// own key first, then with each other reading (without further readings).
std::vector<Receipt> withEachKey(const Receipt& receipt);

// Rebuilds the Finish transaction log message the receipt stands for in
// every shape and time encoding, and checks the signature over each, with
// each key the public key field can stand for.
// A verifier of the receipt's key (a batch of many receipts of one TSE)
// checks them through its tables, with the calling thread's scratch.
ReceiptVerification verifyReceipt(const Receipt& receipt, const KeyVerifier* verifier = nullptr,
                                  VerifyScratch* scratch = nullptr);
// The same with the signatures already decoded.
ReceiptVerification verifyReceipt(const Receipt& receipt, const std::vector<ReceiptSignature>& signatures,
                                  const KeyVerifier* verifier = nullptr, VerifyScratch* scratch = nullptr);

}  // namespace tse

#endif
