#include "signature.h"

namespace pnvtest {

namespace {

constexpr PNV_INT32 kUntouched = 77;

template <typename List> void CollectSignatures(const List& list, std::uint8_t kind, std::set<Bytes>* signatures)
{
    for (PNV_UINT32 i = 0; i < list.num; ++i) {
        signatures->insert(Cat(Bytes{kind}, Content(*list.data[i]->signature)));
    }
}

} // namespace

// ---- The operations ----

PELNIC_ERROR_CODE Begin(PELNIC_VRF_CTX ctx, const Bytes& signature)
{
    return pelnic_verify_detach_signature_begin(ctx, signature.data(), Len(signature));
}

PELNIC_ERROR_CODE Update(PELNIC_VRF_CTX ctx, const Bytes& content)
{
    return pelnic_verify_detach_signature_update(ctx, content.data(), static_cast<PNV_INT>(content.size()));
}

std::ostream& operator<<(std::ostream& out, const Verdict& verdict)
{
    return out << "0x" << std::hex << verdict.code << std::dec << " with result " << verdict.result;
}

Verdict Final(PELNIC_VRF_CTX ctx)
{
    Verdict verdict{0, kUntouched};
    verdict.code = pelnic_verify_detach_signature_final(ctx, &verdict.result);
    return verdict;
}

Verdict Verify(PELNIC_VRF_CTX ctx, const Bytes& signature, const Bytes& content)
{
    PELNIC_ERROR_CODE rc = Begin(ctx, signature);
    if (rc == 0) rc = Update(ctx, content);
    return rc == 0 ? Final(ctx) : Verdict{rc, 0};
}

std::set<Bytes> InputsOf(const PELNIC_VRF* vrf)
{
    std::set<Bytes> inputs;
    const PELNIC_PKI_STORE& store = static_cast<const PELNIC_PKI*>(vrf->pki_ctx)->pki_store;
    if (store.trust_store != nullptr) {
        CollectSignatures(store.trust_store->ca_certs, 'T', &inputs);
        CollectSignatures(store.trust_store->crl_store, 'C', &inputs);
    }
    if (store.local_store != nullptr) CollectSignatures(store.local_store->local_certs, 'L', &inputs);
    CollectSignatures(vrf->crl_list, 'C', &inputs);
    return inputs;
}

// ---- Decoded ----

OwnedCms DecodeCms(const PELNIC_VRF* vrf, const Bytes& der)
{
    PELNIC_PKCS7_CONTENT* content = nullptr;
    PNV_UINT32 octets = 0;
    const PELNIC_ERROR_CODE rc = pelnic_pkcs7_decode_signed(vrf, der.data(), Len(der), &content, &octets);
    if (rc != 0) ThrowRefused(rc);
    return OwnedCms(content, {vrf});
}

// ---- Material ----

Anchors AnchorsOf(const DemoPki& pki)
{
    return {Build(pki.root), pki.Crls()};
}

void Provide(PELNIC_VRF_CTX ctx, const Anchors& anchors)
{
    EXPECT_EQ(pelnic_verify_add_cert(ctx, anchors.root.data(), Len(anchors.root)), 0u);
    EXPECT_EQ(pelnic_verify_add_crl(ctx, anchors.crls.data(), Len(anchors.crls)), 0u);
}

DemoPki FlatPki()
{
    DemoPki pki;
    pki.root.subject = Name(Cn("R"));
    pki.root = IssuedBy(pki.root, pki.root);
    pki.rootCrl = CrlOf(pki.root);
    pki.signer.subject = Name(Cn("S"));
    pki.signer = IssuedBy(pki.signer, pki.root);
    pki.tsa.subject = Name(Cn("T"));
    pki.tsa = IssuedBy(pki.tsa, pki.root);
    return pki;
}

TokenSpec FlatToken(const DemoPki& pki)
{
    TokenSpec token = DemoToken(pki);
    token.cms.certificates = {Build(pki.tsa)};
    return token;
}

CmsSpec FlatCms(const DemoPki& pki)
{
    CmsSpec cms = DemoCms(pki, FlatToken(pki));
    cms.certificates = {Build(pki.signer)};
    return cms;
}

Anchors FlatAnchors(const DemoPki& pki)
{
    return {Build(pki.root), Build(pki.rootCrl)};
}

CmsSpec Direct(CmsSpec cms)
{
    for (SignerSpec& signer : cms.signers) signer.signedAttributes = nullptr;
    return cms;
}

// ---- The fixture ----

void SignatureTest::TearDown()
{
    ctx_.reset();
    ExpectNoProblems(plan_);
}

Context& SignatureTest::Current()
{
    if (!ctx_) ctx_.emplace(plan_);
    return *ctx_;
}

void SignatureTest::Renew()
{
    ctx_.reset();
    provided_ = false;
    plan_.ClearLogs();
}

void SignatureTest::Provide()
{
    if (!provided_) pnvtest::Provide(Current(), AnchorsOf(pki_));
    provided_ = true;
}

PELNIC_ERROR_CODE SignatureTest::Begin(const Bytes& signature)
{
    Provide();
    return pnvtest::Begin(Current(), signature);
}

void SignatureTest::ExpectRefused(const Bytes& signature, PELNIC_ERROR_CODE rc, const std::string& message)
{
    Renew();
    EXPECT_EQ(Begin(signature), rc);
    EXPECT_TRUE(LoggedError(plan_, rc, message));
}

void SignatureTest::ExpectRefused(const CmsSpec& cms, PELNIC_ERROR_CODE rc, const std::string& message)
{
    ExpectRefused(DetachedCms(payload_, cms), rc, message);
}

void SignatureTest::ExpectVerdict(const Bytes& signature, Verdict verdict)
{
    Renew();
    ASSERT_EQ(Begin(signature), 0u);
    ASSERT_EQ(Update(payload_), 0u);
    EXPECT_EQ(Final(), verdict);
}

} // namespace pnvtest
