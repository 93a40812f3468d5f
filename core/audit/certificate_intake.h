#ifndef TSE_CORE_CERTIFICATE_INTAKE_H
#define TSE_CORE_CERTIFICATE_INTAKE_H

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "audit_report.h"
#include "certificate.h"
#include "certificate_chain.h"
#include "copy_detection.h"
#include "export_reader.h"
#include "result.h"

namespace tse {

// The certificates an audit meets: given ones (--cert), trusted roots
// (--trust), those inside the exports and those beside log files given one
// by one. Each is listed once in the report with the copies met counted,
// and each key is handed on as soon as it is met, so that the logs waiting
// for it can be verified. Reading thread only.
class CertificateIntake {
public:
    using KeyMet = std::function<void(const PublicKey&)>;

    CertificateIntake(AuditReport& report, MemberDigests& seen, KeyMet keyMet);

    // The certificates of --cert and the roots of --trust: how many files
    // were read, or why one cannot be used.
    Result<size_t> loadGiven(const std::vector<std::string>& files, const std::vector<std::string>& trustDirectories);
    // Log files given one by one (dir/*.log) come with the certificates
    // beside them, named <SERIAL>_X509.<ext> in a TSE export, as verify
    // finds them; one given as an export itself is read with the others.
    void loadBesideLogs(const std::vector<ExportSource>& sources, const std::vector<std::string>& given);
    // A member of an export named like a certificate.
    void addMember(const std::string& file, ByteView data) { add(file, data, false, false); }
    // Once every certificate is in: each one's chain to a trusted root.
    void judgeChains();

private:
    void add(const std::string& file, ByteView data, bool trusted, bool given);
    void list(const std::string& file, const Certificate& certificate, bool given);
    void checkName(const std::string& file, const std::vector<Certificate>& certificates);

    AuditReport& report_;  // its certificates and findings
    MemberDigests& seen_;
    KeyMet keyMet_;
    CertificatePool pool_;
    std::vector<Certificate> listed_;                          // beside report_.certificates, in its order
    std::unordered_map<Digest, size_t, DigestHash> listedAt_;  // DER digest -> index in both
};

}  // namespace tse

#endif
