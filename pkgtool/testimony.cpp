#include "testimony.h"

#include "cmsverify/pelnic_x509_templ.h"

#include <algorithm>

namespace pkgtool {

namespace {

constexpr std::ptrdiff_t FOUND = 16; // octets that are shown of an element
// Octets by which an input is found again. Not all of it: each CRL of a long file is first tried as a certificate.
constexpr PNV_UINT32 BEGINNING = 64;

// ---- Elements ----

std::string universalName(PELNIC_BER_TAG_CODE code)
{
    switch (code) {
    case CBT_BOOLEAN: return "BOOLEAN";
    case CBT_INTEGER: return "INTEGER";
    case CBT_BITSTRING: return "BIT STRING";
    case CBT_SEQUENCES: return "SEQUENCE";
    case CBT_SETS: return "SET";
    default: return "";
    }
}

std::string expectedText(const PELNIC_ASN1_TEMPLATE& row)
{
    if (row.tagType == PNV_TAG_EXPLICIT || row.tagType == PNV_TAG_IMPLICIT) {
        return "[" + std::to_string(row.tagCode) + "]";
    }
    const PELNIC_ASN1_ITEM& item = *row.asn1_item;
    if (item.asn_func != &g_pnvAsnFuncChoice) return universalName(item.ber_code);
    std::string alternatives;
    for (PNV_UINT32 i = 0; i < item.templ_count; ++i) {
        const std::string text = expectedText(static_cast<const PELNIC_ASN1_TEMPLATE*>(item.asn_templ)[i]);
        alternatives += (alternatives.empty() ? "" : " or ") + text;
    }
    return alternatives;
}

std::string pathOf(const DecodeStep* step)
{
    if (step == nullptr) return "";
    std::string path = pathOf(step->above);
    if (step->name == nullptr) return path;
    path += (path.empty() ? "" : ".") + std::string(step->name);
    return step->index == DecodeStep::NO_INDEX ? path : path + "[" + std::to_string(step->index) + "]";
}

ElementFault elementOf(const WitnessEvent& event)
{
    const DecodeStep& step = *event.step;
    ElementFault element{event.fault, pathOf(&step), "", "", {}, {}, step.offset};
    if (event.row != nullptr) element.expected = expectedText(*event.row);
    if (event.row != step.row) element.missing = event.row->name_val;
    if (step.input == nullptr) return element;
    const PELNIC_BUF& input = *step.input;
    const PNV_BYTE* const stands = input.pVal + std::min(step.offset, input.nBufLen);
    element.input.assign(input.pVal, input.pVal + std::min(input.nBufLen, BEGINNING));
    element.found.assign(stands, stands + std::min(FOUND, input.pVal + input.nBufLen - stands));
    return element;
}

} // namespace

// ---- Decisions ----

// Copied only once: CRLs are long.
template <typename Record> Part Listening::partOf(const Record* record)
{
    if (record == nullptr) return nullptr;
    Part& part = known_[record];
    const PELNIC_ASN_OCTS& octets = *record->raw_signed;
    if (part == nullptr) part = &*testimony_.parts.emplace(octets.octs, octets.octs + octets.len).first;
    return part;
}

CrlTestimony& Listening::crlIn(LinkTestimony& link, const PELNIC_X509_CRL* record)
{
    const Part crl = partOf(record);
    if (link.crls.empty() || link.crls.back().crl != crl) link.crls.push_back({crl, CrlUnfit::None, 0});
    return link.crls.back();
}

void Listening::keepLink(LinkTestimony& link, const WitnessEvent& event)
{
    link.codes[event.decision] = event.code;
    switch (event.decision) {
    case Decision::Dates: return link.crls.clear(); // examined again, perhaps at another depth
    case Decision::Issuer: return (void)(link.issuer = partOf(event.other));
    case Decision::CrlUnfit: return (void)(crlIn(link, event.crl).unfit = event.unfit);
    case Decision::CrlScored: return (void)(crlIn(link, event.crl).score = event.number); // an expired one, too
    case Decision::CrlChosen: return (void)(link.chosen = partOf(event.crl));
    case Decision::Revocation: return (void)(link.entry = event.number);
    default: return;
    }
}

// For a signer or an authority.
void Listening::keepSigner(SignerTestimony& signer, const WitnessEvent& event)
{
    switch (event.decision) {
    case Decision::SignerCert: signer.cert = partOf(event.cert); break;
    case Decision::Time: signer.time = event.time; break;
    case Decision::Usage: signer.isPurposeAsked = event.number != 0; break;
    case Decision::CrlIssuer: signer.crlIssuers[partOf(event.crl)] = partOf(event.other); break;
    case Decision::TooDeep:
    case Decision::Dates:
    case Decision::SelfSigned:
    case Decision::Issuer:
    case Decision::CrlUnfit:
    case Decision::CrlScored:
    case Decision::CrlChosen:
    case Decision::Revocation: return keepLink(signer.links[partOf(event.cert)], event);
    default: break;
    }
    signer.codes[event.decision] = event.code;
}

void Listening::keepInput(const WitnessEvent& event)
{
    const bool isRefused = event.code == 0 && event.decision == Decision::Payload && event.number == 0;
    testimony_.codes[event.decision] = isRefused ? PELNIC_ERR_FAILED : event.code;
    if (event.code == 0) testimony_.element.reset(); // an earlier attempt to decode it as something else failed
}

void Listening::keep(void* listening, const WitnessEvent& event)
{
    Listening& self = *static_cast<Listening*>(listening);
    std::vector<SignerTestimony>& signers = self.testimony_.signers;
    switch (event.decision) {
    case Decision::Undecodable: self.testimony_.element = elementOf(event); return;
    case Decision::Roots:
    case Decision::Crls:
    case Decision::Signature:
    case Decision::Payload: return self.keepInput(event);
    case Decision::CertTaken:
        if (event.code == 0) self.testimony_.taken.insert(self.partOf(event.cert));
        return;
    case Decision::Signer: return (void)signers.emplace_back();
    case Decision::Authority: return (void)signers.back().authorities.emplace_back();
    default: break;
    }
    if (signers.empty()) return; // a search for an issuer while inputs are added
    std::vector<SignerTestimony>& authorities = signers.back().authorities;
    const bool isOfAuthority = !authorities.empty() && authorities.back().codes.count(Decision::AuthorityDone) == 0;
    self.keepSigner(isOfAuthority ? authorities.back() : signers.back(), event);
}

} // namespace pkgtool
