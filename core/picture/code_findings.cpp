#include "code_findings.h"

#include <algorithm>
#include <cmath>

namespace tse {

PicturePoint centre(const std::array<PicturePoint, 4>& corners)
{
    PicturePoint c;
    for (const PicturePoint& p : corners) {
        c.x += p.x / 4;
        c.y += p.y / 4;
    }
    return c;
}

void CodeFindings::add(const Reading& reading)
{
    for (const ReadCode& code : reading.codes) {
        auto known =
            std::find_if(found_.begin(), found_.end(), [&](const Found& seen) { return seen.code.text == code.text; });
        if (known == found_.end()) {
            found_.push_back({code, 1});
        } else {
            ++known->reads;
        }
    }
    unreadable_.insert(unreadable_.end(), reading.unreadable.begin(), reading.unreadable.end());
}

bool CodeFindings::complete() const
{
    return !found_.empty() &&
           std::none_of(unreadable_.begin(), unreadable_.end(), [&](PicturePoint p) { return !nearFound(p); }) &&
           std::all_of(found_.begin(), found_.end(), [](const Found& f) { return f.reads >= 2; });
}

std::vector<ReadCode> CodeFindings::codes() const
{
    std::vector<ReadCode> out;
    for (const Found& f : found_) {
        out.push_back(f.code);
    }
    std::stable_sort(out.begin(), out.end(), [](const ReadCode& a, const ReadCode& b) {
        const PicturePoint ca = centre(a.corners);
        const PicturePoint cb = centre(b.corners);
        return ca.y != cb.y ? ca.y < cb.y : ca.x < cb.x;
    });
    return out;
}

// Within half the code's diagonal of its centre: the located code is one
// already read.
bool CodeFindings::nearFound(PicturePoint point) const
{
    return std::any_of(found_.begin(), found_.end(), [&](const Found& f) {
        const PicturePoint c = centre(f.code.corners);
        const double size =
            std::hypot(f.code.corners[0].x - f.code.corners[2].x, f.code.corners[0].y - f.code.corners[2].y);
        return std::hypot(point.x - c.x, point.y - c.y) < size / 2;
    });
}

}  // namespace tse
