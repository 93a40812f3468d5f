#ifndef TSE_CORE_CERTIFICATE_CHAIN_H
#define TSE_CORE_CERTIFICATE_CHAIN_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "certificate.h"

namespace tse {

enum class ChainStatus { Trusted, UntrustedRoot, Incomplete, Invalid };

// "trusted", "untrusted-root", "incomplete", "invalid"
std::string_view chainStatusName(ChainStatus status);

// A certificate above the judged one, kept so that each log's time can be
// compared with the validity of every CA its chain runs through.
struct ChainIssuer {
    std::string subject;
    std::optional<int64_t> notBefore, notAfter;
};

struct ChainJudgement {
    ChainStatus status = ChainStatus::Incomplete;
    std::string reason;                // why it is not trusted; empty when it is
    std::vector<ChainIssuer> issuers;  // nearest first, as far as the chain was found
};

// The certificates an export brings and those the user trusts. Chains are
// built by issuer name and checked by signature only: a TSE's certificates
// expire while the logs they signed stay valid, so today's date decides
// nothing here (the audit compares log times with the validity of every
// certificate in the chain instead).
class CertificatePool {
public:
    void add(const Certificate& certificate, bool trusted);
    ChainJudgement judge(const Certificate& certificate) const;

private:
    bool isTrusted(const Certificate& certificate) const;
    std::vector<const Certificate*> issuersOf(const Certificate& certificate) const;

    std::vector<Certificate> trusted_;
    std::vector<Certificate> others_;
};

}  // namespace tse

#endif
