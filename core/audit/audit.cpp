#include "audit.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <string_view>

#include "audit_rules.h"
#include "certificate_intake.h"
#include "copy_detection.h"
#include "export_names.h"
#include "export_reader.h"
#include "text.h"
#include "verification_pipeline.h"

namespace tse {
namespace {

void escapeInfo(InfoCsv& info)
{
    for (InfoRecord& record : info.records) {
        for (auto& [key, value] : record) key = escapeText(key), value = escapeText(value);
    }
}

// One audit: this thread reads the exports, hands each log to the
// verification pipeline and each certificate to the intake, and puts the
// report together once every log is judged.
class AuditRun {
public:
    explicit AuditRun(const AuditOptions& options)
        : options_(options), pipeline_(options),
          intake_(report_, seen_, [this](const PublicKey& key) { pipeline_.addKey(key); })
    {
        report_.exports = options.exports;
    }

    Result<AuditReport> run();

private:
    Result<uint64_t> readExports(const Result<std::vector<ExportSource>>& grouping);
    Result<ExportRead> readSource(const ExportSource& source, size_t index);
    void visit(ExportMember&& member);
    void visitLog(ExportMember&& member);
    void visitInfo(const ExportMember& member, const std::string& shown);
    void addFinding(FindingCode code, const std::string& message, std::vector<std::string> files,
                    std::string source = {});
    void finish(const std::vector<ExportSource>& sources);
    void exportFindings();
    void summarize();
    bool cancelled() const { return options_.cancel && options_.cancel->load(); }

    const AuditOptions& options_;
    AuditReport report_;
    MemberDigests seen_;
    VerificationPipeline pipeline_;
    CertificateIntake intake_;

    // Where the reading stands. In the final pass only the logs noted by the
    // pipeline are read again; the rest was read in the first.
    bool finalPass_ = false;
    uint64_t ordinal_ = 0;
    size_t current_ = 0;              // the index in report_.audited being read
    std::deque<std::string> labels_;  // the exports' paths as shown; a deque keeps views valid
    std::string_view currentLabel_;   // its path, in labels_
    uint64_t bytesBefore_ = 0, bytesTotal_ = 0;
};

void AuditRun::addFinding(FindingCode code, const std::string& message, std::vector<std::string> files,
                          std::string source)
{
    report_.findings.push_back(Finding{findingSeverity(code), code, message, std::move(files), std::move(source)});
}

Result<AuditReport> AuditRun::run()
{
    const Result<size_t> given = intake_.loadGiven(options_.certificateFiles, options_.trustDirectories);
    if (!given) return given.error();
    const Result<std::vector<ExportSource>> grouping = groupExportPaths(options_.exports);
    const std::vector<ExportSource> sources = grouping.value_or({});
    intake_.loadBesideLogs(sources, options_.exports);
    if (const Result<uint64_t> read = readExports(grouping); !read) return read.error();
    // Every certificate is known now, so nothing waits any longer.
    finalPass_ = true;
    pipeline_.verifyHeld();
    if (pipeline_.rereadWanted()) {
        if (const Result<uint64_t> read = readExports(grouping); !read) return read.error();
    }
    if (cancelled()) return Error{AUDIT_CANCELLED};
    report_.logs = pipeline_.takeLogs();
    finish(sources);
    // Nothing to audit is no passed audit; a cut archive with nothing left
    // in it still gets its report, which says where it was cut.
    const bool truncated = std::any_of(report_.findings.begin(), report_.findings.end(),
                                       [](const Finding& f) { return f.code == FindingCode::ExportTruncated; });
    if (report_.logs.empty() && !truncated) {
        std::string names;
        for (const std::string& path : options_.exports) names += (names.empty() ? "" : ", ") + escapeText(path);
        return Error{"no log messages found in " + names};
    }
    return std::move(report_);
}

// One pass over every export: this thread reads, the pipeline's threads
// parse and verify what it hands over. The members read, or why an export
// cannot be.
Result<uint64_t> AuditRun::readExports(const Result<std::vector<ExportSource>>& grouping)
{
    ordinal_ = 0;
    if (const Result<unsigned> started = pipeline_.startPass(); !started) return started.error();
    std::optional<Error> failure;
    if (!grouping) failure = grouping.error();
    const std::vector<ExportSource> sources = grouping.value_or({});
    bytesTotal_ = 0;
    for (const ExportSource& source : sources) bytesTotal_ += sourceSize(source);
    bytesBefore_ = 0;
    if (!finalPass_) report_.audited.clear();
    for (size_t index = 0; index < sources.size() && !failure; ++index) {
        const Result<ExportRead> read = readSource(sources[index], index);
        if (!read) failure = read.error();
        else if (read->truncation && !finalPass_) {
            const std::string label(currentLabel_);
            addFinding(FindingCode::ExportTruncated, escapeUnsafe(*read->truncation), {label}, label);
        }
    }
    pipeline_.endPass();
    if (failure) return *failure;
    return ordinal_;
}

Result<ExportRead> AuditRun::readSource(const ExportSource& source, size_t index)
{
    if (!finalPass_) {
        report_.audited.push_back(
            AuditedExport{source.label(), source.kind == ExportSource::Kind::File, 0, std::nullopt, {}});
    }
    current_ = index;
    currentLabel_ = labels_.emplace_back(escapeText(source.label()));
    // A cancelled audit stops reading at the next member; the pipeline still
    // finishes what was handed over before, so that its threads end in order.
    struct Stop {};
    std::optional<Result<ExportRead>> read;
    try {
        read.emplace(readExportSource(
            source, options_.maxMemberSize,
            [&](ExportMember&& member) {
                if (cancelled()) throw Stop{};
                visit(std::move(member));
            },
            [&](uint64_t bytes) {
                if (options_.progress) {
                    options_.progress(AuditProgress{pipeline_.logsDone(), bytesBefore_ + bytes, bytesTotal_});
                }
            }));
    } catch (const Stop&) {
        read.emplace(Error{AUDIT_CANCELLED});
    }
    bytesBefore_ += sourceSize(source);
    return std::move(*read);
}

void AuditRun::visit(ExportMember&& member)
{
    ++ordinal_;
    if (finalPass_) {
        if (member.contents && pipeline_.rereads(ordinal_)) {
            pipeline_.submit(LogItem{ordinal_, std::move(member.name), std::move(member.contents).value(),
                                     member.standalone, currentLabel_});
        }
        return;
    }
    // A path the user gave is used as given; only names from inside an
    // export could lead somewhere they should not.
    const bool unsafe = !member.standalone && unsafeMemberName(member.name);
    const MemberKind kind = classifyMember(member.name);
    if (kind == MemberKind::Log && !unsafe) return visitLog(std::move(member));
    const std::string shown = escapeText(member.name);
    const std::string source(currentLabel_);
    if (unsafe) {
        return addFinding(FindingCode::UnexpectedMember,
                          "the member name " + shown + " in " + source + " leads outside the export; it was not used",
                          {shown}, source);
    }
    if (!member.contents) {
        return addFinding(FindingCode::UnexpectedMember, shown + " " + member.contents.error().message, {shown},
                          source);
    }
    if (kind == MemberKind::Info) return visitInfo(member, shown);
    if (!seen_.firstSighting(*member.contents)) return;
    if (kind == MemberKind::Certificate) return intake_.addMember(member.name, *member.contents);
    addFinding(FindingCode::UnexpectedMember, shown + " is neither a log, a certificate nor info.csv", {shown}, source);
}

void AuditRun::visitLog(ExportMember&& member)
{
    ++report_.audited[current_].logMembers;
    if (!member.contents) {
        LogRecord record;
        record.file = escapeText(member.name);
        record.source = currentLabel_;
        record.ordinal = ordinal_;
        // A link, device or FIFO with a log's name is no log: its name
        // claims a counter that nothing backs, so it fills no counter range.
        if (const auto name = parseLogName(member.name)) {
            record.type = name->type;
            if (!member.special) record.counter = name->counter;
        }
        record.reason = "the member " + member.contents.error().message;
        return pipeline_.keepUnread(std::move(record));
    }
    pipeline_.submit(LogItem{ordinal_, std::move(member.name), std::move(member.contents).value(), member.standalone,
                             currentLabel_});
}

// Every export shows its own info.csv, even one identical to another's.
void AuditRun::visitInfo(const ExportMember& member, const std::string& shown)
{
    AuditedExport& audited = report_.audited[current_];
    Result<InfoCsv> parse = parseInfoCsv(*member.contents);
    if (parse) {
        InfoCsv info = std::move(parse).value();
        escapeInfo(info);
        if (!report_.info) report_.info = info;
        if (!audited.info) audited.info = std::move(info);
    } else {
        audited.infoProblem = shown + ": " + escapeUnsafe(parse.error().message);
        if (report_.infoProblem.empty()) report_.infoProblem = audited.infoProblem;
    }
}

void AuditRun::finish(const std::vector<ExportSource>& sources)
{
    report_.logs.sortByOrdinal();
    report_.summary.duplicatesSkipped += dropCopiedLogs(report_.logs, sources, options_.maxMemberSize);
    intake_.judgeChains();
    applyIntegrityRules(report_, !options_.trustDirectories.empty());
    exportFindings();
    summarize();
}

// Findings about an export as a whole: one whose logs come without the
// info.csv that describes the device. Log files given by themselves carry none.
void AuditRun::exportFindings()
{
    for (const AuditedExport& audited : report_.audited) {
        if (audited.standalone || audited.logMembers == 0 || audited.info || !audited.infoProblem.empty()) continue;
        const std::string label = escapeText(audited.path);
        addFinding(FindingCode::InfoMissing,
                   label + " holds " + counted(audited.logMembers, "log member", "log members") + " but no info.csv",
                   {label}, label);
    }
}

void AuditRun::summarize()
{
    AuditSummary& s = report_.summary;
    for (size_t i = 0; i < report_.logs.size(); ++i) {
        const LogTable::Row& row = report_.logs.row(i);
        const auto verdict = static_cast<LogVerdict>(row.verdict);
        ++s.logs;
        s.valid += verdict == LogVerdict::Valid;
        s.invalid += verdict == LogVerdict::Invalid;
        s.noCertificate += verdict == LogVerdict::NoCertificate;
        s.unreadable += verdict == LogVerdict::Unreadable;
        s.transaction += row.type == static_cast<uint8_t>(LogType::Transaction);
        s.system += row.type == static_cast<uint8_t>(LogType::System);
        s.audit += row.type == static_cast<uint8_t>(LogType::Audit);
    }
    for (Finding& finding : report_.findings) {
        if (options_.strict) finding.severity = Severity::Error;
        (finding.severity == Severity::Error ? s.errors : s.warnings) += 1;
    }
}

}  // namespace

Result<AuditReport> auditExport(const AuditOptions& options)
{
    AuditRun run(options);
    return run.run();
}

}  // namespace tse
