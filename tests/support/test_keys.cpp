#include "test_keys.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <map>
#include <memory>
#include <tuple>

namespace pnvtest {

namespace {

// Each file is a PEM file and a raw string literal at once: PEM readers skip what stands outside the armour. Made once
// with openssl genpkey.
const char* const kPem[] = {
#include "test_keys/TEST-ONLY-rsa2048-a.pem"
    ,
#include "test_keys/TEST-ONLY-rsa2048-b.pem"
    ,
#include "test_keys/TEST-ONLY-rsa2048-c.pem"
    ,
#include "test_keys/TEST-ONLY-rsa2048-d.pem"
    ,
#include "test_keys/TEST-ONLY-rsa2048-e.pem"
    ,
#include "test_keys/TEST-ONLY-rsa2048-f.pem"
    ,
#include "test_keys/TEST-ONLY-rsa2048-g.pem"
    ,
#include "test_keys/TEST-ONLY-rsa2048-h.pem"
    ,
#include "test_keys/TEST-ONLY-rsa3072.pem"
    ,
#include "test_keys/TEST-ONLY-rsa4096.pem"
    ,
#include "test_keys/TEST-ONLY-ec-p256.pem"
};

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyFree>;

struct LoadedKey {
    Pkey pkey;
    Key key;
};

// What tests make of their keys is made apart from the library's libcrypto, whatever configuration a test gives that.
OSSL_LIB_CTX* LibCtx()
{
    static OSSL_LIB_CTX* const ctx = OSSL_LIB_CTX_new();
    return ctx;
}

Pkey ReadPem(const char* pem)
{
    BIO* bio = BIO_new_mem_buf(pem, -1);
    Pkey pkey(PEM_read_bio_PrivateKey_ex(bio, nullptr, nullptr, nullptr, LibCtx(), nullptr));
    BIO_free(bio);
    if (pkey == nullptr) Misuse("a test key cannot be read");
    return pkey;
}

Bytes EncodeSpki(EVP_PKEY* pkey)
{
    Bytes spki(static_cast<std::size_t>(i2d_PUBKEY(pkey, nullptr)));
    std::uint8_t* out = spki.data();
    i2d_PUBKEY(pkey, &out);
    return spki;
}

// Empty when the key has no such number.
Bytes KeyNumber(EVP_PKEY* pkey, const char* name)
{
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(pkey, name, &number) != 1) return {};
    Bytes magnitude(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, magnitude.data());
    BN_free(number);
    return magnitude;
}

LoadedKey Load(KeyId id)
{
    Pkey pkey = ReadPem(kPem[static_cast<std::size_t>(id)]);
    Key key{EncodeSpki(pkey.get()), KeyNumber(pkey.get(), OSSL_PKEY_PARAM_RSA_N),
            KeyNumber(pkey.get(), OSSL_PKEY_PARAM_RSA_E)};
    return {std::move(pkey), std::move(key)};
}

const LoadedKey& Loaded(KeyId id)
{
    static std::map<KeyId, LoadedKey> loaded;
    const auto known = loaded.find(id);
    return known != loaded.end() ? known->second : loaded.emplace(id, Load(id)).first->second;
}

struct HashInfo {
    const EVP_MD* (*md)();
    std::string_view oid;
    std::string_view rsaSignatureOid;
};

const HashInfo& Info(Hash hash)
{
    static const HashInfo infos[] = {
        {EVP_sha1, oid::sha1, oid::sha1WithRsa},
        {EVP_sha256, oid::sha256, oid::sha256WithRsa},
        {EVP_sha384, oid::sha384, oid::sha384WithRsa},
        {EVP_sha512, oid::sha512, oid::sha512WithRsa},
    };
    return infos[static_cast<std::size_t>(hash)];
}

Bytes SignDigest(KeyId key, Hash hash, const Bytes& digest)
{
    const PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(LibCtx(), Loaded(key).pkey.get(), nullptr));
    std::size_t length = TestKey(key).modulus.size();
    Bytes signature(length);
    if (EVP_PKEY_sign_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), Info(hash).md()) != 1 ||
        EVP_PKEY_sign(ctx.get(), signature.data(), &length, digest.data(), digest.size()) != 1) {
        Misuse("signing with a test key failed");
    }
    return signature;
}

Bytes Unsigned(const Bytes& magnitude)
{
    const bool needsZero = !magnitude.empty() && (magnitude.front() & 0x80) != 0;
    return Int(needsZero ? Cat(Bytes{0x00}, magnitude) : magnitude);
}

} // namespace

const Key& TestKey(KeyId id)
{
    return Loaded(id).key;
}

Bytes RsaSpki(const Bytes& modulus, const Bytes& exponent)
{
    return Seq(AlgoId(oid::rsaEncryption), Bits(0, Seq(Unsigned(modulus), Unsigned(exponent))));
}

Bytes Digest(Hash hash, const Bytes& message)
{
    Bytes digest(EVP_MAX_MD_SIZE);
    std::size_t length = 0;
    const char* const name = EVP_MD_get0_name(Info(hash).md());
    if (EVP_Q_digest(LibCtx(), name, nullptr, message.data(), message.size(), digest.data(), &length) != 1) {
        Misuse("a digest failed");
    }
    digest.resize(length);
    return digest;
}

std::string_view HashOid(Hash hash)
{
    return Info(hash).oid;
}

std::string_view RsaSignatureOid(Hash hash)
{
    return Info(hash).rsaSignatureOid;
}

const Bytes& Sign(KeyId key, Hash hash, const Bytes& message)
{
    if (key == KeyId::EcP256) Misuse("the EC key signs nothing");
    static std::map<std::tuple<KeyId, Hash, Bytes>, Bytes> signatures;
    const auto [entry, isNew] = signatures.try_emplace({key, hash, Digest(hash, message)});
    if (isNew) entry->second = SignDigest(key, hash, std::get<Bytes>(entry->first));
    return entry->second;
}

} // namespace pnvtest
