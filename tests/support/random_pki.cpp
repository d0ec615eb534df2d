#include "random_pki.h"

#include "cmsverify/pelnic_x509_crl.h"
#include "pki.h"

#include <algorithm>
#include <ctime>

namespace pnvtest {

namespace {

using namespace model;

// ---- Pieces: what a description says, and how it is encoded ----

struct AlgorithmText {
    Algorithm algorithm;
    std::string_view oid;
};
constexpr AlgorithmText kAlgorithms[] = {
    {Algorithm::Sha256WithRsa, oid::sha256WithRsa}, {Algorithm::Sha384WithRsa, oid::sha384WithRsa},
    {Algorithm::Sha512WithRsa, oid::sha512WithRsa}, {Algorithm::Sha256, oid::sha256},
    {Algorithm::Unknown, oid::ecdsaWithSha256},     {Algorithm::OtherUnknown, oid::sha1WithRsa},
};

Bytes Encoded(Algorithm algorithm)
{
    return AlgoId(kAlgorithms[static_cast<std::size_t>(algorithm)].oid);
}

PNV_UINT32 HashIdOf(Algorithm algorithm)
{
    switch (algorithm) {
    case Algorithm::Sha384WithRsa: return AOID_SHA384;
    case Algorithm::Sha512WithRsa: return AOID_SHA512;
    default: return AOID_SHA256;
    }
}

struct Time {
    Answer answer;
    Bytes encoding;
};

constexpr const char* kDays[] = {"20150101", "20200101", "20240601", "20250101",
                                 "20260101", "20300615", "20350101", "20491231"};
constexpr int kEarliest = 0;
constexpr int kLatest = 7;

// Counted day by day: a 32-bit time_t ends in 2038, and the library's own calendar is what is tested.
PNV_TIME_T SecondsOf(int day)
{
    const std::string text = kDays[day];
    const int year = std::stoi(text.substr(0, 4));
    const int month = std::stoi(text.substr(4, 2));
    const auto isLeap = [](int y) { return y % 4 == 0; }; // from 1970 to 2099
    PNV_TIME_T days = std::stoi(text.substr(6, 2)) - 1;
    for (int y = 1970; y < year; ++y) days += isLeap(y) ? 366 : 365;
    constexpr int kMonths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (int m = 1; m < month; ++m) days += kMonths[m - 1] + (m == 2 && isLeap(year) ? 1 : 0);
    return days * 86400;
}

Time Day(int day, bool generalized = false)
{
    const std::string text = std::string(kDays[day]) + "000000Z";
    return {{0, SecondsOf(day)}, generalized ? GenTime(text) : UtcTime(text.substr(2))};
}

Time BrokenTime(Random& random)
{
    switch (random.Below(5)) {
    case 0: return {{PELNIC_ERR_SYS_TIME_FORMAT}, UtcTime("2601010000000")};
    case 1: return {{PELNIC_ERR_SYS_TIME_FORMAT}, Utf8("260101000000Z")};
    case 2: return {{PELNIC_ERR_NULL_POINTER}, UtcTime("260101000000+0100")};
    case 3: return {{PELNIC_ERR_NULL_POINTER}, GenTime("20260101000000.5Z")};
    default: return {{PELNIC_ERR_NULL_POINTER}, UtcTime("")};
    }
}

Bytes NameOf(int name)
{
    if (name < 0) return Name(NameAttr(oid::commonName, Printable("CA 0"))); // the text of 0, in another string type
    return Name(Cn("CA " + std::to_string(name)));
}

struct SubjectKey {
    PublicKey key;
    Bytes spki;
};

Bytes ModulusOf(unsigned number)
{
    return {0xC1, 0x5E, static_cast<std::uint8_t>(number), 0x01};
}

SubjectKey RsaKey(const Bytes& modulus)
{
    const Bytes spki = RsaSpki(modulus, {0x03});
    return {{0, true, modulus, Content(spki, {1})}, spki};
}

SubjectKey OddKey(unsigned number, Random& random)
{
    const SubjectKey rsa = RsaKey(ModulusOf(number));
    const Bytes bits = Extract(rsa.spki, {1}); // as of an RSA key, so that only what is in front of it differs
    switch (random.Below(4)) {
    case 0: return {{PELNIC_ERR_UNSUPPORTED_ALGO, false, {}, rsa.key.bits}, Seq(AlgoId(oid::ecPublicKey), bits)};
    case 1: return {{0, false, {}, rsa.key.bits}, Seq(AlgoId(oid::sha256), bits)};
    case 2:
        return {{PELNIC_ERR_ASN_DECODE, false, {}, Content(Bits(0, Null()), {})},
                Seq(AlgoId(oid::rsaEncryption), Bits(0, Null()))};
    default: return RsaKey(Bytes(513, static_cast<std::uint8_t>(0x80 | number)));
    }
}

// ---- What is generated ----

struct CertDraft {
    Cert model;
    CertSpec spec;
    unsigned keyNumber = 0;
};

struct CrlDraft {
    Crl model;
    CrlSpec spec;
};

class Generator {
public:
    explicit Generator(Random& random) : random_(random), isClean_(random.Percent(35)), isChain_(random.Percent(25)) {}

    RandomPki Make()
    {
        const std::size_t cas = isChain_ ? 4 + random_.Below(10) : 1 + random_.Below(5);
        AddCa(0, 0);
        if (random_.Percent(25)) AddCa(1, 1);
        for (std::size_t i = 0; i < cas; ++i) AddCa(certs_.size(), IssuerFor(certs_.size()));
        cas_ = certs_.size();
        for (std::size_t i = random_.Below(3); i > 0; --i) AddRelative();
        if (Odd(6)) CloseCircle();
        for (std::size_t i = 1 + random_.Below(3); i > 0; --i) AddLeaf();
        for (std::size_t i = 0; i < cas_; ++i) {
            if (random_.Percent(isChain_ ? 99 : 75)) AddCrl(i);
        }
        for (std::size_t i = random_.Below(3); i > 0; --i) AddCrl(random_.Below(certs_.size()));
        if (Odd(25)) CopyCrl();
        return Finished();
    }

private:
    // Whether something happens that is out of order.
    bool Odd(unsigned chance) { return !isClean_ && random_.Percent(chance); }

    std::size_t IssuerFor(std::size_t child)
    {
        return isChain_ || random_.Percent(50) ? child - 1 : random_.Below(child);
    }

    int NameFor(std::size_t i)
    {
        if (!Odd(15)) return static_cast<int>(i);
        return random_.Percent(20) ? -1 : static_cast<int>(random_.Below(i + 1));
    }

    unsigned KeyFor(std::size_t i)
    {
        return Odd(8) ? static_cast<unsigned>(random_.Below(i + 1)) : static_cast<unsigned>(i);
    }

    Time Moment(int day) { return Odd(2) ? BrokenTime(random_) : Day(day, random_.Percent(20)); }
    Time AnyDay() { return Moment(static_cast<int>(random_.Below(std::size(kDays)))); }

    void SetTime(Answer* answer, Bytes* encoding, const Time& time)
    {
        *answer = time.answer;
        *encoding = time.encoding;
        if (time.answer.code == 0) times_.push_back(time.answer.value);
    }

    Algorithm AnyAlgorithm()
    {
        return Odd(5) ? random_.Of(kAlgorithms).algorithm : static_cast<Algorithm>(random_.Below(3));
    }

    // Algorithms and signature, by the key of this number.
    void Sign(Signed* object, IssuanceSpec* spec, unsigned keyNumber)
    {
        object->outer = AnyAlgorithm();
        object->inner = Odd(4) ? AnyAlgorithm() : object->outer;
        spec->innerAlgorithm = Encoded(object->inner);
        spec->outerAlgorithm = Encoded(object->outer);
        if (Odd(6)) keyNumber = static_cast<unsigned>(random_.Below(16));
        const PNV_UINT32 hashId = HashIdOf(Odd(2) ? Algorithm::Sha384WithRsa : object->outer);
        const auto number = ++signatures_;
        object->signature.modulus = ModulusOf(keyNumber);
        object->signature.hashId = hashId;
        object->signature.bits = Cat(object->signature.modulus, Bytes{static_cast<std::uint8_t>(hashId), number});
        spec->signature = object->signature.bits;
    }

    void SetSubject(CertDraft* cert, int name, unsigned keyNumber)
    {
        const SubjectKey key = Odd(5) ? OddKey(keyNumber, random_) : RsaKey(ModulusOf(keyNumber));
        cert->keyNumber = keyNumber;
        cert->model.subject = name;
        cert->model.key = key.key;
        cert->spec.subject = NameOf(name);
        cert->spec.subjectPublicKey = key.spki;
    }

    // By another, or by itself.
    void Issue(CertDraft* cert, const CertDraft& issuer)
    {
        cert->model.issuer = Odd(4) ? NameFor(certs_.size()) : issuer.model.subject;
        cert->spec.issuer = NameOf(cert->model.issuer);
        Sign(&cert->model, &cert->spec, issuer.keyNumber);
        const std::size_t serial = Odd(15) ? 1 + random_.Below(3) : certs_.size() + 1;
        cert->model.serial = {static_cast<std::uint8_t>(serial)};
        cert->spec.serial = cert->model.serial;
        const bool isShort = random_.Percent(isChain_ ? 2 : 25);
        SetTime(&cert->model.notBefore, &cert->spec.notBefore, isShort ? AnyDay() : Moment(kEarliest));
        SetTime(&cert->model.notAfter, &cert->spec.notAfter, isShort ? AnyDay() : Moment(kLatest));
    }

    void SetUsage(CertDraft* cert, unsigned bits)
    {
        if (Odd(7)) {
            bits = random_.Of({0x04u, 0x02u, 0x80u, 0x8000u});
        } else if (Odd(2)) {
            cert->spec.keyUsage = 0u;
            cert->model.keyUsage = {PELNIC_ERR_NO_KEY_USAGE};
            return;
        } else if (Odd(2)) {
            cert->spec.extraExtensions.push_back(Ext(oid::keyUsage, Octets({0x06})));
            cert->model.keyUsage = {PELNIC_ERR_ASN_DECODE};
            return;
        } else if (Odd(2)) {
            cert->model.keyUsage = {PELNIC_ERR_NO_KEY_USAGE};
            return;
        }
        cert->spec.keyUsage = bits;
        cert->model.keyUsage = {0, bits};
    }

    void SetPurposes(CertDraft* cert)
    {
        switch (random_.Below(6)) {
        case 0:
            cert->spec.extendedKeyUsage = {oid::codeSigning};
            cert->model.extendedKeyUsage = {0, 0x08};
            break;
        case 1:
            cert->spec.extendedKeyUsage = {oid::timeStamping};
            cert->model.extendedKeyUsage = {0, 0x40};
            break;
        case 2: // one purpose of no interest
            cert->spec.extendedKeyUsage = {oid::serverAuth, oid::timeStamping};
            cert->model.extendedKeyUsage = {0, 0x40};
            break;
        case 3:
            cert->spec.extendedKeyUsage = {oid::codeSigning, oid::timeStamping};
            cert->model.extendedKeyUsage = {0, 0x48};
            break;
        case 4:
            if (!Odd(30)) break;
            cert->spec.extraExtensions.push_back(Ext(oid::extKeyUsage, Null()));
            cert->model.extendedKeyUsage = {PELNIC_ERR_ASN_DECODE};
            break;
        default: break;
        }
    }

    void SetConstraints(CertDraft* cert, bool isCa)
    {
        if (Odd(4)) isCa = !isCa;
        if (Odd(2)) {
            cert->spec.basicConstraints = Null(); // does not decode, and says no by that
            isCa = false;
        } else if (isCa) {
            cert->spec.basicConstraints = Ca();
        } else if (random_.Percent(50)) {
            cert->spec.basicConstraints = NotCa();
        }
        cert->model.isCa = isCa;
    }

    void SetVersion(CertDraft* cert)
    {
        if (Odd(3)) {
            cert->spec = Version1(cert->spec);
            cert->model.version = 0;
            cert->model.keyUsage = {PELNIC_ERR_NO_KEY_USAGE};
            cert->model.extendedKeyUsage = {};
            cert->model.isCa = false;
        } else if (Odd(2)) { // with the extensions that it cannot have
            cert->spec.version = 2;
            cert->model.version = 1;
        }
    }

    CertDraft NewCert(int name, unsigned keyNumber)
    {
        CertDraft cert;
        cert.spec.keyIdentifiers = false;
        SetSubject(&cert, name, keyNumber);
        return cert;
    }

    void Finish(CertDraft cert, bool isCa)
    {
        SetUsage(&cert, isCa ? 0x06 : 0x80);
        SetPurposes(&cert);
        SetConstraints(&cert, isCa);
        SetVersion(&cert);
        certs_.push_back(std::move(cert));
    }

    void AddCa(std::size_t number, std::size_t issuer)
    {
        CertDraft ca = NewCert(NameFor(number), KeyFor(number));
        Issue(&ca, issuer == certs_.size() ? ca : certs_[issuer]);
        Finish(std::move(ca), true);
    }

    // A CA renewed, re-keyed or certified by another, or the same certificate again.
    void AddRelative()
    {
        const CertDraft& relative = certs_[random_.Below(cas_)];
        if (random_.Percent(25)) {
            certs_.push_back(CertDraft(relative));
            return;
        }
        const bool isRekeyed = random_.Percent(35);
        const unsigned key = isRekeyed ? 14 + static_cast<unsigned>(random_.Below(2)) : relative.keyNumber;
        CertDraft cert = NewCert(relative.model.subject, key);
        const CertDraft& issuer = random_.Percent(30) ? cert : certs_[random_.Below(cas_)];
        Issue(&cert, CertDraft(issuer));
        Finish(std::move(cert), true);
    }

    // An early CA is issued by a late one.
    void CloseCircle()
    {
        CertDraft& early = certs_[random_.Below(cas_)];
        const CertDraft late = certs_[random_.Below(certs_.size())];
        early.model.issuer = late.model.subject;
        early.spec.issuer = late.spec.subject;
        Sign(&early.model, &early.spec, late.keyNumber);
    }

    void AddLeaf()
    {
        const std::size_t number = certs_.size();
        CertDraft leaf = NewCert(static_cast<int>(number), static_cast<unsigned>(number));
        const CertDraft issuer = certs_[isChain_ ? cas_ - 1 - random_.Below(3) : random_.Below(cas_)];
        Issue(&leaf, issuer);
        Finish(std::move(leaf), false);
    }

    void AddEntry(CrlDraft* crl)
    {
        Entry entry;
        RevokedSpec spec;
        entry.serial = random_.Percent(70) ? random_.Of(certs_).model.serial : Bytes{0x7F};
        spec.serial = random_.Percent(10) ? Cat(Bytes{0x00}, entry.serial) : entry.serial;
        SetTime(&entry.date, &spec.date, AnyDay());
        entry.reason = {0, RVRS_NONE};
        if (random_.Percent(60)) {
            spec.reason = static_cast<int>(random_.Below(11));
            entry.reason = {0, *spec.reason};
        } else if (Odd(8)) {
            spec.extensions = {Ext(oid::crlReason, Null())};
            entry.reason = {PELNIC_ERR_ASN_DECODE};
        }
        crl->model.revoked.push_back(entry);
        crl->spec.revoked.push_back(spec);
    }

    void SetScope(CrlDraft* crl)
    {
        crl->model.indirect = {PELNIC_ERR_CRL_NO_IDP};
        if (random_.Percent(20)) {
            crl->spec.extensions.push_back(IssuingDistPoint(true));
            crl->model.indirect = {0, true};
        } else if (random_.Percent(8)) {
            crl->spec.extensions.push_back(IssuingDistPoint(false));
            crl->model.indirect = {0, false};
        } else if (Odd(6)) {
            crl->spec.extensions.push_back(Ext(oid::issuingDistributionPoint, Null()));
            crl->model.indirect = {PELNIC_ERR_ASN_DECODE};
        }
    }

    void AddCrl(std::size_t issuer)
    {
        CrlDraft crl;
        crl.model.issuer = Odd(4) ? NameFor(certs_.size()) : certs_[issuer].model.subject;
        crl.spec.issuer = NameOf(crl.model.issuer);
        Bytes nextUpdate;
        SetTime(&crl.model.nextUpdate, &nextUpdate, random_.Percent(isChain_ ? 2 : 15) ? AnyDay() : Moment(6));
        crl.spec.nextUpdate = nextUpdate;
        if (random_.Percent(isChain_ ? 10 : 35)) {
            for (std::size_t i = 1 + random_.Below(3); i > 0; --i) AddEntry(&crl);
        }
        SetScope(&crl);
        Sign(&crl.model, &crl.spec, certs_[issuer].keyNumber);
        crls_.push_back(std::move(crl));
    }

    // The same signature bits under the same or another content.
    void CopyCrl()
    {
        if (crls_.empty()) return;
        CrlDraft copy = random_.Of(crls_);
        if (random_.Percent(60)) AddEntry(&copy);
        crls_.push_back(std::move(copy));
    }

    RandomPki Finished()
    {
        RandomPki pki;
        random_.Shuffle(certs_);
        random_.Shuffle(crls_);
        for (const CertDraft& cert : certs_) {
            pki.certs.push_back(cert.model);
            pki.certEncodings.push_back(Build(cert.spec));
        }
        for (const CrlDraft& crl : crls_) {
            pki.crls.push_back(crl.model);
            pki.crlEncodings.push_back(Build(crl.spec));
        }
        std::sort(times_.begin(), times_.end());
        times_.erase(std::unique(times_.begin(), times_.end()), times_.end());
        pki.times = times_;
        return pki;
    }

    Random& random_;
    const bool isClean_;
    const bool isChain_; // a long one
    std::vector<CertDraft> certs_;
    std::size_t cas_ = 0;
    std::vector<CrlDraft> crls_;
    std::vector<PNV_TIME_T> times_;
    std::uint8_t signatures_ = 0;
};

// ---- The callbacks ----

struct NamedCheck {
    Bytes prefix; // of a good signature
};

PELNIC_ERROR_CODE Create(PELNIC_CRYPTO_VRF_CTX* out)
{
    *out = new NamedCheck;
    return 0;
}

PELNIC_ERROR_CODE Init(PELNIC_CRYPTO_VRF_CTX ctx, const PELNIC_BIGINT*, const PELNIC_BIGINT* n, PNV_UINT32 hashId)
{
    Bytes& prefix = static_cast<NamedCheck*>(ctx)->prefix;
    prefix.assign(n->aVal, n->aVal + n->uiLength);
    prefix.push_back(static_cast<std::uint8_t>(hashId));
    return 0;
}

PELNIC_ERROR_CODE Update(PELNIC_CRYPTO_VRF_CTX, const PNV_BYTE*, PNV_UINT32)
{
    return 0;
}

PELNIC_ERROR_CODE Final(PELNIC_CRYPTO_VRF_CTX ctx, const PNV_BYTE* signature, PNV_UINT32 length, PNV_INT* result)
{
    const Bytes& prefix = static_cast<NamedCheck*>(ctx)->prefix;
    *result = length >= prefix.size() && std::equal(prefix.begin(), prefix.end(), signature);
    return 0;
}

void Destroy(PELNIC_CRYPTO_VRF_CTX ctx)
{
    delete static_cast<NamedCheck*>(ctx);
}

} // namespace

RandomPki MakeRandomPki(Random& random)
{
    return Generator(random).Make();
}

void TrustNamedSignatures(PELNIC_CALLBACK_FUNCS* funcs)
{
    funcs->crypt_funcs = {sizeof(PELNIC_CRYPTO_FUNCS), Create, Init, Update, Final, Destroy};
}

} // namespace pnvtest
