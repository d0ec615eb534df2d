// CRLs as the tests of bundles vary them.
#ifndef PNVTEST_CRL_BUNDLE_H
#define PNVTEST_CRL_BUNDLE_H

#include "pki.h"

namespace pnvtest {

// Of another day, "260101".
inline CrlSpec UpdatedOn(std::string_view day, CrlSpec crl)
{
    crl.thisUpdate = UtcTime(std::string(day) + "000000Z");
    return crl;
}

// Revoking these too, since before the CRLs of DemoPki, so that the reason does not matter.
inline CrlSpec Revoking(const std::vector<Bytes>& serials, CrlSpec crl)
{
    for (const Bytes& serial : serials) {
        RevokedSpec entry;
        entry.serial = serial;
        entry.date = UtcTime("240101000000Z");
        crl.revoked.push_back(entry);
    }
    return crl;
}

// As many CRLs, of one issuer, that differ in nothing but their day.
inline Bytes DailyCrls(const CrlSpec& crl, int count)
{
    Bytes crls;
    for (int day = 1; day <= count; ++day) crls = Cat(crls, Build(UpdatedOn(std::to_string(250100 + day), crl)));
    return crls;
}

} // namespace pnvtest

#endif
