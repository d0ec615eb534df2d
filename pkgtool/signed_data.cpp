#include "signed_data.h"

#include <openssl/pem.h>

#include <algorithm>

namespace pkgtool {

namespace {

// The DER covered by a signature: a SET OF, whose elements are ordered as octet strings (X.690, 11.6).
Bytes encodeSignedAttributes(const CMS_SignerInfo* signer)
{
    std::vector<Bytes> attributes;
    for (int i = 0; i < CMS_signed_get_attr_count(signer); ++i) {
        attributes.push_back(toDer(i2d_X509_ATTRIBUTE, CMS_signed_get_attr(signer, i)));
    }
    std::sort(attributes.begin(), attributes.end());
    Bytes content;
    for (const Bytes& attribute : attributes) content.insert(content.end(), attribute.begin(), attribute.end());

    const int length = static_cast<int>(content.size());
    Bytes set(static_cast<std::size_t>(ASN1_object_size(1, length, V_ASN1_SET)) - content.size());
    unsigned char* out = set.data();
    ASN1_put_object(&out, 1, length, V_ASN1_SET, V_ASN1_UNIVERSAL);
    set.insert(set.end(), content.begin(), content.end());
    return set;
}

Bytes sign(EVP_PKEY* key, const EVP_MD* md, const Bytes& message)
{
    const MdCtx ctx(EVP_MD_CTX_new());
    std::size_t length = 0;
    ensure(ctx != nullptr && EVP_DigestSignInit(ctx.get(), nullptr, md, nullptr, key) == 1 &&
               EVP_DigestSign(ctx.get(), nullptr, &length, message.data(), message.size()) == 1,
           "signing");
    Bytes signature(length);
    ensure(EVP_DigestSign(ctx.get(), signature.data(), &length, message.data(), message.size()) == 1, "signing");
    signature.resize(length);
    return signature;
}

void addSignedAttribute(CMS_SignerInfo* signer, int type, int valueType, const void* value, int length)
{
    ensure(CMS_signed_add1_attr_by_NID(signer, type, valueType, value, length) == 1, "adding a signed attribute");
}

void addSignedAttributes(CMS_SignerInfo* signer, const ASN1_OBJECT* contentType, const SignerOptions& options)
{
    addSignedAttribute(signer, NID_pkcs9_contentType, V_ASN1_OBJECT, contentType, -1);
    addSignedAttribute(signer, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING, options.contentDigest.data(),
                       static_cast<int>(options.contentDigest.size()));
    if (options.signingTime == nullptr) return;
    addSignedAttribute(signer, NID_pkcs9_signingTime, ASN1_STRING_type(options.signingTime), options.signingTime, -1);
}

bool contains(CMS_ContentInfo* cms, const X509* cert)
{
    const CertStack certs(CMS_get1_certs(cms));
    for (int i = 0; i < sk_X509_num(certs.get()); ++i) {
        if (X509_cmp(sk_X509_value(certs.get(), i), cert) == 0) return true;
    }
    return false;
}

Cms newSignedData(unsigned flags)
{
    Cms cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_PARTIAL | CMS_BINARY | flags));
    ensure(cms != nullptr, "making a SignedData");
    return cms;
}

} // namespace

Cms newDetached()
{
    return newSignedData(CMS_DETACHED);
}

Cms newAround(int contentType, const Bytes& content)
{
    Cms cms = newSignedData(0);
    ASN1_OCTET_STRING** const octets = CMS_get0_content(cms.get());
    ensure(CMS_set1_eContentType(cms.get(), OBJ_nid2obj(contentType)) == 1 && octets != nullptr &&
               ASN1_OCTET_STRING_set(*octets, content.data(), static_cast<int>(content.size())) == 1,
           "setting the content");
    return cms;
}

CMS_SignerInfo* addSigner(CMS_ContentInfo* cms, const Identity& identity, const SignerOptions& options)
{
    const unsigned flags = CMS_PARTIAL | CMS_NOSMIMECAP | CMS_NOCERTS | (options.nameCertificate ? CMS_CADES : 0u);
    // The public key suffices: nothing is signed yet.
    EVP_PKEY* const key = X509_get0_pubkey(identity.cert.get());
    CMS_SignerInfo* const signer = CMS_add1_signer(cms, identity.cert.get(), key, options.md, flags);
    ensure(signer != nullptr, "adding a signer");
    addSignedAttributes(signer, CMS_get0_eContentType(cms), options);
    const Bytes toBeSigned = encodeSignedAttributes(signer);
    const Bytes signature =
        identity.key != nullptr ? sign(identity.key.get(), options.md, toBeSigned) : options.makeSignature(toBeSigned);
    ensure(ASN1_OCTET_STRING_set(CMS_SignerInfo_get0_signature(signer), signature.data(),
                                 static_cast<int>(signature.size())) == 1,
           "setting the signature");
    return signer;
}

bool isSignature(X509* cert, const EVP_MD* md, const Bytes& message, const Bytes& signature)
{
    const MdCtx ctx(EVP_MD_CTX_new());
    ensure(ctx != nullptr && EVP_DigestVerifyInit(ctx.get(), nullptr, md, nullptr, X509_get0_pubkey(cert)) == 1,
           "verifying");
    return EVP_DigestVerify(ctx.get(), signature.data(), signature.size(), message.data(), message.size()) == 1;
}

Bytes signatureOf(CMS_SignerInfo* signer)
{
    return bytesOf(CMS_SignerInfo_get0_signature(signer));
}

void attachTimestamp(CMS_SignerInfo* signer, const Bytes& token)
{
    ensure(CMS_unsigned_add1_attr_by_NID(signer, NID_id_smime_aa_timeStampToken, V_ASN1_SEQUENCE, token.data(),
                                         static_cast<int>(token.size())) == 1,
           "adding the timestamp");
}

void addCertificate(CMS_ContentInfo* cms, X509* cert)
{
    const bool isRoot = (X509_get_extension_flags(cert) & EXFLAG_SS) != 0;
    if (isRoot || contains(cms, cert)) return;
    ensure(CMS_add1_cert(cms, cert) == 1, "adding a certificate");
}

Bytes encode(CMS_ContentInfo* cms)
{
    // Called for its side effect: it sets the version of RFC 5652, 5.1.
    const Bio unused(CMS_dataInit(cms, nullptr));
    ensure(unused != nullptr, "finishing a SignedData");
    return toDer(i2d_CMS_ContentInfo, cms);
}

Bytes armour(const Bytes& der)
{
    const Bio bio(BIO_new(BIO_s_mem()));
    ensure(bio != nullptr &&
               PEM_write_bio(bio.get(), PEM_STRING_CMS, "", der.data(), static_cast<long>(der.size())) > 0,
           "writing PEM");
    unsigned char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return Bytes(text, text + length);
}

} // namespace pkgtool
