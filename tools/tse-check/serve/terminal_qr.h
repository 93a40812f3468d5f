#ifndef TSE_CHECK_SERVE_TERMINAL_QR_H
#define TSE_CHECK_SERVE_TERMINAL_QR_H

#include <string>

namespace tsecheck::serve {

// The text as a QR code drawn with block characters, two rows of modules
// per line, light modules drawn as for a terminal with a dark background
// (as qrencode -t UTF8 does); empty when it cannot be encoded.
std::string terminalQr(const std::string& text);

}  // namespace tsecheck::serve

#endif
