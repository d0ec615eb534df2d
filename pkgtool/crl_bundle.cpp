#include "crl_bundle.h"

#include "error.h"
#include "files.h"
#include "text.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <stdexcept>

namespace pkgtool {

namespace {

// ---- Bundles ----

struct Refusal {
    PELNIC_ERROR_CODE code;
    const char* message;
    const char* hint;
};

constexpr Refusal REFUSALS[] = {
    {PELNIC_ERR_SYS_FILE_OPEN, "cannot be opened", ""},
    {PELNIC_ERR_SYS_FILE_READ, "cannot be read", ""},
    {PELNIC_ERR_SYS_FILE_EMPTY, "is empty", ""},
    {PELNIC_ERR_SYS_FILE_TOO_LARGE, "is larger than 2,000,000 bytes", ""},
    {PELNIC_ERR_NULL_POINTER, "is no path", ""},
    {PELNIC_ERR_CMS_FORMAT, "holds no certificate", "certificates are DER, or PEM from the first byte on"},
    {PELNIC_ERR_CERT_INVALID, "holds no certificate", "certificates are DER, or PEM from the first byte on"},
    {PELNIC_ERR_CERT_VERSION, "holds a certificate of version 1 or 2", "only version 3 is accepted"},
    {PELNIC_ERR_CRL_DECODE, "holds no usable CRL",
     "CRLs are DER, or PEM from the first byte on; each needs a nextUpdate, and certificates among them version 3"},
    {PELNIC_ERR_CRL_TOO_MANY, "holds more than 16 CRLs", ""},
};

void require(PELNIC_ERROR_CODE code, const std::string& path)
{
    if (code == 0) return;
    for (const Refusal& refusal : REFUSALS) {
        if (refusal.code == code) throw UserError("'" + path + "' " + refusal.message, refusal.hint);
    }
    throw std::runtime_error("'" + path + "' is refused with " + hexadecimal(code));
}

BundleSummary decode(PELNIC_VRF_CTX ctx, const std::string& path)
{
    PELNIC_CRL_BUNDLE_INFO* summary = nullptr;
    require(pelnic_decode_crl_file(ctx, path.c_str(), &summary), path);
    return BundleSummary(summary, {ctx});
}

// The library opens them itself. Files that would make it wait are refused.
void requireFile(const std::string& path)
{
    if (path == "-") throw UserError("CRL bundles and their certificates are read from files, not from standard input");
    (void)MappedFile(path);
}

// ---- Reasons ----

CrlInfos ofIssuer(const CrlInfos& crls, const char* issuer)
{
    CrlInfos found;
    std::copy_if(crls.begin(), crls.end(), std::back_inserter(found),
                 [&](const PELNIC_CRL_INFO* crl) { return std::strcmp(crl->issuer, issuer) == 0; });
    return found;
}

bool areVerified(const CrlInfos& crls)
{
    return std::all_of(crls.begin(), crls.end(), [](const PELNIC_CRL_INFO* crl) { return crl->valid == 1; });
}

// The CRLs of one issuer in both bundles.
Relation relate(const CrlInfos& offered, const CrlInfos& device)
{
    if (!areVerified(offered) || !areVerified(device)) return Relation::Unverified;
    if (offered.size() > 1 || device.size() > 1) return Relation::Duplicate;
    if (offered.empty() || device.empty()) return Relation::Missing;
    if (offered[0]->update_time == device[0]->update_time) return Relation::Equal;
    return offered[0]->update_time > device[0]->update_time ? Relation::Newer : Relation::Older;
}

bool has(const std::vector<IssuerChange>& changes, Relation relation)
{
    return std::any_of(changes.begin(), changes.end(),
                       [&](const IssuerChange& change) { return change.relation == relation; });
}

bool revokes(const PELNIC_CRL_INFO& root, const PELNIC_SERIAL_NUM& serial)
{
    const PELNIC_REVOKE_LIST& list = root.revoke_list;
    return std::any_of(list.sn_list, list.sn_list + list.revoke_count, [&](const PELNIC_SERIAL_NUM& revoked) {
        return revoked.sn_len == serial.sn_len && std::memcmp(revoked.sn, serial.sn, serial.sn_len) == 0;
    });
}

// Only the first revoke list of the newer bundle counts.
const PELNIC_CRL_INFO* findExcuse(const CrlInfos& newer, const PELNIC_CRL_INFO& dropped)
{
    const auto root = std::find_if(newer.begin(), newer.end(),
                                   [](const PELNIC_CRL_INFO* crl) { return crl->revoke_list.revoke_count > 0; });
    return root != newer.end() && revokes(**root, dropped.issuer_sn) ? *root : nullptr;
}

// Unless the offered bundle is newer, the device's must have every issuer of the offered one.
void markDropped(std::vector<IssuerChange>& changes, const CrlInfos& offered, const CrlInfos& device)
{
    const bool later = has(changes, Relation::Newer);
    const bool earlier = has(changes, Relation::Older);
    const bool isNewer = later != earlier ? later : !later && offered.size() > device.size();
    for (IssuerChange& change : changes) {
        const PELNIC_CRL_INFO* const dropped = isNewer ? change.device : change.offered;
        const PELNIC_CRL_INFO* const kept = isNewer ? change.offered : change.device;
        if (kept != nullptr) continue;
        change.relation = Relation::Dropped;
        change.excuse = findExcuse(isNewer ? offered : device, *dropped);
    }
}

} // namespace

VerifyContext newContext()
{
    PELNIC_CTX_CREATE_PARAMS params{};
    params.st_size = sizeof params;
    (void)pelnic_set_callback_funcs(&params.callback_funcs);
    PELNIC_VRF_CTX ctx = nullptr;
    const PELNIC_ERROR_CODE code = pelnic_verify_create_ctx(&ctx, &params);
    if (code != 0) throw std::runtime_error("no verify context: " + hexadecimal(code));
    return VerifyContext(ctx);
}

CrlBundle::CrlBundle(const std::string& path, const std::vector<std::string>& certFiles)
    : path_(path), ctx_(newContext())
{
    for (const std::string& file : certFiles) {
        requireFile(file);
        require(pelnic_verify_add_cert_file(ctx_.get(), file.c_str()), file);
    }
    requireFile(path);
    summary_ = decode(ctx_.get(), path);
}

CrlInfos CrlBundle::crls() const
{
    return CrlInfos(summary_->crl_info_list, summary_->crl_info_list + summary_->crl_count);
}

CrlVerdict compare(const CrlBundle& offered, const CrlBundle& device)
{
    CrlVerdict verdict{SCPS_MIX, 0};
    verdict.code = pelnic_crl_compare(newContext().get(), &offered.summary(), &device.summary(), &verdict.stat);
    return verdict;
}

std::vector<IssuerChange> explain(const CrlInfos& offered, const CrlInfos& device)
{
    CrlInfos all = offered;
    all.insert(all.end(), device.begin(), device.end());
    const auto firstOf = [](const CrlInfos& crls) { return crls.empty() ? nullptr : crls[0]; };

    std::vector<IssuerChange> changes;
    for (const PELNIC_CRL_INFO* crl : all) {
        if (firstOf(ofIssuer(all, crl->issuer)) != crl) continue;
        const CrlInfos inOffered = ofIssuer(offered, crl->issuer);
        const CrlInfos onDevice = ofIssuer(device, crl->issuer);
        changes.push_back({relate(inOffered, onDevice), firstOf(inOffered), firstOf(onDevice), nullptr});
    }
    const bool comparable = !has(changes, Relation::Unverified) && !has(changes, Relation::Duplicate);
    if (comparable) markDropped(changes, offered, device);
    return changes;
}

} // namespace pkgtool
