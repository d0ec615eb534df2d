// CRL bundles as the device's verifier sees them, and the differences between two.
#ifndef PKGTOOL_CRL_BUNDLE_H
#define PKGTOOL_CRL_BUNDLE_H

#include "pelnic_cms_verify.h"

#include <memory>
#include <string>
#include <vector>

namespace pkgtool {

struct ReleaseContext {
    void operator()(PELNIC_VRF_CTX ctx) const { (void)pelnic_vrf_ctx_free(ctx); }
};
using VerifyContext = std::unique_ptr<void, ReleaseContext>;
// With the default callbacks.
VerifyContext newContext();

struct ReleaseSummary {
    PELNIC_VRF_CTX ctx;
    void operator()(PELNIC_CRL_BUNDLE_INFO* summary) const { (void)pelnic_crl_free(ctx, summary); }
};
using BundleSummary = std::unique_ptr<PELNIC_CRL_BUNDLE_INFO, ReleaseSummary>;

using CrlInfos = std::vector<const PELNIC_CRL_INFO*>;

// Each bundle is summarised in its own context: its issuers are verified with these certificates and those in the
// bundle.
class CrlBundle {
public:
    CrlBundle(const std::string& path, const std::vector<std::string>& certFiles);

    const std::string& path() const { return path_; }
    const PELNIC_CRL_BUNDLE_INFO& summary() const { return *summary_; }
    CrlInfos crls() const;

private:
    std::string path_;
    VerifyContext ctx_;
    BundleSummary summary_;
};

// The library's answer to whether the offered bundle is newer than the device's. Every code comes with SCPS_MIX.
struct CrlVerdict {
    PELNIC_CRL_PERIOD_STAT stat;
    PELNIC_ERROR_CODE code;
};
CrlVerdict compare(const CrlBundle& offered, const CrlBundle& device);

enum class Relation {
    Newer, // the offered CRL, by its date
    Older,
    Equal,
    Missing,    // from the older bundle, which need not have it
    Dropped,    // from the newer bundle, which must have it unless the root revoked its issuer
    Unverified, // in either bundle; so nothing is compared
    Duplicate,  // within either bundle; likewise
};

// One issuer in both bundles.
struct IssuerChange {
    Relation relation;
    const PELNIC_CRL_INFO* offered; // null if the bundle has none
    const PELNIC_CRL_INFO* device;
    const PELNIC_CRL_INFO* excuse; // of a dropped issuer: the newer bundle's CRL that revokes it, or null
};

// The reasons of a verdict, from the summaries alone. Each issuer once, in the order of the offered bundle, then of the
// device's.
std::vector<IssuerChange> explain(const CrlInfos& offered, const CrlInfos& device);

} // namespace pkgtool

#endif
