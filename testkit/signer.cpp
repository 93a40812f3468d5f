#include "signer.h"

#include <stdexcept>

#include <openssl/err.h>
#include <openssl/pem.h>

#include "log_time.h"
#include "openssl_ptr.h"

namespace tse {
namespace {

void require(bool condition, const char* what)
{
    if (!condition) {
        ERR_clear_error();
        throw std::runtime_error(std::string("signer: ") + what);
    }
}

Bytes digestOf(Hash hash, ByteView data)
{
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    require(EVP_Digest(data.data(), data.size(), out.data(), &size, hashFunction(hash), nullptr) == 1, "digest");
    out.resize(size);
    return out;
}

template <typename Write>
std::string pemText(Write write)
{
    std::string text = tse::writtenText(write);
    require(!text.empty(), "write PEM");
    return text;
}

EC_KEY* freshKey(Curve curve)
{
    EC_KEY* key = EC_KEY_new_by_curve_name(curveInfo(curve).nid);
    require(key != nullptr, "new key");
    if (EC_KEY_generate_key(key) != 1) {
        EC_KEY_free(key);
        require(false, "generate key");
    }
    return key;
}

PublicKey publicKeyOf(EC_KEY* key)
{
    EvpPkeyPtr evp(EVP_PKEY_new());
    require(evp && EVP_PKEY_set1_EC_KEY(evp.get(), key) == 1, "wrap key");
    Result<PublicKey> publicKey = PublicKey::fromEvp(evp.get());
    require(publicKey.has_value(), "key on an unsupported curve");
    return *publicKey;
}

}  // namespace

Signer::Signer(Curve curve) : Signer(freshKey(curve)) {}

Signer::Signer(EC_KEY* key) : key_(key, EC_KEY_free), publicKey_(publicKeyOf(key)) {}

Signer Signer::fromPem(const std::string& pem)
{
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    EvpPkeyPtr evp(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    EC_KEY* key = evp ? EVP_PKEY_get1_EC_KEY(evp.get()) : nullptr;
    require(key != nullptr, "no EC private key in the PEM text");
    return Signer(key);
}

Bytes Signer::signDer(Hash hash, ByteView data) const
{
    const Bytes hashed = digestOf(hash, data);
    EcdsaSigPtr signature(ECDSA_do_sign(hashed.data(), static_cast<int>(hashed.size()), key_.get()));
    require(signature != nullptr, "sign");
    unsigned char* der = nullptr;
    const int size = i2d_ECDSA_SIG(signature.get(), &der);
    require(size > 0, "encode signature");
    Bytes out(der, der + size);
    OPENSSL_free(der);
    return out;
}

Bytes Signer::signPlain(Hash hash, ByteView data) const
{
    return signDigestPlain(digestOf(hash, data));
}

Bytes Signer::signDigestPlain(ByteView hashed) const
{
    EcdsaSigPtr signature(ECDSA_do_sign(hashed.data(), static_cast<int>(hashed.size()), key_.get()));
    require(signature != nullptr, "sign");
    const size_t half = publicKey_.curveInfo().fieldSize;
    Bytes out(2 * half);
    require(BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), out.data(), static_cast<int>(half)) > 0 &&
                BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), out.data() + half, static_cast<int>(half)) > 0,
            "pad signature");
    return out;
}

Bytes Signer::privateScalar() const
{
    const BIGNUM* scalar = EC_KEY_get0_private_key(key_.get());
    const size_t size = publicKey_.curveInfo().fieldSize;
    Bytes out(size);
    require(scalar != nullptr && BN_bn2binpad(scalar, out.data(), static_cast<int>(size)) > 0, "private scalar");
    return out;
}

std::string Signer::privateKeyPem() const
{
    return pemText(
        [&](BIO* bio) { return PEM_write_bio_ECPrivateKey(bio, key_.get(), nullptr, nullptr, 0, nullptr, nullptr); });
}

std::string Signer::selfSignedCertificatePem(const std::string& commonName, int64_t notBefore, int days) const
{
    return issuedCertificatePem(commonName, *this, commonName, notBefore, days);
}

std::string Signer::issuedCertificatePem(const std::string& commonName, const Signer& issuer,
                                         const std::string& issuerName, int64_t notBefore, int days) const
{
    X509Ptr cert(X509_new());
    EvpPkeyPtr evp(EVP_PKEY_new()), issuerKey(EVP_PKEY_new());
    require(cert && evp && issuerKey && EVP_PKEY_set1_EC_KEY(evp.get(), key_.get()) == 1 &&
                EVP_PKEY_set1_EC_KEY(issuerKey.get(), issuer.key_.get()) == 1,
            "new certificate");
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    require(ASN1_TIME_set(X509_getm_notBefore(cert.get()), static_cast<time_t>(notBefore)) != nullptr &&
                ASN1_TIME_set(X509_getm_notAfter(cert.get()), static_cast<time_t>(notBefore + 86400LL * days)) !=
                    nullptr,
            "validity");
    const auto addCommonName = [](X509_NAME* name, const std::string& text) {
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(text.c_str()), -1,
                                   -1, 0);
    };
    addCommonName(X509_get_subject_name(cert.get()), commonName);
    addCommonName(X509_get_issuer_name(cert.get()), issuerName);
    require(X509_set_pubkey(cert.get(), evp.get()) == 1 && X509_sign(cert.get(), issuerKey.get(), EVP_sha384()) > 0,
            "sign certificate");
    return pemText([&](BIO* bio) { return PEM_write_bio_X509(bio, cert.get()); });
}

std::string signedReceiptText(const Signer& signer, Hash hash, const TransactionData& transaction,
                              uint64_t signatureCounter, int64_t startTime, int64_t logTime)
{
    LogContent content;
    content.certifiedData = encodeTransactionData(transaction);
    content.serialNumber = signer.publicKey().serialNumber();
    content.algorithmOid = std::string(ecdsaPlain(hash).oid);
    content.signatureCounter = signatureCounter;
    content.logTime = encodeLogTime(TimeFormat::UnixTime, logTime);
    const Bytes signature = signer.signPlain(hash, encodeSignedOctets(content));
    return "V0;" + transaction.clientId + ";" + transaction.processType.value_or("") + ";" +
           ByteView(transaction.processData).text() + ";" + std::to_string(transaction.transactionNumber) + ";" +
           std::to_string(signatureCounter) + ";" + isoSeconds(startTime) + ";" + isoSeconds(logTime) + ";" +
           std::string(ecdsaPlain(hash).name) + ";unixTime;" + toBase64(signature) + ";" +
           toBase64(signer.publicKey().point());
}

}  // namespace tse
