#include "inputs.h"

#include <random>

namespace pnvbench {

using namespace pnvtest;

namespace {

Bytes NextSerial(std::mt19937_64& random)
{
    Bytes serial;
    for (std::uint64_t half : {random(), random()}) {
        for (int shift = 56; shift >= 0; shift -= 8) serial.push_back(static_cast<std::uint8_t>(half >> shift));
    }
    serial.front() = static_cast<std::uint8_t>((serial.front() & 0x3F) | 0x40); // positive, and 16 octets long
    return serial;
}

} // namespace

CertInput MakeCert(const std::string& name, KeyId key)
{
    CertSpec cert = Signer(key);
    cert.issuerKey = key;
    return {name, Build(cert)};
}

CrlInput MakeCrl(std::size_t entries, bool withReasons)
{
    std::mt19937_64 random;
    CrlSpec crl = CrlOf(SigningCa());
    for (std::size_t i = 0; i < entries; ++i) {
        RevokedSpec entry{NextSerial(random)};
        if (withReasons) entry.reason = static_cast<int>(1 + i % 5);
        crl.revoked.push_back(std::move(entry));
    }
    const std::string name = (withReasons ? "crl_reasons/" : "crl/") + std::to_string(entries);
    return {name, entries, Build(crl), crl.revoked.back().serial, NextSerial(random)};
}

} // namespace pnvbench
