#include "tse_check_support.h"

#include "file_reader.h"

namespace tsecheck {

void refuse(int status, const std::string& reason)
{
    throw Refusal{status, "[ERROR] " + reason};
}

Bytes readInputFile(const std::string& path, const std::string& what, size_t maxSize)
{
    tse::FileRead read = tse::readFileBounded(path, maxSize);
    if (!read.contents) {
        refuse(EXIT_BAD_INPUT, what + " " + path + " " + read.error);
    }
    return std::move(*read.contents);
}

tse::LogMessage readLogFile(const std::string& path)
{
    const Bytes data = readInputFile(path, "Log file", MAX_LOG_SIZE);
    tse::LogParse parse = tse::parseLogMessage(data);
    if (!parse.message) {
        refuse(EXIT_BAD_INPUT, "Log file " + path + " cannot be read as a log message: " + parse.error +
                                   " (at byte " + std::to_string(parse.errorOffset) + ")");
    }
    return std::move(*parse.message);
}

std::vector<tse::Certificate> readCertificateFile(const std::string& path)
{
    const Bytes data = readInputFile(path, "Certificate", MAX_CERTIFICATE_SIZE);
    tse::CertificateLoad load = tse::loadCertificates(data);
    if (load.certificates.empty()) {
        refuse(EXIT_BAD_INPUT, "Certificate " + path + " holds no certificate: " + load.error);
    }
    return std::move(load.certificates);
}

}  // namespace tsecheck
