#include "shared/inputs.h"

#include "file_reader.h"

namespace tsecheck {

void refuse(int status, const std::string& reason)
{
    throw Refusal{status, "[ERROR] " + reason};
}

Bytes readInputFile(const std::string& path, const std::string& what, size_t maxSize)
{
    tse::Result<Bytes> read = tse::readFileBounded(path, maxSize);
    if (!read) refuse(EXIT_BAD_INPUT, what + " " + path + " " + read.error().message);
    return std::move(read).value();
}

tse::LogMessage readLogFile(const std::string& path)
{
    const Bytes data = readInputFile(path, "Log file", MAX_LOG_SIZE);
    tse::Result<tse::LogMessage> parse = tse::parseLogMessage(data);
    if (!parse) {
        refuse(EXIT_BAD_INPUT, "Log file " + path + " cannot be read as a log message: " + parse.error().message +
                                   " (at byte " + std::to_string(parse.error().offset.value_or(0)) + ")");
    }
    return std::move(parse).value();
}

std::vector<tse::Certificate> readCertificateFile(const std::string& path)
{
    const Bytes data = readInputFile(path, "Certificate", MAX_CERTIFICATE_SIZE);
    tse::Result<std::vector<tse::Certificate>> load = tse::loadCertificates(data);
    if (!load) refuse(EXIT_BAD_INPUT, "Certificate " + path + " holds no certificate: " + load.error().message);
    return std::move(load).value();
}

}  // namespace tsecheck
