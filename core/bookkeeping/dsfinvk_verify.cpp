#include "dsfinvk_verify.h"

#include <algorithm>
#include <atomic>

#include "certificate.h"
#include "dsfinvk_csv.h"
#include "dsfinvk_tse_export.h"
#include "log_judgement.h"
#include "log_time.h"
#include "parallel.h"
#include "receipt_text.h"
#include "text.h"

namespace tse {
namespace {

constexpr size_t CHUNK = 64;  // rows per scratch
constexpr std::string_view CLIENT_SOURCES[] = {"", "TERMINAL_SERIENNR", "KASSE_SERIENNR", "Z_KASSE_ID"};

// TSE_SERIAL as hex (in practice) or base64 (seen, and converted by other checkers).
std::optional<Bytes> declaredSerial(std::string_view text)
{
    if (std::optional<Bytes> hex = fromHex(text); hex && hex->size() == 32) return hex;
    if (std::optional<Bytes> base64 = fromBase64(text); base64 && base64->size() == 32) return base64;
    return std::nullopt;
}

std::vector<Bytes> signatureReadings(std::string_view text)
{
    std::vector<Bytes> readings;
    if (std::optional<Bytes> base64 = fromBase64(text); base64 && !base64->empty()) readings.push_back(*base64);
    if (std::optional<Bytes> hex = fromHex(text); hex && !hex->empty()) readings.push_back(*hex);
    return readings;
}

void decodeKey(TseDeclaration& d)
{
    ReceiptKeys keys = receiptKeys(d.keyText);
    if (keys.key) {
        d.key = *keys.key;
        d.otherKeys = std::move(keys.otherKeys);
        d.serialNumber = toHex(d.key->serialNumber());
        d.curve = std::string(d.key->curveInfo().displayName);
        return;
    }
    d.problem =
        d.keyText.empty() ? "TSE_PUBLIC_KEY is empty" : "TSE_PUBLIC_KEY is no usable key: " + keys.key.error().message;
    const std::optional<Bytes> serial = declaredSerial(d.declaredSerial);
    d.serialNumber = serial ? toHex(*serial) : d.declaredSerial;
}

void judgeCertificate(TseDeclaration& d, RaisedFindings& findings)
{
    if (d.certificateText.empty()) return;
    d.certificate = true;
    const std::optional<Bytes> der = fromBase64(d.certificateText);
    const std::vector<Certificate> certificates =
        der ? loadCertificates(*der).value_or({}) : std::vector<Certificate>{};
    if (certificates.empty()) {
        findings.raise(FindingCode::CertificateMismatch,
                       "tse.csv: TSE " + d.serialNumber + ": TSE_ZERTIFIKAT_I and II hold no certificate");
    } else if (!certificates.front().key() || certificates.front().key()->point() != d.key->point()) {
        findings.raise(FindingCode::CertificateMismatch,
                       "tse.csv: TSE " + d.serialNumber +
                           ": the certificate in TSE_ZERTIFIKAT_I and II holds another key than TSE_PUBLIC_KEY");
    }
}

// A row as the receipt rebuild takes it, and the ways it may have been signed.
struct RowInput {
    std::string_view bonId, tanr, start, end, processType, counter, signature, failure, processData, other;
};

RowInput inputOf(const Bookkeeping& books, const TseRow& row)
{
    const auto f = [&](TseRowField field) { return books.rowField(row, field); };
    return {f(ROW_BON_ID),  f(ROW_TANR),      f(ROW_START),   f(ROW_END),          f(ROW_PROCESS_TYPE),
            f(ROW_COUNTER), f(ROW_SIGNATURE), f(ROW_FAILURE), f(ROW_PROCESS_DATA), f(ROW_OTHER_PROCESS_DATA)};
}

// The client IDs the TSE may have signed, most specific first.
std::vector<std::pair<uint8_t, std::string>> clientsOf(const Bookkeeping& books, const TseRow& row,
                                                       std::string_view bonId)
{
    std::vector<std::pair<uint8_t, std::string>> clients;
    const Closing& closing = books.closings[row.closing];
    if (const BookedReceipt* receipt = books.findReceipt(row.closing, bonId)) {
        const std::string_view terminal = books.receiptField(*receipt, BON_TERMINAL);
        for (const Terminal& t : books.terminals) {
            if (!terminal.empty() && t.closing == row.closing && t.id == terminal && !t.serial.empty()) {
                clients.emplace_back(1, t.serial);
            }
        }
    }
    if (!closing.kasseSerial.empty()) clients.emplace_back(2, closing.kasseSerial);
    if (!closing.key.kasse.empty()) clients.emplace_back(3, closing.key.kasse);
    std::vector<std::pair<uint8_t, std::string>> distinct;
    for (auto& client : clients) {
        const bool seen =
            std::any_of(distinct.begin(), distinct.end(), [&](const auto& d) { return d.second == client.second; });
        if (!seen) distinct.push_back(std::move(client));
    }
    return distinct;
}

std::optional<Bytes> plainSignature(const std::vector<Bytes>& readings, const PublicKey& key);

void readNumbers(const RowInput& in, RowCheck& out);

class RowVerifier {
public:
    RowVerifier(const Bookkeeping& books, RowChecks& checks, const KeyVerifierSet& verifiers,
                const RebuiltProcessData* rebuilt)
        : books_(books), checks_(checks), verifiers_(verifiers), rebuilt_(rebuilt)
    {}

    void verify(size_t index, VerifyScratch& scratch, bool otherEncoding = false);

private:
    bool readFields(RowCheck& out);
    void rebuild(const TseRow& row, const RowInput& in, const TseDeclaration& tse, RowCheck& out,
                 VerifyScratch& scratch, bool otherEncoding, const std::vector<std::string>* rebuiltData);
    std::vector<std::string> candidates(const RowInput& in, const TseRow& row, bool otherEncoding,
                                        const std::vector<std::string>* rebuiltData) const;
    bool tryForms(Receipt& receipt, const std::vector<std::pair<uint8_t, std::string>>& clients,
                  const TseDeclaration& tse, const IsoTime& end, RowCheck& out, VerifyScratch& scratch);
    void fail(RowCheck& out, RowVerdict verdict, RowCause cause, const std::string& reason)
    {
        out.verdict = verdict;
        out.cause = cause;
        out.reason = checks_.text(reason);
    }

    const Bookkeeping& books_;
    RowChecks& checks_;
    const KeyVerifierSet& verifiers_;
    const RebuiltProcessData* rebuilt_;
};

// The numbers and times a row states, whatever its signature says.
void readNumbers(const RowInput& in, RowCheck& out)
{
    if (std::optional<uint64_t> n = parseDecimal(in.tanr)) out.transaction = *n;
    if (std::optional<uint64_t> n = parseDecimal(in.counter)) out.counter = *n;
    if (std::optional<int64_t> t = bookedSeconds(in.start)) out.startSeconds = *t;
    if (std::optional<int64_t> t = bookedSeconds(in.end)) out.logSeconds = *t;
}

bool RowVerifier::readFields(RowCheck& out)
{
    std::string problem;
    if (out.transaction == NO_NUMBER) problem = "TSE_TANR " + rowValue(ROW_TANR) + " is no whole number";
    else if (out.counter == NO_NUMBER) problem = "TSE_TA_SIGZ " + rowValue(ROW_COUNTER) + " is no whole number";
    else if (out.logSeconds == NO_TIME) problem = "TSE_TA_ENDE " + rowValue(ROW_END) + " is no ISO 8601 time";
    // The start is not signed by the Finish log; a row without a readable
    // one is a finding of its own, and its signature is still checked.
    out.badStart = out.startSeconds == NO_TIME;
    if (problem.empty()) return true;
    fail(out, RowVerdict::Invalid, RowCause::BadField, problem);
    return false;
}

void RowVerifier::verify(size_t index, VerifyScratch& scratch, bool otherEncoding)
{
    const TseRow& row = books_.rows[index];
    RowCheck& out = checks_.rows[index];
    const RowInput in = inputOf(books_, row);
    const TseDeclaration* tse = books_.tseOf(row.closing, books_.rowField(row, ROW_TSE_ID));
    if (tse) out.tse = static_cast<uint32_t>(tse - books_.tses.data());
    // Unsigned rows keep what they state too: a failure row whose
    // transaction the TSE signed is found by its number.
    readNumbers(in, out);
    if (!in.failure.empty())
        return fail(out, RowVerdict::Unsigned, RowCause::Failure, "TSE failure: " + std::string(in.failure));
    if (in.signature.empty()) {
        return fail(out, RowVerdict::Unsigned, RowCause::NoSignature,
                    "the row has neither a signature nor a TSE_TA_FEHLER text");
    }
    if (!readFields(out)) return;
    if (tse && tse->key) {
        if (const std::optional<Bytes> plain = plainSignature(signatureReadings(in.signature), *tse->key)) {
            out.hasSignature = true;
            out.signatureHash = signatureHash(*plain);
        }
    }
    if (!tse) {
        const Closing& closing = books_.closings[row.closing];
        return fail(out, RowVerdict::Unverifiable, RowCause::NoTse,
                    "tse.csv has no TSE of TSE_ID " + rowValue(ROW_TSE_ID) + " for the row's closing " +
                        closing.key.number);
    }
    if (!tse->problem.empty()) return fail(out, RowVerdict::Unverifiable, RowCause::TseUnusable, tse->problem);
    // Without processData the booked amounts stand in for it.
    const std::vector<std::string>* rebuiltData = nullptr;
    if (in.processData.empty() && rebuilt_) {
        const auto found = rebuilt_->find(index);
        if (found != rebuilt_->end()) rebuiltData = &found->second;
    }
    if (in.processData.empty() && !rebuiltData) {
        return fail(out, RowVerdict::Unverifiable, RowCause::NoProcessData,
                    row.processDataColumn ? "the row holds no processData (TSE_VORGANGSDATEN) to rebuild the signed "
                                            "message from, nor booked amounts to rebuild it from"
                                          : "the table has no processData column (TSE_VORGANGSDATEN) to rebuild the "
                                            "signed message from, nor booked amounts to rebuild it from");
    }
    rebuild(row, in, *tse, out, scratch, otherEncoding, rebuiltData);
}

// r || s of the signature, as a log holds it, whichever way the row wrote it.
std::optional<Bytes> plainSignature(const std::vector<Bytes>& readings, const PublicKey& key)
{
    const size_t half = key.curveInfo().fieldSize;
    for (const Bytes& reading : readings) {
        if (reading.size() == 2 * half) return reading;
    }
    for (const Bytes& reading : readings) {
        if (const std::optional<DecodedSignature> der = DecodedSignature::der(reading)) {
            Bytes plain = der->plainOctets(half);
            if (!plain.empty()) return plain;
        }
    }
    return std::nullopt;
}

// processData as it was before a wrong decoding: a table read as
// Windows-1252 that is UTF-8, or the other way round.
std::string otherEncoding(std::string_view text, CsvEncoding declared)
{
    return declared == CsvEncoding::Windows1252 ? utf8ToWindows1252(text) : windows1252ToUtf8(ByteView(text));
}

// The label is a hint: TSEs labelled utcTime sign with seconds, and some
// labels are misspelt. The others are tried too.
std::vector<ReceiptTimeFormat> formatsToTry(const TseDeclaration& tse)
{
    std::vector<ReceiptTimeFormat> formats = {tse.timeFormat.value_or(ReceiptTimeFormat::UnixTime)};
    for (const ReceiptTimeFormat f :
         {ReceiptTimeFormat::UnixTime, ReceiptTimeFormat::UtcTime, ReceiptTimeFormat::GeneralizedTime}) {
        if (elementFormat(f) != elementFormat(formats.front())) formats.push_back(f);
    }
    return formats;
}

bool RowVerifier::tryForms(Receipt& receipt, const std::vector<std::pair<uint8_t, std::string>>& clients,
                           const TseDeclaration& tse, const IsoTime& end, RowCheck& out, VerifyScratch& scratch)
{
    const std::vector<ReceiptTimeFormat> formats = formatsToTry(tse);
    std::vector<std::pair<int64_t, bool>> moments;  // seconds, read as German time
    if (end.hadZone) moments.emplace_back(end.seconds, false);
    else moments = {{germanLocalToUtc(end.seconds), true}, {end.seconds, false}};
    const KeyVerifier* verifier = verifiers_.find(*tse.key);
    for (const auto& [seconds, local] : moments) {
        for (size_t f = 0; f < formats.size(); ++f) {
            // The likeliest client with every format, the others with the label's.
            for (size_t c = 0; c < (f == 0 ? clients.size() : 1); ++c) {
                receipt.clientId = clients[c].second;
                receipt.logTime.time.seconds = seconds;
                receipt.logTimeFormat = formats[f];
                const ReceiptVerification v = verifyReceipt(receipt, verifier, &scratch);
                const LogJudgement judgement = judgeVerification(tse.algorithm, Verification{v.verdict, v.reason});
                if (judgement.verdict != LogVerdict::Valid) continue;
                out.verdict = RowVerdict::Valid;
                out.setForm(v.form);
                out.clientId = checks_.text(clients[c].second);
                out.clientSource = clients[c].first;
                out.logSeconds = seconds;
                out.localTime = !end.hadZone;
                std::string notes;
                const auto note = [&](const std::string& text) { notes += (notes.empty() ? "" : "; ") + text; };
                if (!end.hadZone)
                    note(std::string("TSE_TA_ENDE has no time zone; it held as ") +
                         (local ? "German local time" : "UTC"));
                if (f != 0) {
                    note("signed in " + std::string(receiptTimeFormatName(formats[f])) + " though tse.csv says " +
                         quoted(tse.timeFormatText));
                }
                if (v.heldKey) note("the key held on " + std::string(v.heldKey->curveInfo().displayName));
                out.reason = checks_.text(notes);
                return true;
            }
        }
    }
    return false;
}

std::vector<std::string> RowVerifier::candidates(const RowInput& in, const TseRow& row, bool otherEncodingToo,
                                                 const std::vector<std::string>* rebuiltData) const
{
    std::vector<std::string> out = rebuiltData ? *rebuiltData : std::vector<std::string>{std::string(in.processData)};
    if (!rebuiltData && !in.other.empty()) out.emplace_back(in.other);
    if (otherEncodingToo) {
        const CsvEncoding declared = books_.files[row.place.file].encoding;
        for (size_t i = 0, n = out.size(); i < n; ++i) out.push_back(otherEncoding(out[i], declared));
    }
    return out;
}

void RowVerifier::rebuild(const TseRow& row, const RowInput& in, const TseDeclaration& tse, RowCheck& out,
                          VerifyScratch& scratch, bool otherEncodingToo, const std::vector<std::string>* rebuiltData)
{
    const std::vector<Bytes> readings = signatureReadings(in.signature);
    if (readings.empty())
        return fail(out, RowVerdict::Invalid, RowCause::BadField, "TSE_TA_SIG is neither base64 nor hexadecimal");
    std::vector<std::pair<uint8_t, std::string>> clients = clientsOf(books_, row, in.bonId);
    const CsvEncoding declared = books_.files[row.place.file].encoding;
    if (otherEncodingToo) {
        for (size_t i = 0, n = clients.size(); i < n; ++i) {
            std::string other = otherEncoding(clients[i].second, declared);
            if (other != clients[i].second) clients.emplace_back(clients[i].first, std::move(other));
        }
    }
    if (clients.empty()) {
        return fail(out, RowVerdict::Invalid, RowCause::BadField,
                    "neither a terminal, the register nor Z_KASSE_ID names the client");
    }
    out.clientId = checks_.text(clients.front().second);
    const IsoTime end = *parseIsoTime(in.end);
    Receipt receipt(ReceiptFields{}, *tse.key, tse.otherKeys);
    receipt.version = "V0";
    receipt.processType = std::string(in.processType);
    receipt.transactionNumber = out.transaction;
    receipt.signatureCounter = out.counter;
    receipt.logTime = ReceiptTime{std::string(in.end), end};
    receipt.startTime = receipt.logTime;
    receipt.algorithm = tse.algorithm;
    receipt.algorithmText = tse.algorithmText;
    receipt.signatureReadings = readings;
    receipt.signatureText = std::string(in.signature);
    for (const std::string& data : candidates(in, row, otherEncodingToo, rebuiltData)) {
        receipt.processData = data;
        if (!tryForms(receipt, clients, tse, end, out, scratch)) continue;
        if (rebuiltData) {
            const std::string notes = checks_.textOf(out.reason);
            out.reason = checks_.text("verified against processData rebuilt from the bookkeeping, " +
                                      quoted(data, 120) + (notes.empty() ? "" : "; " + notes));
        }
        return;
    }
    std::string tried;
    for (const auto& client : clients) tried += (tried.empty() ? "" : ", ") + quoted(client.second);
    if (rebuiltData) {
        return fail(out, RowVerdict::Invalid, RowCause::RebuiltMismatch,
                    "the row carries no processData, and the signature does not hold over processData rebuilt from "
                    "the bookkeeping, " +
                        quoted(rebuiltData->front(), 120) + " (" + std::string(tse.algorithm->name) + " on " +
                        tse.curve + "; tried client ID " + tried +
                        " and every time format): the booked amounts are not the signed ones, or the register wrote "
                        "processData in another form");
    }
    fail(out, RowVerdict::Invalid, RowCause::Mismatch,
         "the signature does not hold over the rebuilt Finish log (" + std::string(tse.algorithm->name) + " on " +
             tse.curve + "); tried client ID " + tried + " and every time format");
}

void runRows(const Bookkeeping& books, const VerifyOptions& options, RowChecks& checks,
             const std::vector<size_t>& indices, bool otherEncodingToo)
{
    KeyVerifierSet verifiers;
    for (const size_t i : indices) {
        const TseDeclaration* tse = books.tseOf(books.rows[i].closing, books.rowField(books.rows[i], ROW_TSE_ID));
        if (tse && tse->key && tse->problem.empty()) verifiers.count(*tse->key);
    }
    verifiers.build(options.jobs);
    RowVerifier verifier(books, checks, verifiers, options.rebuilt);
    std::atomic<uint64_t> done{0};
    parallelFor((indices.size() + CHUNK - 1) / CHUNK, options.jobs, [&](size_t chunk) {
        if (options.cancel && options.cancel->load()) return;
        VerifyScratch scratch;
        const size_t end = std::min(indices.size(), (chunk + 1) * CHUNK);
        for (size_t k = chunk * CHUNK; k < end; ++k) {
            checks.rows[indices[k]] = RowCheck();
            verifier.verify(indices[k], scratch, otherEncodingToo);
        }
        const uint64_t now = done += end - chunk * CHUNK;
        if (options.progress) options.progress(now, indices.size());
    });
}

}  // namespace

std::optional<ReceiptForm> RowCheck::form() const
{
    if (!hasForm) return std::nullopt;
    ReceiptForm f;
    f.shape.version = formVersion;
    f.shape.indefiniteProcessData = formIndefinite;
    f.time = static_cast<TimeEncoding>(formTime);
    f.signature = static_cast<SignatureEncoding>(formSignature);
    return f;
}

void RowCheck::setForm(const ReceiptForm& f)
{
    hasForm = true;
    formVersion = static_cast<uint8_t>(f.shape.version);
    formIndefinite = f.shape.indefiniteProcessData;
    formTime = static_cast<uint8_t>(f.time);
    formSignature = static_cast<uint8_t>(f.signature);
}

std::optional<MatchState> RowCheck::matchState() const
{
    if (match == 0) return std::nullopt;
    return static_cast<MatchState>(match - 1);
}

std::vector<std::string> differenceNames(uint8_t differences)
{
    static const std::pair<uint8_t, const char*> NAMES[] = {
        {DIFFERS_COUNTER, "signatureCounter"}, {DIFFERS_PROCESS_TYPE, "processType"},
        {DIFFERS_PROCESS_DATA, "processData"}, {DIFFERS_LOG_TIME, "logTime"},
        {DIFFERS_START_TIME, "startTime"},     {DIFFERS_SIGNATURE, "signature"}};
    std::vector<std::string> out;
    for (const auto& [bit, name] : NAMES) {
        if (differences & bit) out.emplace_back(name);
    }
    return out;
}

std::string_view clientSourceName(uint8_t source)
{
    return source < std::size(CLIENT_SOURCES) ? CLIENT_SOURCES[source] : std::string_view();
}

void judgeDeclarations(Bookkeeping& books, RaisedFindings& findings)
{
    for (TseDeclaration& d : books.tses) {
        decodeKey(d);
        if (!d.problem.empty())
            findings.raise(FindingCode::CertificateMismatch, "tse.csv: TSE " + d.declaredSerial + ": " + d.problem);
        d.algorithm = algorithmByName(d.algorithmText);
        if (d.algorithm == nullptr) {
            d.problem = "TSE_SIG_ALGO " + quoted(d.algorithmText) + " is no known signature algorithm";
        } else if (!d.algorithm->supported) {
            d.problem = "TSE_SIG_ALGO " + quoted(d.algorithmText) + " is recognised but not verified by this tool";
        }
        d.timeFormat = receiptTimeFormatByName(d.timeFormatText);
        if (!d.key) continue;
        const std::optional<Bytes> declared = declaredSerial(d.declaredSerial);
        if (!declared || *declared != d.key->serialNumber()) {
            findings.raise(FindingCode::SerialMismatch, "tse.csv: TSE_SERIAL " + quoted(d.declaredSerial, 70) +
                                                            " is not the SHA-256 of TSE_PUBLIC_KEY, " + d.serialNumber +
                                                            "; the key's serial number is used");
        }
        judgeCertificate(d, findings);
    }
}

void verifyRows(const Bookkeeping& books, const VerifyOptions& options, RowChecks& checks)
{
    checks.rows.assign(books.rows.size(), RowCheck());
    std::vector<size_t> all(books.rows.size());
    for (size_t i = 0; i < all.size(); ++i) all[i] = i;
    runRows(books, options, checks, all, false);
}

void checkEncodings(const Bookkeeping& books, const VerifyOptions& options, RowChecks& checks, RaisedFindings& findings)
{
    for (size_t file = 0; file < books.files.size(); ++file) {
        std::vector<size_t> failed;
        bool anyValid = false;
        for (size_t i = 0; i < books.rows.size(); ++i) {
            if (books.rows[i].place.file != file) continue;
            anyValid |= checks.rows[i].verdict == RowVerdict::Valid;
            if (checks.rows[i].cause == RowCause::Mismatch) failed.push_back(i);
        }
        if (anyValid || failed.empty()) continue;
        // A sample first: a table that is simply forged must not cost the
        // whole search twice.
        RowChecks sample;
        sample.rows = checks.rows;
        const std::vector<size_t> few(failed.begin(),
                                      failed.begin() + static_cast<long>(std::min<size_t>(failed.size(), 8)));
        runRows(books, options, sample, few, true);
        const bool held =
            std::any_of(few.begin(), few.end(), [&](size_t i) { return sample.rows[i].verdict == RowVerdict::Valid; });
        if (!held) continue;
        runRows(books, options, checks, failed, true);
        const bool ansi = books.files[file].encoding == CsvEncoding::Windows1252;
        findings.raise(FindingCode::EncodingMismatch,
                       books.files[file].label + ": index.xml declares " + (ansi ? "ANSI (Windows-1252)" : "UTF-8") +
                           ", but the rows' signatures hold only over their texts read as " +
                           (ansi ? "UTF-8" : "ANSI (Windows-1252)"));
    }
}

}  // namespace tse
