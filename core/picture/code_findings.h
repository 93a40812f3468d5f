#ifndef TSE_CORE_CODE_FINDINGS_H
#define TSE_CORE_CODE_FINDINGS_H

#include <array>
#include <vector>

#include "qr_reader.h"

namespace tse {

// What one reader found on one preparation of a picture: the codes it
// read, and the centres of those it located but could not decode.
struct Reading {
    std::vector<ReadCode> codes;
    std::vector<PicturePoint> unreadable;
};

PicturePoint centre(const std::array<PicturePoint, 4>& corners);

// What all passes over one picture found together, and whether a further
// pass could still add anything. A code keeps the corners of its first
// reading.
class CodeFindings {
public:
    void add(const Reading& reading);

    // Every code read by two readings (two readers, or one reader on two
    // preparations) and no code located but left unread: further passes
    // are very unlikely to add anything.
    bool complete() const;

    // Top to bottom, then left to right, by their centres.
    std::vector<ReadCode> codes() const;

private:
    struct Found {
        ReadCode code;
        int reads = 0;
    };

    bool nearFound(PicturePoint point) const;

    std::vector<Found> found_;
    std::vector<PicturePoint> unreadable_;
};

}  // namespace tse

#endif
