// Signatures that nobody made with the key they name: numbers, paddings and digests that a careless check of RSA or of
// the signed attributes takes for good ones. Each stands wherever a package has a signature.
#include "support/signature.h"
#include "support/signing_room.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>

namespace pnvtest {
namespace {

// ---- Numbers ----

struct OpensslFree {
    void operator()(BIGNUM* number) const { BN_free(number); }
    void operator()(BN_CTX* ctx) const { BN_CTX_free(ctx); }
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
using Number = std::unique_ptr<BIGNUM, OpensslFree>;

Number NumberOf(const Bytes& magnitude)
{
    return Number(BN_bin2bn(magnitude.data(), static_cast<int>(magnitude.size()), nullptr));
}

// Filled up on the left.
Bytes OctetsOf(const BIGNUM* number, std::size_t size)
{
    Bytes octets(size);
    if (BN_bn2binpad(number, octets.data(), static_cast<int>(size)) < 0) Misuse("a number has too many octets");
    return octets;
}

Number Cube(const BIGNUM* root)
{
    const std::unique_ptr<BN_CTX, OpensslFree> ctx(BN_CTX_new());
    Number cube(BN_new());
    BN_sqr(cube.get(), root, ctx.get());
    BN_mul(cube.get(), cube.get(), root, ctx.get());
    return cube;
}

// A number whose cube has these octets at its beginning and at its end, bit by bit from either side. The last octet
// must be odd, and what lies between must be two thirds of the whole.
Bytes CubeRoot(std::size_t size, const Bytes& begin, const Bytes& end)
{
    Bytes least = begin;
    least.resize(size);
    Bytes most = begin;
    most.resize(size, 0xFF);
    const Number limit = NumberOf(most);
    Number root(BN_new());
    for (int bit = static_cast<int>(size) * 8 / 3; bit >= 0; --bit) {
        BN_set_bit(root.get(), bit);
        if (BN_cmp(Cube(root.get()).get(), limit.get()) > 0) BN_clear_bit(root.get(), bit);
    }
    const Number wanted = NumberOf(end);
    for (int bit = 0; bit < static_cast<int>(end.size()) * 8; ++bit) {
        BN_clear_bit(root.get(), bit);
        if (BN_is_bit_set(Cube(root.get()).get(), bit) != BN_is_bit_set(wanted.get(), bit)) BN_set_bit(root.get(), bit);
    }
    const Bytes cube = OctetsOf(Cube(root.get()).get(), size);
    EXPECT_TRUE(std::equal(begin.begin(), begin.end(), cube.begin())) << "no forgery at all";
    EXPECT_TRUE(std::equal(end.rbegin(), end.rend(), cube.rbegin())) << "no forgery at all";
    return OctetsOf(root.get(), size);
}

EVP_PKEY* PrivateKey(KeyId key)
{
    static std::map<KeyId, std::unique_ptr<EVP_PKEY, OpensslFree>> keys;
    auto& pkey = keys[key];
    if (pkey == nullptr) {
        const std::unique_ptr<BIO, OpensslFree> file(BIO_new_file(KeyFile(key).c_str(), "r"));
        pkey.reset(PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr));
    }
    return pkey.get();
}

// The private operation on any block (RFC 8017, 5.2.1).
Bytes SignBlock(KeyId key, const Bytes& block)
{
    const std::unique_ptr<EVP_PKEY_CTX, OpensslFree> ctx(EVP_PKEY_CTX_new(PrivateKey(key), nullptr));
    Bytes signature(block.size());
    std::size_t length = signature.size();
    if (EVP_PKEY_sign_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) != 1 ||
        EVP_PKEY_sign(ctx.get(), signature.data(), &length, block.data(), block.size()) != 1) {
        Misuse("signing a block failed");
    }
    return signature;
}

Bytes DigestInfo(const Bytes& digest)
{
    return Seq(AlgoId(oid::sha256), Octets(digest));
}

// EMSA-PKCS1-v1_5 (RFC 8017, 9.2): 00 01, padding, 00, and what is signed.
Bytes Padded(std::size_t size, const Bytes& what)
{
    return Cat(Bytes{0x00, 0x01}, Bytes(size - what.size() - 3, 0xFF), Bytes{0x00}, what);
}

// The same with eight octets of padding, which is where a careless check stops counting.
Bytes EarlyEnd(const Bytes& what)
{
    return Padded(8 + 3 + what.size(), what);
}

// ---- Rows of tables ----

template <typename Row> auto operator<<(std::ostream& out, const Row& row) -> decltype(out << row.name)
{
    return out << row.name;
}
constexpr auto kNameOf = [](const auto& row) { return std::string(row.param.name); };

// ---- Where a package has signatures ----

// The value of a signature over a message, by whoever has or has not this key.
using Signing = std::function<Bytes(KeyId key, const Bytes& message)>;

class Forged : public SignatureTest {
protected:
    Forged() { plan_.RememberGoodSignatures(); }

    static Bytes MessageOf(const SignerSpec& signer, const Bytes& content)
    {
        if (signer.signedAttributes == nullptr) return content;
        return Set(Cat(signer.signedAttributes(Digest(signer.hash, content))));
    }
    static void Forge(SignerSpec& signer, const Bytes& content, const Signing& sign)
    {
        signer.signature = sign(signer.key, MessageOf(signer, content));
    }
    // A certificate or a CRL.
    template <typename Issued> static void Forge(Issued& issued, const Signing& sign)
    {
        issued.signature = sign(issued.issuerKey, Extract(Build(issued), {0}));
    }
    static CmsSpec StampedBy(const DemoPki& pki, const Signing& sign, bool isDirect)
    {
        const TokenSpec token = DemoToken(pki);
        CmsSpec cms = DemoCms(pki, token);
        cms.signers[0].unsignedAttributes = {[token, sign, isDirect](const Bytes& stamped) {
            TokenSpec forged = token;
            SignerSpec& authority = forged.cms.signers[0];
            if (isDirect) authority.signedAttributes = nullptr;
            Forge(authority, TstInfo(forged, stamped), sign);
            return Timestamp(forged)(stamped);
        }};
        return cms;
    }

    void Expect(const CmsSpec& cms, const Bytes& content, const Verdict& verdict)
    {
        Renew();
        Provide();
        EXPECT_EQ(Verify(Current(), DetachedCms(content, cms), content), verdict);
        EXPECT_TRUE(verdict.code == 0 || LoggedError(plan_, verdict.code));
    }
    void Expect(const CmsSpec& cms, const Verdict& verdict) { Expect(cms, payload_, verdict); }
    // The two kinds of signers, the two of a timestamp, a certificate and a CRL.
    void ExpectEverywhere(const Signing& sign, bool isGood)
    {
        const auto refused = [&](PELNIC_ERROR_CODE rc) { return isGood ? good : Verdict{rc, 0}; };
        CmsSpec cms = DemoCms(pki_);
        Forge(cms.signers[0], payload_, sign);
        Expect(cms, refused(PELNIC_ERR_CMS_SIGNATURE));
        cms = Direct(DemoCms(pki_));
        Forge(cms.signers[0], payload_, sign);
        Expect(cms, isGood ? good : bad);
        Expect(StampedBy(pki_, sign, false), refused(PELNIC_ERR_CMS_SIGNATURE));
        Expect(StampedBy(pki_, sign, true), refused(PELNIC_ERR_TSP_VERIFY));
        const DemoPki genuine = pki_;
        Forge(pki_.signer, sign);
        Expect(DemoCms(pki_), refused(PELNIC_ERR_CERT_VERIFY));
        pki_ = genuine;
        Forge(pki_.signingCrl, sign);
        Expect(DemoCms(pki_), refused(PELNIC_ERR_CERT_VERIFY));
    }
};

struct Forgery {
    const char* name;
    Signing sign;
};
// A block made of the digest and the modulus' size, signed with the key.
Forgery Block(const char* name, std::function<Bytes(std::size_t size, const Bytes& digest)> block)
{
    return {name, [block = std::move(block)](KeyId key, const Bytes& message) {
                return SignBlock(key, block(TestKey(key).modulus.size(), Digest(Hash::Sha256, message)));
            }};
}

// What is signed is no DigestInfo of the message, the padding is in order.
Forgery Info(const char* name, std::function<Bytes(const Bytes& digest)> info)
{
    return Block(
        name, [info = std::move(info)](std::size_t size, const Bytes& digest) { return Padded(size, info(digest)); });
}

// The other way round: a block in order with octets changed.
Forgery Padding(const char* name, std::function<void(Bytes& block)> change)
{
    return Block(name, [change = std::move(change)](std::size_t size, const Bytes& digest) {
        Bytes block = Padded(size, DigestInfo(digest));
        change(block);
        return block;
    });
}

// A number made of the good signature and the modulus.
Forgery Value(const char* name, std::function<Bytes(const Bytes& signature, const Bytes& modulus)> value)
{
    return {name, [value = std::move(value)](KeyId key, const Bytes& message) {
                return value(Sign(key, Hash::Sha256, message), TestKey(key).modulus);
            }};
}

TEST_F(Forged, IsNoneOfThatWhereTheBlockIsInOrder)
{
    ExpectEverywhere(Info("", DigestInfo).sign, true);
}

class ForgedSignature : public Forged, public ::testing::WithParamInterface<Forgery> {};

TEST_P(ForgedSignature, IsRefusedWhereverItStands)
{
    ExpectEverywhere(GetParam().sign, false);
}

Bytes WithLast(Bytes octets, std::uint8_t last)
{
    octets.back() = last;
    return octets;
}

INSTANTIATE_TEST_SUITE_P(
    DigestInfo, ForgedSignature,
    ::testing::Values(
        Info("OfAnotherAlgorithm", [](const Bytes& d) { return Seq(AlgoId(oid::sha512), Octets(d)); }),
        Info("OfAnUnknownAlgorithm", [](const Bytes& d) { return Seq(AlgoId(oid::testPolicy), Octets(d)); }),
        Info("WithoutParameters", [](const Bytes& d) { return Seq(AlgoId(oid::sha256, {}), Octets(d)); }),
        Info("WithOtherParameters", [](const Bytes& d) { return Seq(AlgoId(oid::sha256, Octets({})), Octets(d)); }),
        Info("WithParametersTwice",
             [](const Bytes& d) { return Seq(AlgoId(oid::sha256, Cat(Null(), Null())), Octets(d)); }),
        Info("WithAnotherDigest", [](const Bytes& d) { return DigestInfo(Digest(Hash::Sha256, d)); }),
        Info("WithADigestCutShort", [](const Bytes& d) { return DigestInfo(Bytes(d.begin(), d.end() - 1)); }),
        Info("WithALongerDigest", [](const Bytes& d) { return DigestInfo(Cat(d, Bytes{0x00})); }),
        Info("WithADigestUnderAnotherTag", [](const Bytes& d) { return Seq(AlgoId(oid::sha256), Tlv(0x0C, d)); }),
        Info("WithMoreBehindTheDigest", [](const Bytes& d) { return Seq(AlgoId(oid::sha256), Octets(d), Null()); }),
        Info("WithMoreBehindIt", [](const Bytes& d) { return Cat(DigestInfo(d), Null()); }),
        Info("WithLengthsInTheLongForm",
             [](const Bytes& d) { return TlvLong(0x30, 1, Cat(AlgoId(oid::sha256), Octets(d))); }),
        Info("ThatIsTheDigestAlone", [](const Bytes& d) { return d; }),
        Info("ThatIsNotThere", [](const Bytes&) { return Bytes{}; })),
    kNameOf);

INSTANTIATE_TEST_SUITE_P(Padding, ForgedSignature,
                         ::testing::Values(Padding("OfType0",
                                                   [](Bytes& block) {
                                                       block[1] = 0x00;
                                                       std::replace(block.begin(), block.begin() + 200,
                                                                    std::uint8_t{0xFF}, std::uint8_t{0x00});
                                                   }),
                                           Padding("OfType2", [](Bytes& block) { block[1] = 0x02; }), //
                                           Padding("WithAnotherFirstOctet", [](Bytes& block) { block[0] = 0x01; }),
                                           Padding("ThatBeginsWithAnotherOctet", [](Bytes& block) { block[2] = 0xFE; }),
                                           Padding("WithAnotherOctetInside", [](Bytes& block) { block[100] = 0x7F; }),
                                           Padding("ThatEndsInAnotherOctet",
                                                   [](Bytes& block) { block[256 - 51 - 2] = 0xFE; }),
                                           Padding("WithAZeroInside", [](Bytes& block) { block[100] = 0x00; }),
                                           Padding("ThatDoesNotEnd", [](Bytes& block) { block[256 - 51 - 1] = 0xFF; }),
                                           Padding("ThatEndsTwice", [](Bytes& block) { block[256 - 51 - 2] = 0x00; }),
                                           Block("OfEightOctetsAndMoreBehind",
                                                 [](std::size_t size, const Bytes& digest) {
                                                     Bytes block = EarlyEnd(DigestInfo(digest));
                                                     block.resize(size, 0xA5);
                                                     return block;
                                                 }),
                                           Block("OfNoOctetsAndMoreBehind",
                                                 [](std::size_t size, const Bytes& digest) {
                                                     Bytes block = Cat(Bytes{0x00, 0x01, 0x00}, DigestInfo(digest));
                                                     block.resize(size, 0xA5);
                                                     return block;
                                                 }),
                                           Block("OfZerosBeforeIt",
                                                 [](std::size_t size, const Bytes& digest) {
                                                     const Bytes block = EarlyEnd(DigestInfo(digest));
                                                     return Cat(Bytes(size - block.size()), block);
                                                 })),
                         kNameOf);

// s and n are the good signature and the modulus.
INSTANTIATE_TEST_SUITE_P(
    Value, ForgedSignature,
    ::testing::Values(Value("Of0", [](const Bytes&, const Bytes& n) { return Bytes(n.size()); }),
                      Value("Of1", [](const Bytes&, const Bytes& n) { return WithLast(Bytes(n.size()), 1); }),
                      Value("OfNMinus1", [](const Bytes&, const Bytes& n) { return WithLast(n, n.back() & 0xFE); }),
                      Value("OfN", [](const Bytes&, const Bytes& n) { return n; }),
                      Value("OfAllOnes", [](const Bytes&, const Bytes& n) { return Bytes(n.size(), 0xFF); }),
                      Value("OfSPlusN",
                            [](const Bytes& s, const Bytes& n) {
                                const Number sum = NumberOf(s);
                                BN_add(sum.get(), sum.get(), NumberOf(n).get());
                                return OctetsOf(sum.get(), static_cast<std::size_t>(BN_num_bytes(sum.get())));
                            }),
                      Value("OfNMinusS",
                            [](const Bytes& s, const Bytes& n) {
                                const Number difference = NumberOf(n);
                                BN_sub(difference.get(), difference.get(), NumberOf(s).get());
                                return OctetsOf(difference.get(), n.size());
                            }),
                      Value("OfSBackwards", [](const Bytes& s, const Bytes&) { return Bytes(s.rbegin(), s.rend()); }),
                      Value("OfOneOctet", [](const Bytes&, const Bytes&) { return Bytes{0x01}; }),
                      Value("OfSCutShort", [](const Bytes& s, const Bytes&) { return Bytes(s.begin(), s.end() - 1); }),
                      Value("OfSAndMore", [](const Bytes& s, const Bytes&) { return Cat(s, Bytes(4)); }),
                      Value("OfZerosAndS", [](const Bytes& s, const Bytes&) { return Cat(Bytes(4), s); }),
                      Value("OfAMillionZerosAndS",
                            [](const Bytes& s, const Bytes&) { return Cat(Bytes(1000000), s); })),
    kNameOf);

// ---- Without the private key: cube roots under the exponent 3 ----

// The signer has a certified key with this exponent, of which only the modulus is used.
class CubeRootForgery : public Forged {
protected:
    CubeRootForgery()
    {
        pki_.signer.key = KeyId::Rsa4096;
        pki_.signer.subjectPublicKey = RsaSpki(TestKey(KeyId::Rsa4096).modulus, {0x03});
    }
    // Of some content, the digest of which is odd and so has a root.
    void ExpectRefused(const std::function<Bytes(const Bytes& digest)>& root)
    {
        for (const bool direct : {false, true}) {
            CmsSpec cms = direct ? Direct(DemoCms(pki_)) : DemoCms(pki_);
            Bytes content = payload_;
            const auto digest = [&] { return Digest(Hash::Sha256, MessageOf(cms.signers[0], content)); };
            while (digest().back() % 2 == 0) content.push_back(0x00);
            cms.signers[0].signature = root(digest());
            Expect(cms, content, direct ? bad : Verdict{PELNIC_ERR_CMS_SIGNATURE, 0});
        }
    }
    static constexpr std::size_t kSize = 512;
};

// The padding ends early, and anything may stand behind the digest.
TEST_F(CubeRootForgery, WithAnythingBehindTheDigestIsRefused)
{
    ExpectRefused([](const Bytes& digest) { return CubeRoot(kSize, EarlyEnd(DigestInfo(digest)), {}); });
}

// All lengths are right, and the algorithm's parameters are anything.
TEST_F(CubeRootForgery, WithAnythingInTheParametersIsRefused)
{
    ExpectRefused([](const Bytes& digest) {
        const Bytes end = Octets(digest);
        const auto around = [&](std::size_t parameters) {
            return EarlyEnd(Seq(Seq(Oid(oid::sha256), Octets(Bytes(parameters))), end));
        };
        const std::size_t parameters = kSize - around(256).size() + 256; // of the same length of lengths
        const Bytes block = around(parameters);
        EXPECT_EQ(block.size(), kSize);
        const auto garbage = static_cast<std::ptrdiff_t>(parameters + end.size());
        return CubeRoot(kSize, Bytes(block.begin(), block.end() - garbage), end);
    });
}

// ---- Certified keys that are none ----

struct StrangeKey {
    const char* name;
    std::function<Bytes(const Bytes& modulus)> spki;
    Verdict direct; // for a signer without attributes; with attributes it is a wrong signature in any case
};
class StrangeKeys : public Forged, public ::testing::WithParamInterface<StrangeKey> {};

// Neither the one that the modulus' owner makes nor the block itself, which is one where the exponent is as good as 1.
TEST_P(StrangeKeys, AcceptNoSignature)
{
    pki_.signer.subjectPublicKey = GetParam().spki(TestKey(pki_.signer.key).modulus);
    const Signing itself = [](KeyId key, const Bytes& message) {
        return Padded(TestKey(key).modulus.size(), DigestInfo(Digest(Hash::Sha256, message)));
    };
    const Signing owner = [](KeyId key, const Bytes& message) { return Sign(key, Hash::Sha256, message); };
    for (const Signing& sign : {itself, owner}) {
        CmsSpec cms = DemoCms(pki_);
        Forge(cms.signers[0], payload_, sign);
        Expect(cms, {PELNIC_ERR_CMS_SIGNATURE, 0});
        cms = Direct(DemoCms(pki_));
        Forge(cms.signers[0], payload_, sign);
        Expect(cms, GetParam().direct);
    }
}

TEST_P(StrangeKeys, AreNoIssuers)
{
    pki_.signingCa.subjectPublicKey = GetParam().spki(TestKey(pki_.signingCa.key).modulus);
    Expect(DemoCms(pki_), {PELNIC_ERR_CERT_VERIFY, 0});
}

Bytes KeyOf(const Bytes& numbers)
{
    return Seq(AlgoId(oid::rsaEncryption), Bits(0, Seq(numbers)));
}

const Bytes kF4 = Int({0x01, 0x00, 0x01});

INSTANTIATE_TEST_SUITE_P(
    Of, StrangeKeys,
    ::testing::Values(
        StrangeKey{"Exponent0", [](const Bytes& n) { return RsaSpki(n, {0x00}); }, {PELNIC_ERR_CERT_INVALID, 0}},
        StrangeKey{"Exponent2", [](const Bytes& n) { return RsaSpki(n, {0x02}); }, bad},
        StrangeKey{"Exponent2048Bits",
                   [](const Bytes& n) { return RsaSpki(n, Cat(Bytes{0x80}, Bytes(254), Bytes{1})); }, bad},
        StrangeKey{
            "NoExponent", [](const Bytes& n) { return KeyOf(Int(Cat(Bytes{0x00}, n))); }, {PELNIC_ERR_CERT_INVALID, 0}},
        StrangeKey{"Modulus1", [](const Bytes&) { return RsaSpki({0x01}); }, bad},
        StrangeKey{"Modulus15", [](const Bytes&) { return RsaSpki({0x0F}); }, bad},
        StrangeKey{"EvenModulus", [](const Bytes& n) { return RsaSpki(WithLast(n, n.back() & 0xFE)); }, bad},
        StrangeKey{"NoModulus", [](const Bytes&) { return KeyOf(kF4); }, {PELNIC_ERR_CERT_INVALID, 0}},
        StrangeKey{"Modulus0", [](const Bytes&) { return KeyOf(Cat(Int({0x00}), kF4)); }, {PELNIC_ERR_CERT_INVALID, 0}},
        StrangeKey{"Modulus4104Bits",
                   [](const Bytes& n) { return RsaSpki(Cat(Bytes(257, 0x5A), n)); },
                   {PELNIC_ERR_SYS_MEM_OVERFLOW, 0}}),
    kNameOf);

// A magnitude that says it is negative is read as what it was before (RFC 8017, A.1.1 has no negative ones).
TEST_F(Forged, KeyInNegativeFormIsTheKey)
{
    pki_.signer.subjectPublicKey = KeyOf(Cat(Int(TestKey(pki_.signer.key).modulus), kF4));
    Expect(DemoCms(pki_), good);
    Expect(Direct(DemoCms(pki_)), good);
}

// ---- Digests and signed attributes ----

struct Change {
    const char* name;
    std::function<void(SignerSpec& signer)> change;
    Verdict verdict;
};
class ChangedSigner : public Forged, public ::testing::WithParamInterface<Change> {};

TEST_P(ChangedSigner, IsRefused)
{
    CmsSpec cms = DemoCms(pki_);
    GetParam().change(cms.signers[0]);
    Expect(cms, GetParam().verdict);
}

constexpr Verdict kWrong{PELNIC_ERR_CMS_SIGNATURE, 0};
constexpr Verdict kUnreadable{PELNIC_ERR_CMS_DECODE, 0};
constexpr Verdict kNoDigest{PELNIC_ERR_CMS_NO_MESSAGE_DIGEST, 0};
const Path kAttributes{3}; // of a SignerInfo

Change Says(const char* name, Hash hash, std::string_view algorithm, bool isDirect)
{
    const auto change = [=](SignerSpec& signer) {
        signer.hash = hash;
        signer.digestAlgorithm = AlgoId(algorithm);
        if (isDirect) signer.signedAttributes = nullptr;
    };
    return {name, change, isDirect ? bad : kWrong};
}

// What a signer claims about the content, and signs.
Change Claims(const char* name, std::function<Bytes(const Bytes& digest)> claim, const Verdict& verdict)
{
    const auto change = [claim = std::move(claim)](SignerSpec& signer) {
        signer.signedAttributes = [claim](const Bytes& digest) {
            return std::vector<Bytes>{ContentTypeAttribute(oid::data), MessageDigestAttribute(claim(digest))};
        };
    };
    return {name, change, verdict};
}

// The attributes in another form than the one that was signed.
Change Attributes(const char* name, std::function<Bytes(const Bytes& set)> form, const Verdict& verdict = kWrong)
{
    const auto change = [form = std::move(form)](SignerSpec& signer) {
        signer.edit = [form](const Bytes& info) {
            return Replace(info, kAttributes, form(Extract(info, kAttributes)));
        };
    };
    return {name, change, verdict};
}

// The same for each attribute; the digest is the second.
Change Digests(const char* name, std::function<Bytes(const Bytes& attribute)> form, const Verdict& verdict = kWrong)
{
    return Attributes(
        name, [form = std::move(form)](const Bytes& set) { return Replace(set, {1}, form(Extract(set, {1}))); },
        verdict);
}

INSTANTIATE_TEST_SUITE_P(
    ByDigest, ChangedSigner,
    ::testing::Values(Says("Sha256CalledSha384", Hash::Sha256, oid::sha384, false),
                      Says("Sha256CalledSha512", Hash::Sha256, oid::sha512, false),
                      Says("Sha512CalledSha256", Hash::Sha512, oid::sha256, false),
                      Says("Sha256CalledSha512WithoutAttributes", Hash::Sha256, oid::sha512, true),
                      Says("Sha512CalledSha256WithoutAttributes", Hash::Sha512, oid::sha256, true),
                      Says("Sha1", Hash::Sha1, oid::sha1, false),
                      Says("Sha1CalledSha256", Hash::Sha1, oid::sha256, false),
                      Says("Sha1CalledSha256WithoutAttributes", Hash::Sha1, oid::sha256, true),
                      Says("CalledMd5", Hash::Sha256, oid::md5, false),
                      Says("CalledMd5WithRsa", Hash::Sha256, oid::md5WithRsa, false),
                      Claims(
                          "Of0Octets", [](const Bytes&) { return Bytes{}; }, kNoDigest),
                      Claims(
                          "Of31Octets", [](const Bytes& digest) { return Bytes(digest.begin(), digest.end() - 1); },
                          bad),
                      Claims(
                          "Of33Octets", [](const Bytes& digest) { return Cat(digest, Bytes{0x00}); }, bad),
                      Claims(
                          "Of64Octets", [](const Bytes& digest) { return Cat(digest, digest); }, bad),
                      Claims("Of65Octets", [](const Bytes& digest) { return Cat(digest, digest, Bytes{0x00}); },
                             {PELNIC_ERR_SYS_MEM_OVERFLOW, 0}),
                      Change{"AmongTheUnsignedAttributesAlone",
                             [](SignerSpec& signer) {
                                 signer.signedAttributes = [](const Bytes&) {
                                     return std::vector<Bytes>{ContentTypeAttribute(oid::data)};
                                 };
                                 signer.unsignedAttributes.push_back([](const Bytes&) {
                                     return MessageDigestAttribute(Digest(Hash::Sha256, Text("a firmware image")));
                                 });
                             },
                             kNoDigest}),
    kNameOf);

INSTANTIATE_TEST_SUITE_P(
    ByAttributes, ChangedSigner,
    ::testing::Values(
        Attributes("WithALongerLength", [](const Bytes& set) { return TlvLong(0xA0, 2, Content(set, {})); }),
        Attributes("InAnotherOrder", [](const Bytes& set) { return Ctx(0, Extract(set, {1}), Extract(set, {0})); }),
        Attributes("TwiceOver", [](const Bytes& set) { return Ctx(0, Content(set, {}), Content(set, {})); }),
        Attributes("WithoutTheFirst", [](const Bytes& set) { return Ctx(0, Extract(set, {1})); }),
        Attributes("WithOneMore",
                   [](const Bytes& set) {
                       return Ctx(0, Content(set, {}), SigningTimeAttribute(UtcTime("260101000000Z")));
                   }),
        Attributes("WithAnotherDigestBefore",
                   [](const Bytes& set) { return Ctx(0, MessageDigestAttribute(Bytes(32, 0x5A)), Content(set, {})); }),
        Attributes(
            "ThatAreNone", [](const Bytes&) { return Ctx(0); }, kUnreadable),
        Attributes(
            "UnderTheTagOfASet", [](const Bytes& set) { return Set(Content(set, {})); }, kUnreadable),
        Attributes(
            "UnderTheTagOfTheUnsigned", [](const Bytes& set) { return Ctx(1, Content(set, {})); }, kUnreadable),
        Attributes(
            "TwoSets", [](const Bytes& set) { return Cat(set, set); }, kUnreadable),
        Attributes(
            "Dropped", [](const Bytes&) { return Bytes{}; }, bad),
        // A single octet is read as the identifier of an element that is not asked for; two are a broken next
        // attribute.
        Digests("WithAnOctetBehindTheValues", [](const Bytes& a) { return Seq(Content(a, {}), Bytes{0x05}); }),
        Digests(
            "WithAnElementBehindTheValues", [](const Bytes& a) { return Seq(Content(a, {}), Null()); }, kUnreadable),
        Digests("WithAnotherValueBehind",
                [](const Bytes& a) { return Attribute(oid::messageDigest, Content(a, {1}), Octets(Bytes(32, 0x5A))); }),
        Digests("WithAnotherValueBefore",
                [](const Bytes& a) { return Attribute(oid::messageDigest, Octets(Bytes(32, 0x5A)), Content(a, {1})); }),
        Digests("WithAValueUnderAnotherTag",
                [](const Bytes& a) {
                    return Attribute(oid::messageDigest, Tlv(0x0C, Content(a, {1, 0})));
                })),
    kNameOf);

} // namespace
} // namespace pnvtest
