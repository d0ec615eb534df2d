// pkgtool code, its table and the document made from it, held against the public header.
#include "programs/pkgtool_json.h"
#include "support/paths.h"
#include "support/process.h"
#include "support/screen.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <regex>

namespace pnvtest {
namespace {

ProcessResult RunCode(const std::vector<std::string>& arguments)
{
    std::vector<std::string> argv{PkgtoolPath(), "code"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return RunProcess(argv);
}

std::string ReadProjectFile(const std::string& path)
{
    const Bytes content = ReadWholeFile(DataPath("../../" + path));
    return {content.begin(), content.end()};
}

std::ptrdiff_t CountOf(const std::string& text, const std::string& part)
{
    std::ptrdiff_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

// As a library with its witness reports an expired signer.
TEST(PkgtoolCode, ReadsAReason)
{
    const std::string reason = "01100100882000098820001469580b8000000000000000000000000000000a0b";
    const ProcessResult run = RunCode({reason});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out.substr(0, run.out.find("0x")),
              "decided by the dates of a certificate, of signer 1, certificate with a serial number that ends in 0A0B, "
              "judged at 2026-01-02T18:16:32Z\n");
    EXPECT_NE(run.out.find("0x88200014 PELNIC_ERR_CERT_EXPIRED"), std::string::npos) << run.out;
    const Json answer = ParseJson(RunCode({"--json", "device: reason " + reason}).out)["codes"][0];
    EXPECT_EQ(answer["code"], "0x88200014");
    EXPECT_EQ(answer["reason"]["operation"], "0x88200009");
    EXPECT_EQ(answer["reason"]["serial"], "0A0B");
    EXPECT_EQ(answer["reason"]["is_authority"], false);
    EXPECT_EQ(answer["reason"]["offset"], nullptr);
    EXPECT_EQ(RunCode({"02" + reason.substr(2)}).status, 2) << "another format";
    EXPECT_EQ(RunCode({reason.substr(2)}).status, 2);
}

TEST(PkgtoolCode, ReadsACodeHoweverItIsWritten)
{
    const std::string unsupported = "0x88200016 PELNIC_ERR_UNSUPPORTED_ALGO: algorithm not supported\n"
                                    "Use RSA keys, and SHA-256, SHA-384 or SHA-512.\n";
    for (const char* text : {"0x88200016", "0X88200016", "88200016", "2283798550", "-2011168746"}) {
        const ProcessResult run = RunCode({text});
        EXPECT_EQ(run.status, 0) << text << run.err;
        EXPECT_EQ(run.out, unsupported) << text;
    }
    for (const char* text : {"0xffffffff", "FFFFFFFF", "4294967295", "-1"}) {
        EXPECT_EQ(RunCode({text}).out.find("0xffffffff PELNIC_ERR_FAILED: "), 0u) << text;
    }
}

TEST(PkgtoolCode, KnowsNames)
{
    const std::string unsupported = RunCode({"0x88200016"}).out;
    EXPECT_EQ(RunCode({"PELNIC_ERR_UNSUPPORTED_ALGO"}).out, unsupported);
    EXPECT_EQ(RunCode({"UNSUPPORTED_ALGO"}).out, unsupported);
}

TEST(PkgtoolCode, KnowsTheCheckersStatuses)
{
    for (const auto& [text, said] : {std::pair("0", "exit status 0: accepted\n"),
                                     {"234", "exit status 234: no path was given\n"},
                                     {"253", "exit status 253: refused by a rule of the strict checker\n"},
                                     {"254", "exit status 254: refused: neither 1 nor 3 sub-files\n"},
                                     {"255", "exit status 255: refused, or not read\n"}}) {
        const ProcessResult run = RunCode({text});
        EXPECT_EQ(run.status, 0) << text << run.err;
        EXPECT_EQ(run.out.find(said), 0u) << run.out;
    }
}

TEST(PkgtoolCode, KnowsEveryLineOfTheChecker)
{
    for (const char* line :
         {"Invalid arg count", "Failed to open file(name x err 2)", "Failed to check file length(len 351)",
          "Failed to alloc memory", "Failed to read file(x)", "Info: There is one subfile, Check signature passed",
          "Check cms fail for no sub file, bin (nil) 0 cms 0x1 0x1", "Strict: the package is not signed",
          "Error: Check cms fail for subfile num(2) is invalid"}) {
        const ProcessResult run = RunCode({line});
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out.find(std::string(line) + ": "), 0u) << run.out;
    }
    EXPECT_EQ(RunCode({"Failed to alloc memory"}).out, "Failed to alloc memory: no memory for the file\n"
                                                       "The checker reads the whole file into memory.\n");
    const ProcessResult refused = RunCode({"Check cms file fail for file(err 0x88200016)"});
    EXPECT_EQ(refused.out, "Check cms file fail for file(err 0x88200016): refused\n" + RunCode({"0x88200016"}).out);
}

// Each status, a line of the checker with an unknown code, and a reason of each decision with and without a code.
TEST(PkgtoolCode, AnswersAreThoseOnRecord)
{
    const std::string coded = "0100882000098820001469580b8000000000000000000000000000000a0b";
    const std::string uncoded = "020100000000000000006958000069570000040000000000000000300301"; // of an authority
    std::vector<std::string> words{"0", "234", "253", "254", "255", "Check cms file fail for file(err 0x99999999)"};
    for (char high : {'0', '1'}) {
        for (char low : std::string(high == '0' ? "0123456789abcdef" : "0123456789ab")) {
            for (const std::string& rest : {coded, uncoded}) words.push_back(std::string("01") + high + low + rest);
        }
    }
    const std::string json =
        RunCode({"--json", "0", "Failed to alloc memory", "0100" + coded, "0113" + uncoded, "CERT_VERIFY"}).out;
    ExpectScreen("code", RunCode(words).out + "\n" + json);
    EXPECT_EQ(RunCode({"011c" + coded}).status, 2) << "no such decision";
}

// Of a log the lines that are the checker's.
TEST(PkgtoolCode, ReadsALogOnStandardInput)
{
    const auto pipe = [](const std::string& text) {
        return RunProcess({"sh", "-c", "printf '" + text + "' | " + PkgtoolPath() + " code -"});
    };
    const ProcessResult found = pipe("begin\\n12:00 Check cms file fail for file(err 0x88200016)\\nend 255\\n");
    EXPECT_EQ(found.status, 0) << found.err;
    EXPECT_EQ(found.out, "12:00 Check cms file fail for file(err 0x88200016): refused\n" + RunCode({"0x88200016"}).out);
    const ProcessResult none = pipe("nothing here\\n");
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.out, "");
    EXPECT_NE(none.err.find("has no code, exit status or line"), std::string::npos) << none.err;
}

TEST(PkgtoolCode, AnswersSeveralInJson)
{
    const ProcessResult run = RunCode({"--json", "CERT_VERIFY", "254", "Failed to alloc memory"});
    const auto report = ParseJson(run.out);
    EXPECT_EQ(report["schema"], 2);
    ASSERT_EQ(report["codes"].size(), 3u);
    EXPECT_EQ(report["codes"][0]["asked"], "CERT_VERIFY");
    EXPECT_EQ(report["codes"][0]["code"], "0x88200009");
    EXPECT_EQ(report["codes"][0]["name"], "PELNIC_ERR_CERT_VERIFY");
    EXPECT_TRUE(report["codes"][0]["status"].is_null());
    EXPECT_EQ(report["codes"][1]["status"], 254);
    EXPECT_TRUE(report["codes"][1]["code"].is_null());
    EXPECT_EQ(report["codes"][2]["status"], 255);
    EXPECT_EQ(report["codes"][2]["meaning"], "no memory for the file");
}

// One that is unknown keeps the others from being told: nobody is to overlook it.
TEST(PkgtoolCode, KnowsNoOther)
{
    for (const char* text : {"0x88200099", "256", "1", "", "0x", "x", "0x88200016 ", "0x188200016",
                             "9999999999999999999", "cert_verify"}) {
        const ProcessResult run = RunCode({"CERT_VERIFY", text});
        EXPECT_EQ(run.status, 2) << text;
        EXPECT_EQ(run.out, "") << text;
        EXPECT_NE(run.err.find("is not a code of the library"), std::string::npos) << run.err;
    }
    EXPECT_NE(RunCode({}).err.find("code: code is missing"), std::string::npos);
}

// Every constant of the header has its row, with the header's own words.
TEST(PkgtoolCode, TableIsTheHeaders)
{
    const std::string header = ReadProjectFile("cmsverify/include/pelnic_cms_verify.h");
    const std::regex define(
        R"((?:/\* ([^\n]*) \*/\n)?#define (PELNIC_ERR_\w+) (0x[0-9A-F]{8})u *(?:/\* ([^\n]*) \*/)?\n)");
    std::vector<std::string> values;
    std::vector<std::string> lines;
    for (std::sregex_iterator it(header.begin(), header.end(), define), end; it != end; ++it) {
        const std::smatch& match = *it;
        const std::string meaning = match[4].matched ? match[4] : match[1];
        std::string value = match[3];
        std::transform(value.begin(), value.end(), value.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        values.push_back(value);
        lines.push_back(value + " " + match[2].str() + ": " + meaning + "\n");
    }
    const std::string out = "\n" + RunCode(values).out;
    for (const std::string& line : lines) EXPECT_NE(out.find("\n" + line), std::string::npos) << line;
    const auto defines = static_cast<std::ptrdiff_t>(lines.size());
    EXPECT_EQ(defines, CountOf(header, "#define PELNIC_ERR_"));
    EXPECT_EQ(defines, CountOf(RunCode({"--markdown"}).out, "| `0x"));
}

TEST(PkgtoolCode, DocumentIsTheTable)
{
    EXPECT_EQ(ReadProjectFile("docs/codes.md"), RunCode({"--markdown"}).out)
        << "written anew by: pkgtool code --markdown > docs/codes.md";
}

} // namespace
} // namespace pnvtest
