#include "signature_cases.h"

namespace pnvtest {

void PrintTo(const Case& input, std::ostream* out)
{
    *out << input.name;
}

namespace cases {

namespace {

Case Of(std::string name, const DemoPki& pki, const CmsSpec& cms)
{
    Case input{std::move(name), FlatAnchors(pki), {}};
    input.signature = DetachedCms(input.content, cms);
    return input;
}

Case BelowCas(std::string name, const DemoPki& pki, const Bytes& crls)
{
    Case input = Of(std::move(name), pki, DemoCms(pki));
    input.anchors.crls = crls;
    return input;
}

// A CA between the root and the signer, and what it was before.
struct RenewedCa {
    DemoPki pki = FlatPki();
    CertSpec ca = IssuedBy(With(Intermediate("CA"), &CertSpec::subject, Name(Cn("C"))), pki.root);
    CertSpec expired = With(With(ca, &CertSpec::serial, Bytes{0x77}), &CertSpec::notAfter, UtcTime("251231235959Z"));

    RenewedCa() { pki.signer = IssuedBy(pki.signer, ca); }

    Case As(std::string name, const std::vector<Bytes>& certificates) const
    {
        CmsSpec cms = FlatCms(pki);
        cms.certificates.insert(cms.certificates.end(), certificates.begin(), certificates.end());
        Case input = Of(std::move(name), pki, cms);
        input.anchors.crls = Cat(input.anchors.crls, Build(CrlOf(ca)));
        return input;
    }
};

} // namespace

Case Good()
{
    return Of("Good", FlatPki(), FlatCms(FlatPki()));
}

Case GoodDirect()
{
    CmsSpec cms = Direct(FlatCms(FlatPki()));
    cms.signers[0].unsignedAttributes = {Timestamp(TokenSpec{})};
    return Of("GoodDirect", FlatPki(), cms);
}

Case GoodBelowCas()
{
    const DemoPki pki;
    return BelowCas("GoodBelowCas", pki, pki.Crls());
}

Case OtherContent(Case input)
{
    input.name = "OtherContentThan" + input.name;
    input.content[0] ^= 0x01;
    return input;
}

Case AlteredAttributes()
{
    CmsSpec cms = FlatCms(FlatPki());
    cms.signers[0].edit = [](const Bytes& signer) { return Damage(signer, {3, 0, 1, 0}); };
    return Of("AlteredAttributes", FlatPki(), cms);
}

Case OtherStampedSignature()
{
    CmsSpec cms = FlatCms(FlatPki());
    cms.signers[0].unsignedAttributes = {
        [](const Bytes&) { return Timestamp(FlatToken(FlatPki()))(Text("another signature")); }};
    return Of("OtherStampedSignature", FlatPki(), cms);
}

Case RevokedSigner()
{
    DemoPki pki = FlatPki();
    pki.rootCrl.revoked = {{pki.signer.serial}};
    return Of("RevokedSigner", pki, FlatCms(pki));
}

Case RevokedByOneOfTwoCrls()
{
    Case input = RevokedSigner();
    input.name = "RevokedByOneOfTwoCrls";
    input.anchors.crls = Cat(Build(FlatPki().rootCrl), input.anchors.crls);
    return input;
}

Case RevokedByTheFirstOfTwoCrls()
{
    Case input = RevokedSigner();
    input.name = "RevokedByTheFirstOfTwoCrls";
    input.anchors.crls = Cat(input.anchors.crls, Build(FlatPki().rootCrl));
    return input;
}

Case RevokedAmongDuplicates()
{
    Case input = RevokedByTheFirstOfTwoCrls();
    input.name = "RevokedAmongDuplicates";
    input.anchors.root = Cat(input.anchors.root, input.anchors.root);
    input.anchors.crls = Cat(input.anchors.crls, input.anchors.crls);
    return input;
}

Case RevokedByAnIndirectCrl()
{
    const DemoPki pki = FlatPki();
    const CertSpec crlCa = IssuedBy(Intermediate("CRL CA"), pki.root);
    CrlSpec crl = Indirect(CrlOf(crlCa));
    crl.revoked = {{pki.signer.serial}};
    Case input = Of("RevokedByAnIndirectCrl", pki, FlatCms(pki));
    input.anchors.crls = Cat(input.anchors.crls, Build(crlCa), Build(crl));
    return input;
}

Case ExpiredSigner()
{
    DemoPki pki = FlatPki();
    pki.signer.notAfter = UtcTime("251231235959Z");
    return Of("ExpiredSigner", pki, FlatCms(pki));
}

Case SignerOfAnotherPurpose()
{
    DemoPki pki = FlatPki();
    pki.signer.extendedKeyUsage = {oid::serverAuth};
    return Of("SignerOfAnotherPurpose", pki, FlatCms(pki));
}

Case SignerBelowNoCa()
{
    DemoPki pki;
    pki.signingCa.basicConstraints = NotCa();
    return BelowCas("SignerBelowNoCa", pki, pki.Crls());
}

Case OwnRoot()
{
    DemoPki rogue = FlatPki();
    rogue.root.key = rogue.root.issuerKey = KeyId::Rsa2048H;
    rogue.rootCrl = CrlOf(rogue.root);
    rogue.signer.issuerKey = rogue.tsa.issuerKey = KeyId::Rsa2048H;
    CmsSpec cms = FlatCms(rogue);
    cms.certificates.push_back(Build(rogue.root));
    Case input = Of("OwnRoot", rogue, cms);
    input.anchors.root = Build(FlatPki().root);
    return input;
}

Case NoCrl()
{
    const DemoPki pki;
    return BelowCas("NoCrl", pki, Cat(Build(pki.rootCrl), Build(pki.tsaCrl)));
}

Case ExpiredCrl()
{
    DemoPki pki;
    pki.signingCrl.nextUpdate = UtcTime("251231235959Z");
    return BelowCas("ExpiredCrl", pki, pki.Crls());
}

Case ExpiredCaBeforeTheGoodOne()
{
    const RenewedCa renewed;
    return renewed.As("ExpiredCaBeforeTheGoodOne", {Build(renewed.expired), Build(renewed.ca)});
}

Case ExpiredCaOfTheCaller()
{
    const RenewedCa renewed;
    Case input = renewed.As("ExpiredCaOfTheCaller", {Build(renewed.ca)});
    input.anchors.root = Cat(Build(renewed.expired), input.anchors.root);
    return input;
}

} // namespace cases

} // namespace pnvtest
