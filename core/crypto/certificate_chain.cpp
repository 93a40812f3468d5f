#include "certificate_chain.h"

#include <openssl/err.h>

namespace tse {
namespace {

constexpr int MAX_CHAIN_LENGTH = 16;

// Whether `issuer`'s key made `certificate`'s signature; works for keys on
// any curve libcrypto knows, so an unusual CA does not break its chain.
bool signedBy(const Certificate& certificate, const Certificate& issuer)
{
    EVP_PKEY* key = X509_get0_pubkey(issuer.x509());
    const bool holds = key != nullptr && X509_verify(certificate.x509(), key) == 1;
    ERR_clear_error();
    return holds;
}

bool sameCertificate(const Certificate& a, const Certificate& b)
{
    return X509_cmp(a.x509(), b.x509()) == 0;
}

}  // namespace

std::string_view chainStatusName(ChainStatus status)
{
    switch (status) {
    case ChainStatus::Trusted: return "trusted";
    case ChainStatus::UntrustedRoot: return "untrusted-root";
    case ChainStatus::Incomplete: return "incomplete";
    case ChainStatus::Invalid: return "invalid";
    }
    return "unknown";
}

void CertificatePool::add(const Certificate& certificate, bool trusted)
{
    std::vector<Certificate>& list = trusted ? trusted_ : others_;
    for (const Certificate& known : list) {
        if (sameCertificate(known, certificate)) return;
    }
    list.push_back(certificate);
}

bool CertificatePool::isTrusted(const Certificate& certificate) const
{
    for (const Certificate& anchor : trusted_) {
        if (sameCertificate(anchor, certificate)) return true;
    }
    return false;
}

std::vector<const Certificate*> CertificatePool::issuersOf(const Certificate& certificate) const
{
    std::vector<const Certificate*> found;
    X509_NAME* issuer = X509_get_issuer_name(certificate.x509());
    for (const auto* list : {&trusted_, &others_}) {
        for (const Certificate& candidate : *list) {
            if (X509_NAME_cmp(X509_get_subject_name(candidate.x509()), issuer) == 0) found.push_back(&candidate);
        }
    }
    return found;
}

ChainJudgement CertificatePool::judge(const Certificate& certificate) const
{
    std::vector<ChainIssuer> issuers;
    const auto judgement = [&](ChainStatus status, std::string reason = {}) {
        return ChainJudgement{status, std::move(reason), issuers};
    };
    const Certificate* current = &certificate;
    for (int depth = 0; depth < MAX_CHAIN_LENGTH; ++depth) {
        if (current != &certificate) {
            issuers.push_back(ChainIssuer{current->subject(), current->notBefore(), current->notAfter()});
        }
        if (isTrusted(*current)) return judgement(ChainStatus::Trusted);
        if (current->selfIssued()) {
            if (!signedBy(*current, *current)) {
                return judgement(ChainStatus::Invalid,
                                 "the self-signature of " + current->subject() + " does not hold");
            }
            return judgement(ChainStatus::UntrustedRoot, "the chain ends in " + current->subject() +
                                                             ", a self-signed certificate no trusted one vouches for");
        }
        const std::vector<const Certificate*> candidates = issuersOf(*current);
        if (candidates.empty()) {
            return judgement(ChainStatus::Incomplete, "the issuer " + current->issuer() + " is missing");
        }
        const Certificate* next = nullptr;
        for (const Certificate* issuer : candidates) {
            if (signedBy(*current, *issuer)) {
                next = issuer;
                break;
            }
        }
        if (next == nullptr) {
            return judgement(ChainStatus::Invalid, "the signature on " + current->subject() +
                                                       " does not hold with the key of " + current->issuer());
        }
        current = next;
    }
    return judgement(ChainStatus::Incomplete, "the chain is longer than " + std::to_string(MAX_CHAIN_LENGTH));
}

}  // namespace tse
