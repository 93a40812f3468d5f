#ifndef TSE_CORE_OPENSSL_PTR_H
#define TSE_CORE_OPENSSL_PTR_H

#include <memory>
#include <new>
#include <string>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/ecdsa.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

namespace tse {

// After a libcrypto call failed: when it failed for want of memory, that
// says nothing about the input, so it must not become a verdict on it.
inline void throwIfOutOfMemory()
{
    for (unsigned long code = ERR_peek_error(); code != 0; code = ERR_peek_error()) {
        ERR_get_error();
        if (ERR_GET_REASON(code) == ERR_GET_REASON(ERR_R_MALLOC_FAILURE)) {
            ERR_clear_error();
            throw std::bad_alloc();
        }
    }
}

// Owners of libcrypto objects, so that every way out of a function releases
// what it made.
template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
    void operator()(T* p) const { Free(p); }
};
template <typename T, void (*Free)(T*)>
using OpenSslPtr = std::unique_ptr<T, OpenSslDeleter<T, Free>>;

inline void freeBio(BIO* p)
{
    BIO_free(p);
}

using BioPtr = OpenSslPtr<BIO, freeBio>;
using BignumPtr = OpenSslPtr<BIGNUM, BN_free>;
using EcdsaSigPtr = OpenSslPtr<ECDSA_SIG, ECDSA_SIG_free>;
using EcGroupPtr = OpenSslPtr<EC_GROUP, EC_GROUP_free>;
using EcPointPtr = OpenSslPtr<EC_POINT, EC_POINT_free>;
using EvpMdCtxPtr = OpenSslPtr<EVP_MD_CTX, EVP_MD_CTX_free>;
using EvpPkeyPtr = OpenSslPtr<EVP_PKEY, EVP_PKEY_free>;
using EvpPkeyCtxPtr = OpenSslPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using X509Ptr = OpenSslPtr<X509, X509_free>;
using X509StorePtr = OpenSslPtr<X509_STORE, X509_STORE_free>;
using X509StoreCtxPtr = OpenSslPtr<X509_STORE_CTX, X509_STORE_CTX_free>;

// What a writer puts into a memory BIO, such as a PEM text; empty when the
// writer fails.
template <typename Write>
std::string writtenText(Write write)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || write(bio.get()) != 1) return {};
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

}  // namespace tse

#endif
