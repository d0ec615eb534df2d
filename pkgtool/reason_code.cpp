#include "reason_code.h"

#include "cmsverify/include/pelnic_cms_witness.h"
#include "cmsverify/pelnic_witness.h"
#include "text.h"

#include <array>

namespace pkgtool {

namespace {

using Octets = std::array<unsigned char, PELNIC_REASON_SIZE>;

// By the number of the decision.
constexpr const char* DECISIONS[] = {
    "an element that does not decode",
    "the trusted certificate that was added",
    "the CRLs that were added",
    "the decoding of the signature",
    "a certificate of the signature",
    "a signer",
    "the signer's digest or algorithm",
    "the timestamp",
    "the timestamp's content",
    "a timestamp authority",
    "the signature of the timestamp",
    "the search for the signer's certificate",
    "the purpose of a certificate",
    "a chain",
    "the end of a chain",
    "the depth of a chain",
    "the dates of a certificate",
    "a self-signed certificate",
    "the search for a certificate's issuer",
    "a CRL that cannot be used",
    "a CRL",
    "the issuer of a CRL",
    "the search for a CRL",
    "a revocation",
    "a certificate",
    "the signature value",
    "the content",
    "the end of begin",
};
static_assert(std::size(DECISIONS) == static_cast<std::size_t>(Decision::Begun) + 1);

std::optional<Octets> octetsOf(const std::string& text)
{
    constexpr std::size_t DIGITS = 2 * PELNIC_REASON_SIZE;
    const std::string digits = text.substr(text.find_last_of(" :=") + 1); // all of it, if there is none
    if (digits.size() != DIGITS || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return std::nullopt;
    }
    Octets octets{};
    for (std::size_t i = 0; i < octets.size(); ++i) {
        octets[i] = static_cast<unsigned char>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
    }
    const bool isKnown = octets[0] == 1 && octets[1] < std::size(DECISIONS);
    return isKnown ? std::optional(octets) : std::nullopt;
}

std::uint32_t numberAt(const Octets& octets, std::size_t at)
{
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i) number = number << 8 | octets[at + i];
    return number;
}

std::string tailText(const Octets& octets, bool isNumber)
{
    const std::string digits = hexText(&octets[24], 8);
    const std::size_t first = digits.find_first_not_of('0');
    if (first == std::string::npos) return "";
    return isNumber ? digits.substr(first - first % 2) : digits;
}

} // namespace

std::optional<ReasonCode> readReasonCode(const std::string& text)
{
    const std::optional<Octets> octets = octetsOf(text);
    if (!octets) return std::nullopt;
    const auto decision = static_cast<Decision>((*octets)[1]);
    const bool isElement = decision == Decision::Undecodable;
    const bool isEnd = decision == Decision::CrlUnfit && (*octets)[20] == static_cast<unsigned char>(CrlUnfit::Expired);
    const PELNIC_ERROR_CODE operation = numberAt(*octets, 4);
    const PELNIC_ERROR_CODE code = numberAt(*octets, 8);
    ReasonCode reason{code != 0 ? code : operation, {}, DECISIONS[(*octets)[1]]};
    reason.json = {{"decision", DECISIONS[(*octets)[1]]},
                   {"operation", operation != 0 ? Json(hexadecimal(operation)) : Json()},
                   {"signer", (*octets)[2] != 0 ? Json((*octets)[2]) : Json()},
                   {"is_authority", (*octets)[3] != 0},
                   {"time", orNull(timeText(numberAt(*octets, 12)))},
                   {"crl_end", isEnd ? orNull(timeText(numberAt(*octets, 16))) : Json()},
                   {"serial", isElement ? Json() : orNull(tailText(*octets, true))},
                   {"offset", isElement ? Json(numberAt(*octets, 16)) : Json()},
                   {"found", isElement ? orNull(tailText(*octets, false)) : Json()}};
    const auto add = [&](const char* words, const char* member) {
        if (!reason.json[member].is_null()) reason.text += words + textOf(reason.json[member]);
    };
    add((*octets)[3] != 0 ? ", of a timestamp authority of signer " : ", of signer ", "signer");
    add(", certificate with a serial number that ends in ", "serial");
    add(", judged at ", "time");
    add(", which ended ", "crl_end");
    add(", at byte ", "offset");
    add(", where there is ", "found");
    return reason;
}

} // namespace pkgtool
