// pkgtool code, its table and the document made from it, held against the public header.
#include "support/paths.h"
#include "support/process.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

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

TEST(PkgtoolCode, KnowsNoOther)
{
    for (const char* text :
         {"0x88200099", "255", "0", "", "0x", "x", "0x88200016 ", "0x188200016", "9999999999999999999"}) {
        const ProcessResult run = RunCode({text});
        EXPECT_EQ(run.status, 2) << text;
        EXPECT_EQ(run.out, "") << text;
        EXPECT_NE(run.err.find("is no code of the library"), std::string::npos) << run.err;
    }
}

// Every constant of the header has its row, with the header's own words.
TEST(PkgtoolCode, TableIsTheHeaders)
{
    const std::string header = ReadProjectFile("cmsverify/include/pelnic_cms_verify.h");
    const std::regex define(
        R"((?:/\* ([^\n]*) \*/\n)?#define (PELNIC_ERR_\w+) (0x[0-9A-F]{8})u *(?:/\* ([^\n]*) \*/)?\n)");
    std::ptrdiff_t defines = 0;
    for (std::sregex_iterator it(header.begin(), header.end(), define), end; it != end; ++it) {
        const std::smatch& match = *it;
        const ProcessResult run = RunCode({match[3]});
        const std::string meaning = match[4].matched ? match[4] : match[1];
        EXPECT_NE(run.out.find(" " + match[2].str() + ": " + meaning + "\n"), std::string::npos) << run.out << run.err;
        ++defines;
    }
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
