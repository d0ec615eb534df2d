#include "fuzz.h"

#include <stdexcept>

namespace pnvfuzz {

namespace {

// Memory that the library may hold at once: so much, and so much for each octet of input.
constexpr std::size_t kFixedMemory = 64 * 1024;
constexpr std::size_t kMemoryPerOctet = 128;

// A context in this state.
PELNIC_VRF* NewContext(Holding holding)
{
    static const Bytes root = Build(Pki().root);
    static const Bytes crls = Pki().Crls();
    PELNIC_CTX_CREATE_PARAMS params{};
    params.st_size = sizeof(params);
    params.callback_funcs = Table();
    PELNIC_VRF_CTX ctx = nullptr;
    Require(pelnic_verify_create_ctx(&ctx, &params) == 0, "a context is made");
    PELNIC_VRF* const vrf = static_cast<PELNIC_VRF*>(ctx);
    Require(pelnic_verify_add_cert(vrf, root.data(), Len(root)) == 0, "the root is trusted");
    vrf->base_time = k2026;
    if (holding == Holding::Root) return vrf;
    Require(pelnic_verify_add_crl(vrf, crls.data(), Len(crls)) == 0, "the CRLs are added");
    if (holding == Holding::CrlsInUse) _pnvSyncCrl(vrf);
    return vrf;
}

template <typename List> void Hold(const List& list)
{
    for (PNV_UINT32 i = 0; i < list.num; ++i) ++list.data[i]->iRef;
}

// Another reference to all that a context holds, so that to release it costs little: it comes back with every input.
void HoldAll(const PELNIC_VRF* vrf)
{
    if (vrf == nullptr) return;
    const PELNIC_PKI_STORE& store = static_cast<const PELNIC_PKI*>(vrf->pki_ctx)->pki_store;
    if (store.trust_store != nullptr) {
        Hold(store.trust_store->ca_certs);
        Hold(store.trust_store->crl_store);
    }
    if (store.local_store != nullptr) Hold(store.local_store->local_certs);
    Hold(vrf->crl_list);
}

// The contexts of a target, which are the same for every input of it.
struct Prepared {
    const Target* target;
    PELNIC_VRF* vrf;
    PELNIC_VRF* other;
    std::size_t heldBlocks; // that are left when they are released

    void Free() const
    {
        (void)pelnic_vrf_ctx_free(vrf);
        if (other != nullptr) (void)pelnic_vrf_ctx_free(other);
    }
};
const Prepared& Prepare(const Target& target)
{
    static Prepared prepared{};
    Run& run = TheRun();
    if (prepared.target == &target) {
        run.arena.Reset();
        return prepared;
    }
    run.arena.Clear();
    run.crypto = Crypto::Real;
    prepared = {&target, NewContext(target.holding), target.isDouble ? NewContext(target.holding) : nullptr, 0};
    HoldAll(prepared.vrf);
    HoldAll(prepared.other);
    run.arena.Keep();
    prepared.Free();
    prepared.heldBlocks = run.arena.LiveBlocks();
    run.arena.Reset();
    return prepared;
}

void CollectProblems(std::size_t heldBlocks, std::size_t size, std::vector<std::string>* problems)
{
    const Run& run = TheRun();
    problems->insert(problems->end(), run.problems.begin(), run.problems.end());
    if (run.arena.LiveBlocks() != heldBlocks) {
        problems->push_back(std::to_string(run.arena.LiveBlocks()) + " blocks and handles are left instead of " +
                            std::to_string(heldBlocks));
    }
    if (run.arena.PeakBytes() > kFixedMemory + kMemoryPerOctet * size + run.claimed) {
        problems->push_back(std::to_string(run.arena.PeakBytes()) + " octets of memory for " + std::to_string(size) +
                            " of input");
    }
}

} // namespace

Outcome RunInput(const Target& target, Crypto crypto, const std::uint8_t* data, std::size_t size)
{
    const Prepared& prepared = Prepare(target);
    Run& run = TheRun();
    run.crypto = crypto;
    run.problems.clear();
    run.claimed = 0;
    run.checks = 0;
    Outcome outcome{false, {}};
    try {
        outcome.taken = target.run({data, static_cast<PNV_UINT32>(size), crypto, prepared.vrf, prepared.other});
    } catch (const std::exception& problem) {
        outcome.problems.push_back(problem.what());
    }
    run.lies.clear();
    prepared.Free();
    CollectProblems(prepared.heldBlocks, size, &outcome.problems);
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

Device::Device(Holding holding) : vrf_(NewContext(holding)) {}

} // namespace pnvfuzz
