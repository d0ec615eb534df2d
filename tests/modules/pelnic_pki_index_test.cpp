// The index by which a store finds duplicates: it agrees with the comparisons and stays balanced.
#include "cmsverify/pelnic_pki_index.h"

#include "cmsverify/pelnic_asn1_utils.h"
#include "cmsverify/pelnic_x509_utils.h"
#include "support/stores.h"

#include <algorithm>

namespace pnvtest {
namespace {

constexpr std::size_t kCount = 1000;

// A positive INTEGER of three octets.
Bytes Number(std::size_t number)
{
    return Int({0x40, static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)});
}

const Bytes& Sample()
{
    static const Bytes sample = Build(Signer());
    return sample;
}

template <typename Object> std::size_t HeightOf(const Object* index)
{
    if (index == nullptr) return 0;
    return 1 + std::max(HeightOf(index->pki.pBefore), HeightOf(index->pki.pAfter));
}
constexpr std::size_t kMostHeight = 20; // 2^10 is more than the count, and no way is twice as long as another

// Certificates that differ in one of the three things that make a duplicate.
using Series = Bytes (*)(std::size_t);
constexpr Series kSeries[] = {
    [](std::size_t i) {
        return Replace(Sample(), {0, tbs::serial}, Number(i));
    },
    [](std::size_t i) {
        return Replace(Sample(), {0, tbs::serial}, Number(kCount - i));
    },
    [](std::size_t i) {
        return Replace(Sample(), {0, tbs::issuer}, Name(C("ZZ"), Cn(std::to_string(1000 + i))));
    },
    [](std::size_t i) {
        return Replace(Sample(), {0, tbs::publicKey}, RsaSpki(Content(Number(i), {})));
    },
};

TEST(PkiIndex, FindsEachCertificateAndStaysLow)
{
    for (Series series : kSeries) {
        CleanPlan plan;
        Stores stores(plan);
        LIST_TYPE_PELNIC_X509_CERT none{};
        PkiIndex<PELNIC_X509_CERT> index{};
        for (std::size_t i = 0; i < kCount; ++i) {
            PELNIC_X509_CERT* const cert = stores.Cert(series(i));
            ASSERT_EQ(_pnvFindDuplicateCert(&none, &index, cert), nullptr);
            _pnvIndexCert(&index, cert);
            ASSERT_EQ(_pnvFindDuplicateCert(&none, &index, stores.Cert(series(i))), cert);
        }
        for (std::size_t i = 0; i < kCount; ++i) {
            EXPECT_NE(_pnvFindDuplicateCert(&none, &index, stores.Cert(series(i))), nullptr);
        }
        EXPECT_LE(HeightOf(index.pRoot), kMostHeight);
    }
}

TEST(PkiIndex, FindsEachCrlAndStaysLow)
{
    const Bytes sample = Build(CrlOf(Root()));
    const auto nth = [&](std::size_t i) { return Replace(sample, {2}, Bits(0, Number(i))); };
    CleanPlan plan;
    Stores stores(plan);
    LIST_TYPE_PELNIC_X509_CRL none{};
    PkiIndex<PELNIC_X509_CRL> index{};
    for (std::size_t i = 0; i < kCount; ++i) {
        PELNIC_X509_CRL* const crl = stores.Crl(nth(i));
        ASSERT_EQ(_pnvFindDuplicateCrl(&none, &index, crl), nullptr);
        _pnvIndexCrl(&index, crl);
    }
    for (std::size_t i = 0; i < kCount; ++i)
        EXPECT_NE(_pnvFindDuplicateCrl(&none, &index, stores.Crl(nth(i))), nullptr);
    EXPECT_LE(HeightOf(index.pRoot), kMostHeight);
}

// The order takes for equal what the comparisons of names, numbers and keys take for equal, tags included.
// A signature that begins with another one is another one, whichever came first.
TEST(PkiIndex, FindsNoCrlWhoseSignatureIsLonger)
{
    const Bytes sample = Build(CrlOf(Root()));
    const Bytes shorter = Replace(sample, {2}, Bits(0, Bytes(128, 0x5A)));
    const Bytes longer = Replace(sample, {2}, Bits(0, Bytes(256, 0x5A)));
    for (const auto& [first, second] : {std::pair(shorter, longer), std::pair(longer, shorter)}) {
        CleanPlan plan;
        Stores stores(plan);
        LIST_TYPE_PELNIC_X509_CRL none{};
        PkiIndex<PELNIC_X509_CRL> index{};
        PELNIC_X509_CRL* const crl = stores.Crl(first);
        _pnvIndexCrl(&index, crl);
        EXPECT_EQ(_pnvFindDuplicateCrl(&none, &index, stores.Crl(second)), nullptr);
        EXPECT_EQ(_pnvFindDuplicateCrl(&none, &index, stores.Crl(first)), crl);
    }
}

TEST(PkiIndex, AgreesWithTheComparisons)
{
    const auto issuer = [](const Bytes& name) { return Replace(Sample(), {0, tbs::issuer}, name); };
    const auto serial = [](const Bytes& number) { return Replace(Sample(), {0, tbs::serial}, number); };
    const auto key = [](const Bytes& spki) { return Replace(Sample(), {0, tbs::publicKey}, spki); };
    const Bytes samples[] = {
        Sample(),
        Build(With(Signer(), &CertSpec::notAfter, UtcTime("300101000000Z"))), // a duplicate all the same
        serial(Int({0x01})),
        serial(Int({0x00, 0x01})), // the same number
        serial(Int({0x02})),
        serial(Int({0x01, 0x00})),
        issuer(Name()),
        issuer(Name(Cn("a"))),
        issuer(Name(Cn("b"))),
        issuer(Name(O("a"))),
        issuer(Name(NameAttr(oid::commonName, Printable("a")))),
        issuer(Name(NameAttr(oid::commonName, CtxPrim(12, Text("a"))))), // the number of UTF8String in another class
        issuer(Name(Cn("a"), Cn("a"))),
        issuer(Name(Rdn(Cn("a"), Cn("a")))),
        key(RsaSpki({0x41})),
        key(RsaSpki({0x41, 0x42})),
        key(Replace(RsaSpki({0x41}), {0}, AlgoId(oid::ecPublicKey))), // the same bits
    };
    CleanPlan plan;
    Stores stores(plan);
    for (const Bytes& a : samples) {
        for (const Bytes& b : samples) {
            PELNIC_X509_CERT* const stored = stores.Cert(a);
            const PELNIC_X509_CERT* const added = stores.Cert(b);
            const PELNIC_X509_CERTINFO& one = *stored->toBeSigned;
            const PELNIC_X509_CERTINFO& other = *added->toBeSigned;
            const bool equal = pelnic_compare_asn_bigint(stores, one.serialNumber, other.serialNumber) == 0 &&
                               pelnic_compare_x509_name(stores, one.issuer, other.issuer) == 0 &&
                               pelnic_compare_asn_bits(stores, &one.subjectPubKey->subjectPublicKey,
                                                       &other.subjectPubKey->subjectPublicKey) == 0;
            LIST_TYPE_PELNIC_X509_CERT none{};
            PkiIndex<PELNIC_X509_CERT> index{};
            _pnvIndexCert(&index, stored);
            EXPECT_EQ(_pnvFindDuplicateCert(&none, &index, added) != nullptr, equal);
        }
    }
}

} // namespace
} // namespace pnvtest
