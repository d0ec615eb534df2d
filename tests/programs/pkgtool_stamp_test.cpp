// pkgtool stamp: what openssl cms signs gets the timestamps that it lacks, and is then what the checker accepts.
#include "support/package.h"
#include "support/paths.h"
#include "support/signing_room.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace pnvtest {
namespace {

using Words = std::vector<std::string>;

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kUserError = 2;
constexpr PELNIC_ERROR_CODE kAccepted = 0;

Words operator+(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

class PkgtoolStamp : public ::testing::Test {
protected:
    static ProcessResult Run(const Words& arguments) { return RunProcess(Words{PkgtoolPath()} + arguments); }

    // A finished signature, as a signing service gives it.
    void SignElsewhere(const Words& options = {}, const std::string& output = "plain.cms") const
    {
        const Words command{"openssl",  "cms", "-sign", "-binary",          "-in",        payloadFile_,
                            "-outform", "DER", "-out",  room_.Path(output), "-nosmimecap"};
        const ProcessResult result = RunProcess(command + (options.empty() ? Signer("signer") : options));
        if (result.status != 0) throw std::runtime_error(result.err);
    }
    Words Signer(const std::string& name) const
    {
        return {"-signer",   room_.Path(name + ".pem"), "-inkey", KeyFile(room_.Pki().signer.key),
                "-certfile", room_.Path("ca.pem")};
    }
    Words Authority() const
    {
        return {"--tsa-cert",  room_.Path("tsa.pem"),    "--tsa-key",  KeyFile(room_.Pki().tsa.key),
                "--tsa-chain", room_.Path("tsa-ca.pem"), "--tsa-time", "2026-01-01T00:00:00Z"};
    }
    Words StampCommand(const std::string& input = "plain.cms") const
    {
        return {"stamp", room_.Path(input), "-o", room_.Path("stamped.cms")};
    }
    void ExpectFailure(int status, const Words& command, const std::string& message, const std::string& hint) const
    {
        const Words before = room_.Files();
        const ProcessResult result = Run(command);
        EXPECT_EQ(result.status, status);
        EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
        EXPECT_NE(result.err.find(hint), std::string::npos) << result.err;
        EXPECT_EQ(room_.Files(), before);
    }

    const SigningRoom room_;
    const Bytes payload_ = Text("firmware image\n");
    const std::string payloadFile_ = room_.Write("payload", payload_);
};

TEST_F(PkgtoolStamp, MakesASignatureFromElsewhereAcceptable)
{
    SignElsewhere();
    EXPECT_NE(room_.Verify(payload_, room_.Read("plain.cms")), kAccepted);
    const ProcessResult stamped = Run(StampCommand() + Authority() + Words{"--payload", payloadFile_});
    EXPECT_EQ(stamped.status, kDone) << stamped.err;
    EXPECT_EQ(stamped.out, "signed by 'CN=Test Signer,O=Example,C=ZZ', stamped 2026-01-01T00:00:00Z\n");
    EXPECT_EQ(room_.Verify(payload_, room_.Read("stamped.cms")), kAccepted);
    EXPECT_EQ(SignatureValue(room_.Read("stamped.cms")), SignatureValue(room_.Read("plain.cms")));
}

TEST_F(PkgtoolStamp, AddsTheCertificatesOfTheCas)
{
    Words alone = Signer("signer");
    alone.resize(4); // without -certfile
    SignElsewhere(alone);
    ASSERT_EQ(Run(StampCommand() + Authority()).status, kDone);
    EXPECT_NE(room_.Verify(payload_, room_.Read("stamped.cms")), kAccepted);
    ASSERT_EQ(Run(StampCommand() + Authority() + Words{"--force", "--chain", room_.Path("ca.pem")}).status, kDone);
    EXPECT_EQ(room_.Verify(payload_, room_.Read("stamped.cms")), kAccepted);
}

TEST_F(PkgtoolStamp, OverwritesOnlyByForce)
{
    SignElsewhere();
    room_.Write("stamped.cms", Text("another"));
    ExpectFailure(kUserError, StampCommand() + Authority(), "exists", "--force");
    EXPECT_EQ(room_.Read("stamped.cms"), Text("another"));
    const Words none{"--tsa-cert", room_.Path("none"), "--tsa-key", room_.Path("none")};
    ExpectFailure(kUserError, StampCommand() + none, "exists", "--force"); // before anything else is looked at
}

TEST_F(PkgtoolStamp, KeepsTheFormOfItsInput)
{
    SignElsewhere();
    room_.Write("plain.pem", Pem("CMS", room_.Read("plain.cms")));
    EXPECT_EQ(Run(StampCommand("plain.pem") + Authority()).status, kDone);
    const Bytes pem = room_.Read("stamped.cms");
    EXPECT_EQ(Run(Words{"stamp", room_.Path("plain.cms"), "-o", room_.Path("stamped.der")} + Authority()).status,
              kDone);
    EXPECT_EQ(pem, Pem("CMS", room_.Read("stamped.der")));
}

// The one who has a timestamp keeps it, whoever comes first in the SET OF.
TEST_F(PkgtoolStamp, StampsOnlyWhoLacksATimestamp)
{
    room_.WriteCert("second.pem", With(room_.Pki().signer, &CertSpec::serial, Bytes{0x77}));
    SignElsewhere();
    ASSERT_EQ(Run(StampCommand() + Authority()).status, kDone);
    const ProcessResult resign =
        RunProcess(Words{"openssl", "cms", "-resign", "-inform", "DER", "-in", room_.Path("stamped.cms"), "-outform",
                         "DER", "-out", room_.Path("two.cms"), "-nosmimecap"} +
                   Signer("second"));
    ASSERT_EQ(resign.status, 0) << resign.err;
    EXPECT_NE(room_.Verify(payload_, room_.Read("two.cms")), kAccepted);
    Words authority = Authority();
    authority.back() = "2026-01-02T00:00:00Z";
    const ProcessResult stamped =
        Run(Words{"stamp", room_.Path("two.cms"), "-o", room_.Path("both.cms"), "--payload", payloadFile_} + authority);
    EXPECT_EQ(stamped.status, kDone) << stamped.err;
    EXPECT_EQ(stamped.out, "signed by 'CN=Test Signer,O=Example,C=ZZ', stamped 2026-01-02T00:00:00Z\n");
    EXPECT_EQ(room_.Verify(payload_, room_.Read("both.cms")), kAccepted);
}

TEST_F(PkgtoolStamp, QueriesAndResponsesAreCarriedByHand)
{
    SignElsewhere();
    const ProcessResult asked = Run({"stamp", room_.Path("plain.cms"), "--tsa-request-out", room_.Path("query.tsq")});
    EXPECT_EQ(asked.status, kDone) << asked.err;
    const std::string query = RunProcess({"openssl", "ts", "-query", "-in", room_.Path("query.tsq"), "-text"}).out;
    EXPECT_NE(query.find("Certificate required: yes"), std::string::npos) << query;
    // The local authority's token stands for the answer.
    ASSERT_EQ(Run(StampCommand() + Authority()).status, kDone);
    EXPECT_EQ(Run({"stamp", room_.Path("plain.cms"), "-o", "-", "--tsa-response", room_.Path("query.tsq")}).status,
              kUserError);
}

TEST_F(PkgtoolStamp, RefusesWhatIsStampedAlready)
{
    SignElsewhere();
    ASSERT_EQ(Run(StampCommand() + Authority()).status, kDone);
    ExpectFailure(kUserError, Words{"stamp", room_.Path("stamped.cms"), "-o", room_.Path("again.cms")} + Authority(),
                  "has a timestamp already", "pack it unchanged");
}

// What the checker would refuse for another reason is not stamped first.
TEST_F(PkgtoolStamp, RefusesWhatAStampDoesNotMend)
{
    room_.Write("garbage", Text("garbage"));
    ExpectFailure(kRefused, StampCommand("garbage") + Authority(), "is not a CMS signature", "PEM begins");
    SignElsewhere(Signer("signer") + Words{"-keyid"}, "keyid.cms");
    ExpectFailure(kRefused, StampCommand("keyid.cms") + Authority(), "named by key identifier", "without -keyid");
    SignElsewhere(Signer("signer") + Words{"-nocerts"}, "bare.cms");
    ExpectFailure(kRefused, StampCommand("bare.cms") + Authority(), "certificate is not in the signature", "-nocerts");
    SignElsewhere();
    Bytes damaged = room_.Read("plain.cms");
    damaged[damaged.size() - 5] ^= 1;
    room_.Write("damaged.cms", damaged);
    ExpectFailure(kRefused, StampCommand("damaged.cms") + Authority(), "is damaged", "sign again");
    room_.Write("other", Text("another image"));
    ExpectFailure(kRefused, StampCommand() + Authority() + Words{"--payload", room_.Path("other")},
                  "is not a signature over this payload", "pack the signed payload");
    // Nobody signed the attributes as they are when they are written again, in the order of X.690, 11.6.
    CmsSpec unordered = DemoCms(room_.Pki());
    unordered.signers[0].signedAttributes = [](const Bytes& digest) {
        return std::vector<Bytes>{MessageDigestAttribute(digest), ContentTypeAttribute(oid::data)};
    };
    unordered.signers[0].unsignedAttributes.clear();
    room_.Write("unordered.cms", DetachedCms(payload_, unordered));
    ExpectFailure(kRefused, StampCommand("unordered.cms") + Authority(), "is damaged", "sign again");
    CmsSpec empty = unordered;
    empty.signers[0].signedAttributes = [](const Bytes&) { return std::vector<Bytes>{}; };
    empty.signers[0].brokenSignature = true;
    room_.Write("empty.cms", DetachedCms(payload_, empty));
    ExpectFailure(kRefused, StampCommand("empty.cms") + Authority(), "is damaged", "sign again");
}

TEST_F(PkgtoolStamp, RefusesAResponseThatIsNotDer)
{
    SignElsewhere();
    const Bytes token = TimestampToken(DemoToken(room_.Pki()), SignatureValue(room_.Read("plain.cms")));
    const Bytes response = Seq(Seq(Int({0})), token); // PKIStatusInfo: granted
    for (const Bytes& answer : {token, response}) {
        const std::string file = room_.Write("answer", WithIndefiniteLength(answer));
        ExpectFailure(kRefused, StampCommand() + Words{"--tsa-response", file}, file + " has indefinite lengths",
                      "rewrite it");
    }
    room_.Write("answer", response);
    ASSERT_EQ(Run(StampCommand() + Words{"--tsa-response", room_.Path("answer")}).status, kDone);
    EXPECT_EQ(room_.Verify(payload_, room_.Read("stamped.cms")), kAccepted);
}

TEST_F(PkgtoolStamp, SaysWhatIsMissing)
{
    SignElsewhere();
    ExpectFailure(kUserError, StampCommand(), "no source of the timestamp is given", "--tsa-url");
    ExpectFailure(kUserError, Words{"stamp", room_.Path("plain.cms")} + Authority(), "stamp: --output is missing",
                  "pkgtool stamp --help");
    ExpectFailure(kUserError, Words{"stamp", room_.Path("plain.cms"), "-o", room_.Path("plain.cms")} + Authority(),
                  "is one of the input files", "another output");
    ExpectFailure(kUserError,
                  StampCommand() + Words{"--tsa-response", room_.Path("a"), "--tsa-response", room_.Path("b")},
                  "--tsa-response is needed once for each of the 1 signers", "");
}

} // namespace
} // namespace pnvtest
