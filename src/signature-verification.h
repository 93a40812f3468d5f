#ifndef SIGNATURE_VERIFICATION_H
#define SIGNATURE_VERIFICATION_H

#include <cstdint>
#include <string>
#include <vector>

// Options as read from the command line; the two paths point into the
// argument vector itself.
extern const char* certPath;
extern const char* logPath;
extern std::string qrString;

void PrintVersion();
void PrintUsage(const char* programName);
bool GetOptions(int argc, char* argv[]);

// Cuts an exported log message (as read from logFile) into signed data and
// signature and verifies it with the certificate; the result is the exit
// status of the log file mode.
int verifyExportedLog(const std::vector<uint8_t>& contents, const char* logFile,
                      const char* certificateFile);
// The same with a certificate file that the caller has open already.
int verifyExportedLog(const std::vector<uint8_t>& contents, const char* logFile,
                      int certificateFd, const char* certificateFile);

#ifdef SIGNATURE_VERIFICATION_NO_MAIN
int signatureVerificationMain(int argc, char* argv[]);
#endif

#endif
