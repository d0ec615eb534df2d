#include "asn1_text.h"

#include <openssl/objects.h>
#include <openssl/x509v3.h>

namespace pkgtool {

Json objectJson(const ASN1_OBJECT* object)
{
    const int nid = OBJ_obj2nid(object);
    if (nid != NID_undef) return OBJ_nid2sn(nid);
    char text[128];
    return OBJ_obj2txt(text, sizeof text, object, 1) > 0 ? Json(text) : Json();
}

Json usageNames(unsigned bits)
{
    static constexpr struct {
        unsigned bit;
        const char* name;
    } USAGES[] = {{KU_DIGITAL_SIGNATURE, "digitalSignature"},
                  {KU_NON_REPUDIATION, "nonRepudiation"},
                  {KU_KEY_ENCIPHERMENT, "keyEncipherment"},
                  {KU_DATA_ENCIPHERMENT, "dataEncipherment"},
                  {KU_KEY_AGREEMENT, "keyAgreement"},
                  {KU_KEY_CERT_SIGN, "keyCertSign"},
                  {KU_CRL_SIGN, "cRLSign"}};
    Json names = Json::array();
    for (const auto& usage : USAGES) {
        if ((bits & usage.bit) != 0) names.push_back(usage.name);
    }
    return names;
}

Json reasonJson(long number)
{
    static constexpr const char* REASONS[] = {
        "unspecified",   "keyCompromise",        "cACompromise",    "affiliationChanged",
        "superseded",    "cessationOfOperation", "certificateHold", "7",
        "removeFromCRL", "privilegeWithdrawn",   "aACompromise"};
    const bool known = number >= 0 && number < static_cast<long>(sizeof REASONS / sizeof *REASONS);
    return known ? Json(REASONS[number]) : Json();
}

} // namespace pkgtool
