// The machine's own trusted certificates, decoded here and by libcrypto and compared field by field. What is refused
// has to be so by a rule of this library; those certificates are listed, and the counts printed.
#include "cmsverify/pelnic_asn1_utils.h"
#include "cmsverify/pelnic_x509_utils.h"
#include "support/vrf.h"
#include "support/x509.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace pnvtest {
namespace {

constexpr const char* kBundle = "/etc/ssl/certs/ca-certificates.crt";

struct OpensslFree {
    void operator()(ASN1_TIME* time) const { ASN1_TIME_free(time); }
    void operator()(BIGNUM* number) const { BN_free(number); }
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509* cert) const { X509_free(cert); }
};
template <typename Type> using Openssl = std::unique_ptr<Type, OpensslFree>;

Bytes Copy(const unsigned char* octets, int length)
{
    return Bytes(octets, octets + length);
}

std::vector<Bytes> ReadBundle()
{
    std::vector<Bytes> certs;
    const Openssl<BIO> file(BIO_new_file(kBundle, "r"));
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* der = nullptr;
    long length = 0;
    while (file != nullptr && PEM_read_bio(file.get(), &name, &header, &der, &length) == 1) {
        certs.push_back(Copy(der, static_cast<int>(length)));
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(der);
    }
    return certs;
}

// ---- libcrypto's view of a field, as an encoding ----

Bytes Der(const ASN1_OBJECT* object)
{
    return Tlv(0x06, Copy(OBJ_get0_data(object), static_cast<int>(OBJ_length(object))));
}

Bytes Der(const ASN1_STRING* value)
{
    const auto tag = static_cast<std::uint8_t>(ASN1_STRING_type(value));
    return Tlv(tag, Copy(ASN1_STRING_get0_data(value), ASN1_STRING_length(value)));
}

template <typename Type> Bytes Reencoded(int (*i2d)(const Type*, unsigned char**), const Type* value)
{
    unsigned char* der = nullptr;
    const int length = i2d(value, &der);
    if (length < 0) Misuse("libcrypto cannot encode what it decoded");
    const Bytes copy = Copy(der, length);
    OPENSSL_free(der);
    return copy;
}

// Attribute by attribute, not what libcrypto keeps of the input.
Bytes Der(const X509_NAME* name)
{
    std::vector<Bytes> rdns;
    for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
        const X509_NAME_ENTRY* const entry = X509_NAME_get_entry(name, i);
        const auto rdn = static_cast<std::size_t>(X509_NAME_ENTRY_set(entry));
        rdns.resize(std::max(rdns.size(), rdn + 1));
        rdns[rdn] = Cat(rdns[rdn], Seq(Der(X509_NAME_ENTRY_get_object(entry)), Der(X509_NAME_ENTRY_get_data(entry))));
    }
    for (Bytes& rdn : rdns) rdn = Set(rdn);
    return Seq(Cat(rdns));
}

Bytes Magnitude(const BIGNUM* number)
{
    Bytes octets(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, octets.data());
    return octets;
}

Bytes Serial(const X509* cert)
{
    const Openssl<BIGNUM> number(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr));
    return Magnitude(number.get());
}

// By libcrypto's own calendar: time_t ends in 2038 on the 32-bit target.
PNV_TIME_T Seconds(const ASN1_TIME* value)
{
    const Openssl<ASN1_TIME> epoch(ASN1_TIME_new());
    int days = 0;
    int seconds = 0;
    if (ASN1_TIME_set_string(epoch.get(), "19700101000000Z") != 1 ||
        ASN1_TIME_diff(&days, &seconds, epoch.get(), value) != 1) {
        Misuse("libcrypto cannot read a time of the bundle");
    }
    return PNV_TIME_T{days} * 86400 + seconds;
}

Bytes KeyNumber(const X509* cert, const char* parameter)
{
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(X509_get0_pubkey(cert), parameter, &number) != 1)
        Misuse("an RSA key without its numbers");
    return Magnitude(Openssl<BIGNUM>(number).get());
}

std::string Subject(const X509* cert)
{
    char text[256];
    return X509_NAME_oneline(X509_get_subject_name(cert), text, sizeof(text));
}

// ---- The comparison ----

class CaBundle : public ::testing::Test {
protected:
    // Decodes one certificate in both ways and compares all there is.
    void Compare(const Bytes& der, const X509* theirs)
    {
        PELNIC_X509_CERT* decoded = nullptr;
        PNV_UINT32 octets = 0;
        const PELNIC_ERROR_CODE rc = pelnic_x509_decode_cert(vrf_, der.data(), Len(der), &decoded, &octets);
        if (Serial(theirs).empty()) {
            EXPECT_EQ(rc, PELNIC_ERR_ASN_DECODE);
            List(theirs, "refused, serial number 0");
            return;
        }
        ASSERT_EQ(rc, 0u);
        const OwnedCert ours(decoded, {vrf_});
        EXPECT_EQ(octets, der.size());
        CompareFields(*ours->toBeSigned, theirs);
        CompareKeys(ours.get(), theirs);
        CompareSignature(*ours, theirs, der);
    }

    Vrf vrf_;
    int rsaKeys_ = 0;
    int extensions_ = 0;
    int listed_ = 0;

private:
    void CompareFields(const PELNIC_X509_CERTINFO& ours, const X509* theirs)
    {
        EXPECT_EQ(ours.version, X509_get_version(theirs));
        EXPECT_EQ(Content(*ours.serialNumber), Serial(theirs));
        EXPECT_EQ(Encoding(*ours.signature), Reencoded(i2d_X509_ALGOR, X509_get0_tbs_sigalg(theirs)));
        EXPECT_EQ(Encoding(*ours.issuer), Der(X509_get_issuer_name(theirs)));
        CompareTime(ours.validity->notBefore, X509_get0_notBefore(theirs));
        CompareTime(ours.validity->notAfter, X509_get0_notAfter(theirs));
        EXPECT_EQ(Encoding(*ours.subject), Der(X509_get_subject_name(theirs)));
        EXPECT_EQ(Encoding(*ours.subjectPubKey), Reencoded(i2d_X509_PUBKEY, X509_get_X509_PUBKEY(theirs)));
        CompareExtensions(ours.extensions, theirs);
    }

    void CompareTime(const PELNIC_ASN_OCTS& ours, const ASN1_TIME* theirs)
    {
        PNV_TIME_T seconds = 0;
        EXPECT_EQ(pelnic_convert_datetime_to_time(vrf_, &ours, &seconds), 0u);
        EXPECT_EQ(seconds, Seconds(theirs));
    }

    void CompareExtensions(const PELNIC_X509_EXTENSION_BUNDLE* ours, const X509* theirs)
    {
        const int count = X509_get_ext_count(theirs);
        ASSERT_EQ(ours == nullptr ? 0 : ours->extensions.num, static_cast<PNV_UINT32>(count));
        for (int i = 0; i < count; ++i) {
            SCOPED_TRACE(::testing::Message() << "extension " << i);
            const PELNIC_X509_EXTENSION_ENTRY& extension = *ours->extensions.data[i];
            X509_EXTENSION* const theirExtension = X509_get_ext(theirs, i);
            EXPECT_EQ(Encoding(extension.extnId), Der(X509_EXTENSION_get_object(theirExtension)));
            EXPECT_EQ(extension.critical, X509_EXTENSION_get_critical(theirExtension));
            EXPECT_EQ(Encoding(extension.extnValue), Der(X509_EXTENSION_get_data(theirExtension)));
        }
        extensions_ += count;
    }

    // An RSA key has the same numbers; any other is refused, for its algorithm is not in the table of identifiers.
    void CompareKeys(const PELNIC_X509_CERT* ours, const X509* theirs)
    {
        const int algorithm = EVP_PKEY_get_base_id(X509_get0_pubkey(theirs));
        PELNIC_BIGINT e{};
        PELNIC_BIGINT n{};
        if (algorithm == EVP_PKEY_RSA) {
            ASSERT_EQ(pelnic_x509_extract_public_key(vrf_, ours, &e, &n), 0u);
            EXPECT_EQ(Bytes(e.aVal, e.aVal + e.uiLength), KeyNumber(theirs, OSSL_PKEY_PARAM_RSA_E));
            EXPECT_EQ(Bytes(n.aVal, n.aVal + n.uiLength), KeyNumber(theirs, OSSL_PKEY_PARAM_RSA_N));
            ++rsaKeys_;
        } else {
            PELNIC_PUBKEY* key = nullptr;
            EXPECT_EQ(pelnic_decode_pubkey(vrf_, ours->toBeSigned->subjectPubKey, &key), PELNIC_ERR_UNSUPPORTED_ALGO);
            EXPECT_EQ(pelnic_x509_extract_public_key(vrf_, ours, &e, &n), PELNIC_ERR_CERT_INVALID);
            List(theirs, std::string("taken, but its key is refused: ") + OBJ_nid2sn(algorithm));
        }
    }

    static void CompareSignature(const PELNIC_X509_CERT& ours, const X509* theirs, const Bytes& der)
    {
        const ASN1_BIT_STRING* signature = nullptr;
        const X509_ALGOR* algorithm = nullptr;
        X509_get0_signature(&signature, &algorithm, theirs);
        EXPECT_EQ(Content(*ours.raw_signed), Extract(der, {0}));
        EXPECT_EQ(Encoding(*ours.algorithm), Reencoded(i2d_X509_ALGOR, algorithm));
        EXPECT_EQ(Content(*ours.signature), Copy(signature->data, signature->length));
    }

    // One line for each certificate that is not taken as libcrypto takes it.
    void List(const X509* cert, const std::string& why)
    {
        ++listed_;
        std::printf("  %s: %s\n", Subject(cert).c_str(), why.c_str());
    }
};

TEST_F(CaBundle, IsDecodedAsLibcryptoDoes)
{
    const std::vector<Bytes> certs = ReadBundle();
    if (certs.empty()) GTEST_SKIP() << "no certificates in " << kBundle << " (Debian package ca-certificates)";
    for (const Bytes& der : certs) {
        const unsigned char* at = der.data();
        const Openssl<X509> theirs(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
        ASSERT_NE(theirs, nullptr);
        SCOPED_TRACE(Subject(theirs.get()));
        Compare(der, theirs.get());
    }
    std::printf("%zu certificates, %d extensions and %d RSA keys compared; %d certificates listed above\n",
                certs.size(), extensions_, rsaKeys_, listed_);
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
}

} // namespace
} // namespace pnvtest
