#include "fuzz.h"

#include "cmsverify/pelnic_callback_fun.h"

#include <algorithm>
#include <stdexcept>

namespace pnvfuzz {

namespace {

// Memory that the library may hold at once: so much, and so much for each octet of input.
constexpr std::size_t kFixedMemory = 64 * 1024;
constexpr std::size_t kMemoryPerOctet = 128;

// The default digests with their calculation left out; handles come and go as ever.

PELNIC_ERROR_CODE LenientInit(PELNIC_CRYPTO_MD_CTX ctx, PNV_UINT32 hashId)
{
    HASH_ALGO& algorithm = static_cast<CRYPTO_MD*>(ctx)->hash_algo;
    algorithm = _convert_hash_algo(hashId);
    return algorithm == HSAG_UNKNOW ? PELNIC_ERR_FAILED : 0;
}

PELNIC_ERROR_CODE LenientUpdate(PELNIC_CRYPTO_MD_CTX, const PNV_BYTE*, PNV_UINT32)
{
    return 0;
}

PELNIC_ERROR_CODE LenientFinal(PELNIC_CRYPTO_MD_CTX ctx, PNV_BYTE* digest, PNV_UINT32* len)
{
    switch (static_cast<CRYPTO_MD*>(ctx)->hash_algo) {
    case HSAG_SHA256: *len = 32; break;
    case HSAG_SHA384: *len = 48; break;
    case HSAG_SHA512: *len = 64; break;
    default: return PELNIC_ERR_FAILED;
    }
    std::fill_n(digest, *len, kLenientDigestOctet);
    return 0;
}

void MakeLenient(CallbackPlan& plan)
{
    plan.StubVerification(0, 1);
    PELNIC_MD_FUNCS& digests = plan.Table().md_funcs;
    digests.pelnic_md_init = LenientInit;
    digests.pelnic_md_update = LenientUpdate;
    digests.pelnic_md_final = LenientFinal;
}

} // namespace

Outcome RunInput(const Target& target, Crypto crypto, const std::uint8_t* data, std::size_t size)
{
    CallbackPlan plan;
    if (crypto == Crypto::Lenient) MakeLenient(plan);
    Outcome outcome{false, {}};
    try {
        outcome.taken = target.run({plan, crypto, data, static_cast<PNV_UINT32>(size)});
    } catch (const std::exception& problem) {
        outcome.problems.push_back(problem.what());
    }
    for (const std::string& problem : plan.Problems()) outcome.problems.push_back(problem);
    if (plan.PeakBytes() > kFixedMemory + kMemoryPerOctet * size) {
        outcome.problems.push_back(std::to_string(plan.PeakBytes()) + " octets of memory for " + std::to_string(size) +
                                   " of input");
    }
    return outcome;
}

void Require(bool condition, const char* promise)
{
    if (!condition) throw std::logic_error(std::string("not so: ") + promise);
}

Bytes WithOtherEnd(const std::uint8_t* data, std::size_t size)
{
    Bytes other(data, data + size);
    other.back() ^= 0x80;
    return other;
}

const DemoPki& Pki()
{
    static const DemoPki pki(KeyId::Rsa4096);
    return pki;
}

const Bytes& Payload()
{
    static const Bytes payload = Text("a firmware image");
    return payload;
}

Device::Device(CallbackPlan& plan) : Context(plan)
{
    static const Bytes root = Build(Pki().root);
    Require(pelnic_verify_add_cert(*this, root.data(), Len(root)) == 0, "the root is trusted");
    Record()->base_time = k2026;
}

void Device::AddCrls()
{
    static const Bytes crls = Pki().Crls();
    Require(pelnic_verify_add_crl(*this, crls.data(), Len(crls)) == 0, "the CRLs are added");
}

} // namespace pnvfuzz
