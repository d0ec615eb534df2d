// The value of an extension, decoded as each of the types that the library knows.
#include "fuzz.h"

#include "cmsverify/pelnic_asn1_def.h"

namespace pnvfuzz {

bool FuzzExtension(const Trial& trial)
{
    static const std::vector<Bytes> identifiers = [] {
        std::vector<Bytes> contents;
        for (std::string_view extension :
             {oid::authorityKeyIdentifier, oid::subjectKeyIdentifier, oid::keyUsage, oid::basicConstraints,
              oid::extKeyUsage, oid::issuingDistributionPoint, oid::crlReason}) {
            contents.push_back(Content(Oid(extension), Path{}));
        }
        return contents;
    }();

    const PELNIC_VRF* const vrf = trial.vrf;
    bool taken = false;
    for (Bytes identifier : identifiers) {
        PELNIC_X509_EXTENSION_ENTRY entry{};
        entry.extnId.tag = {CBC_UNIV, CBF_PRIM, CBT_OID};
        entry.extnId.octs = identifier.data();
        entry.extnId.len = Len(identifier);
        entry.extnValue.octs = const_cast<PNV_BYTE*>(trial.data); // nothing writes there
        entry.extnValue.len = trial.size;
        void* record = nullptr;
        if (pelnic_decode_x509_extension(vrf, &entry, &record) != 0) continue;
        taken = true;
        pelnic_free_x509_extension(vrf, pelnic_find_aoid(vrf, &entry.extnId), record);
    }
    return taken;
}

} // namespace pnvfuzz
