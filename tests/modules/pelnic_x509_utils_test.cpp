// Names, keys and extensions: compared, found, made readable, and used to check a signature.
#include "cmsverify/pelnic_x509_utils.h"

#include "cmsverify/pelnic_plt_proxy.h"
#include "support/pki.h"
#include "support/vrf.h"
#include "support/x509.h"

#include <cstring>
#include <numeric>

namespace pnvtest {
namespace {

class X509Utils : public ::testing::Test {
protected:
    OwnedItem<PELNIC_X509_NAME_item> DecodeName(const Bytes& der)
    {
        return DecodeItem<PELNIC_X509_NAME_item>(vrf_, der);
    }
    OwnedItem<PELNIC_X509_PUBKEY_INFO_item> DecodeInfo(const Bytes& der)
    {
        return DecodeItem<PELNIC_X509_PUBKEY_INFO_item>(vrf_, der);
    }
    void ExpectOneErrorLog(PELNIC_ERROR_CODE rc, const std::string& message)
    {
        ASSERT_EQ(vrf_.Plan().Logs().size(), 1u);
        const LogRecord& log = vrf_.Plan().Logs()[0];
        EXPECT_EQ(log.level, PELNIC_LOG_TYPE_ERROR);
        EXPECT_EQ(log.rc, rc);
        EXPECT_EQ(log.message, message);
    }

    Vrf vrf_;
};

// ---- Names: octet for octet, in the order given ----

class CompareName : public X509Utils {
protected:
    PELNIC_ERROR_CODE Compare(const Bytes& a, const Bytes& b)
    {
        return pelnic_compare_x509_name(vrf_, DecodeName(a).get(), DecodeName(b).get());
    }
};

TEST_F(CompareName, EqualNamesAreEqual)
{
    const Bytes name = Name(C("ZZ"), Rdn(O("Example"), Ou("Unit")), Cn("Test"));
    EXPECT_EQ(Compare(name, name), 0u);
}

TEST_F(CompareName, OneNameIsEqualToItself)
{
    const auto name = DecodeName(TestName("Test"));
    EXPECT_EQ(pelnic_compare_x509_name(vrf_, name.get(), name.get()), 0u);
}

TEST_F(CompareName, EmptyNamesAreEqual)
{
    EXPECT_EQ(Compare(Seq(), Seq()), 0u);
    EXPECT_EQ(Compare(Seq(), Name(Cn("Test"))), PELNIC_ERR_FAILED);
}

TEST_F(CompareName, TheStringTypeCounts)
{
    EXPECT_EQ(
        Compare(Name(NameAttr(oid::commonName, Utf8("Test"))), Name(NameAttr(oid::commonName, Printable("Test")))),
        PELNIC_ERR_FAILED);
}

TEST_F(CompareName, CaseAndSpacesCount)
{
    EXPECT_EQ(Compare(Name(Cn("Test")), Name(Cn("test"))), PELNIC_ERR_FAILED);
    EXPECT_EQ(Compare(Name(Cn("Test")), Name(Cn("Test "))), PELNIC_ERR_FAILED);
}

TEST_F(CompareName, TheAttributeTypeCounts)
{
    EXPECT_EQ(Compare(Name(O("Test")), Name(Ou("Test"))), PELNIC_ERR_FAILED);
}

TEST_F(CompareName, TheOrderCounts)
{
    EXPECT_EQ(Compare(Name(O("Example"), Cn("Test")), Name(Cn("Test"), O("Example"))), PELNIC_ERR_FAILED);
    EXPECT_EQ(Compare(Name(Rdn(O("Example"), Cn("Test"))), Name(Rdn(Cn("Test"), O("Example")))), PELNIC_ERR_FAILED);
}

TEST_F(CompareName, TheNumberCounts)
{
    EXPECT_EQ(Compare(Name(O("Example"), Cn("Test")), Name(O("Example"))), PELNIC_ERR_FAILED);
    EXPECT_EQ(Compare(Name(O("Example")), Name(O("Example"), Cn("Test"))), PELNIC_ERR_FAILED);
    EXPECT_EQ(Compare(Name(Rdn(O("Example"), Cn("Test"))), Name(Rdn(O("Example")))), PELNIC_ERR_FAILED);
}

TEST_F(CompareName, TheDivisionIntoRelativeNamesCounts)
{
    EXPECT_EQ(Compare(Name(O("Example"), Cn("Test")), Name(Rdn(O("Example"), Cn("Test")))), PELNIC_ERR_FAILED);
}

TEST_F(CompareName, ValuesWithoutContentAreEqual)
{
    EXPECT_EQ(Compare(Name(Cn("")), Name(Cn(""))), 0u);
    EXPECT_EQ(Compare(Name(Cn("")), Name(Cn("x"))), PELNIC_ERR_FAILED);
}

TEST_F(CompareName, RefusesNull)
{
    const auto name = DecodeName(TestName("Test"));
    EXPECT_EQ(pelnic_compare_x509_name(vrf_, nullptr, name.get()), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_compare_x509_name(vrf_, name.get(), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_compare_x509_name(nullptr, name.get(), name.get()), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(CompareName, AttributesAndTheirBundlesFollowTheSameRules)
{
    const auto one = DecodeName(Name(Rdn(O("Example"), Cn("Test"))));
    const auto same = DecodeName(Name(Rdn(O("Example"), Cn("Test"))));
    const auto other = DecodeName(Name(Rdn(O("Example"), Cn("Tess"))));
    const PELNIC_X509_ATTR_BUNDLE* const rdns[] = {one->names.data[0], same->names.data[0], other->names.data[0]};
    EXPECT_EQ(pelnic_x509_compare_attr(vrf_, rdns[0], rdns[1]), 0u);
    EXPECT_EQ(pelnic_x509_compare_attr(vrf_, rdns[0], rdns[2]), PELNIC_ERR_FAILED);

    const auto cn = [&](std::size_t i) { return rdns[i]->attrs.data[1]; };
    EXPECT_EQ(pelnic_x509_compare_attr_entry(vrf_, cn(0), cn(1)), 0u);
    EXPECT_EQ(pelnic_x509_compare_attr_entry(vrf_, cn(0), cn(2)), PELNIC_ERR_FAILED);
    EXPECT_EQ(pelnic_x509_compare_attr_entry(vrf_, cn(0), rdns[0]->attrs.data[0]), PELNIC_ERR_FAILED);
}

TEST_F(CompareName, AttributesAndTheirBundlesRefuseNull)
{
    const auto name = DecodeName(Name(Cn("Test")));
    const PELNIC_X509_ATTR_BUNDLE* const rdn = name->names.data[0];
    EXPECT_EQ(pelnic_x509_compare_attr(vrf_, nullptr, rdn), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_compare_attr(vrf_, rdn, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_compare_attr(nullptr, rdn, rdn), PELNIC_ERR_NULL_POINTER);

    const PELNIC_X509_ATTR_ENTRY* const entry = rdn->attrs.data[0];
    EXPECT_EQ(pelnic_x509_compare_attr_entry(vrf_, nullptr, entry), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_compare_attr_entry(vrf_, entry, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_compare_attr_entry(nullptr, entry, entry), PELNIC_ERR_NULL_POINTER);
}

// ---- Public keys ----

class ComparePubkey : public X509Utils {
protected:
    PELNIC_ERROR_CODE Compare(const Bytes& a, const Bytes& b)
    {
        return pelnic_compare_pubkey(vrf_, DecodeInfo(a).get(), DecodeInfo(b).get());
    }
};

TEST_F(ComparePubkey, EqualKeysAreEqual)
{
    EXPECT_EQ(Compare(Spki(KeyId::Rsa2048A), Spki(KeyId::Rsa2048A)), 0u);
    EXPECT_EQ(Compare(Spki(KeyId::EcP256), Spki(KeyId::EcP256)), 0u);
}

TEST_F(ComparePubkey, OneObjectIsEqualWithoutAComparison)
{
    const auto info = DecodeInfo(Spki(KeyId::Rsa2048A));
    const std::size_t before = vrf_.Plan().Count(Call::Memcmp);
    EXPECT_EQ(pelnic_compare_pubkey(vrf_, info.get(), info.get()), 0u);
    EXPECT_EQ(vrf_.Plan().Count(Call::Memcmp), before);
}

TEST_F(ComparePubkey, OtherKeysAndAlgorithmsDiffer)
{
    EXPECT_EQ(Compare(Spki(KeyId::Rsa2048A), Spki(KeyId::Rsa2048B)), PELNIC_ERR_FAILED);
    EXPECT_EQ(Compare(Spki(KeyId::Rsa2048A), Replace(Spki(KeyId::Rsa2048A), {0, 0}, Oid(oid::rsaPss))),
              PELNIC_ERR_FAILED);
}

TEST_F(ComparePubkey, ParametersAreNotCompared)
{
    EXPECT_EQ(Compare(Spki(KeyId::Rsa2048A), Replace(Spki(KeyId::Rsa2048A), {0, 1}, {})), 0u);
    EXPECT_EQ(Compare(Spki(KeyId::Rsa2048A), Replace(Spki(KeyId::Rsa2048A), {0, 1}, Int(1))), 0u);
}

TEST_F(ComparePubkey, UnusedBitsAreNotCompared)
{
    EXPECT_EQ(Compare(Seq(AlgoId(oid::sha256), Bits(0, {0x80})), Seq(AlgoId(oid::sha256), Bits(7, {0x80}))), 0u);
}

TEST_F(ComparePubkey, RefusesNull)
{
    const auto info = DecodeInfo(Spki(KeyId::Rsa2048A));
    EXPECT_EQ(pelnic_compare_pubkey(vrf_, nullptr, info.get()), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_compare_pubkey(vrf_, info.get(), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_compare_pubkey(vrf_, nullptr, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_compare_pubkey(nullptr, info.get(), info.get()), PELNIC_ERR_NULL_POINTER);
}

// ---- Extensions by identifier ----

class FindExtension : public X509Utils {
protected:
    OwnedItem<PELNIC_X509_EXTENSION_BUNDLE_item> DecodeBundle(const Bytes& der)
    {
        return DecodeItem<PELNIC_X509_EXTENSION_BUNDLE_item>(vrf_, der);
    }
};

TEST_F(FindExtension, FindsTheFirstInEncodingOrder)
{
    const auto bundle = DecodeBundle(Seq(Ext(oid::subjectAltName, Seq()), Ext(oid::basicConstraints, Ca()),
                                         Ext(oid::keyUsage, KeyUsage(1)), Ext(oid::basicConstraints, NotCa())));
    const auto& list = bundle->extensions;
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(vrf_, &list, AOID_CE_BASICCONSTRAINTS), list.data[1]);
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(vrf_, &list, AOID_CE_KEYUSAGE), list.data[2]);
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(vrf_, &list, AOID_CE_EXTKEYUSAGE), nullptr);
}

TEST_F(FindExtension, LengthAndTagOfTheIdentifierCount)
{
    const Bytes keyUsageOid = Content(Oid(oid::keyUsage), {});
    const auto bundle = DecodeBundle(Seq(Seq(Octets(keyUsageOid), Octets(KeyUsage(1))), Ext("2.5.29", KeyUsage(1)),
                                         Ext("2.5.29.15.1", KeyUsage(1))));
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(vrf_, &bundle->extensions, AOID_CE_KEYUSAGE), nullptr);
}

TEST_F(FindExtension, AnEmptyListHasNone)
{
    const auto bundle = DecodeBundle(Seq());
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(vrf_, &bundle->extensions, AOID_CE_KEYUSAGE), nullptr);
}

TEST_F(FindExtension, NullAndUnknownIdentifiersHaveNone)
{
    const auto bundle = DecodeBundle(Seq(Ext(oid::keyUsage, KeyUsage(1))));
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(nullptr, &bundle->extensions, AOID_CE_KEYUSAGE), nullptr);
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(vrf_, nullptr, AOID_CE_KEYUSAGE), nullptr);
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(vrf_, &bundle->extensions, AOID_UNKNOWN), nullptr);
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(vrf_, &bundle->extensions, AOID_ECDSA), nullptr); // not in the table
}

// The table's placeholder for the unknown identifier, FF FF, is nothing to look for.
TEST_F(FindExtension, IdentifierZeroHasNone)
{
    const auto bundle = DecodeBundle(Seq(Seq(Tlv(0x06, {0xFF, 0xFF}), Octets(Null()))));
    EXPECT_EQ(pelnic_x509_find_extn_by_aoid(vrf_, &bundle->extensions, AOID_UNKNOWN), nullptr);
}

// ---- Big integers ----

Bytes Counting(std::size_t length)
{
    Bytes octets(length);
    std::iota(octets.begin(), octets.end(), std::uint8_t{1});
    return octets;
}

class BigIntFromOcts : public X509Utils {
protected:
    static PELNIC_ASN_BIGINT Octs(Bytes& magnitude)
    {
        return {Len(magnitude), {CBC_UNIV, CBF_PRIM, CBT_INTEGER}, magnitude.data()};
    }
    static Bytes Magnitude(const PELNIC_BIGINT& number) { return Bytes(number.aVal, number.aVal + number.uiLength); }

    PELNIC_BIGINT number_{};
};

TEST_F(BigIntFromOcts, CopiesUpTo512Octets)
{
    for (std::size_t length : {1u, 3u, 256u, 512u}) {
        Bytes magnitude = Counting(length);
        const PELNIC_ASN_BIGINT octs = Octs(magnitude);
        EXPECT_EQ(_pnvGetBigIntFromOcts(vrf_, &number_, &octs), 0u);
        EXPECT_EQ(Magnitude(number_), magnitude);
    }
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(BigIntFromOcts, RefusesAndLogs513Octets)
{
    Bytes magnitude = Counting(513);
    const PELNIC_ASN_BIGINT octs = Octs(magnitude);
    EXPECT_EQ(_pnvGetBigIntFromOcts(vrf_, &number_, &octs), PELNIC_ERR_NULL_POINTER);
    ExpectOneErrorLog(PELNIC_ERR_FAILED, "Unsupported key length 4104");
}

// 02 00 decodes into a null pointer and length 0.
TEST_F(BigIntFromOcts, TakesANumberWithoutOctets)
{
    const PELNIC_ASN_BIGINT octs{0, {CBC_UNIV, CBF_PRIM, CBT_INTEGER}, nullptr};
    number_.uiLength = 3;
    EXPECT_EQ(_pnvGetBigIntFromOcts(vrf_, &number_, &octs), 0u);
    EXPECT_EQ(number_.uiLength, 0u);
}

TEST_F(BigIntFromOcts, RefusesNull)
{
    Bytes magnitude = Counting(3);
    const PELNIC_ASN_BIGINT octs = Octs(magnitude);
    EXPECT_EQ(_pnvGetBigIntFromOcts(nullptr, &number_, &octs), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(_pnvGetBigIntFromOcts(vrf_, nullptr, &octs), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(_pnvGetBigIntFromOcts(vrf_, &number_, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(BigIntFromOcts, ReturnsTheCodeOfTheCopy)
{
    Bytes magnitude = Counting(3);
    const PELNIC_ASN_BIGINT octs = Octs(magnitude);
    vrf_.Plan().Fail(Call::Memcpy, 1);
    EXPECT_EQ(_pnvGetBigIntFromOcts(vrf_, &number_, &octs), injectedFault);
}

class ExtractPublicKey : public BigIntFromOcts {
protected:
    PELNIC_ERROR_CODE Extract(const Bytes& spki)
    {
        const OwnedCert cert = DecodeCert(vrf_, Build(With(Root(), &CertSpec::subjectPublicKey, spki)));
        return pelnic_x509_extract_public_key(vrf_, cert.get(), &exponent_, &number_);
    }
    void TearDown() override { EXPECT_TRUE(vrf_.Plan().Logs().empty()); }

    PELNIC_BIGINT exponent_{};
};

TEST_F(ExtractPublicKey, GivesExponentAndModulus)
{
    for (KeyId id : {KeyId::Rsa2048A, KeyId::Rsa3072, KeyId::Rsa4096}) {
        EXPECT_EQ(Extract(Spki(id)), 0u);
        EXPECT_EQ(Magnitude(exponent_), TestKey(id).exponent);
        EXPECT_EQ(Magnitude(number_), TestKey(id).modulus);
    }
}

TEST_F(ExtractPublicKey, TakesExponentsOf512Octets)
{
    EXPECT_EQ(Extract(RsaSpki(Counting(512), Counting(512))), 0u);
    EXPECT_EQ(Magnitude(exponent_), Counting(512));
}

TEST_F(ExtractPublicKey, TakesNumbersWithoutOctets)
{
    exponent_.uiLength = 3;
    number_.uiLength = 3;
    EXPECT_EQ(Extract(Seq(AlgoId(oid::rsaEncryption), Bits(0, Seq(Tlv(0x02, {}), Tlv(0x02, {}))))), 0u);
    EXPECT_EQ(exponent_.uiLength, 0u);
    EXPECT_EQ(number_.uiLength, 0u);
}

TEST_F(ExtractPublicKey, Refuses513OctetsWithoutALog)
{
    EXPECT_EQ(Extract(RsaSpki(Counting(513))), PELNIC_ERR_SYS_MEM_OVERFLOW);
    EXPECT_EQ(Extract(RsaSpki(Counting(256), Counting(513))), PELNIC_ERR_SYS_MEM_OVERFLOW);
}

TEST_F(ExtractPublicKey, RefusesAnythingButARsaKey)
{
    EXPECT_EQ(Extract(Spki(KeyId::EcP256)), PELNIC_ERR_CERT_INVALID);                              // not in the table
    EXPECT_EQ(Extract(Seq(AlgoId(oid::sha256), Bits(0, {0x01}))), PELNIC_ERR_CERT_INVALID);        // no key algorithm
    EXPECT_EQ(Extract(Seq(AlgoId(oid::rsaEncryption), Bits(0, Null()))), PELNIC_ERR_CERT_INVALID); // no key
    EXPECT_EQ(Extract(Seq(AlgoId(oid::rsaEncryption), Bits(0, {}))), PELNIC_ERR_CERT_INVALID);     // no octets
}

TEST_F(ExtractPublicKey, RefusesNull)
{
    const OwnedCert cert = DecodeCert(vrf_, Build(Root()));
    EXPECT_EQ(pelnic_x509_extract_public_key(nullptr, cert.get(), &exponent_, &number_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_extract_public_key(vrf_, nullptr, &exponent_, &number_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_extract_public_key(vrf_, cert.get(), nullptr, &number_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_x509_extract_public_key(vrf_, cert.get(), &exponent_, nullptr), PELNIC_ERR_NULL_POINTER);
}

// A failure to decode, for want of memory too, is an unusable certificate; the last two copies answer for themselves.
TEST(ExtractPublicKeyFaults, ReleasesEverythingWhicheverCallFails)
{
    std::vector<PELNIC_ERROR_CODE> codes;
    SweepFaults(
        Call::Malloc | calls::copies,
        [](CallbackPlan& plan) {
            Vrf vrf(plan);
            OwnedCert cert;
            plan.WithoutFaults([&] { cert = DecodeCert(vrf, Build(Root())); });
            PELNIC_BIGINT e{};
            PELNIC_BIGINT n{};
            return pelnic_x509_extract_public_key(vrf, cert.get(), &e, &n);
        },
        [&](PELNIC_ERROR_CODE rc, const FaultRun& run) {
            if (run.mode == FaultMode::Once) codes.push_back(rc);
            EXPECT_EQ(rc != 0, run.met);
        });
    ASSERT_GT(codes.size(), 3u);
    const auto copies = codes.end() - 3;
    EXPECT_EQ(std::vector<PELNIC_ERROR_CODE>(copies, codes.end()),
              (std::vector<PELNIC_ERROR_CODE>{injectedFault, injectedFault, 0}));
    for (auto code = codes.begin(); code != copies; ++code) EXPECT_EQ(*code, PELNIC_ERR_CERT_INVALID);
}

// ---- Readable names ----

class ReadableName : public X509Utils {
protected:
    static constexpr std::size_t kWorkBuffer = 128; // prefix, value and terminating zero of one attribute
    static constexpr std::size_t kLongestName = 255;

    // The text of a name that converts.
    std::string Readable(const Bytes& der)
    {
        PNV_CHAR* text = nullptr;
        PNV_UINT32 length = 0;
        const PELNIC_ERROR_CODE rc = pelnic_convert_from_x509_name(vrf_, DecodeName(der).get(), &text, &length);
        if (rc != 0) ThrowRefused(rc);
        EXPECT_EQ(length, std::strlen(text));
        const std::string readable = text;
        pelnic_free(vrf_, text);
        return readable;
    }
    void ExpectRefused(const Bytes& der, PELNIC_ERROR_CODE code)
    {
        PNV_CHAR* text = nullptr;
        PNV_UINT32 length = 77;
        EXPECT_EQ(pelnic_convert_from_x509_name(vrf_, DecodeName(der).get(), &text, &length), code);
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(length, 77u);
    }
    static std::string Xs(std::size_t count) { return std::string(count, 'x'); }
    // A common name whose text has this many characters.
    static NameAttribute CnOfText(std::size_t length) { return Cn(Xs(length - 3)); }
    static std::string TextOfCn(std::size_t length) { return "CN=" + Xs(length - 3); }
};

TEST_F(ReadableName, JoinsTheAttributesInTheirOrder)
{
    EXPECT_EQ(Readable(Name(C("ZZ"), O("Example"), Cn("Test"))), "C=ZZ,O=Example,CN=Test");
    EXPECT_EQ(Readable(Name(Cn("Test"), Rdn(Ou("One"), Ou("Two")), L("Town"))), "CN=Test,OU=One,OU=Two,L=Town");
}

TEST_F(ReadableName, EveryTypeHasItsPrefix)
{
    EXPECT_EQ(Readable(Name(Cn("v"))), "CN=v");
    EXPECT_EQ(Readable(Name(L("v"))), "L=v");
    EXPECT_EQ(Readable(Name(St("v"))), "S=v");
    EXPECT_EQ(Readable(Name(O("v"))), "O=v");
    EXPECT_EQ(Readable(Name(Ou("v"))), "OU=v");
    EXPECT_EQ(Readable(Name(C("v"))), "C=v");
    EXPECT_EQ(Readable(Name(Email("v"))), "E=v");
    EXPECT_EQ(Readable(Name(NameAttr(oid::keyUsage, Utf8("v")))), "xx=v"); // in the table, but no attribute type
}

TEST_F(ReadableName, ANameWithoutAttributesIsEmpty)
{
    EXPECT_EQ(Readable(Seq()), "");
    EXPECT_EQ(Readable(Seq(Set())), "");
}

TEST_F(ReadableName, AValueWithoutContentLeavesThePrefix)
{
    EXPECT_EQ(Readable(Name(Cn(""), O("Example"))), "CN=,O=Example");
}

TEST_F(ReadableName, ValuesAreNotConverted)
{
    EXPECT_EQ(Readable(Name(NameAttr(oid::commonName, Tlv(0x1E, {0xFE, 'A', 0xFF, 'B'})))), "CN=\xFE"
                                                                                            "A\xFF"
                                                                                            "B");
    EXPECT_EQ(Readable(Name(Cn("a,b=c"))), "CN=a,b=c");
}

// The texts are joined as strings.
TEST_F(ReadableName, AValueEndsAtAZeroOctet)
{
    EXPECT_EQ(Readable(Name(Cn(std::string_view("ab\0cd", 5)), O("Example"))), "CN=ab,O=Example");
}

TEST_F(ReadableName, RefusesATypeThatIsNotInTheTable)
{
    ExpectRefused(Name(C("ZZ"), NameAttr(oid::serialNumber, Printable("1")), Cn("Test")), PELNIC_ERR_CERT_INVALID);
    ExpectRefused(Seq(Set(Seq(Octets(Content(Oid(oid::commonName), {})), Utf8("Test")))), PELNIC_ERR_CERT_INVALID);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(ReadableName, AValueMayFillTheBufferUpToTheTerminator)
{
    EXPECT_EQ(Readable(Name(Cn(Xs(kWorkBuffer - 4)))), "CN=" + Xs(kWorkBuffer - 4));
    EXPECT_EQ(Readable(Name(C(Xs(kWorkBuffer - 3)))), "C=" + Xs(kWorkBuffer - 3));
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(ReadableName, AValueThatFillsTheBufferLosesItsLastOctetWithALog)
{
    EXPECT_EQ(Readable(Name(Cn(Xs(kWorkBuffer - 4) + "!"))), "CN=" + Xs(kWorkBuffer - 4));
    ExpectOneErrorLog(PELNIC_ERR_SYS_STR_OVERFLOW, "name attribute CN= is too long, which is invalid.");
    vrf_.Plan().ClearLogs();
    EXPECT_EQ(Readable(Name(NameAttr(oid::keyUsage, Utf8(Xs(kWorkBuffer - 4) + "!")))), "xx=" + Xs(kWorkBuffer - 4));
    ExpectOneErrorLog(PELNIC_ERR_SYS_STR_OVERFLOW, "name attribute xx= is too long, which is invalid.");
    vrf_.Plan().ClearLogs();
    EXPECT_EQ(Readable(Name(C(Xs(kWorkBuffer - 3) + "!"))), "C=" + Xs(kWorkBuffer - 3));
    ExpectOneErrorLog(PELNIC_ERR_SYS_STR_OVERFLOW, "name attribute C= is too long, which is invalid.");
}

TEST_F(ReadableName, ALongerValueLeavesThePrefixWithoutALog)
{
    EXPECT_EQ(Readable(Name(Cn(Xs(kWorkBuffer - 2)), O("Example"))), "CN=,O=Example");
    EXPECT_EQ(Readable(Name(Cn(Xs(70000)))), "CN=");
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(ReadableName, AttributesFillItUpToItsLastCharacter)
{
    const std::string full = TextOfCn(127) + "," + TextOfCn(127);
    ASSERT_EQ(full.size(), kLongestName);
    EXPECT_EQ(Readable(Name(CnOfText(127), CnOfText(127))), full);
}

// One character is set aside for a comma.
TEST_F(ReadableName, AttributesThatDoNotFitAreLeftOut)
{
    EXPECT_EQ(Readable(Name(CnOfText(127), CnOfText(127), C("Z"))), TextOfCn(127) + "," + TextOfCn(127));
    EXPECT_EQ(Readable(Name(CnOfText(100), CnOfText(100), CnOfText(54))),
              TextOfCn(100) + "," + TextOfCn(100)); // 201 + 54 + 1 is 256
    EXPECT_EQ(Readable(Name(CnOfText(100), CnOfText(100), CnOfText(53))),
              TextOfCn(100) + "," + TextOfCn(100) + "," + TextOfCn(53));
}

TEST_F(ReadableName, ANameThatDoesNotFitDoesNotEndTheConversion)
{
    EXPECT_EQ(Readable(Name(CnOfText(127), CnOfText(100), CnOfText(120), C("ZZ"))),
              TextOfCn(127) + "," + TextOfCn(100) + ",C=ZZ");
}

TEST_F(ReadableName, TheRestOfARelativeNameGoesWithWhatDoesNotFit)
{
    EXPECT_EQ(Readable(Name(CnOfText(127), CnOfText(100), Rdn(CnOfText(120), L("lost")), C("ZZ"))),
              TextOfCn(127) + "," + TextOfCn(100) + ",C=ZZ");
    EXPECT_EQ(Readable(Name(CnOfText(127), CnOfText(100), Rdn(L("kept"), CnOfText(120), L("lost")), C("ZZ"))),
              TextOfCn(127) + "," + TextOfCn(100) + ",L=kept,C=ZZ");
}

// Also one that would have been left out: its type is looked up first.
TEST_F(ReadableName, RefusesAnUnknownTypeBehindAFullText)
{
    ExpectRefused(Name(CnOfText(127), CnOfText(127), NameAttr(oid::serialNumber, Printable("1"))),
                  PELNIC_ERR_CERT_INVALID);
}

TEST_F(ReadableName, RefusesNull)
{
    const auto name = DecodeName(TestName("Test"));
    PNV_CHAR* text = nullptr;
    PNV_UINT32 length = 0;
    EXPECT_EQ(pelnic_convert_from_x509_name(nullptr, name.get(), &text, &length), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_convert_from_x509_name(vrf_, nullptr, &text, &length), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_convert_from_x509_name(vrf_, name.get(), nullptr, &length), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_convert_from_x509_name(vrf_, name.get(), &text, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(text, nullptr);
}

// A value that cannot be copied leaves its prefix; every other failure ends the conversion.
TEST(ReadableNameFaults, ReleasesEverythingWhicheverCallFails)
{
    for (Calls kinds : {Calls(Call::Malloc), Call::Memset | Call::Strcpy | Call::Strcat, Calls(Call::Memcpy)}) {
        SweepFaults(
            kinds,
            [](CallbackPlan& plan) {
                Vrf vrf(plan);
                OwnedItem<PELNIC_X509_NAME_item> name;
                plan.WithoutFaults([&] { name = DecodeItem<PELNIC_X509_NAME_item>(vrf, TestName("Test")); });
                PNV_CHAR* text = nullptr;
                PNV_UINT32 length = 77;
                const PELNIC_ERROR_CODE rc = pelnic_convert_from_x509_name(vrf, name.get(), &text, &length);
                EXPECT_EQ(text == nullptr, rc != 0);
                EXPECT_EQ(length == 77, rc != 0);
                pelnic_free(vrf, text);
                return rc;
            },
            [&](PELNIC_ERROR_CODE rc, const FaultRun& run) {
                if (kinds.Has(Call::Malloc)) {
                    EXPECT_EQ(rc, run.met ? PELNIC_ERR_SYS_MEM_ALLOC : 0u);
                } else if (kinds.Has(Call::Memset)) {
                    EXPECT_EQ(rc, run.met ? injectedFault : 0u);
                }
            });
    }
}

// ---- Signatures ----

class PkeyVerify : public X509Utils {
protected:
    // Checks the signature of message_ with the result preset to what no check yields.
    PELNIC_ERROR_CODE Verify(const PELNIC_PUBKEY* key, PELNIC_AOIDS hash, const Bytes& signature)
    {
        result_ = 77;
        return pelnic_x509_pkey_verify(vrf_, message_.data(), Len(message_), signature.data(), Len(signature), key,
                                       hash, &result_);
    }
    PELNIC_ERROR_CODE VerifyGood() { return Verify(key_.get(), AOID_SHA256, signature_); }
    void ExpectNoCrypto() { EXPECT_EQ(vrf_.Plan().Count(calls::verification), 0u); }

    const Bytes message_ = Text("a message to sign");
    const Bytes signature_ = Sign(KeyId::Rsa2048A, Hash::Sha256, message_);
    const OwnedKey key_ = DecodeKey(vrf_, Spki(KeyId::Rsa2048A));
    PNV_BOOL result_ = 77;
};

TEST_F(PkeyVerify, AcceptsGoodSignatures)
{
    const std::pair<Hash, PELNIC_AOIDS> hashes[] = {
        {Hash::Sha256, AOID_SHA256}, {Hash::Sha384, AOID_SHA384}, {Hash::Sha512, AOID_SHA512}};
    for (KeyId id : {KeyId::Rsa2048B, KeyId::Rsa3072, KeyId::Rsa4096}) {
        const OwnedKey key = DecodeKey(vrf_, Spki(id));
        for (const auto& [hash, aoid] : hashes) {
            EXPECT_EQ(Verify(key.get(), aoid, Sign(id, hash, message_)), 0u);
            EXPECT_EQ(result_, 1u);
        }
    }
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(PkeyVerify, ABadSignatureIsNoError)
{
    Bytes damaged = signature_;
    damaged[100] ^= 0x01;
    EXPECT_EQ(Verify(key_.get(), AOID_SHA256, damaged), 0u);
    EXPECT_EQ(result_, 0u);
    EXPECT_EQ(Verify(key_.get(), AOID_SHA384, signature_), 0u);
    EXPECT_EQ(result_, 0u);
    EXPECT_EQ(Verify(DecodeKey(vrf_, Spki(KeyId::Rsa2048B)).get(), AOID_SHA256, signature_), 0u);
    EXPECT_EQ(result_, 0u);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(PkeyVerify, AsksTheCallbacksOnce)
{
    EXPECT_EQ(VerifyGood(), 0u);
    for (Call call :
         {Call::VerifyCreate, Call::VerifyInit, Call::VerifyUpdate, Call::VerifyFinal, Call::VerifyDestroy}) {
        EXPECT_EQ(vrf_.Plan().Count(call), 1u);
    }
    ASSERT_EQ(vrf_.Plan().VerifyRequests().size(), 1u);
    const VerifyRequest& request = vrf_.Plan().VerifyRequests()[0];
    EXPECT_EQ(request.hashId, PNV_UINT32{AOID_SHA256});
    EXPECT_EQ(request.exponent, TestKey(KeyId::Rsa2048A).exponent);
    EXPECT_EQ(request.modulus, TestKey(KeyId::Rsa2048A).modulus);
    EXPECT_EQ(request.data, message_);
    EXPECT_EQ(request.signature, signature_);
}

TEST_F(PkeyVerify, OnlyVerdictOneIsGood)
{
    ForEveryVerdict(vrf_.Plan(), [&](PELNIC_ERROR_CODE code, PNV_INT verdict) {
        SCOPED_TRACE(::testing::Message() << code << " with " << verdict);
        EXPECT_EQ(VerifyGood(), code);
        EXPECT_EQ(result_, code == 0 && verdict == 1 ? 1u : 0u);
    });
}

TEST_F(PkeyVerify, AVerdictThatIsNotGivenIsNotGood)
{
    vrf_.Plan().Table().crypt_funcs.pelnic_verify_final = [](PELNIC_CRYPTO_VRF_CTX, const PNV_BYTE*, PNV_UINT32,
                                                             PNV_INT*) -> PELNIC_ERROR_CODE { return 0; };
    vrf_.TakeTable();
    EXPECT_EQ(VerifyGood(), 0u);
    EXPECT_EQ(result_, 0u);
}

TEST_F(PkeyVerify, RefusesNull)
{
    const auto verify = [&](const Bytes* message, const Bytes* signature, const PELNIC_PUBKEY* key, PNV_BOOL* result) {
        return pelnic_x509_pkey_verify(vrf_, message == nullptr ? nullptr : message->data(), Len(message_),
                                       signature == nullptr ? nullptr : signature->data(), Len(signature_), key,
                                       AOID_SHA256, result);
    };
    EXPECT_EQ(verify(nullptr, &signature_, key_.get(), &result_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(verify(&message_, nullptr, key_.get(), &result_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(verify(&message_, &signature_, nullptr, &result_), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(verify(&message_, &signature_, key_.get(), nullptr), PELNIC_ERR_NULL_POINTER);
    ExpectNoCrypto();
}

TEST_F(PkeyVerify, RefusesAKeyThatIsNotRsa)
{
    const OwnedKey other = DecodeKey(vrf_, Seq(AlgoId(oid::sha256), Bits(0, {0x01})));
    EXPECT_EQ(Verify(other.get(), AOID_SHA256, signature_), PELNIC_ERR_UNSUPPORTED_ALGO);
    EXPECT_EQ(result_, 0u);
    ExpectNoCrypto();
}

TEST_F(PkeyVerify, RefusesARecordThatIsNoPublicKey)
{
    PELNIC_PUBKEY empty{AOID_RSA, nullptr};
    EXPECT_EQ(Verify(&empty, AOID_SHA256, signature_), PELNIC_ERR_CERT_VERIFY);
    EXPECT_EQ(result_, 0u);

    PELNIC_RSA_KEY privateKey = *static_cast<PELNIC_RSA_KEY*>(key_->pKey);
    PELNIC_PUBKEY key{AOID_RSA, &privateKey};
    for (PNV_UINT32 type : {0u, 2u}) {
        privateKey.keyType = type;
        EXPECT_EQ(Verify(&key, AOID_SHA256, signature_), PELNIC_ERR_CERT_VERIFY);
        EXPECT_EQ(result_, 0u);
    }
    ExpectNoCrypto();
}

TEST_F(PkeyVerify, RefusesAndLogsKeysOfMoreThan512Octets)
{
    for (const Bytes& spki : {RsaSpki(Counting(513)), RsaSpki(Counting(256), Counting(513))}) {
        const OwnedKey key = DecodeKey(vrf_, spki);
        EXPECT_EQ(Verify(key.get(), AOID_SHA256, signature_), PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(result_, 0u);
        ExpectOneErrorLog(PELNIC_ERR_FAILED, "Unsupported key length 4104");
        vrf_.Plan().ClearLogs();
    }
    ExpectNoCrypto();
}

TEST_F(PkeyVerify, ShortKeysAreNotRefusedHere)
{
    const OwnedKey key = DecodeKey(vrf_, RsaSpki({0x0F}, {0x03}));
    vrf_.Plan().StubVerification(0, 1);
    EXPECT_EQ(Verify(key.get(), AOID_SHA256, signature_), 0u);
    EXPECT_EQ(result_, 1u);
}

TEST_F(PkeyVerify, AnUnknownDigestIsTheCallbacksToRefuse)
{
    EXPECT_EQ(Verify(key_.get(), AOID_UNKNOWN, signature_), PELNIC_ERR_FAILED);
    EXPECT_EQ(result_, 0u);
    EXPECT_EQ(vrf_.Plan().Count(Call::VerifyInit), 1u);
    EXPECT_EQ(vrf_.Plan().Count(Call::VerifyUpdate), 0u);
    EXPECT_EQ(vrf_.Plan().Count(Call::VerifyDestroy), 1u);
}

// What comes after the failing call is skipped, but the context is destroyed once it exists.
TEST_F(PkeyVerify, DestroysTheContextWhicheverCallFails)
{
    const Call order[] = {Call::VerifyCreate, Call::VerifyInit, Call::VerifyUpdate, Call::VerifyFinal};
    std::size_t destroyed = 0;
    for (const Call& failing : order) {
        SCOPED_TRACE(static_cast<unsigned>(failing));
        vrf_.Plan().Fail(failing, 1);
        const std::size_t before = vrf_.Plan().Count(calls::verification);
        EXPECT_EQ(VerifyGood(), PELNIC_ERR_FAILED);
        EXPECT_EQ(result_, 0u);
        EXPECT_EQ(vrf_.Plan().Count(calls::verification) - before, static_cast<std::size_t>(&failing - order) + 1);
        if (failing != Call::VerifyCreate) ++destroyed;
        EXPECT_EQ(vrf_.Plan().Count(Call::VerifyDestroy), destroyed);
    }
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

TEST_F(PkeyVerify, ReturnsTheCodeOfACopyThatFails)
{
    for (std::size_t nth : {1u, 2u}) {
        vrf_.Plan().Fail(Call::Memcpy, nth);
        EXPECT_EQ(VerifyGood(), injectedFault);
        EXPECT_EQ(result_, 0u);
    }
    ExpectNoCrypto();
}

} // namespace
} // namespace pnvtest
