#include "dsfinvk_findings.h"

#include <algorithm>

namespace tse {

std::string rowValue(size_t field)
{
    return {ROW_VALUE, static_cast<char>('0' + field)};
}

std::string receiptValue(size_t field)
{
    return {RECEIPT_VALUE, static_cast<char>('0' + field)};
}

void RaisedFindings::raise(FindingCode code, FindingSubject subject, size_t index, std::string_view words)
{
    ExclusiveLock<Mutex> hold(lock_);
    raised_.push_back(RaisedFinding{code, subject, 0, static_cast<uint32_t>(index), texts_.add(words)});
}

void RaisedFindings::raise(FindingCode code, RowPlace place, std::string_view words)
{
    ExclusiveLock<Mutex> hold(lock_);
    raised_.push_back(RaisedFinding{code, FindingSubject::Place, place.file, place.line, texts_.add(words)});
}

std::vector<RaisedFinding> RaisedFindings::sorted() const
{
    std::vector<RaisedFinding> out;
    {
        ExclusiveLock<Mutex> hold(lock_);
        out = raised_;
    }
    std::stable_sort(out.begin(), out.end(), [](const RaisedFinding& a, const RaisedFinding& b) {
        const Severity sa = findingSeverity(a.code), sb = findingSeverity(b.code);
        if (sa != sb) return sa < sb;
        return a.code < b.code;
    });
    return out;
}

std::string_view RaisedFindings::words(const RaisedFinding& finding) const
{
    ExclusiveLock<Mutex> hold(lock_);
    return texts_[finding.words];
}

size_t RaisedFindings::count(FindingCode code) const
{
    ExclusiveLock<Mutex> hold(lock_);
    return static_cast<size_t>(
        std::count_if(raised_.begin(), raised_.end(), [&](const RaisedFinding& f) { return f.code == code; }));
}

}  // namespace tse
