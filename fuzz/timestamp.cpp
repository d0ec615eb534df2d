// A timestamp token, as the attribute of a signer who is otherwise in order. The same input is decoded as the TSTInfo
// inside a token, which saves the fuzzer the lengths around it.
#include "fuzz.h"

#include <algorithm>

namespace pnvfuzz {

namespace {

void DecodeTstInfo(const Trial& trial)
{
    PELNIC_TST_INFO* info = nullptr;
    PNV_UINT32 consumed = 0;
    if (pelnic_decode_timestamp_token(trial.vrf, trial.data, trial.size, &info, &consumed) != 0) return;
    Require(consumed <= trial.size, "a TSTInfo ends inside its input");
    pelnic_free_timestamp_token(trial.vrf, info);
}

// An element of the signature that the token lies in, and what else is in it.
struct Shell {
    std::uint8_t tag;
    Bytes before;
    Bytes after;
};

// A signature is taken apart once, and put together around every token.
std::vector<Shell> ShellsOfTheToken()
{
    const Bytes mark = Octets(Text("here is the token"));
    CmsSpec spec = DemoCms(Pki());
    spec.signers[0].unsignedAttributes = {[&](const Bytes&) { return Attribute(oid::timestampToken, mark); }};
    const Bytes cms = DetachedCms(Payload(), spec);
    const auto marked = std::search(cms.begin(), cms.end(), mark.begin(), mark.end());
    const auto at = static_cast<std::size_t>(marked - cms.begin());

    std::vector<Shell> shells;
    for (Element shell = ElementAt(cms, 0); shell.offset != at;) {
        const auto content = cms.begin() + static_cast<std::ptrdiff_t>(shell.ContentOffset());
        const auto end = cms.begin() + static_cast<std::ptrdiff_t>(shell.End());
        for (const Element& child : Children(cms, shell)) {
            if (child.offset > at || child.End() <= at) continue;
            const auto inner = cms.begin() + static_cast<std::ptrdiff_t>(child.offset);
            const auto innerEnd = cms.begin() + static_cast<std::ptrdiff_t>(child.End());
            shells.push_back({shell.tag, Bytes(content, inner), Bytes(innerEnd, end)});
            shell = child;
            break;
        }
    }
    return shells;
}

void Append(Bytes* octets, const Bytes& more)
{
    octets->insert(octets->end(), more.begin(), more.end());
}

// In one go: lengths from the inside out, then octets from the outside in.
Bytes SignatureWith(const std::uint8_t* token, std::size_t size)
{
    static const std::vector<Shell> shells = ShellsOfTheToken();
    std::vector<Bytes> lengths(shells.size());
    std::size_t length = size;
    for (std::size_t i = shells.size(); i-- > 0;) {
        length += shells[i].before.size() + shells[i].after.size();
        lengths[i] = Length(length);
        length += 1 + lengths[i].size();
    }
    Bytes cms;
    cms.reserve(length);
    for (std::size_t i = 0; i < shells.size(); ++i) {
        cms.push_back(shells[i].tag);
        Append(&cms, lengths[i]);
        Append(&cms, shells[i].before);
    }
    cms.insert(cms.end(), token, token + size);
    for (auto shell = shells.rbegin(); shell != shells.rend(); ++shell) Append(&cms, shell->after);
    return cms;
}

} // namespace

bool FuzzTimestamp(const Trial& trial)
{
    DecodeTstInfo(trial);
    return Begin(trial.vrf, SignatureWith(trial.data, trial.size)) == 0;
}

} // namespace pnvfuzz
