#include "serve/terminal_qr.h"

#include <qrencode.h>

#include <memory>

namespace tsecheck::serve {

std::string terminalQr(const std::string& text)
{
    std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeString(text.c_str(), 0, QR_ECLEVEL_L, QR_MODE_8, 1), QRcode_free);
    if (!code) return {};
    constexpr int QUIET = 2;
    const int width = code->width, size = width + 2 * QUIET;
    // Light is everything but a dark module, the quiet zone included.
    const auto light = [&](int x, int y) {
        x -= QUIET, y -= QUIET;
        if (x < 0 || y < 0 || x >= width || y >= width) return true;
        return (code->data[y * width + x] & 1) == 0;
    };
    std::string out;
    for (int y = 0; y < size; y += 2) {
        for (int x = 0; x < size; ++x) {
            const bool top = light(x, y), bottom = y + 1 < size ? light(x, y + 1) : true;
            out += top && bottom ? "\xE2\x96\x88" : top ? "\xE2\x96\x80" : bottom ? "\xE2\x96\x84" : " ";
        }
        out += '\n';
    }
    return out;
}

}  // namespace tsecheck::serve
