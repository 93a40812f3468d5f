#include "receipt_verify.h"

#include "ber.h"
#include "der.h"
#include "log_encoder.h"
#include "text.h"

namespace tse {
namespace {

constexpr size_t FOUR_OCTETS = 4;
constexpr size_t MILLIS_DIGITS = 3;

std::string_view timeEncodingName(TimeEncoding encoding)
{
    switch (encoding) {
    case TimeEncoding::MinimalInteger: return "log time INTEGER";
    case TimeEncoding::FourOctetInteger: return "log time INTEGER of four octets";
    case TimeEncoding::UtcWithSeconds: return "log time UTCTime with seconds";
    case TimeEncoding::UtcWithoutSeconds: return "log time UTCTime without seconds";
    case TimeEncoding::GeneralizedPlain: return "log time GeneralizedTime";
    case TimeEncoding::GeneralizedFraction: return "log time GeneralizedTime with fraction";
    case TimeEncoding::GeneralizedMillis: return "log time GeneralizedTime with milliseconds";
    }
    return "";
}

std::string_view signatureEncodingName(SignatureEncoding encoding)
{
    switch (encoding) {
    case SignatureEncoding::PlainBase64: return "signature r||s base64";
    case SignatureEncoding::DerBase64: return "signature DER base64";
    case SignatureEncoding::PlainHex: return "signature r||s hex";
    case SignatureEncoding::DerHex: return "signature DER hex";
    }
    return "";
}

std::string withoutTrailingZeros(std::string fraction)
{
    while (!fraction.empty() && fraction.back() == '0') fraction.pop_back();
    return fraction;
}

std::string millis(std::string fraction)
{
    fraction.resize(MILLIS_DIGITS, '0');
    return fraction;
}

Bytes fourOctetInteger(int64_t seconds)
{
    const auto value = static_cast<uint64_t>(seconds);
    Bytes out = {tag::INTEGER, FOUR_OCTETS};
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
    return out;
}

// Only a time that fits four octets unchanged has that form.
bool fitsFourOctets(int64_t seconds)
{
    return seconds >= 0 && seconds <= 0xFFFFFFFFLL;
}

// The readings come base64 first, then hex; a text that is no base64 (hex
// with colons between the octets, say) has its hex reading alone.
bool hexReading(const Receipt& receipt, size_t index)
{
    if (index > 0) return true;
    const std::optional<Bytes> base64 = fromBase64(receipt.signatureText);
    return !base64 || base64->empty();
}

}  // namespace

std::string describeForm(const ReceiptForm& form)
{
    return "version " + std::to_string(form.shape.version) + ", processData " +
           (form.shape.indefiniteProcessData ? "indefinite length" : "definite") + ", " +
           std::string(timeEncodingName(form.time)) + ", " + std::string(signatureEncodingName(form.signature));
}

Result<std::vector<ReceiptSignature>> receiptSignatures(const Receipt& receipt)
{
    std::vector<ReceiptSignature> out;
    for (size_t i = 0; i < receipt.signatureReadings.size(); ++i) {
        const Bytes& octets = receipt.signatureReadings[i];
        const bool hex = hexReading(receipt, i);
        if (std::optional<DecodedSignature> plain = DecodedSignature::plain(receipt.key, octets)) {
            out.push_back({*plain, hex ? SignatureEncoding::PlainHex : SignatureEncoding::PlainBase64});
        } else if (std::optional<DecodedSignature> der = DecodedSignature::der(octets)) {
            out.push_back({*der, hex ? SignatureEncoding::DerHex : SignatureEncoding::DerBase64});
        }
    }
    if (!out.empty()) return out;
    const size_t expected = 2 * receipt.key.curveInfo().fieldSize;
    const size_t size = receipt.signatureReadings.front().size();
    return Error{"signature: " + counted(size, "byte is", "bytes are") + " neither r||s on " +
                 std::string(receipt.key.curveInfo().displayName) + " (" + std::to_string(expected) +
                 " bytes) nor a DER signature"};
}

std::vector<Bytes> plainOctets(const Receipt& receipt, const std::vector<ReceiptSignature>& signatures)
{
    std::vector<Bytes> out;
    for (const ReceiptSignature& signature : signatures) {
        out.push_back(signature.value.plainOctets(receipt.key.curveInfo().fieldSize));
    }
    return out;
}

std::vector<MessageShape> messageShapes()
{
    return {{2, false}, {2, true}, {3, false}, {3, true}};
}

std::vector<TimeEncoding> timeEncodings(ReceiptTimeFormat format)
{
    switch (format) {
    case ReceiptTimeFormat::UnixTime: return {TimeEncoding::MinimalInteger, TimeEncoding::FourOctetInteger};
    case ReceiptTimeFormat::UtcTime:
    case ReceiptTimeFormat::UtcTimeWithSeconds: return {TimeEncoding::UtcWithSeconds, TimeEncoding::UtcWithoutSeconds};
    case ReceiptTimeFormat::GeneralizedTime:
        return {TimeEncoding::GeneralizedPlain, TimeEncoding::GeneralizedFraction, TimeEncoding::GeneralizedMillis};
    case ReceiptTimeFormat::GeneralizedTimeWithMilliseconds:
        return {TimeEncoding::GeneralizedMillis, TimeEncoding::GeneralizedFraction, TimeEncoding::GeneralizedPlain};
    }
    return {};
}

Bytes signedPrefix(const Receipt& receipt, const MessageShape& shape)
{
    TransactionData data;
    data.operationType = shape.version >= 3 ? "finishTransaction" : "FinishTransaction";
    data.clientId = receipt.clientId;
    data.processData = Bytes(receipt.processData.begin(), receipt.processData.end());
    data.processType = receipt.processType;
    data.transactionNumber = receipt.transactionNumber;
    data.processDataForm = ProcessDataForm{shape.indefiniteProcessData, 0};
    LogContent content;
    content.version = shape.version;
    content.certifiedData = encodeTransactionData(data);
    content.serialNumber = receipt.key.serialNumber();
    content.algorithmOid = std::string(receipt.algorithm->oid);
    content.signatureCounter = receipt.signatureCounter;
    return encodeSignedOctets(content);  // ends before the log time, which is left empty
}

Bytes logTimeElement(TimeEncoding encoding, int64_t seconds, const std::string& fraction)
{
    switch (encoding) {
    case TimeEncoding::MinimalInteger: return encodeLogTime(TimeFormat::UnixTime, seconds);
    case TimeEncoding::FourOctetInteger: return fourOctetInteger(seconds);
    case TimeEncoding::UtcWithSeconds: return encodeLogTime(TimeFormat::UtcTime, seconds, {}, true);
    case TimeEncoding::UtcWithoutSeconds: return encodeLogTime(TimeFormat::UtcTime, seconds, {}, false);
    case TimeEncoding::GeneralizedPlain: return encodeLogTime(TimeFormat::GeneralizedTime, seconds);
    case TimeEncoding::GeneralizedFraction:
        return encodeLogTime(TimeFormat::GeneralizedTime, seconds, withoutTrailingZeros(fraction));
    case TimeEncoding::GeneralizedMillis: return encodeLogTime(TimeFormat::GeneralizedTime, seconds, millis(fraction));
    }
    return {};
}

std::vector<EncodedTime> distinctTimeElements(const Receipt& receipt, int64_t seconds)
{
    std::vector<EncodedTime> out;
    for (const TimeEncoding encoding : timeEncodings(receipt.logTimeFormat)) {
        if (encoding == TimeEncoding::FourOctetInteger && !fitsFourOctets(seconds)) continue;
        if (encoding == TimeEncoding::MinimalInteger && seconds < 0) continue;
        Bytes element = logTimeElement(encoding, seconds, receipt.logTime.time.fraction);
        bool seen = false;
        for (const EncodedTime& earlier : out) seen = seen || earlier.element == element;
        if (!seen) out.push_back({encoding, std::move(element)});
    }
    return out;
}

ReceiptMatcher::ReceiptMatcher(const Receipt& receipt, const std::vector<ReceiptSignature>& signatures,
                               const KeyVerifier* verifier, const SignatureSearch* search)
    : receipt_(receipt), signatures_(signatures),
      // The verifier's tables serve only the key they were built for.
      verifier_(verifier && verifier->key().point() == receipt.key.point() ? verifier : nullptr), search_(search)
{
    for (const MessageShape& shape : messageShapes()) prefixes_.emplace_back(shape, signedPrefix(receipt, shape));
    if (verifier_) octets_ = plainOctets(receipt, signatures);
}

// The first signature that holds over the message; `refused` is set when
// the gate ended the search.
std::optional<size_t> ReceiptMatcher::holdingSignature(ByteView message, const CheckGate& mayCheck,
                                                       VerifyScratch* scratch, bool& refused) const
{
    const Hash hash = receipt_.algorithm->hash;
    const CheckGate gate = [&] {
        refused = mayCheck && !mayCheck();
        return !refused;
    };
    if (search_ && scratch) return search_->find(hash, message, *scratch, gate);
    for (size_t i = 0; i < signatures_.size(); ++i) {
        if (!gate()) return std::nullopt;
        const bool fast = verifier_ && scratch && !octets_[i].empty();
        const bool holds = fast ? verifier_->verify(SignatureCheck{hash, message, octets_[i]}, *scratch)
                                : signatures_[i].value.verifies(receipt_.key, hash, message);
        if (holds) return i;
    }
    return std::nullopt;
}

std::optional<ReceiptForm> ReceiptMatcher::holdsAt(int64_t seconds, const CheckGate& mayCheck,
                                                   VerifyScratch* scratch) const
{
    const std::vector<EncodedTime> times = distinctTimeElements(receipt_, seconds);
    bool refused = false;
    for (const auto& [shape, prefix] : prefixes_) {
        Bytes message = prefix;
        const size_t prefixSize = message.size();
        for (const EncodedTime& time : times) {
            message.resize(prefixSize);
            append(message, time.element);
            const std::optional<size_t> held = holdingSignature(message, mayCheck, scratch, refused);
            if (held) return ReceiptForm{shape, time.encoding, signatures_[*held].encoding};
            if (refused) return std::nullopt;
        }
    }
    return std::nullopt;
}

std::vector<Receipt> withEachKey(const Receipt& receipt)
{
    std::vector<Receipt> out{receipt};
    for (const PublicKey& key : receipt.otherKeys) {
        Receipt other = receipt;
        other.key = key;
        other.otherKeys.clear();
        out.push_back(std::move(other));
    }
    return out;
}

ReceiptVerification verifyReceipt(const Receipt& receipt, const std::vector<ReceiptSignature>& signatures,
                                  const KeyVerifier* verifier, VerifyScratch* scratch)
{
    if (distinctTimeElements(receipt, receipt.logTime.time.seconds).empty()) {
        return {Verdict::Malformed,
                "logTime " + receipt.logTime.text + " lies before 1970, which unixTime cannot hold",
                {},
                {}};
    }
    const ReceiptMatcher matcher(receipt, signatures, verifier);
    if (const std::optional<ReceiptForm> form = matcher.holdsAt(receipt.logTime.time.seconds, {}, scratch)) {
        return {Verdict::Valid, {}, *form, {}};
    }
    return {Verdict::Invalid,
            "the signature does not match the rebuilt log message (" + std::string(receipt.algorithm->name) + " on " +
                std::string(receipt.key.curveInfo().displayName) + ")",
            {},
            {}};
}

ReceiptVerification verifyReceipt(const Receipt& receipt, const KeyVerifier* verifier, VerifyScratch* scratch)
{
    ReceiptVerification first;
    const std::vector<Receipt> readings = withEachKey(receipt);
    for (size_t i = 0; i < readings.size(); ++i) {
        const Result<std::vector<ReceiptSignature>> signatures = receiptSignatures(readings[i]);
        if (!signatures) {
            if (i == 0) return {Verdict::Malformed, signatures.error().message, {}, {}};
            continue;
        }
        // The tables are the first key's; another reading takes the plain path.
        ReceiptVerification result = verifyReceipt(readings[i], *signatures, verifier, scratch);
        if (result.valid()) {
            if (i > 0) result.heldKey = readings[i].key;
            return result;
        }
        if (i == 0) first = std::move(result);
    }
    return first;
}

}  // namespace tse
