#ifndef TSE_CORE_CERTIFICATE_H
#define TSE_CORE_CERTIFICATE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <openssl/x509.h>

#include "bytes.h"
#include "public_key.h"
#include "result.h"

namespace tse {

// An X.509 certificate and what a TSE check needs of it. Copies share the
// libcrypto object.
class Certificate {
public:
    explicit Certificate(X509* owned);

    X509* x509() const { return x509_.get(); }
    std::string subject() const;
    std::string issuer() const;
    // Validity in seconds since the epoch; nullopt where the time is unreadable.
    std::optional<int64_t> notBefore() const;
    std::optional<int64_t> notAfter() const;
    bool selfIssued() const;
    // The key when it is an EC key on a supported curve; otherwise the
    // error says why not.
    const Result<PublicKey>& key() const { return key_; }
    // The curve's name as OpenSSL knows it even when unsupported ("" if none).
    std::string curveName() const;
    Bytes der() const;

private:
    std::shared_ptr<X509> x509_;
    Result<PublicKey> key_;
};

// Every certificate in the data: all PEM blocks of a (multi-certificate) PEM
// text, or one DER certificate, whatever the file's name suggests; an error
// when there is none, never an empty list.
Result<std::vector<Certificate>> loadCertificates(ByteView data);

}  // namespace tse

#endif
