#ifndef TSE_TESTKIT_RECEIPT_PICTURES_H
#define TSE_TESTKIT_RECEIPT_PICTURES_H

// Receipt pictures made at test time: QR codes from libqrencode drawn on a
// paper-like background, then spoilt the way photos of receipts are.

#include <cstdint>
#include <string>
#include <vector>

#include "algorithms.h"

namespace pictures {

using Bytes = std::vector<uint8_t>;

struct Picture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;  // grey, rows top to bottom
};

// A QR code receipt text signed with a fresh key on the curve over the
// finish log the fields describe, with a unixTime log time.
std::string signedReceiptText(tse::Curve curve, tse::Hash hash, uint64_t transactionNumber);

// A receipt on a darker table: printed lines, then the codes one below the
// other, each module modulePixels wide with a quiet zone of four modules.
Picture receipt(const std::vector<std::string>& codeTexts, int modulePixels);
// Printed lines only, no code.
Picture receiptWithoutCode();

// Turned about the centre (anticlockwise in degrees) on a canvas large
// enough for all of it.
Picture rotated(const Picture& picture, double degrees);
// Seen from below: the top edge appears narrower by the given fraction of
// the width.
Picture perspective(const Picture& picture, double narrowing);
Picture blurred(const Picture& picture, double sigma);
Picture noisy(const Picture& picture, double sigma, unsigned seed);
// Darkening from the top left corner (none) to the bottom right (by the
// given fraction).
Picture shaded(const Picture& picture, double strength);
Picture scaled(const Picture& picture, double factor);
// The difference from mid grey reduced to the given fraction: a faded
// print or a dim photo.
Picture faded(const Picture& picture, double contrast);
// Light bleeding into the dark, as in an overexposed photo: each pixel
// the lightest of its 3x3 neighbourhood, so dark modules lose a pixel at
// every edge.
Picture overexposed(const Picture& picture);

// One picture of a graded series: what was done to it, the code text it
// shows and the JPEG a phone would have written.
struct SeriesPicture {
    std::string name;
    std::string text;
    Bytes jpeg;
};

// count receipt photos, the first nearly clean, each further one worse:
// perspective narrowing the far edge by up to a quarter of the width,
// turned by any angle, blur, sensor noise, uneven light, contrast down to
// half and JPEG quality down to 40. The texts are used in turn. The same
// seed gives the same pictures, so that a failure can be reproduced.
std::vector<SeriesPicture> gradedSeries(const std::vector<std::string>& texts, int count, unsigned seed);

Bytes jpeg(const Picture& picture, int quality);
Bytes png(const Picture& picture);
// A PDF with one A4 page for each JPEG picture, shown at the given
// resolution.
Bytes pdfOfJpegs(const std::vector<Picture>& pages, int quality, double pictureDpi);

}  // namespace pictures

#endif
