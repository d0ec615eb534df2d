// What the tests of detached signatures share: the operations on byte strings, a small PKI for tests that run thousands
// of verifications, and the fixture that begins with everything in order.
#ifndef PNVTEST_SIGNATURE_H
#define PNVTEST_SIGNATURE_H

#include "cms.h"
#include "cmsverify/pelnic_cms_parse.h"
#include "stores.h"

#include <set>

namespace pnvtest {

// ---- The operations ----

PELNIC_ERROR_CODE Begin(PELNIC_VRF_CTX ctx, const Bytes& signature);
PELNIC_ERROR_CODE Update(PELNIC_VRF_CTX ctx, const Bytes& content);

// What final or quick answered.
struct Verdict {
    PELNIC_ERROR_CODE code;
    PNV_INT32 result;

    bool operator==(const Verdict& other) const { return code == other.code && result == other.result; }
};
constexpr Verdict good{0, 1};
constexpr Verdict bad{0, 0};
std::ostream& operator<<(std::ostream& out, const Verdict& verdict);

Verdict Final(PELNIC_VRF_CTX ctx); // the result is preset to a value that no operation gives

// Begin, update and final as a careful caller runs them: the first code that is not 0 ends it, with result 0.
Verdict Verify(PELNIC_VRF_CTX ctx, const Bytes& signature, const Bytes& content);

// What a context has been given, by the signature bits of each: trusted and local certificates, and CRLs, handed over
// or not.
std::set<Bytes> InputsOf(const PELNIC_VRF* vrf);

// ---- Decoded ----

struct ReleaseCms {
    const PELNIC_VRF* vrf;
    void operator()(PELNIC_PKCS7_CONTENT* content) const { pelnic_pkcs7_free_signed(vrf, content); }
};
using OwnedCms = std::unique_ptr<PELNIC_PKCS7_CONTENT, ReleaseCms>;
OwnedCms DecodeCms(const PELNIC_VRF* vrf, const Bytes& der); // a refusal is an exception, which fails the test

inline PELNIC_PKCS7_SIGNER_INFO* SignerOf(const OwnedCms& cms, std::size_t i = 0)
{
    return cms->signed_data->signer_infos->infos.data[i];
}

// ---- Material ----

// What a device has: its root, and the CRLs that come with a package.
struct Anchors {
    Bytes root;
    Bytes crls;
};
Anchors AnchorsOf(const DemoPki& pki);
void Provide(PELNIC_VRF_CTX ctx, const Anchors& anchors); // fails the test if they are refused

// Signer and timestamp authority directly below the root, with one CRL and the shortest names.
DemoPki FlatPki();
TokenSpec FlatToken(const DemoPki& pki);
CmsSpec FlatCms(const DemoPki& pki);
Anchors FlatAnchors(const DemoPki& pki);

// The same signature without signed attributes: the signers sign the content itself.
CmsSpec Direct(CmsSpec cms);

// ---- The fixture ----

class SignatureTest : public ::testing::Test {
protected:
    void TearDown() override;

    // Begins in the current context, which gets pki_'s root and CRLs before its first begin.
    PELNIC_ERROR_CODE Begin(const Bytes& signature);
    PELNIC_ERROR_CODE Begin(const CmsSpec& cms) { return Begin(DetachedCms(payload_, cms)); }
    PELNIC_ERROR_CODE Update(const Bytes& content) { return pnvtest::Update(Current(), content); }
    Verdict Final() { return pnvtest::Final(Current()); }

    // Each judges in a context of its own, which stays the current one. Refused is what begin says, and logs.
    void ExpectRefused(const Bytes& signature, PELNIC_ERROR_CODE rc, const std::string& message = "");
    void ExpectRefused(const CmsSpec& cms, PELNIC_ERROR_CODE rc, const std::string& message = "");
    void ExpectVerdict(const Bytes& signature, Verdict verdict);
    void ExpectAccepted(const Bytes& signature) { ExpectVerdict(signature, good); }
    void ExpectAccepted(const CmsSpec& cms) { ExpectAccepted(DetachedCms(payload_, cms)); }

    // The current context, with nothing in it but what the test gave it.
    Context& Current();
    // A new one with an empty log.
    void Renew();
    void Provide();

    const Bytes payload_ = Text("a firmware image");
    DemoPki pki_;
    CallbackPlan plan_;

private:
    std::optional<Context> ctx_;
    bool provided_ = false;
};

} // namespace pnvtest

#endif
