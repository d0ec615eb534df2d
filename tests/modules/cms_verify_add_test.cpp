// Certificates and CRLs added to a context: from memory and from files, DER streams and PEM, and what is refused,
// logged and remembered on the way.
#include "cmsverify/cms_verify.h"

#include "cmsverify/pelnic_callback_fun.h"
#include "cmsverify/pelnic_plt_proxy.h"
#include "support/cms.h"
#include "support/exact_heap.h"
#include "support/stores.h"
#include "support/temp_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pnvtest {
namespace {

constexpr std::uint64_t kLargestFile = 2000000;

Bytes PemCert(const CertSpec& spec, std::string_view lineEnd = "\n")
{
    return Pem("CERTIFICATE", Build(spec), lineEnd);
}

Bytes PemCrl(const CrlSpec& spec, std::string_view lineEnd = "\n")
{
    return Pem("X509 CRL", Build(spec), lineEnd);
}

Bytes Repeat(const Bytes& part, std::size_t times)
{
    return Cat(std::vector<Bytes>(times, part));
}

// A self-signed certificate whose key does not decode, so that nobody can tell.
CertSpec Unjudgeable()
{
    CertSpec cert = ForeignRoot();
    cert.key = KeyId::EcP256;
    return cert;
}

class AddTest : public StoresTest {
protected:
    PELNIC_ERROR_CODE AddCert(const Bytes& input)
    {
        const ExactHeap octets(input);
        return pelnic_verify_add_cert(static_cast<PELNIC_VRF*>(stores_), octets.data(), Len(octets));
    }
    PELNIC_ERROR_CODE AddCrl(const Bytes& input)
    {
        const ExactHeap octets(input);
        return pelnic_verify_add_crl(static_cast<PELNIC_VRF*>(stores_), octets.data(), Len(octets));
    }
    static std::vector<Bytes> Encodings(const LIST_TYPE_PELNIC_X509_CERT& list) { return EncodingsOf(list); }
    static std::vector<Bytes> Encodings(const LIST_TYPE_PELNIC_X509_CRL& list) { return EncodingsOf(list); }
    std::vector<Bytes> Trusted() const { return Encodings(stores_.TrustCerts()); }
    std::vector<Bytes> Local() const { return Encodings(stores_.LocalCerts()); }
    std::vector<Bytes> Parked() const { return Encodings(stores_->crl_list); }

    const DemoPki pki_;
    const Bytes root_ = Build(pki_.root);
    const Bytes ca_ = Build(pki_.signingCa);
    const Bytes signer_ = Build(pki_.signer);
    const Bytes rootCrl_ = Build(pki_.rootCrl);
    const Bytes caCrl_ = Build(pki_.signingCrl);

private:
    template <typename List> static std::vector<Bytes> EncodingsOf(const List& list)
    {
        std::vector<Bytes> encodings;
        for (PNV_UINT32 i = 0; i < list.num; ++i) encodings.push_back(Encoding(*list.data[i]));
        return encodings;
    }
};

using All = std::vector<Bytes>;

// ---- Arguments ----

class AddArguments : public AddTest {};

TEST_F(AddArguments, WithoutContextAreNotLogged)
{
    const PNV_UINT32 length = Len(root_);
    EXPECT_EQ(pelnic_verify_add_cert(nullptr, root_.data(), length), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_verify_add_crl(nullptr, root_.data(), length), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_verify_add_cert_file(nullptr, "file"), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_verify_add_crl_file(nullptr, "file"), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(AddArguments, WithABrokenHandleAreNotLogged)
{
    PELNIC_VRF* vrf = stores_;
    vrf->st_size ^= 1;
    EXPECT_EQ(pelnic_verify_add_cert(vrf, nullptr, 0), PELNIC_ERR_INVALID_SIZE);
    EXPECT_EQ(pelnic_verify_add_crl(vrf, nullptr, 0), PELNIC_ERR_INVALID_SIZE);
    EXPECT_EQ(pelnic_verify_add_cert_file(vrf, nullptr), PELNIC_ERR_INVALID_SIZE);
    EXPECT_EQ(pelnic_verify_add_crl_file(vrf, nullptr), PELNIC_ERR_INVALID_SIZE);
    vrf->st_size ^= 1;
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(AddArguments, ThatAreMissingAreLogged)
{
    PELNIC_VRF* vrf = stores_;
    const std::function<PELNIC_ERROR_CODE()> calls[] = {
        [&] { return pelnic_verify_add_cert(vrf, nullptr, Len(root_)); },
        [&] { return pelnic_verify_add_cert(vrf, root_.data(), 0); },
        [&] { return pelnic_verify_add_crl(vrf, nullptr, Len(root_)); },
        [&] { return pelnic_verify_add_crl(vrf, root_.data(), 0); },
        [&] { return pelnic_verify_add_cert_file(vrf, nullptr); },
        [&] { return pelnic_verify_add_crl_file(vrf, nullptr); },
    };
    for (const auto& call : calls) {
        plan_.ClearLogs();
        EXPECT_EQ(call(), PELNIC_ERR_NULL_POINTER);
        EXPECT_EQ(plan_.Logs().size(), 1u);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_NULL_POINTER));
    }
}

// ---- Reading a file ----

class ReadFile : public StoresTest {
protected:
    PELNIC_ERROR_CODE Read(const std::string& path)
    {
        data_ = nullptr;
        size_ = 0;
        return _pnvReadFile(stores_, path.c_str(), &data_, &size_);
    }
    void TearDown() override { Release(); }
    void Release() { pelnic_free(stores_, std::exchange(data_, nullptr)); }

    const TempDir dir_;
    PNV_BYTE* data_ = nullptr;
    PNV_UINT32 size_ = 0;
};

TEST_F(ReadFile, HandsOutTheWholeFile)
{
    const Bytes content = Text("content");
    EXPECT_EQ(Read(dir_.Write("file", content)), 0u);
    EXPECT_EQ(Bytes(data_, data_ + size_), content);
    EXPECT_EQ(plan_.LargestRequest(), std::max(content.size(), sizeof(PELNIC_VRF)));
    EXPECT_EQ(plan_.Count(Call::Fread), 1u);
    EXPECT_TRUE(plan_.Logs().empty());
}

// The code in the log is not the one that is returned.
TEST_F(ReadFile, RefusesAnEmptyPath)
{
    EXPECT_EQ(Read(""), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_FILE_OPEN, "Empty file path."));
    plan_.ClearLogs();
    EXPECT_EQ(_pnvReadFile(stores_, nullptr, &data_, &size_), PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_FILE_OPEN, "Empty file path."));
    EXPECT_EQ(plan_.Count(Call::Fopen), 0u);
}

TEST_F(ReadFile, NamesAFileThatItCannotOpen)
{
    const std::string path = dir_.Path("missing");
    EXPECT_EQ(Read(path), PELNIC_ERR_SYS_FILE_OPEN);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_FILE_OPEN, "Can not open file '" + path + "'."));
}

TEST_F(ReadFile, RefusesAnEmptyFile)
{
    EXPECT_EQ(Read(dir_.Write("file", {})), PELNIC_ERR_SYS_FILE_EMPTY);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_FILE_EMPTY));
}

TEST_F(ReadFile, TakesTwoMillionOctetsAndNoMore)
{
    EXPECT_EQ(Read(dir_.WriteSparse("file", kLargestFile, {0x5A})), 0u);
    EXPECT_EQ(size_, kLargestFile);
    EXPECT_EQ(data_[0], 0x5A);
    Release();
    const std::size_t mallocs = plan_.Count(Call::Malloc);
    EXPECT_EQ(Read(dir_.WriteSparse("file", kLargestFile + 1)), PELNIC_ERR_SYS_FILE_TOO_LARGE);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_FILE_TOO_LARGE));
    EXPECT_EQ(plan_.Count(Call::Malloc), mallocs + plan_.Logs().size()); // a log message is all it takes
}

TEST_F(ReadFile, RefusesAShortReadWithoutALog)
{
    plan_.Fail(Call::Fread, 1);
    EXPECT_EQ(Read(dir_.Write("file", Text("content"))), PELNIC_ERR_SYS_FILE_READ);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(ReadFile, PassesOnWhatTheAllocatorSays)
{
    plan_.Fail(Call::Malloc, 1);
    EXPECT_EQ(Read(dir_.Write("file", Text("content"))), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_MEM_ALLOC));
}

TEST_F(ReadFile, DoesNotMindAFailingClose)
{
    plan_.Fail(Call::Fclose, 1);
    EXPECT_EQ(Read(dir_.Write("file", Text("content"))), 0u);
}

TEST(ReadFileCallbacks, OpenForReadingOctets)
{
    CleanPlan plan;
    plan.Table().plt_funcs.sys_funcs.file_funcs.fopen = [](const PNV_CHAR* path, const PNV_CHAR* mode) {
        EXPECT_STREQ(path, "a path");
        EXPECT_STREQ(mode, "rb");
        return PNV_FILE_HANDLE{nullptr};
    };
    Stores stores(plan);
    PNV_BYTE* data = nullptr;
    PNV_UINT32 size = 0;
    EXPECT_EQ(_pnvReadFile(stores, "a path", &data, &size), PELNIC_ERR_SYS_FILE_OPEN);
}

// 100 octets, if only the low half of the size counted.
TEST(ReadFileCallbacks, TellA64BitSize)
{
    CleanPlan plan;
    plan.Table().plt_funcs.sys_funcs.file_funcs.get_file_size = [](PNV_FILE_HANDLE) {
        return PNV_UINT64{0x0000000100000064};
    };
    Stores stores(plan);
    const TempDir dir;
    PNV_BYTE* data = nullptr;
    PNV_UINT32 size = 0;
    EXPECT_EQ(_pnvReadFile(stores, dir.Write("file", Bytes(100, 0)).c_str(), &data, &size),
              PELNIC_ERR_SYS_FILE_TOO_LARGE);
}

TEST(ReadFileCallbacks, GiveNoBlockAndCallItASuccess)
{
    CleanPlan plan;
    Stores stores(plan);
    static_cast<PELNIC_VRF*>(stores)->callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc = [](void** out, PNV_UINT32) {
        *out = nullptr;
        return PELNIC_ERROR_CODE{0};
    };
    const TempDir dir;
    PNV_BYTE* data = nullptr;
    PNV_UINT32 size = 0;
    EXPECT_EQ(_pnvReadFile(stores, dir.Write("file", Bytes(100, 0)).c_str(), &data, &size), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(plan.Count(Call::Fread), 0u);
}

// Whatever else the file has got by then.
TEST(ReadFileCallbacks, AreAskedForTheSizeOfTheBlock)
{
    CleanPlan plan;
    plan.Table().plt_funcs.sys_funcs.file_funcs.fread = [](void* block, size_t size, PNV_FILE_HANDLE) {
        EXPECT_EQ(size, 100u);
        std::fill_n(static_cast<PNV_BYTE*>(block), std::min<size_t>(size, 100), PNV_BYTE{0x5A});
        return size;
    };
    Stores stores(plan);
    const TempDir dir;
    PNV_BYTE* data = nullptr;
    PNV_UINT32 size = 0;
    ASSERT_EQ(_pnvReadFile(stores, dir.Write("file", Bytes(100, 0)).c_str(), &data, &size), 0u);
    EXPECT_EQ(Bytes(data, data + size), Bytes(100, 0x5A));
    pelnic_free(stores, data);
}

TEST(ReadFileCallbacks, SayThemselvesWhyThereIsNoBlock)
{
    CleanPlan plan;
    Stores stores(plan);
    static_cast<PELNIC_VRF*>(stores)->callback_funcs.plt_funcs.sys_funcs.mem_funcs.malloc = [](void** out, PNV_UINT32) {
        *out = nullptr;
        return PELNIC_ERROR_CODE{0x12345678};
    };
    const TempDir dir;
    PNV_BYTE* data = nullptr;
    PNV_UINT32 size = 0;
    EXPECT_EQ(_pnvReadFile(stores, dir.Write("file", Bytes(100, 0)).c_str(), &data, &size), 0x12345678u);
    EXPECT_EQ(data, nullptr);
}

// ---- Decoding an input ----

class DecodeInput : public AddTest {
protected:
    void TearDown() override { Clear(); }

    PELNIC_ERROR_CODE Decode(const Bytes& input)
    {
        Clear();
        const ExactHeap octets(input);
        return _pnvDecodeCertCrl(stores_, octets.data(), Len(octets), &certs_, &crls_);
    }
    void Clear()
    {
        pelnic_list_free(stores_, _pnvAsList(&certs_), _pnvFreeCertElement);
        pelnic_list_free(stores_, _pnvAsList(&crls_), _pnvFreeCrlElement);
    }
    void ExpectDecoded(const Bytes& input, const All& certs, const All& crls)
    {
        EXPECT_EQ(Decode(input), 0u);
        EXPECT_EQ(Encodings(certs_), certs);
        EXPECT_EQ(Encodings(crls_), crls);
    }
    void ExpectRefused(const Bytes& input) { EXPECT_EQ(Decode(input), PELNIC_ERR_CMS_FORMAT); }

    LIST_TYPE_PELNIC_X509_CERT certs_{};
    LIST_TYPE_PELNIC_X509_CRL crls_{};
};

TEST_F(DecodeInput, RefusesFewerThan38OctetsWithoutALog)
{
    for (std::ptrdiff_t length : {1, 10, 37}) {
        ExpectRefused(Bytes(signer_.begin(), signer_.begin() + length));
        const Bytes pem = PemCert(pki_.signer);
        ExpectRefused(Bytes(pem.begin(), pem.begin() + length));
    }
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(DecodeInput, Takes38Octets)
{
    ExpectDecoded(Bytes(38, 0x00), {}, {});
    ExpectDecoded(Text("-----BEGIN X-----\n-----END X-----\n.....\n"), {}, {});
}

TEST_F(DecodeInput, DoesWithoutEitherList)
{
    for (const Bytes& input : {Cat(signer_, rootCrl_, root_), Cat(PemCert(pki_.signer), PemCrl(pki_.rootCrl))}) {
        EXPECT_EQ(_pnvDecodeCertCrl(stores_, input.data(), Len(input), nullptr, nullptr), 0u);
        EXPECT_EQ(_pnvDecodeCertCrl(stores_, input.data(), Len(input), nullptr, &crls_), 0u);
        EXPECT_EQ(_pnvDecodeCertCrl(stores_, input.data(), Len(input), &certs_, nullptr), 0u);
        EXPECT_EQ(Encodings(certs_)[0], signer_);
        EXPECT_EQ(Encodings(crls_), All{rootCrl_});
        Clear();
    }
}

// ---- A stream of DER ----

using DerStream = DecodeInput;

TEST_F(DerStream, HoldsCertificatesAndCrlsInAnyOrder)
{
    ExpectDecoded(Cat(rootCrl_, signer_, ca_, caCrl_, root_), {signer_, ca_, root_}, {rootCrl_, caCrl_});
}

TEST_F(DerStream, EndsAtAnythingElse)
{
    ExpectDecoded(Cat(signer_, Bytes{0x00}), {signer_}, {});
    ExpectDecoded(Cat(signer_, Text("garbage"), ca_), {signer_}, {});
    ExpectDecoded(Cat(signer_, PemCert(pki_.root)), {signer_}, {});
    ExpectDecoded(Cat(rootCrl_, Seq(Int(1)), caCrl_), {}, {rootCrl_});
    ExpectDecoded(Cat(Text("x"), signer_), {}, {});
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(DerStream, CutAnywhereKeepsWhatIsWhole)
{
    ForEveryPrefix(Cat(signer_, rootCrl_), [&](const ExactHeap& prefix) {
        const PELNIC_ERROR_CODE rc = _pnvDecodeCertCrl(stores_, prefix.data(), Len(prefix), &certs_, &crls_);
        EXPECT_EQ(rc, prefix.size() < 38 ? PELNIC_ERR_CMS_FORMAT : 0u);
        EXPECT_EQ(certs_.num, prefix.size() < signer_.size() ? 0u : 1u);
        EXPECT_EQ(crls_.num, 0u);
        Clear();
    });
}

// The list's first growth comes right after the object has been decoded.
TEST_F(DerStream, FailsWhereAnObjectCannotBeKept)
{
    for (const Bytes& object : {signer_, rootCrl_}) {
        const std::size_t before = plan_.Count(Call::Malloc);
        EXPECT_EQ(_pnvDecodeCertCrl(stores_, object.data(), Len(object), nullptr, nullptr), 0u);
        plan_.Fail(Call::Malloc, plan_.Count(Call::Malloc) - before + 1);
        plan_.ClearLogs();
        EXPECT_EQ(Decode(object), PELNIC_ERR_SYS_MEM_ALLOC);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_MEM_ALLOC));
        EXPECT_EQ(certs_.num + crls_.num, 0u);
    }
}

// ---- PEM text ----

using PemText = DecodeInput;

TEST_F(PemText, HoldsBlocksInAnyOrder)
{
    const Bytes text = Cat(PemCrl(pki_.rootCrl), PemCert(pki_.signer), PemCert(pki_.root), PemCrl(pki_.signingCrl));
    ExpectDecoded(text, {signer_, root_}, {rootCrl_, caCrl_});
}

TEST_F(PemText, MayHaveTextBehindAndBetweenTheBlocks)
{
    const Bytes text =
        Cat(PemCert(pki_.signer), Text("subject=Test Root\n--\n\n"), PemCert(pki_.root), Text("The end"));
    ExpectDecoded(text, {signer_, root_}, {});
}

TEST_F(PemText, BehindOtherTextIsTakenForDer)
{
    ExpectDecoded(Cat(Text("\n"), PemCert(pki_.signer)), {}, {});
    ExpectDecoded(Cat(Text(" "), PemCert(pki_.signer)), {}, {});
}

TEST_F(PemText, MayEndItsLinesWithCrLf)
{
    ExpectDecoded(Cat(PemCert(pki_.signer, "\r\n"), PemCrl(pki_.rootCrl, "\r\n")), {signer_}, {rootCrl_});
}

// The text of a certificate begins one octet behind the marker, whatever that octet is; that of a CRL right behind it.
TEST_F(PemText, NeedsALineEndBehindTheMarkerOfACertificateAlone)
{
    const auto joined = [](Bytes pem, std::size_t marker) {
        pem.erase(pem.begin() + static_cast<std::ptrdiff_t>(marker));
        return pem;
    };
    ExpectDecoded(joined(PemCert(pki_.signer), 27), {}, {});
    ExpectDecoded(joined(PemCrl(pki_.rootCrl), 24), {}, {rootCrl_});
    Bytes replaced = PemCert(pki_.signer);
    replaced[27] = '#';
    ExpectDecoded(replaced, {signer_}, {});
}

TEST_F(PemText, MayHaveOtherBlocks)
{
    ExpectDecoded(Cat(Pem("PRIVATE KEY", Seq(Int(0))), PemCert(pki_.signer), Pem("CMS", signer_)), {signer_}, {});
}

TEST_F(PemText, IsReadByLabel)
{
    ExpectDecoded(Cat(Pem("X509 CRL", signer_), Pem("CERTIFICATE", rootCrl_)), {}, {});
    ExpectDecoded(Cat(Pem("certificate", signer_), Pem("TRUSTED CERTIFICATE", signer_)), {}, {});
}

// A label is tested by its beginning, the block by its whole marker.
TEST_F(PemText, SkipsLabelsThatOnlyBeginLikeTheRightOnes)
{
    for (const char* label : {"CERTIFICATE REQUEST", "CERTIFICATES", "X509 CRL SET"}) {
        const Bytes& der = label[0] == 'X' ? rootCrl_ : signer_;
        ExpectDecoded(Cat(Pem(label, der), PemCert(pki_.root)), {root_}, {});
    }
}

TEST_F(PemText, SkipsBadBlocks)
{
    const Bytes badBlocks[] = {
        Text("-----BEGIN CERTIFICATE-----\nTW Fu\n-----END CERTIFICATE-----\n"), // a space inside a line
        Text("-----BEGIN CERTIFICATE-----\n\n\n-----END CERTIFICATE-----\n"),    // nothing at all
        Text("-----BEGIN CERTIFICATE-----\nTWFu\n-----END CERTIFICATE-----\n"),  // no certificate
        Text("-----BEGIN CERTIFICATE-----\nTWFu\n-----END X509 CRL-----\n"),     // ended as something else
        Text("-----BEGIN CERTIFICATE-----END CERTIFICATE-----\n"),               // begin and end share dashes
        Text("-----BEGIN X509 CRL-----END X509 CRL-----\n"),                     // here too
        Text("-----BEGIN CERTIFICATE----------END CERTIFICATE-----\n"),          // the end comes before the text
        Text("-----BEGIN X509 CRL----------END X509 CRL-----\n"),                // no text in between
        Text("-----BEGIN CERTIFICATE ----\nTWFu\n-----END CERTIFICATE-----\n"),  // marker with a space for a dash
        Text("-----BEGIN-----END CERTIFICATE-----\n"),                           // no label
        Text("-----BEGIN CERTIFICATE\n-----END CERTIFICATE-----\n"),             // marker without its end
        Pem("CERTIFICATE", Bytes(signer_.begin(), signer_.end() - 1)),           // one octet short
    };
    for (const Bytes& bad : badBlocks) {
        SCOPED_TRACE(std::string(bad.begin(), bad.end()));
        ExpectDecoded(Cat(bad, PemCert(pki_.signer)), {signer_}, {});
        ExpectDecoded(Cat(bad, bad), {}, {});
    }
}

TEST_F(PemText, IgnoresOctetsBehindTheEncoding)
{
    ExpectDecoded(Cat(Pem("CERTIFICATE", Cat(signer_, root_)), Pem("X509 CRL", Cat(rootCrl_, Bytes{0x00}))), {signer_},
                  {rootCrl_});
}

TEST_F(PemText, NeedsAnEndForEveryBeginning)
{
    const char* const open[] = {
        "-----BEGIN CERTIFICATE-----\nTWFuTWFuTWFu\n",
        "-----BEGIN CERTIFICATE-----\nTWFuTWFuTWFu\n-----END CERTIFICATE----",
        "-----BEGIN SOMETHING ELSE-----\nTWFuTWFuTWFu\n",
        "-----BEGIN SOMETHING ELSE-----\nTWFu\n-----END SOMETHING ELSE----",
    };
    for (const char* block : open) {
        SCOPED_TRACE(block);
        plan_.ClearLogs();
        ExpectRefused(Text(block));
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
        ExpectRefused(Cat(PemCert(pki_.signer), Text(block)));
    }
}

TEST_F(PemText, EndsAtAZeroOctet)
{
    ExpectDecoded(Cat(PemCert(pki_.signer), Bytes{0x00}, PemCert(pki_.root)), {signer_}, {});
    Bytes cut = PemCert(pki_.signer);
    cut[100] = 0x00;
    ExpectRefused(cut);
}

TEST_F(PemText, CutAnywhereIsRefused)
{
    for (const Bytes& text : {PemCert(pki_.signer), PemCrl(pki_.rootCrl)}) {
        ForEveryPrefix(text, [&](const ExactHeap& prefix) {
            const bool isWhole = prefix.size() == text.size() - 1; // but for its last line end
            const PELNIC_ERROR_CODE rc = _pnvDecodeCertCrl(stores_, prefix.data(), Len(prefix), &certs_, &crls_);
            EXPECT_EQ(rc, isWhole ? 0u : PELNIC_ERR_CMS_FORMAT) << prefix.size();
            EXPECT_EQ(certs_.num + crls_.num, isWhole ? 1u : 0u) << prefix.size();
            Clear();
        });
    }
}

TEST_F(PemText, TakesOneCopyAndOneBlockAtATime)
{
    const Bytes text = Repeat(Cat(Text("-----BEGIN CERTIFICATE-----\n"), Repeat(Text("TWFuTWFu\n"), 100),
                                  Text("-----END CERTIFICATE-----\n")),
                              50);
    const std::size_t before = plan_.LiveBytes();
    ExpectDecoded(text, {}, {});
    EXPECT_LE(plan_.PeakBytes(), before + text.size() + 1 + 2000);
}

// ---- One PEM block ----

class PemBlock : public DecodeInput {
protected:
    // The code for a certificate in this block; length may fall short of the text.
    PELNIC_ERROR_CODE Cert(const std::string& block, std::size_t length)
    {
        PELNIC_X509_CERT* cert = nullptr;
        const PELNIC_ERROR_CODE rc = _pnvPemDecodeCert(stores_, block.c_str(), static_cast<PNV_UINT32>(length), &cert);
        EXPECT_EQ(cert != nullptr, rc == 0);
        pelnic_x509_free_cert(stores_, cert);
        return rc;
    }
    PELNIC_ERROR_CODE Crl(const std::string& block, std::size_t length)
    {
        PELNIC_X509_CRL* crl = nullptr;
        const PELNIC_ERROR_CODE rc = _pnvPemDecodeCrl(stores_, block.c_str(), static_cast<PNV_UINT32>(length), &crl);
        EXPECT_EQ(crl != nullptr, rc == 0);
        pelnic_x509_free_crl(stores_, crl);
        return rc;
    }
    PELNIC_ERROR_CODE Cert(const std::string& block) { return Cert(block, block.size()); }
    PELNIC_ERROR_CODE Crl(const std::string& block) { return Crl(block, block.size()); }
    static std::string AsString(const Bytes& text) { return std::string(text.begin(), text.end()); }
};

TEST_F(PemBlock, Decodes)
{
    EXPECT_EQ(Cert(AsString(PemCert(pki_.signer))), 0u);
    EXPECT_EQ(Crl(AsString(PemCrl(pki_.rootCrl))), 0u);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(PemBlock, BeginsWithItsMarker)
{
    EXPECT_EQ(Cert(AsString(PemCrl(pki_.rootCrl))), PELNIC_ERR_CMS_FORMAT);
    EXPECT_EQ(Crl(AsString(PemCert(pki_.signer))), PELNIC_ERR_CMS_FORMAT);
    EXPECT_EQ(Cert("-----BEGIN CERTIFICATE"), PELNIC_ERR_CMS_FORMAT);
    EXPECT_EQ(Cert("-----BEGIN CERTIFICATE REQUEST-----\nTWFu\n-----END CERTIFICATE REQUEST-----"),
              PELNIC_ERR_CMS_FORMAT);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(PemBlock, EndsWithItsMarker)
{
    EXPECT_EQ(Cert("-----BEGIN CERTIFICATE-----\nTWFu\n-----END X509 CRL-----"), PELNIC_ERR_CMS_FORMAT);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
    plan_.ClearLogs();
    EXPECT_EQ(Crl("-----BEGIN X509 CRL-----\nTWFu\n-----END CERTIFICATE-----"), PELNIC_ERR_CMS_FORMAT);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
}

TEST_F(PemBlock, EndsWithTheWholeMarker)
{
    std::string cert = AsString(PemCert(pki_.signer));
    cert.erase(cert.rfind('-'), 1);
    EXPECT_EQ(Cert(cert), PELNIC_ERR_CMS_FORMAT);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
}

// Long enough for its beginning, and so it is the end that is missed.
TEST_F(PemBlock, IsMoreThanItsFirstMarker)
{
    EXPECT_EQ(Cert("-----BEGIN CERTIFICATE-----"), PELNIC_ERR_CMS_FORMAT);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
}

TEST_F(PemBlock, EndsInsideItself)
{
    const std::string cert = AsString(PemCert(pki_.signer));
    const std::string crl = AsString(PemCrl(pki_.rootCrl));
    EXPECT_EQ(Cert(cert, 100), PELNIC_ERR_CMS_FORMAT);
    EXPECT_EQ(Crl(crl, 100), PELNIC_ERR_CMS_FORMAT);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
}

// The end would come before the text: no length at all, and never a huge one.
TEST_F(PemBlock, HasNoNegativeLength)
{
    EXPECT_EQ(Cert("-----BEGIN CERTIFICATE-----END CERTIFICATE-----"), PELNIC_ERR_CMS_FORMAT);
    EXPECT_EQ(Cert("-----BEGIN CERTIFICATE----------END CERTIFICATE-----"), PELNIC_ERR_CMS_FORMAT);
    EXPECT_EQ(Crl("-----BEGIN X509 CRL-----END X509 CRL-----"), PELNIC_ERR_CMS_FORMAT);
    EXPECT_LE(plan_.LargestRequest(), 2048u); // a log message
}

// As many octets as it has groups of four characters, times three.
TEST_F(PemBlock, HasRoomForAllThatItDecodes)
{
    EXPECT_EQ(Cert("-----BEGIN CERTIFICATE-----\n" + std::string(40000, 'A') + "\n-----END CERTIFICATE-----"),
              PELNIC_ERR_ASN_DECODE);
    EXPECT_GE(plan_.LargestRequest(), 30000u);
}

TEST_F(PemBlock, HasAText)
{
    for (const char* text : {"", "\n", "TW Fu", "TWFu====", "TQ==TQ=="}) {
        plan_.ClearLogs();
        EXPECT_EQ(Cert(std::string("-----BEGIN CERTIFICATE-----\n") + text + "\n-----END CERTIFICATE-----"),
                  PELNIC_ERR_CMS_FORMAT);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
        plan_.ClearLogs();
        EXPECT_EQ(Crl(std::string("-----BEGIN X509 CRL-----\n") + text + "\n-----END X509 CRL-----"),
                  PELNIC_ERR_CMS_FORMAT);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
    }
}

TEST_F(PemBlock, PassesOnWhatTheDecoderSays)
{
    EXPECT_EQ(Cert("-----BEGIN CERTIFICATE-----\nTWFu\n-----END CERTIFICATE-----"), PELNIC_ERR_ASN_DECODE);
    EXPECT_EQ(Crl("-----BEGIN X509 CRL-----\nTWFu\n-----END X509 CRL-----"), PELNIC_ERR_ASN_DECODE);
}

TEST_F(PemBlock, PassesOnWhatTheAllocatorSays)
{
    plan_.Fail(Call::Malloc, 1);
    EXPECT_EQ(Cert(AsString(PemCert(pki_.signer))), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_MEM_ALLOC));
    plan_.ClearLogs();
    plan_.Fail(Call::Malloc, 1);
    EXPECT_EQ(Crl(AsString(PemCrl(pki_.rootCrl))), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_MEM_ALLOC));
}

TEST_F(PemBlock, ThatFailsIsNoFailureForTheList)
{
    const std::string bad = "-----BEGIN CERTIFICATE-----\nTWFu\n-----END CERTIFICATE-----";
    EXPECT_EQ(_pnvAddPemCertToList(stores_, bad.c_str(), Len(bad), &certs_), 0u);
    EXPECT_EQ(_pnvAddPemCrlToList(stores_, bad.c_str(), Len(bad), &crls_), 0u);
    EXPECT_EQ(certs_.num, 0u);
    EXPECT_EQ(crls_.num, 0u);
}

TEST_F(PemBlock, NeedsNoList)
{
    const std::string cert = AsString(PemCert(pki_.signer));
    const std::string crl = AsString(PemCrl(pki_.rootCrl));
    EXPECT_EQ(_pnvAddPemCertToList(stores_, cert.c_str(), Len(cert), nullptr), 0u);
    EXPECT_EQ(_pnvAddPemCrlToList(stores_, crl.c_str(), Len(crl), nullptr), 0u);
}

// ---- Work on bad PEM ----

std::size_t g_octetsLookedAt = 0;

const PNV_CHAR* CountingStrstr(const PNV_CHAR* hay, const PNV_CHAR* needle)
{
    const PNV_CHAR* found = pnv_strstr_impl(hay, needle);
    g_octetsLookedAt += found == nullptr ? pnv_strlen_impl(hay) : static_cast<std::size_t>(found - hay);
    return found;
}

PNV_UINT32 CountingStrlen(const PNV_CHAR* s)
{
    const PNV_UINT32 length = pnv_strlen_impl(s);
    g_octetsLookedAt += length;
    return length;
}

PNV_INT CountingStrncmp(const PNV_CHAR* a, const PNV_CHAR* b, size_t n)
{
    g_octetsLookedAt += n;
    return pnv_strncmp_impl(a, b, n);
}

PNV_INT CountingMemcmp(const void* a, const void* b, size_t n)
{
    g_octetsLookedAt += n;
    return pnv_memcmp_impl(a, b, n);
}

// The octets that the string callbacks look at for an input that holds nothing good.
std::size_t OctetsLookedAt(const Bytes& text)
{
    CleanPlan plan;
    PELNIC_SYS_FUNCS& sys = plan.Table().plt_funcs.sys_funcs;
    sys.str_funcs.pf_strstr = CountingStrstr;
    sys.str_funcs.pf_strlen = CountingStrlen;
    sys.str_funcs.pf_strncmp = CountingStrncmp;
    sys.mem_funcs.memcmp = CountingMemcmp;
    plan.Silence();
    Stores stores(plan);
    g_octetsLookedAt = 0;
    EXPECT_EQ(pelnic_verify_add_cert(static_cast<PELNIC_VRF*>(stores), text.data(), Len(text)),
              PELNIC_ERR_CERT_INVALID);
    return g_octetsLookedAt;
}

TEST(PemWork, GrowsWithTheNumberOfBadBlocksAndNoFaster)
{
    const char* const badBlocks[] = {
        "-----BEGIN CERTIFICATE-----\nTWFu\n-----END X-----\n",
        "-----BEGIN X509 CRL-----\nTWFu\n-----END X-----\n",
        "-----BEGIN CERTIFICATE-----END X-----\n",
        "-----BEGIN CERTIFICATE-----END CERTIFICATE-----\n",
        "-----BEGIN X509 CRL-----END X509 CRL-----\n",
        "-----BEGIN CERTIFICATE REQUEST-----\nTWFu\n-----END X-----\n",
        "-----BEGIN CERTIFICATE-----\n \n-----END CERTIFICATE-----\n",
        "-----BEGIN X-----END X-----\n",
    };
    for (const char* bad : badBlocks) {
        SCOPED_TRACE(bad);
        const Bytes text = Repeat(Text(bad), 1000);
        EXPECT_LE(OctetsLookedAt(text), 8 * text.size());
    }
}

// ---- Adding certificates ----

using AddCertificates = AddTest;

TEST_F(AddCertificates, SortsThemIntoTheStores)
{
    EXPECT_EQ(AddCert(Cat(signer_, root_, ca_)), 0u);
    EXPECT_EQ(Trusted(), (All{root_, ca_}));
    EXPECT_EQ(Local(), All{signer_});
    for (PNV_UINT32 i = 0; i < 2; ++i) EXPECT_EQ(stores_.TrustCerts().data[i]->iRef, 1);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(AddCertificates, TakesPem)
{
    EXPECT_EQ(AddCert(Cat(PemCert(pki_.root), PemCert(pki_.signer))), 0u);
    EXPECT_EQ(Trusted(), All{root_});
    EXPECT_EQ(Local(), All{signer_});
}

TEST_F(AddCertificates, DropsCrls)
{
    EXPECT_EQ(AddCert(Cat(PemCert(pki_.root), PemCrl(pki_.rootCrl), PemCert(pki_.signer))), 0u);
    EXPECT_EQ(Trusted(), All{root_});
    EXPECT_EQ(Local(), All{signer_});
    EXPECT_EQ(stores_.Crls().num, 0u);
    EXPECT_EQ(stores_->crl_list.num, 0u);
}

TEST_F(AddCertificates, TrustsAnyCaOfTheCaller)
{
    EXPECT_EQ(AddCert(ca_), 0u);
    EXPECT_EQ(Trusted(), All{ca_});
    EXPECT_EQ(stores_.TrustCerts().data[0]->bFromPackage, 0u);
}

TEST_F(AddCertificates, TakesCertificatesWithoutBasicConstraintsForLocal)
{
    const Bytes plain = Build(With(Root(), &CertSpec::basicConstraints, std::nullopt));
    EXPECT_EQ(AddCert(plain), 0u);
    EXPECT_EQ(Local(), All{plain});
}

TEST_F(AddCertificates, TakesTheBeginningOfAStream)
{
    EXPECT_EQ(AddCert(Cat(root_, Text("garbage"))), 0u);
    EXPECT_EQ(Trusted(), All{root_});
}

TEST_F(AddCertificates, NeedsOne)
{
    for (const Bytes& none : {rootCrl_, PemCrl(pki_.rootCrl), Cat(Text("\n"), PemCert(pki_.root)), Bytes(38, 0x00),
                              Pem("CERTIFICATE REQUEST", signer_), Pem("CERTIFICATE", Text("no certificate")),
                              Text("-----BEGIN CERTIFICATE-----END CERTIFICATE-----")}) {
        plan_.ClearLogs();
        EXPECT_EQ(AddCert(none), PELNIC_ERR_CERT_INVALID);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CERT_INVALID));
    }
    EXPECT_EQ(stores_.Store().trust_store, nullptr);
    EXPECT_EQ(stores_.Store().local_store, nullptr);
}

TEST_F(AddCertificates, RefusesFewerThan38Octets)
{
    for (const Bytes& octets : {root_, PemCert(pki_.root)}) {
        plan_.ClearLogs();
        EXPECT_EQ(AddCert(Bytes(octets.begin(), octets.begin() + 37)), PELNIC_ERR_CMS_FORMAT);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
    }
}

TEST_F(AddCertificates, AddsNothingOfTornPem)
{
    EXPECT_EQ(AddCert(Cat(PemCert(pki_.root), Text("-----BEGIN CERTIFICATE-----\n"))), PELNIC_ERR_CMS_FORMAT);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CMS_FORMAT));
    EXPECT_EQ(stores_.Store().trust_store, nullptr);
}

TEST_F(AddCertificates, TakesADuplicateForASuccess)
{
    EXPECT_EQ(AddCert(Cat(root_, signer_)), 0u);
    EXPECT_TRUE(plan_.Logs().empty());
    EXPECT_EQ(AddCert(root_), 0u);
    EXPECT_TRUE(LoggedWarning(plan_, std::nullopt, "Duplicate certificate add."));
    plan_.ClearLogs();
    EXPECT_EQ(AddCert(Cat(signer_, ca_)), 0u);
    EXPECT_TRUE(LoggedWarning(plan_, std::nullopt, "Duplicate certificate add."));
    EXPECT_EQ(Trusted(), (All{root_, ca_}));
    EXPECT_EQ(Local(), All{signer_});
}

TEST_F(AddCertificates, StopsAtAVersionWithoutExtensions)
{
    EXPECT_EQ(AddCert(Cat(root_, Build(Version1(Signer())), ca_)), PELNIC_ERR_CERT_VERSION);
    EXPECT_TRUE(LoggedError(plan_, std::nullopt, "Failed to get ca attribute for certificate."));
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CERT_VERSION));
    EXPECT_EQ(Trusted(), All{root_});
}

TEST_F(AddCertificates, StopsWhereAStoreFails)
{
    stores_.Local(pki_.signer);
    PELNIC_X509_CERT* certs[] = {stores_.Cert(pki_.signer), stores_.Cert(pki_.tsa), stores_.Cert(pki_.root)};
    LIST_TYPE_PELNIC_X509_CERT list{3, certs, 3};
    const PELNIC_PKI_CTX pki = std::exchange(stores_->pki_ctx, nullptr);
    EXPECT_EQ(_pnvAddRootToStore(stores_, &list), PELNIC_ERR_NO_PKI);
    EXPECT_TRUE(LoggedError(plan_, std::nullopt, "Add certificate failed."));
    stores_->pki_ctx = pki;
    for (const PELNIC_X509_CERT* cert : certs) EXPECT_EQ(cert->iRef, 1);
}

TEST_F(AddCertificates, OfAnEmptyListIsRefusedWithoutALog)
{
    LIST_TYPE_PELNIC_X509_CERT none{};
    EXPECT_EQ(_pnvAddRootToStore(stores_, &none), PELNIC_ERR_CERT_INVALID);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(AddCertificates, GoesOnAfterTheCrlsAreFrozen)
{
    stores_->crl_frozen = 1;
    EXPECT_EQ(AddCert(root_), 0u);
    EXPECT_EQ(Trusted(), All{root_});
}

// ---- Adding CRLs ----

class AddCrls : public AddTest {
protected:
    static constexpr const char* kRootFound = "There is a root certificate, which is not allowed when add crl or cms.";
    static constexpr const char* kNotStored = "Failed to add certificate into store.";
};

TEST_F(AddCrls, ParksThem)
{
    EXPECT_EQ(AddCrl(Cat(rootCrl_, caCrl_)), 0u);
    EXPECT_EQ(AddCrl(PemCrl(pki_.tsaCrl)), 0u);
    EXPECT_EQ(Parked(), (All{rootCrl_, caCrl_, Build(pki_.tsaCrl)}));
    for (PNV_UINT32 i = 0; i < 3; ++i) EXPECT_EQ(stores_->crl_list.data[i]->iRef, 1);
    EXPECT_EQ(stores_.Store().trust_store, nullptr);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(AddCrls, ParksADuplicateToo)
{
    EXPECT_EQ(AddCrl(Cat(rootCrl_, rootCrl_)), 0u);
    EXPECT_EQ(Parked(), (All{rootCrl_, rootCrl_}));
}

TEST_F(AddCrls, IsOverOnceTheyAreFrozen)
{
    stores_->crl_frozen = 1;
    EXPECT_EQ(AddCrl(rootCrl_), PELNIC_ERR_CRL_FROZEN);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CRL_FROZEN));
    EXPECT_EQ(stores_->crl_list.num, 0u);
    EXPECT_EQ(AddCrl(Bytes(37, 0x00)), PELNIC_ERR_CRL_FROZEN);
    EXPECT_EQ(pelnic_verify_add_crl(static_cast<PELNIC_VRF*>(stores_), nullptr, 1), PELNIC_ERR_NULL_POINTER);
}

TEST_F(AddCrls, IsOverOnceAVerificationHasBegun)
{
    EXPECT_EQ(AddCert(root_), 0u);
    EXPECT_EQ(AddCrl(pki_.Crls()), 0u);
    const Bytes cms = DetachedCms(Text("content"), DemoCms(pki_));
    ASSERT_EQ(pelnic_verify_detach_signature_begin(static_cast<PELNIC_VRF*>(stores_), cms.data(), Len(cms)), 0u);
    EXPECT_EQ(AddCrl(rootCrl_), PELNIC_ERR_CRL_FROZEN);
    const TempDir dir;
    EXPECT_EQ(pelnic_verify_add_crl_file(static_cast<PELNIC_VRF*>(stores_), dir.Write("crl", rootCrl_).c_str()),
              PELNIC_ERR_CRL_FROZEN);
    EXPECT_EQ(AddCert(Build(ForeignRoot())), 0u);
}

// Why the input gives no CRL is not told.
TEST_F(AddCrls, NeedsOne)
{
    for (const Bytes& none :
         {Bytes(37, 0x30), Bytes(38, 0x30), Cat(root_, signer_), PemCert(pki_.root),
          Text("-----BEGIN X509 CRL-----\nTWFuTWFuTWFu\n"), Pem("X509 CRL", Text("no CRL")),
          Cat(Text("\n"), PemCrl(pki_.rootCrl)), Text("-----BEGIN X509 CRL-----END X509 CRL-----")}) {
        plan_.ClearLogs();
        EXPECT_EQ(AddCrl(none), PELNIC_ERR_CRL_DECODE);
        EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_CRL_DECODE));
    }
    EXPECT_EQ(stores_->crl_list.num, 0u);
    EXPECT_EQ(stores_.Store().trust_store, nullptr);
    EXPECT_EQ(stores_.Store().local_store, nullptr);
}

TEST_F(AddCrls, SortsTheCertificatesThatComeAlong)
{
    EXPECT_EQ(AddCrl(Cat(signer_, rootCrl_, ca_)), 0u);
    EXPECT_EQ(Parked(), All{rootCrl_});
    EXPECT_EQ(Trusted(), All{ca_});
    EXPECT_EQ(Local(), All{signer_});
    EXPECT_EQ(stores_.TrustCerts().data[0]->bFromPackage, 1u);
    EXPECT_EQ(stores_.LocalCerts().data[0]->bFromPackage, 1u);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(AddCrls, KeepsSelfSignedCertificatesOut)
{
    EXPECT_EQ(AddCrl(Cat(PemCert(pki_.root), PemCrl(pki_.rootCrl), PemCert(pki_.signingCa))), 0u);
    EXPECT_TRUE(LoggedWarning(plan_, std::nullopt, kRootFound));
    EXPECT_EQ(Parked(), All{rootCrl_});
    EXPECT_EQ(Trusted(), All{ca_});
}

TEST_F(AddCrls, TakesADuplicateCertificateWithoutALog)
{
    EXPECT_EQ(AddCert(Cat(ca_, signer_)), 0u);
    EXPECT_EQ(AddCrl(Cat(rootCrl_, ca_, signer_)), 0u);
    EXPECT_EQ(Trusted(), All{ca_});
    EXPECT_EQ(Local(), All{signer_});
    EXPECT_TRUE(plan_.Logs().empty());
}

// The CRL counts; what is wrong with the certificates is a warning with the CRL's own code.
TEST_F(AddCrls, DoesNotMindACertificateThatCannotBeSorted)
{
    EXPECT_EQ(AddCrl(Cat(ca_, Build(Version1(Signer())), signer_, rootCrl_)), 0u);
    EXPECT_TRUE(LoggedError(plan_, std::nullopt, "Failed to get ca attribute for certificate."));
    EXPECT_TRUE(LoggedWarning(plan_, 0, kNotStored));
    EXPECT_EQ(Parked(), All{rootCrl_});
    EXPECT_EQ(Trusted(), All{ca_});
    EXPECT_EQ(stores_.Store().local_store, nullptr);
}

TEST_F(AddCrls, DoesNotMindACertificateThatCannotBeJudged)
{
    EXPECT_EQ(AddCrl(Cat(ca_, Build(Unjudgeable()), signer_, rootCrl_)), 0u);
    EXPECT_TRUE(LoggedError(plan_, std::nullopt, "Failed to check self sign for certificate."));
    EXPECT_TRUE(LoggedWarning(plan_, 0, kNotStored));
    EXPECT_EQ(Parked(), All{rootCrl_});
    EXPECT_EQ(Trusted(), All{ca_});
    EXPECT_EQ(stores_.Store().local_store, nullptr);
}

TEST_F(AddCrls, PassesOnTheCodeOfTheCertificateThatStoppedIt)
{
    PELNIC_X509_CERT* oldVersion = stores_.Cert(Version1(Signer()));
    LIST_TYPE_PELNIC_X509_CERT list{1, &oldVersion, 1};
    EXPECT_EQ(_pnvAddCertToStore(stores_, &list), PELNIC_ERR_CERT_VERSION);
    PELNIC_X509_CERT* unjudgeable = stores_.Cert(Unjudgeable());
    list.data[0] = unjudgeable;
    EXPECT_EQ(_pnvAddCertToStore(stores_, &list), PELNIC_ERR_UNSUPPORTED_ALGO);
}

TEST_F(AddCrls, StopsWhereAStoreFails)
{
    PELNIC_X509_CERT* certs[] = {stores_.Cert(pki_.signer), stores_.Cert(pki_.signingCa)};
    LIST_TYPE_PELNIC_X509_CERT list{2, certs, 2};
    const PELNIC_PKI_CTX pki = std::exchange(stores_->pki_ctx, nullptr);
    EXPECT_EQ(_pnvAddCertToStore(stores_, &list), PELNIC_ERR_NO_PKI);
    EXPECT_TRUE(LoggedError(plan_, std::nullopt, "Failed to add certificate into PKI context."));
    stores_->pki_ctx = pki;
}

TEST_F(AddCrls, NeedsNoCertificates)
{
    LIST_TYPE_PELNIC_X509_CERT none{};
    EXPECT_EQ(_pnvAddCertToStore(stores_, &none), 0u);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_F(AddCrls, LeavesOutACrlThatCannotBeKept)
{
    PELNIC_X509_CRL* crls[] = {stores_.Crl(rootCrl_), stores_.Crl(caCrl_)};
    LIST_TYPE_PELNIC_X509_CRL list{2, crls, 2};
    plan_.Fail(Call::Malloc, 1);
    EXPECT_EQ(_pnvAddCrlToStore(stores_, &list), 0u);
    EXPECT_EQ(Parked(), All{caCrl_});
    EXPECT_EQ(crls[0]->iRef, 1);
    EXPECT_EQ(crls[1]->iRef, 2);
}

// What stands behind the list is not its.
TEST_F(AddCrls, EndWithTheirList)
{
    PELNIC_X509_CRL* crls[] = {stores_.Crl(rootCrl_), stores_.Crl(caCrl_)};
    LIST_TYPE_PELNIC_X509_CRL list{1, crls, 1};
    EXPECT_EQ(_pnvAddCrlToStore(stores_, &list), 0u);
    EXPECT_EQ(Parked(), All{rootCrl_});
    EXPECT_EQ(crls[1]->iRef, 1);
}

// Without the lists for what it decodes it has lost nothing, and says so.
TEST_F(AddCrls, PassesOnWhatTheAllocatorSaysOfItsLists)
{
    for (std::size_t nth : {1u, 2u}) {
        plan_.Fail(Call::Malloc, nth);
        EXPECT_EQ(AddCrl(rootCrl_), PELNIC_ERR_SYS_MEM_ALLOC);
        EXPECT_EQ(plan_.FaultsMet(), nth);
        EXPECT_EQ(stores_->crl_list.num, 0u);
        EXPECT_EQ(stores_->bInputLost, 0u);
    }
}

// ---- Files ----

struct FileOperation {
    const char* name;
    const char* function;
    PELNIC_ERROR_CODE (*add)(PELNIC_VRF_CTX, const PNV_CHAR*);
    Bytes (*good)();
    PELNIC_ERROR_CODE noneInside; // the code for a file without any of what is wanted
};

class AddFile : public AddTest, public ::testing::WithParamInterface<FileOperation> {
protected:
    PELNIC_ERROR_CODE Add(const std::string& path)
    {
        return GetParam().add(static_cast<PELNIC_VRF*>(stores_), path.c_str());
    }
    std::size_t Added() const { return Trusted().size() + Parked().size(); }
    static std::string Name() { return GetParam().function; }
    // Who has logged, in order.
    std::vector<std::string> Functions() const
    {
        std::vector<std::string> names;
        for (const LogRecord& record : plan_.Logs()) names.push_back(record.function);
        return names;
    }
    void ExpectRefused(const std::string& path, PELNIC_ERROR_CODE code)
    {
        plan_.ClearLogs();
        EXPECT_EQ(Add(path), code);
        EXPECT_TRUE(LoggedError(plan_, code));
        EXPECT_EQ(Added(), 0u);
    }

    const TempDir dir_;
};
INSTANTIATE_TEST_SUITE_P(
    , AddFile,
    ::testing::Values(FileOperation{"Cert", "pelnic_verify_add_cert_file", &pelnic_verify_add_cert_file,
                                    [] { return Build(Root()); }, PELNIC_ERR_CERT_INVALID},
                      FileOperation{"Crl", "pelnic_verify_add_crl_file", &pelnic_verify_add_crl_file,
                                    [] { return Build(CrlOf(Root())); }, PELNIC_ERR_CRL_DECODE}),
    [](const auto& operation) { return operation.param.name; });

TEST_P(AddFile, TakesDer)
{
    EXPECT_EQ(Add(dir_.Write("file", GetParam().good())), 0u);
    EXPECT_EQ(Added(), 1u);
    EXPECT_TRUE(plan_.Logs().empty());
}

TEST_P(AddFile, TakesPem)
{
    EXPECT_EQ(Add(dir_.Write("file", Cat(PemCert(pki_.root), PemCrl(pki_.rootCrl)))), 0u);
    EXPECT_EQ(Added(), 1u);
}

TEST_P(AddFile, TakesTwoMillionOctets)
{
    EXPECT_EQ(Add(dir_.WriteSparse("file", kLargestFile, GetParam().good())), 0u);
    EXPECT_EQ(Added(), 1u);
}

TEST_P(AddFile, LogsWhatReadingSays)
{
    ExpectRefused("", PELNIC_ERR_NULL_POINTER);
    EXPECT_TRUE(LoggedError(plan_, PELNIC_ERR_SYS_FILE_OPEN, "Empty file path."));
    EXPECT_EQ(Functions(), (std::vector<std::string>{"_pnvReadFile", Name()}));
    ExpectRefused(dir_.Path("missing"), PELNIC_ERR_SYS_FILE_OPEN);
    ExpectRefused(dir_.Write("empty", {}), PELNIC_ERR_SYS_FILE_EMPTY);
    ExpectRefused(dir_.WriteSparse("large", kLargestFile + 1, GetParam().good()), PELNIC_ERR_SYS_FILE_TOO_LARGE);
    plan_.Fail(Call::Fread, 1);
    ExpectRefused(dir_.Write("good", GetParam().good()), PELNIC_ERR_SYS_FILE_READ);
    EXPECT_EQ(Functions(), std::vector<std::string>{Name()});
}

TEST_P(AddFile, LogsWhatAddingSays)
{
    ExpectRefused(dir_.Write("file", Bytes(38, 0x00)), GetParam().noneInside);
    const std::string name = Name();
    EXPECT_EQ(Functions(), (std::vector<std::string>{name.substr(0, name.rfind("_file")), name}));
}

// A FIFO has no size, a directory none that makes sense, and the null device is empty.
TEST_P(AddFile, RefusesWhatIsNoRegularFile)
{
    const std::string fifo = dir_.Path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string unwritten = dir_.Path("unwritten");
    ASSERT_EQ(mkfifo(unwritten.c_str(), 0600), 0);
    const int writer = open(fifo.c_str(), O_RDWR);
    ASSERT_GE(writer, 0);
    ASSERT_EQ(write(writer, root_.data(), root_.size()), static_cast<ssize_t>(root_.size()));
    for (const std::string& path : {fifo, unwritten, dir_.Path(), std::string("/dev/null")}) {
        const PELNIC_ERROR_CODE rc = Add(path);
        EXPECT_TRUE(rc == PELNIC_ERR_SYS_FILE_OPEN || rc == PELNIC_ERR_SYS_FILE_EMPTY ||
                    rc == PELNIC_ERR_SYS_FILE_TOO_LARGE || rc == PELNIC_ERR_SYS_FILE_READ)
            << path << ": " << std::hex << rc;
        EXPECT_EQ(Added(), 0u);
    }
    close(writer);
}

} // namespace
} // namespace pnvtest
