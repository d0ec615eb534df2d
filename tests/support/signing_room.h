// The test PKI as files, for programs that sign, and the checker's verdict on what they make.
#ifndef PNVTEST_SIGNING_ROOM_H
#define PNVTEST_SIGNING_ROOM_H

#include "cms.h"
#include "pelnic_cms_verify.h"
#include "process.h"
#include "temp_dir.h"

namespace pnvtest {

class SigningRoom {
public:
    // Certificates in PEM and CRLs in DER: root.pem, ca.pem, signer.pem, tsa-ca.pem, tsa.pem, root.crl, ca.crl and
    // tsa-ca.crl. The authority's purpose is critical, as RFC 3161, 2.3 has it and openssl ts insists.
    SigningRoom();

    const DemoPki& Pki() const { return pki_; }
    std::string Path(const std::string& name) const { return dir_.Path(name); }
    std::string Write(const std::string& name, const Bytes& content) const { return dir_.Write(name, content); }
    std::string WriteCert(const std::string& name, const CertSpec& cert) const;
    Bytes Read(const std::string& name) const { return ReadWholeFile(Path(name)); }
    // The names of all files, sorted.
    std::vector<std::string> Files() const;

    // The code with which the checker for the test root refuses a package of these, with the PKI's CRLs unless others
    // are given; 0 when it accepts. An answer of any other kind is an exception.
    PELNIC_ERROR_CODE Verify(const Bytes& payload, const Bytes& cms) const;
    PELNIC_ERROR_CODE Verify(const Bytes& payload, const Bytes& cms, const Bytes& crls) const;

private:
    TempDir dir_;
    DemoPki pki_{KeyId::Rsa4096};
};

// The file of a test key, PEM.
std::string KeyFile(KeyId key);

// Whether a program is in PATH.
bool IsInstalled(const std::string& program);

// ---- Signatures that others made ----

// The value of the only signer's signature.
Bytes SignatureValue(const Bytes& cms);
// The same signature with a token as the only signer's only unsigned attribute.
Bytes WithTimestamp(const Bytes& cms, const Bytes& token);

} // namespace pnvtest

#endif
