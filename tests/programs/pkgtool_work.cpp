// What an explanation costs, in allocations, which are the same on every machine. Not among the other tests, since it
// replaces the operator new of its whole program.
#include "pkgtool/diagnosis.h"
#include "support/package.h"
#include "support/paths.h"
#include "support/signature.h"

#include <cstdlib>
#include <new>

static std::size_t allocations = 0;

void* operator new(std::size_t size)
{
    ++allocations;
    if (void* const block = std::malloc(size)) return block;
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept
{
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

namespace pnvtest {
namespace {

Bytes Serial(int i)
{
    return {0x7F, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)};
}

// Signers that need no key: a public certificate is named, and nobody signed the timestamp.
Bytes PackageOf(int signers, int entries)
{
    const Bytes payload = Text("a firmware image");
    DemoPki pki(KeyId::Rsa4096);
    for (int i = 0; i < entries; ++i) pki.signingCrl.revoked.push_back({Serial(i)});
    TokenSpec token = DemoToken(pki);
    token.cms.signers.clear();
    token.cms.certificates.clear();
    CmsSpec cms = DemoCms(pki, token);
    cms.signers[0].signature = Bytes(256, 0x01);
    cms.signers.resize(static_cast<std::size_t>(signers), cms.signers[0]);
    return Build(SignedPackage(payload, DetachedCms(payload, cms), pki.Crls()));
}

long AllocationsToExplain(int signers, int entries)
{
    const Bytes package = PackageOf(signers, entries);
    const pkgtool::Root root = pkgtool::loadRoot(DataPath("test_root.der"));
    const pkgtool::Verdict verdict = pkgtool::judge(package, root);
    const pkgtool::Contents contents = pkgtool::readContents(package, root.content, root.source);
    const std::size_t before = allocations;
    const pkgtool::Diagnosis diagnosis = pkgtool::diagnose(package, contents, verdict);
    const auto spent = static_cast<long>(allocations - before);
    EXPECT_EQ(diagnosis.failure["kind"], "signature-value");
    EXPECT_EQ(diagnosis.signers.size(), static_cast<std::size_t>(signers));
    EXPECT_EQ(diagnosis.signers.front()["chain"][0]["crls"][0]["says"], "does not list it");
    return spent;
}

// Each signer costs the same however long the CRL is.
TEST(ExplainWork, IsNotSignersTimesCrlEntries)
{
    const long ofOneSigner = AllocationsToExplain(1, 400) - AllocationsToExplain(1, 1);
    const long ofTwentySigners = AllocationsToExplain(20, 400) - AllocationsToExplain(20, 1);
    RecordProperty("entries", static_cast<int>(ofOneSigner));
    EXPECT_LT(ofTwentySigners, ofOneSigner + 20);
}

} // namespace
} // namespace pnvtest
