#include "tse_check_support.h"

#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <system_error>

#include <openssl/obj_mac.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/sha.h>

#include "myutils.h"

namespace tsecheck {
namespace {

// Far above any log message (its outer length has at most two octets) or
// certificate, low enough that a wrong path such as a disk image is refused
// instead of read into memory.
constexpr std::uintmax_t MAX_INPUT_SIZE = 1 << 20;

void requireReadableFile(const std::string& path, const std::string& what)
{
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found) {
        refuse(EXIT_BAD_INPUT, what + " " + path + " does not exist");
    }
    if (error) {
        refuse(EXIT_BAD_INPUT, what + " " + path + " cannot be opened: " + error.message());
    }
    if (std::filesystem::is_directory(status)) {
        refuse(EXIT_BAD_INPUT, what + " " + path + " is a directory");
    }
}

}  // namespace

void refuse(int status, const std::string& reason)
{
    throw Refusal{status, "[ERROR] " + reason};
}

QuietLibrary::QuietLibrary()
{
    setConsoleOutput(false);
}

QuietLibrary::~QuietLibrary()
{
    clearErrorMsg(ERROR_ALL);
    setConsoleOutput(true);
}

Bytes readInputFile(const std::string& path, const std::string& what)
{
    requireReadableFile(path, what);
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        refuse(EXIT_BAD_INPUT, what + " " + path + " cannot be opened");
    }
    Bytes contents;
    char chunk[4096];
    // Read in chunks rather than by file size, so that pipes and device
    // files are bounded too.
    while (file.read(chunk, sizeof(chunk)) || file.gcount() > 0) {
        contents.insert(contents.end(), chunk, chunk + file.gcount());
        if (contents.size() > MAX_INPUT_SIZE) {
            refuse(EXIT_BAD_INPUT, what + " " + path + " is larger than " + std::to_string(MAX_INPUT_SIZE) + " bytes");
        }
    }
    if (file.bad()) {
        refuse(EXIT_BAD_INPUT, what + " " + path + " cannot be read");
    }
    return contents;
}

Bytes certificatePublicKey(const std::string& path)
{
    const Bytes pem = readInputFile(path, "Certificate");
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    X509Ptr certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!certificate) {
        refuse(EXIT_BAD_INPUT, "Certificate " + path + " holds no PEM certificate");
    }
    EvpPkeyPtr publicKey(X509_get_pubkey(certificate.get()));
    EcKeyPtr key(publicKey ? EVP_PKEY_get1_EC_KEY(publicKey.get()) : nullptr);
    if (!key) {
        refuse(EXIT_BAD_INPUT, "The key of certificate " + path + " is not an EC key");
    }
    const EC_GROUP* group = EC_KEY_get0_group(key.get());
    const int curve = group ? EC_GROUP_get_curve_name(group) : NID_undef;
    if (curve != NID_brainpoolP384r1) {
        const char* name = curve != NID_undef ? OBJ_nid2sn(curve) : "an unnamed curve";
        refuse(EXIT_BAD_INPUT, "The key of certificate " + path + " lies on " + name + ", not on brainpoolP384r1");
    }
    const EC_POINT* point = EC_KEY_get0_public_key(key.get());
    Bytes octets(EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, nullptr, 0, nullptr));
    if (octets.empty() ||
        EC_POINT_point2oct(group, point, POINT_CONVERSION_UNCOMPRESSED, octets.data(), octets.size(), nullptr) !=
            octets.size()) {
        refuse(EXIT_BAD_INPUT, "The public key of certificate " + path + " cannot be encoded");
    }
    return octets;
}

std::string toBase64(const Bytes& data)
{
    std::string text(4 * ((data.size() + 2) / 3) + 1, '\0');
    const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), data.data(),
                                     static_cast<int>(data.size()));
    text.resize(static_cast<size_t>(size));
    return text;
}

std::string toUpperHex(const Bytes& data)
{
    std::ostringstream text;
    text << std::hex << std::uppercase << std::setfill('0');
    for (uint8_t octet : data) {
        text << std::setw(2) << static_cast<int>(octet);
    }
    return text.str();
}

Bytes sha256(const Bytes& data)
{
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(data.data(), data.size(), digest.data());
    return digest;
}

}  // namespace tsecheck
