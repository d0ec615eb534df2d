// Signatures and timestamps by programs of others, judged by the checker's verification: what it accepts, what it
// refuses, and which option of the producer turns a refusal into an acceptance. docs/interoperation.md has the same as
// a table.
#include "support/paths.h"
#include "support/signing_room.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace pnvtest {
namespace {

using Words = std::vector<std::string>;

constexpr PELNIC_ERROR_CODE kAccepted = 0;
constexpr PELNIC_ERROR_CODE kUndecodable = 0x88200312;
constexpr PELNIC_ERROR_CODE kUndecodableTimestamp = 0x88200404;
constexpr PELNIC_ERROR_CODE kBadTime = 0x88100001;
constexpr PELNIC_ERROR_CODE kBadSignature = 0x88200309;
constexpr PELNIC_ERROR_CODE kNoTimestamp = 0x88100001;
constexpr PELNIC_ERROR_CODE kNoSignerCertificate = 0x88200301;
constexpr PELNIC_ERROR_CODE kNoAuthorityCertificate = 0x88200401;
constexpr PELNIC_ERROR_CODE kFailed = 0xFFFFFFFF;

const std::string kPassword = "test-only";

Words operator+(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::string JoinLines(const Words& lines)
{
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

class Interop : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The authority of openssl ts states the present time, which must lie within the PKI's.
        if (!IsInstalled("openssl") || !IsInstalled("faketime")) GTEST_SKIP() << "needs openssl and faketime";
    }

    // A failure is an exception, which fails the test.
    static void Run(const Words& command)
    {
        const ProcessResult result = RunProcess(command);
        if (result.status != 0) throw std::runtime_error(JoinLines(command) + result.out + result.err);
    }

    static Words At2026(const Words& command) { return Words{"faketime", "2026-06-01 00:00:00"} + command; }

    // A configuration of openssl ts, with these lines over and above what it needs.
    std::string AuthorityConfig(const Words& settings) const
    {
        const Words needed{"[tsa]",
                           "default_tsa = authority",
                           "[authority]",
                           "serial = " + room_.Path("serial"),
                           "signer_cert = " + room_.Path("tsa.pem"),
                           "certs = " + room_.Path("tsa-ca.pem"),
                           "signer_key = " + KeyFile(room_.Pki().tsa.key),
                           "signer_digest = sha256",
                           "default_policy = " + std::string(oid::testPolicy),
                           "digests = sha256, sha384, sha512",
                           "ess_cert_id_alg = sha256"};
        return room_.Write("tsa.cnf", Text(JoinLines(needed + settings)));
    }

    // A token by openssl ts over these octets.
    Bytes OpensslToken(const Bytes& stamped, const Words& settings = {}, const Words& queryOptions = {"-cert"}) const
    {
        const std::string config = AuthorityConfig(settings);
        const std::string data = room_.Write("stamped", stamped);
        Run(Words{"openssl", "ts", "-query", "-data", data, "-sha256", "-out", room_.Path("query")} + queryOptions);
        Run(At2026({"openssl", "ts", "-reply", "-config", config, "-queryfile", room_.Path("query"), "-token_out",
                    "-out", room_.Path("token")}));
        return room_.Read("token");
    }

    Words CmsSignCommand(const Words& options) const
    {
        return Words{"openssl",   "cms",
                     "-sign",     "-binary",
                     "-in",       payloadFile_,
                     "-signer",   room_.Path("signer.pem"),
                     "-inkey",    KeyFile(room_.Pki().signer.key),
                     "-certfile", room_.Path("ca.pem"),
                     "-out",      room_.Path("signature")} +
               options;
    }

    // A signature in DER by openssl cms, without a timestamp.
    Bytes OpensslCms(const Words& options = {}) const
    {
        Run(CmsSignCommand(Words{"-outform", "DER"} + options));
        return room_.Read("signature");
    }

    Bytes Stamped(const Bytes& cms) const { return WithTimestamp(cms, OpensslToken(SignatureValue(cms))); }

    // The verdict on a usual signature with a token of an authority set up like this.
    PELNIC_ERROR_CODE VerdictOnAuthority(const Words& settings) const
    {
        const Bytes cms = OpensslCms();
        return room_.Verify(payload_, WithTimestamp(cms, OpensslToken(SignatureValue(cms), settings)));
    }

    const SigningRoom room_;
    const Bytes payload_ = Text("not\r\na text\n");
    const std::string payloadFile_ = room_.Write("payload", payload_);
};

// ---- openssl cms ----

TEST_F(Interop, OpensslCmsIsAccepted)
{
    EXPECT_EQ(room_.Verify(payload_, Stamped(OpensslCms())), kAccepted);
}

TEST_F(Interop, OpensslCmsOverAnotherPayloadIsRefused)
{
    EXPECT_EQ(room_.Verify(Text("another"), Stamped(OpensslCms())), kFailed);
}

TEST_F(Interop, OpensslCmsWithEveryDigestIsAccepted)
{
    for (const char* digest : {"sha256", "sha384", "sha512"}) {
        EXPECT_EQ(room_.Verify(payload_, Stamped(OpensslCms({"-md", digest}))), kAccepted) << digest;
    }
}

TEST_F(Interop, OpensslCmsWithoutSignedAttributesIsAccepted)
{
    EXPECT_EQ(room_.Verify(payload_, Stamped(OpensslCms({"-noattr"}))), kAccepted);
}

TEST_F(Interop, OpensslCmsWithCadesAttributesIsAccepted)
{
    EXPECT_EQ(room_.Verify(payload_, Stamped(OpensslCms({"-cades", "-nosmimecap"}))), kAccepted);
}

TEST_F(Interop, OpensslCmsWithoutTimestampIsRefused)
{
    EXPECT_EQ(room_.Verify(payload_, OpensslCms()), kNoTimestamp);
}

TEST_F(Interop, OpensslCmsWithoutCertificatesIsRefused)
{
    EXPECT_EQ(room_.Verify(payload_, Stamped(OpensslCms({"-nocerts"}))), kNoSignerCertificate);
}

TEST_F(Interop, OpensslCmsWithKeyIdentifierIsRefused)
{
    EXPECT_EQ(room_.Verify(payload_, Stamped(OpensslCms({"-keyid"}))), kUndecodable);
}

TEST_F(Interop, OpensslCmsWithPssIsRefused)
{
    EXPECT_EQ(room_.Verify(payload_, Stamped(OpensslCms({"-keyopt", "rsa_padding_mode:pss"}))), kBadSignature);
}

// -stream writes indefinite lengths; writing the same signature anew gives definite ones.
TEST_F(Interop, OpensslCmsStreamedIsRefusedUntilRewritten)
{
    const Bytes streamed = OpensslCms({"-stream"});
    EXPECT_EQ(room_.Verify(payload_, streamed), kUndecodable);
    Run({"openssl", "cms", "-cmsout", "-inform", "DER", "-in", room_.Path("signature"), "-outform", "DER", "-out",
         room_.Path("rewritten")});
    EXPECT_EQ(room_.Verify(payload_, Stamped(room_.Read("rewritten"))), kAccepted);
}

// Both PEM labels that OpenSSL writes. The token goes into the DER, and the armour around it again.
TEST_F(Interop, OpensslPemIsAccepted)
{
    const std::string stamped = room_.Write("stamped.der", Stamped(OpensslCms()));
    for (const char* program : {"cms -cmsout", "smime -pk7out"}) {
        const std::string pem = room_.Path("signature.pem");
        Run({"sh", "-c",
             "openssl " + std::string(program) + " -inform DER -in " + stamped + " -outform PEM -out " + pem});
        EXPECT_EQ(room_.Verify(payload_, ReadWholeFile(pem)), kAccepted) << program;
    }
}

// The older of OpenSSL's two commands, which writes PKCS #7.
TEST_F(Interop, OpensslSmimeIsAccepted)
{
    Run({"openssl", "smime", "-sign", "-binary", "-in", payloadFile_, "-signer", room_.Path("signer.pem"), "-inkey",
         KeyFile(room_.Pki().signer.key), "-certfile", room_.Path("ca.pem"), "-md", "sha256", "-outform", "DER", "-out",
         room_.Path("signature")});
    EXPECT_EQ(room_.Verify(payload_, Stamped(room_.Read("signature"))), kAccepted);
}

// ---- openssl ts ----

TEST_F(Interop, OpensslTsIsAccepted)
{
    EXPECT_EQ(VerdictOnAuthority({}), kAccepted);
    EXPECT_EQ(VerdictOnAuthority({"accuracy = secs:1, millisecs:500, microsecs:100", "ordering = yes"}), kAccepted);
}

TEST_F(Interop, OpensslTsWithTsaNameIsRefused)
{
    EXPECT_EQ(VerdictOnAuthority({"tsa_name = yes"}), kUndecodableTimestamp);
    EXPECT_EQ(VerdictOnAuthority({"tsa_name = no"}), kAccepted);
}

TEST_F(Interop, OpensslTsWithFractionsOfASecondIsRefused)
{
    EXPECT_EQ(VerdictOnAuthority({"clock_precision_digits = 6"}), kBadTime);
    EXPECT_EQ(VerdictOnAuthority({"clock_precision_digits = 0"}), kAccepted);
}

TEST_F(Interop, OpensslTsWithAccuracyBelowASecondIsRefused)
{
    EXPECT_EQ(VerdictOnAuthority({"accuracy = millisecs:500"}), kUndecodableTimestamp);
    EXPECT_EQ(VerdictOnAuthority({"accuracy = secs:1"}), kAccepted);
}

TEST_F(Interop, OpensslTsWithoutCertificateIsRefusedUnlessTheSignatureHasIt)
{
    const Bytes bare = OpensslCms();
    EXPECT_EQ(room_.Verify(payload_, WithTimestamp(bare, OpensslToken(SignatureValue(bare), {}, {}))),
              kNoAuthorityCertificate);

    const Bytes chain = Cat(room_.Read("ca.pem"), room_.Read("tsa-ca.pem"), room_.Read("tsa.pem"));
    const Bytes full = OpensslCms({"-certfile", room_.Write("chain.pem", chain)});
    EXPECT_EQ(room_.Verify(payload_, WithTimestamp(full, OpensslToken(SignatureValue(full), {}, {}))), kAccepted);
}

// ---- certtool of GnuTLS ----

class InteropGnutls : public Interop {
protected:
    void SetUp() override
    {
        Interop::SetUp();
        if (!IsInstalled("certtool")) GTEST_SKIP() << "needs certtool (gnutls-bin)";
    }

    Bytes CerttoolCms(const Words& options) const
    {
        // It takes the certificates of one file only, and puts in those of the signer's.
        const std::string chain = room_.Write("chain.pem", Cat(room_.Read("signer.pem"), room_.Read("ca.pem")));
        Run(Words{"certtool", "--p7-detached-sign", "--load-privkey", KeyFile(room_.Pki().signer.key),
                  "--load-certificate", chain, "--infile", payloadFile_, "--outder", "--outfile",
                  room_.Path("signature")} +
            options);
        return room_.Read("signature");
    }
};

// Its default has no signed attributes: the signature covers the payload itself.
TEST_F(InteropGnutls, CerttoolIsAccepted)
{
    EXPECT_EQ(room_.Verify(payload_, Stamped(CerttoolCms({}))), kAccepted);
    EXPECT_EQ(room_.Verify(Text("another"), Stamped(CerttoolCms({}))), kFailed);
}

TEST_F(InteropGnutls, CerttoolWithSignedAttributesIsAccepted)
{
    EXPECT_EQ(room_.Verify(payload_, Stamped(CerttoolCms({"--p7-time"}))), kAccepted);
}

TEST_F(InteropGnutls, CerttoolWithEveryDigestIsAccepted)
{
    for (const char* digest : {"sha256", "sha384", "sha512"}) {
        EXPECT_EQ(room_.Verify(payload_, Stamped(CerttoolCms({"--hash", digest}))), kAccepted) << digest;
    }
}

TEST_F(InteropGnutls, CerttoolWithSha1IsRefused)
{
    EXPECT_NE(room_.Verify(payload_, Stamped(CerttoolCms({"--hash", "sha1"}))), kAccepted);
}

// ---- jarsigner of the JDK ----

class InteropJdk : public Interop {
protected:
    void SetUp() override
    {
        Interop::SetUp();
        if (!IsInstalled("jarsigner")) GTEST_SKIP() << "needs jarsigner (default-jdk-headless)";
        if (!IsInstalled("python3")) GTEST_SKIP() << "needs python3";
        const std::string chain = room_.Write("chain.pem", Cat(room_.Read("ca.pem"), room_.Read("root.pem")));
        Run({"openssl", "pkcs12", "-export", "-name", "signer", "-in", room_.Path("signer.pem"), "-inkey",
             KeyFile(room_.Pki().signer.key), "-certfile", chain, "-passout", "pass:" + kPassword, "-out",
             room_.Path("signer.p12")});
        Run({"python3", "-m", "zipfile", "-c", room_.Path("app.jar"), payloadFile_});
    }

    // Signs the jar and takes the block and the signature file, which is what it signs, out of it.
    void SignJar(const Words& authoritySettings, const Words& options = {})
    {
        const Words responder{"python3", SupportPath("timestamp_responder.py"), AuthorityConfig(authoritySettings)};
        const Words jarsigner{"jarsigner",  "-keystore", room_.Path("signer.p12"),
                              "-storetype", "PKCS12",    "-storepass",
                              kPassword,    "-sigfile",  "TEST",
                              "-tsa",       "{url}"};
        Run(At2026(responder + jarsigner + options + Words{room_.Path("app.jar"), "signer"}));
        Run({"python3", "-m", "zipfile", "-e", room_.Path("app.jar"), room_.Path("jar")});
        block_ = room_.Read("jar/META-INF/TEST.RSA");
        signatureFile_ = room_.Read("jar/META-INF/TEST.SF");
    }

    Bytes block_;
    Bytes signatureFile_;
};

// The root comes with the chain of the key store; the checker warns, skips it and takes its own.
TEST_F(InteropJdk, JarsignerIsAccepted)
{
    SignJar({});
    EXPECT_EQ(room_.Verify(signatureFile_, block_), kAccepted);
    EXPECT_EQ(room_.Verify(Text("another"), block_), kFailed);
}

TEST_F(InteropJdk, JarsignerWithSha512IsAccepted)
{
    SignJar({}, {"-sigalg", "SHA512withRSA", "-tsadigestalg", "SHA-512"});
    EXPECT_EQ(room_.Verify(signatureFile_, block_), kAccepted);
}

TEST_F(InteropJdk, JarsignerWithTsaNameIsRefused)
{
    SignJar({"tsa_name = yes"});
    EXPECT_EQ(room_.Verify(signatureFile_, block_), kUndecodableTimestamp);
}

TEST_F(InteropJdk, JarsignerWithPssIsRefused)
{
    SignJar({}, {"-sigalg", "RSASSA-PSS"});
    EXPECT_EQ(room_.Verify(signatureFile_, block_), kBadSignature);
}

} // namespace
} // namespace pnvtest
