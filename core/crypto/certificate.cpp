#include "certificate.h"

#include <algorithm>
#include <ctime>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "openssl_ptr.h"

namespace tse {
namespace {

std::string nameText(const X509_NAME* name)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || name == nullptr ||
        X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0) {
        return "";
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : "";
}

std::optional<int64_t> asn1Seconds(const ASN1_TIME* time)
{
    struct tm calendar {};
    if (time == nullptr || ASN1_TIME_to_tm(time, &calendar) != 1) return std::nullopt;
    return static_cast<int64_t>(timegm(&calendar));
}

bool looksLikePem(ByteView data)
{
    const std::string head = data.sub(0, std::min<size_t>(data.size(), 4096)).text();
    return head.find("-----BEGIN") != std::string::npos;
}

Result<PublicKey> keyOf(X509* certificate)
{
    EvpPkeyPtr evp(X509_get_pubkey(certificate));
    ERR_clear_error();  // a key type libcrypto cannot decode leaves a reason behind
    return PublicKey::fromEvp(evp.get());
}

}  // namespace

Certificate::Certificate(X509* owned) : x509_(owned, X509_free), key_(keyOf(owned)) {}

std::string Certificate::subject() const
{
    return nameText(X509_get_subject_name(x509_.get()));
}

std::string Certificate::issuer() const
{
    return nameText(X509_get_issuer_name(x509_.get()));
}

std::optional<int64_t> Certificate::notBefore() const
{
    return asn1Seconds(X509_get0_notBefore(x509_.get()));
}

std::optional<int64_t> Certificate::notAfter() const
{
    return asn1Seconds(X509_get0_notAfter(x509_.get()));
}

bool Certificate::selfIssued() const
{
    return X509_NAME_cmp(X509_get_subject_name(x509_.get()), X509_get_issuer_name(x509_.get())) == 0;
}

std::string Certificate::curveName() const
{
    if (key_) return std::string(key_->curveInfo().displayName);
    EVP_PKEY* evp = X509_get0_pubkey(x509_.get());
    char name[80] = {0};
    size_t length = 0;
    if (evp && EVP_PKEY_get_utf8_string_param(evp, "group", name, sizeof(name), &length) == 1) {
        return std::string(name, length);
    }
    return "";
}

Bytes Certificate::der() const
{
    unsigned char* out = nullptr;
    const int size = i2d_X509(x509_.get(), &out);
    if (size <= 0) return {};
    Bytes der(out, out + size);
    OPENSSL_free(out);
    return der;
}

Result<std::vector<Certificate>> loadCertificates(ByteView data)
{
    if (data.size() > static_cast<size_t>(INT32_MAX)) return Error{"the file is too large for a certificate", {}};
    std::vector<Certificate> certificates;
    if (looksLikePem(data)) {
        BioPtr bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
        while (bio) {
            X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr);
            if (certificate == nullptr) break;
            certificates.emplace_back(certificate);
        }
        ERR_clear_error();
        if (certificates.empty()) return Error{"the PEM text holds no certificate", {}};
        return certificates;
    }
    const unsigned char* cursor = data.data();
    X509* certificate = d2i_X509(nullptr, &cursor, static_cast<long>(data.size()));
    if (certificate == nullptr) {
        ERR_clear_error();
        return Error{"the data is neither a PEM nor a DER certificate", {}};
    }
    certificates.emplace_back(certificate);
    return certificates;
}

}  // namespace tse
