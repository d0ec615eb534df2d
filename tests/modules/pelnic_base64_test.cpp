// Base64 inside a PEM block: RFC 4648, and what this decoder takes beyond it.
#include "cmsverify/pelnic_base64.h"

#include "support/process.h"
#include "support/sanitized.h"
#include "support/vrf.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>

namespace pnvtest {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

const PNV_CHAR* Chars(const Bytes& text)
{
    return reinterpret_cast<const PNV_CHAR*>(text.data());
}

// All texts and buffers are vectors of just their size, so that a sanitizer sees any step beyond.
class Base64 : public ::testing::Test {
protected:
    PELNIC_ERROR_CODE QuerySize(const Bytes& text, PNV_UINT32* size)
    {
        return pelnic_base64_decode(vrf_, Chars(text), Len(text), nullptr, size);
    }

    PELNIC_ERROR_CODE Validate(std::string_view text)
    {
        PNV_UINT32 size = 0;
        return QuerySize(Text(text), &size);
    }

    PNV_UINT32 Size(std::string_view text)
    {
        PNV_UINT32 size = 0;
        EXPECT_EQ(QuerySize(Text(text), &size), 0u) << text;
        return size;
    }

    // Both calls; the octets written.
    Bytes Decode(const Bytes& text)
    {
        PNV_UINT32 size = 0;
        EXPECT_EQ(QuerySize(text, &size), 0u);
        if (size == 0) return {};
        Bytes decoded(size, 0xA5);
        PNV_UINT32 written = size;
        EXPECT_EQ(pelnic_base64_decode(vrf_, Chars(text), Len(text), decoded.data(), &written), 0u);
        EXPECT_LE(written, size);
        decoded.resize(written);
        return decoded;
    }
    Bytes Decode(std::string_view text) { return Decode(Text(text)); }

    Vrf vrf_;
};

// ---- A plain encoder to compare with (RFC 4648, section 4) ----

std::string Encode(const Bytes& octets)
{
    std::string encoded;
    for (std::size_t i = 0; i < octets.size(); i += 3) {
        const std::size_t held = std::min<std::size_t>(3, octets.size() - i);
        unsigned group = 0;
        for (std::size_t k = 0; k < 3; ++k) group = group << 8 | (k < held ? octets[i + k] : 0u);
        for (std::size_t k = 0; k < 4; ++k) encoded += k <= held ? kAlphabet[group >> (18 - 6 * k) & 63] : '=';
    }
    return encoded;
}

using Random = std::mt19937;

std::size_t Pick(Random& random, std::size_t below)
{
    return random() % below;
}

Bytes RandomOctets(Random& random, std::size_t count)
{
    Bytes octets(count);
    for (std::uint8_t& octet : octets) octet = static_cast<std::uint8_t>(random());
    return octets;
}

std::string RandomLineEnd(Random& random)
{
    return std::string(Pick(random, 3), ' ') + (Pick(random, 2) == 0 ? "\n" : "\r\n");
}

// The text in lines of random widths, with spaces before line ends and empty lines here and there.
std::string InRandomLines(Random& random, const std::string& encoded)
{
    std::string text;
    for (std::size_t i = 0; i < encoded.size();) {
        const std::size_t width = Pick(random, 80);
        text += encoded.substr(i, width) + RandomLineEnd(random);
        i += width;
    }
    return text;
}

// ---- The map ----

TEST(Base64Map, HoldsTheAlphabetOfRfc4648)
{
    for (std::size_t value = 0; value < kAlphabet.size(); ++value) {
        EXPECT_EQ(pnv_base64_dec_map[static_cast<unsigned char>(kAlphabet[value])], value);
    }
}

TEST(Base64Map, MarksThePadAndEverythingElse)
{
    EXPECT_EQ(pnv_base64_dec_map[static_cast<unsigned char>('=')], RADIX_OF_BASE64);
    for (unsigned code = 0; code <= MAX_ASCII; ++code) {
        const char c = static_cast<char>(code);
        if (c == '=' || kAlphabet.find(c) != std::string_view::npos) continue;
        EXPECT_EQ(pnv_base64_dec_map[code], 127) << code;
    }
}

// ---- Line ends ----

bool EndsLine(std::string_view text, PNV_UINT32 index)
{
    const Bytes copy = Text(text);
    return _pnvIsEndOfLine(Chars(copy), Len(copy), index);
}

TEST(Base64LineEnd, IsALineFeedOrAPair)
{
    EXPECT_TRUE(EndsLine("A\n", 1));
    EXPECT_TRUE(EndsLine("A\r\n", 1));
    EXPECT_TRUE(EndsLine("A\r\n", 2));
    EXPECT_FALSE(EndsLine("A\n", 0));
}

TEST(Base64LineEnd, IsNoCarriageReturnAlone)
{
    EXPECT_FALSE(EndsLine("A\rB", 1));
    EXPECT_FALSE(EndsLine("A\r\rB", 1));
}

TEST(Base64LineEnd, DoesNotReadBehindACarriageReturnAtTheEnd)
{
    EXPECT_FALSE(EndsLine("A\r", 1));
    EXPECT_FALSE(EndsLine("\r", 0));
}

// ---- Decoding ----

TEST_F(Base64, DecodesAFullGroup)
{
    EXPECT_EQ(Size("TWFu"), 3u);
    EXPECT_EQ(Decode("TWFu"), (Bytes{0x4D, 0x61, 0x6E}));
}

TEST_F(Base64, DecodesAPaddedGroup)
{
    EXPECT_EQ(Size("TWE="), 2u);
    EXPECT_EQ(Decode("TWE="), (Bytes{0x4D, 0x61}));
    EXPECT_EQ(Size("TQ=="), 1u);
    EXPECT_EQ(Decode("TQ=="), (Bytes{0x4D}));
}

TEST_F(Base64, JoinsLines)
{
    EXPECT_EQ(Decode("TWFu\nTWE="), Decode("TWFuTWE="));
    EXPECT_EQ(Decode("TWFu\r\nTWE=\r\n"), Decode("TWFuTWE="));
    EXPECT_EQ(Decode("TW\nFuT\r\nWE=\n"), Decode("TWFuTWE="));
    EXPECT_EQ(Decode("\n\r\n\nTWFu\n\n\nTWE="), Decode("TWFuTWE="));
}

TEST_F(Base64, PassesOverSpacesBeforeALineEndOrTheEnd)
{
    EXPECT_EQ(Decode("TWFu  \nTWE= \r\n"), Decode("TWFuTWE="));
    EXPECT_EQ(Decode("   \nTWFuTWE=   "), Decode("TWFuTWE="));
    EXPECT_EQ(Size("TWFu    "), 3u);
}

TEST_F(Base64, LetsPaddingStandOnAnotherLine)
{
    EXPECT_EQ(Decode("TQ=\n="), Decode("TQ=="));
}

TEST_F(Base64, RefusesASpaceInsideALine)
{
    EXPECT_EQ(Validate("TW Fu"), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate(" TWFu"), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate("TWFu\n TWFu"), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate("TQ= ="), PELNIC_ERR_SYS_BASE64);
}

TEST_F(Base64, RefusesAThirdPad)
{
    EXPECT_EQ(Validate("TQ==="), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate("TQ==\n="), PELNIC_ERR_SYS_BASE64);
}

TEST_F(Base64, RefusesDataAfterAPad)
{
    EXPECT_EQ(Validate("TQ==TQ=="), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate("TQ=A"), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate("=AAA"), PELNIC_ERR_SYS_BASE64);
}

TEST_F(Base64, RefusesCharactersAbove127)
{
    EXPECT_EQ(Validate("TWF\x80"), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate("\xFFWFu"), PELNIC_ERR_SYS_BASE64);
}

TEST_F(Base64, RefusesATextWithoutCharacters)
{
    EXPECT_EQ(Validate("\n"), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate("\r\n\n\r\n"), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate("   "), PELNIC_ERR_SYS_BASE64);
    EXPECT_EQ(Validate(" \n "), PELNIC_ERR_SYS_BASE64);
}

TEST_F(Base64, TakesForeignCharactersFor63)
{
    EXPECT_EQ(Decode("TW!u"), Decode("TW/u"));
    EXPECT_EQ(Decode("TW\tu"), Decode("TW/u"));
    EXPECT_EQ(Decode("-_-_"), Decode("////"));
    EXPECT_EQ(Decode(std::string_view("TW\0u", 4)), Decode("TW/u"));
    EXPECT_EQ(Decode("TW\x7Fu"), Decode("TW/u"));
}

TEST_F(Base64, DoesNotRefuseForeignCharactersAfterAPad)
{
    EXPECT_EQ(Size("TQ==!!!!"), 4u);
    EXPECT_EQ(Decode("TQ==!!!!"), (Bytes{0x4D, 0xFF}));
}

// A pad counts as zero bits and shortens every group from then on.
TEST_F(Base64, AcceptsAPadAtTheBeginning)
{
    EXPECT_EQ(Size("=!!!"), 2u);
    EXPECT_EQ(Decode("=!!!"), (Bytes{0x03, 0xFF}));
}

TEST_F(Base64, SizesAnIncompleteGroupAndDropsIt)
{
    EXPECT_EQ(Size("TWF"), 3u);
    EXPECT_EQ(Decode("TWF"), Bytes{});
    EXPECT_EQ(Size("TWFuTQ"), 5u);
    EXPECT_EQ(Decode("TWFuTQ"), Decode("TWFu"));
    EXPECT_EQ(Size("TQ="), 2u);
    EXPECT_EQ(Decode("TQ="), Bytes{});
}

TEST_F(Base64, CountsALoneCarriageReturnAndSkipsIt)
{
    EXPECT_EQ(Size("TW\rFu"), 4u);
    EXPECT_EQ(Decode("TW\rFu"), Decode("TWFu"));
    EXPECT_EQ(Size("TWFu\r"), 4u);
    EXPECT_EQ(Decode("TWFu\r"), Decode("TWFu"));
    EXPECT_EQ(Validate("TWFu \r"), PELNIC_ERR_SYS_BASE64);
}

TEST_F(Base64, AcceptsPadsAloneAsNothing)
{
    EXPECT_EQ(Size("="), 0u);
    EXPECT_EQ(Size("=="), 0u);
}

// ---- The two calls ----

TEST_F(Base64, AnswersATooSmallBufferWithTheSize)
{
    const Bytes text = Text("TWFuTWFu");
    Bytes buffer(5, 0xA5);
    PNV_UINT32 size = 5;
    EXPECT_EQ(pelnic_base64_decode(vrf_, Chars(text), Len(text), buffer.data(), &size), 0u);
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(buffer, Bytes(5, 0xA5));
}

TEST_F(Base64, TakesAHugeBufferSizeForANegativeOne)
{
    const Bytes text = Text("TWFu");
    Bytes buffer(3, 0xA5);
    for (PNV_UINT32 declared : {0x80000000u, 0xFFFFFFFFu}) {
        PNV_UINT32 size = declared;
        EXPECT_EQ(pelnic_base64_decode(vrf_, Chars(text), Len(text), buffer.data(), &size), 0u);
        EXPECT_EQ(size, 3u);
        EXPECT_EQ(buffer, Bytes(3, 0xA5));
    }
}

TEST_F(Base64, StoresWhatItWroteNotWhatItWasGiven)
{
    const Bytes text = Text("TWFuTQ");
    Bytes buffer(8, 0xA5);
    PNV_UINT32 size = 8;
    EXPECT_EQ(pelnic_base64_decode(vrf_, Chars(text), Len(text), buffer.data(), &size), 0u);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(buffer, (Bytes{0x4D, 0x61, 0x6E, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5}));
}

TEST_F(Base64, RefusesNullArgumentsAndAnEmptyText)
{
    const Bytes text = Text("TWFu");
    PNV_UINT32 size = 7;
    EXPECT_EQ(pelnic_base64_decode(nullptr, Chars(text), 4, nullptr, &size), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_base64_decode(vrf_, nullptr, 4, nullptr, &size), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_base64_decode(vrf_, Chars(text), 4, nullptr, nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_base64_decode(vrf_, Chars(text), 0, nullptr, &size), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(size, 7u);
}

TEST_F(Base64, IsSilentAndAllocatesNothing)
{
    EXPECT_EQ(Validate("TW Fu"), PELNIC_ERR_SYS_BASE64);
    (void)Decode("TWFu");
    EXPECT_TRUE(vrf_.Plan().Logs().empty());
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
}

TEST_F(Base64, ReportsWhereTheScanEnded)
{
    const Bytes text = Text("TW\r\nE= \n");
    PNV_UINT32 valid = 0;
    PNV_UINT32 size = 0;
    ASSERT_EQ(_pnvB64GetDecLen(vrf_, Chars(text), Len(text), &valid, &size), 0u);
    EXPECT_EQ(valid, text.size());
    EXPECT_EQ(size, 2u);
    Bytes decoded(size);
    EXPECT_EQ(_pnvB64DoDec(Chars(text), valid, decoded.data()), 2u);
    EXPECT_EQ(decoded, Text("Ma"));
}

// ---- Against the encoder, and against all that a text can be ----

TEST_F(Base64, DecodesWhatAnEncoderWrote)
{
    Random random(1);
    for (std::size_t round = 0; round < 400; ++round) {
        const Bytes octets = RandomOctets(random, 1 + Pick(random, 300));
        const std::string text = InRandomLines(random, Encode(octets));
        PNV_UINT32 size = 0;
        ASSERT_EQ(QuerySize(Text(text), &size), 0u) << text;
        ASSERT_EQ(size, octets.size()) << text;
        ASSERT_EQ(Decode(text), octets) << text;
    }
}

TEST_F(Base64, DecodesEveryPrefixToAPrefix)
{
    Random random(2);
    const Bytes octets = RandomOctets(random, 100);
    const std::string text = InRandomLines(random, Encode(octets));
    for (std::size_t length = 1; length <= text.size(); ++length) {
        PNV_UINT32 size = 0;
        if (QuerySize(Text(text.substr(0, length)), &size) != 0) continue; // line ends only
        const Bytes decoded = Decode(text.substr(0, length));
        ASSERT_LE(decoded.size(), octets.size());
        ASSERT_TRUE(std::equal(decoded.begin(), decoded.end(), octets.begin())) << length;
    }
}

TEST_F(Base64, NeverWritesMoreThanItSized)
{
    constexpr std::string_view kinds = "A= \r\n!";
    for (unsigned length = 1; length <= 6; ++length) {
        Bytes text(length, static_cast<std::uint8_t>(kinds[0]));
        std::array<std::size_t, 6> digits{};
        for (std::size_t place = 0; place < length;) {
            PNV_UINT32 size = 0;
            if (QuerySize(text, &size) == 0) (void)Decode(text);
            ASSERT_FALSE(HasFailure()) << std::string(text.begin(), text.end());
            for (place = 0; place < length; ++place) { // the next text, as one counts
                digits[place] = (digits[place] + 1) % kinds.size();
                text[place] = static_cast<std::uint8_t>(kinds[digits[place]]);
                if (digits[place] != 0) break;
            }
        }
    }
}

// One page mapped again and again, so that a text of any length takes no memory.
class RepeatedPages {
public:
    explicit RepeatedPages(std::size_t length) : length_(length)
    {
        const int fd = memfd_create("text", MFD_CLOEXEC);
        const Bytes block(kBlock, 'A');
        if (fd < 0 || write(fd, block.data(), kBlock) != static_cast<ssize_t>(kBlock)) Misuse("no memory file");
        base_ = mmap(nullptr, Rounded(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        for (std::size_t at = 0; base_ != MAP_FAILED && at < Rounded(); at += kBlock) {
            if (mmap(static_cast<char*>(base_) + at, kBlock, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
                Misuse("cannot map a block");
            }
        }
        close(fd);
    }
    ~RepeatedPages()
    {
        if (base_ != MAP_FAILED) munmap(base_, Rounded());
    }
    RepeatedPages(const RepeatedPages&) = delete;
    RepeatedPages& operator=(const RepeatedPages&) = delete;

    const PNV_CHAR* Chars() const { return base_ == MAP_FAILED ? nullptr : static_cast<const PNV_CHAR*>(base_); }

private:
    static constexpr std::size_t kBlock = 1u << 20;
    std::size_t Rounded() const { return (length_ + kBlock - 1) / kBlock * kBlock; }

    std::size_t length_;
    void* base_ = MAP_FAILED;
};

// Six bits a character: from here on the number of bits has 33.
TEST_F(Base64, SizesATextWhoseBitsExceed32Bits)
{
    if (kSanitized || !Emulator().empty()) GTEST_SKIP() << "takes too long where every step costs";
    constexpr PNV_UINT32 length = 0xFFFFFFFFu / 6 + 1;
    const RepeatedPages text(length);
    if (text.Chars() == nullptr) GTEST_SKIP() << "no address space for the text";
    PNV_UINT32 size = 0;
    ASSERT_EQ(pelnic_base64_decode(vrf_, text.Chars(), length, nullptr, &size), 0u);
    EXPECT_EQ(size, (6ull * length + 7) >> 3);
}

} // namespace
} // namespace pnvtest
