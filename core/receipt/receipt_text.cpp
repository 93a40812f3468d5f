#include "receipt_text.h"

#include "log_message.h"
#include "text.h"

namespace tse {
namespace {

constexpr size_t FIELD_COUNT = 12;

struct FormatName {
    ReceiptTimeFormat format;
    std::string_view name;
};

constexpr FormatName FORMAT_NAMES[] = {
    {ReceiptTimeFormat::UnixTime, "unixTime"},
    {ReceiptTimeFormat::UtcTime, "utcTime"},
    {ReceiptTimeFormat::UtcTimeWithSeconds, "utcTimeWithSeconds"},
    {ReceiptTimeFormat::GeneralizedTime, "generalizedTime"},
    {ReceiptTimeFormat::GeneralizedTimeWithMilliseconds, "generalizedTimeWithMilliseconds"},
};

std::vector<std::string_view> splitFields(std::string_view text)
{
    std::vector<std::string_view> fields;
    size_t start = 0;
    while (true) {
        const size_t end = text.find(';', start);
        fields.push_back(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) return fields;
        start = end + 1;
    }
}

// Every reading of the signature field that decodes: base64 (plain or DER)
// and hexadecimal r || s. A hex text is also valid base64, so both are kept.
std::vector<Bytes> signatureReadings(std::string_view text)
{
    std::vector<Bytes> readings;
    if (std::optional<Bytes> base64 = fromBase64(text); base64 && !base64->empty()) readings.push_back(*base64);
    if (std::optional<Bytes> hex = fromHex(text); hex && !hex->empty()) readings.push_back(*hex);
    return readings;
}

// Reads the fields in order and stops at the first bad one.
class FieldReader {
public:
    explicit FieldReader(const std::vector<std::string_view>& fields) : fields_(fields) {}

    std::string error;

    bool read(ReceiptFields& r, KeyCache* keys, std::optional<ReceiptKeys>& found)
    {
        r.version = std::string(fields_[0]);
        if (r.version != "V0") return fail("qrCodeVersion " + quoted(fields_[0]) + " is not V0");
        r.clientId = std::string(fields_[1]);
        if (r.clientId.empty()) return fail("clientId is empty; it names the cash register");
        r.processType = std::string(fields_[2]);
        r.processData = std::string(fields_[3]);
        return number("transactionNumber", fields_[4], r.transactionNumber) &&
               number("signatureCounter", fields_[5], r.signatureCounter) &&
               time("startTime", fields_[6], r.startTime) && time("logTime", fields_[7], r.logTime) &&
               algorithm(fields_[8], r) && timeFormat(fields_[9], r) && signature(fields_[10], r) &&
               publicKey(fields_[11], keys, found);
    }

private:
    bool fail(std::string reason)
    {
        error = std::move(reason);
        return false;
    }

    bool number(const char* name, std::string_view text, uint64_t& out)
    {
        const std::optional<uint64_t> value = parseDecimal(text);
        if (!value) return fail(std::string(name) + " " + quoted(text) + " is not a whole number of at most 64 bits");
        out = *value;
        return true;
    }

    bool time(const char* name, std::string_view text, ReceiptTime& out)
    {
        const std::optional<IsoTime> parsed = parseIsoTime(text);
        if (!parsed) {
            return fail(std::string(name) + " " + quoted(text) +
                        " is not an ISO 8601 time such as 2020-05-22T11:33:02.000Z");
        }
        out = ReceiptTime{std::string(text), *parsed};
        return true;
    }

    bool algorithm(std::string_view text, ReceiptFields& r)
    {
        r.algorithmText = std::string(text);
        r.algorithm = algorithmByName(text);
        if (r.algorithm == nullptr) {
            return fail("signatureAlgorithm " + quoted(text) + " is no known name such as ecdsa-plain-SHA256");
        }
        if (!r.algorithm->supported) {
            return fail("signatureAlgorithm " + quoted(text) + " is recognised but not verified by this tool");
        }
        return true;
    }

    bool timeFormat(std::string_view text, ReceiptFields& r)
    {
        r.logTimeFormatText = std::string(text);
        const std::optional<ReceiptTimeFormat> format = receiptTimeFormatByName(text);
        if (!format) {
            return fail("logTimeFormat " + quoted(text) +
                        " is none of unixTime, utcTime, utcTimeWithSeconds, generalizedTime, "
                        "generalizedTimeWithMilliseconds");
        }
        r.logTimeFormat = *format;
        return true;
    }

    bool signature(std::string_view text, ReceiptFields& r)
    {
        r.signatureText = std::string(text);
        r.signatureReadings = signatureReadings(text);
        if (r.signatureReadings.empty()) {
            return fail("signature " + quoted(text) + " is neither base64 nor hexadecimal");
        }
        return true;
    }

    bool publicKey(std::string_view text, KeyCache* keys, std::optional<ReceiptKeys>& out)
    {
        ReceiptKeys found = keys != nullptr ? keys->get(std::string(text)) : receiptKeys(text);
        if (!found.key) return fail("publicKey " + quoted(text) + " is no usable key: " + found.key.error().message);
        out = std::move(found);
        return true;
    }

    const std::vector<std::string_view>& fields_;
};

}  // namespace

std::string_view receiptTimeFormatName(ReceiptTimeFormat format)
{
    return FORMAT_NAMES[static_cast<size_t>(format)].name;
}

TimeFormat elementFormat(ReceiptTimeFormat format)
{
    switch (format) {
    case ReceiptTimeFormat::UnixTime: return TimeFormat::UnixTime;
    case ReceiptTimeFormat::UtcTime:
    case ReceiptTimeFormat::UtcTimeWithSeconds: return TimeFormat::UtcTime;
    case ReceiptTimeFormat::GeneralizedTime:
    case ReceiptTimeFormat::GeneralizedTimeWithMilliseconds: return TimeFormat::GeneralizedTime;
    }
    return TimeFormat::UnixTime;
}

std::optional<ReceiptTimeFormat> receiptTimeFormatByName(std::string_view name)
{
    for (const FormatName& entry : FORMAT_NAMES) {
        if (equalsIgnoringCase(entry.name, name)) return entry.format;
    }
    return std::nullopt;
}

ReceiptKeys receiptKeys(std::string_view encoded)
{
    const std::optional<Bytes> octets = fromBase64(encoded);
    if (!octets) return {Result<PublicKey>(Error{"it is not base64", std::nullopt}), {}};
    const bool compressed = !octets->empty() && ((*octets)[0] == 0x02 || (*octets)[0] == 0x03);
    if (!compressed) return {keyFromAnyEncoding(*octets), {}};
    // A compressed point names only x, which often lies on both curves of
    // its size; the signature tells which key the TSE holds.
    ReceiptKeys out{keyFromAnyEncoding(*octets), {}};
    for (const CurveInfo& curve : supportedCurves()) {
        Result<PublicKey> onCurve = keyFromPoint(*octets, curve.curve);
        if (!onCurve) continue;
        if (!out.key) {
            out.key = onCurve;
        } else if (onCurve->curve() != out.key->curve()) {
            out.otherKeys.push_back(*onCurve);
        }
    }
    return out;
}

ReceiptKeys KeyCache::get(const std::string& encoded)
{
    {
        ExclusiveLock<Mutex> guard(lock_);
        const auto found = keys_.find(encoded);
        if (found != keys_.end()) return found->second;
    }
    ReceiptKeys keys = receiptKeys(encoded);
    ExclusiveLock<Mutex> guard(lock_);
    return keys_.emplace(encoded, std::move(keys)).first->second;
}

std::string_view trimReceiptText(std::string_view text)
{
    constexpr std::string_view BOM = "\xEF\xBB\xBF";
    if (text.substr(0, BOM.size()) == BOM) text.remove_prefix(BOM.size());
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
    return text;
}

Result<Receipt> parseReceiptText(std::string_view text, KeyCache* keys)
{
    text = trimReceiptText(text);
    if (text.empty()) return Error{"the text is empty", {}};
    const std::vector<std::string_view> fields = splitFields(text);
    if (fields.size() != FIELD_COUNT) {
        return Error{"the text has " + counted(fields.size(), "field", "fields") +
                     " separated by \";\"; a receipt has 12"};
    }
    ReceiptFields read;
    std::optional<ReceiptKeys> found;
    FieldReader reader(fields);
    if (!reader.read(read, keys, found)) return Error{reader.error, {}};
    return Receipt(std::move(read), *found->key, std::move(found->otherKeys));
}

}  // namespace tse
