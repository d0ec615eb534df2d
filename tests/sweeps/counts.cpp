// What build_test.sh counts instructions, allocations and page faults of:
//
//     counts make DIR                      writes the inputs
//     counts package FILE OCTETS ENTRIES plain|reasons
//                                          writes a package with so much payload and so long a CRL of its signer's CA
//     counts decode crl|certificate FILE N decodes and frees it N times
//     counts faults PROGRAM ARGUMENT...    prints the page faults of a run, the fewest of some
#include "cmsverify/pelnic_x509_parse.h"
#include "support/package.h"
#include "support/signature.h"
#include "support/temp_dir.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>

namespace pnvtest {
namespace {

constexpr std::size_t kEntries = 1000;

void Write(const std::string& path, const Bytes& octets)
{
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(octets.data()), Len(octets));
}

void Revoke(CrlSpec& crl, std::size_t entries, bool withReasons)
{
    std::mt19937_64 random; // the same on every run; libcrypto sorts the entries, which costs little when they are
    for (std::size_t i = 0; i < entries; ++i) {
        Bytes serial(16);
        for (std::uint8_t& octet : serial) octet = static_cast<std::uint8_t>(random());
        serial[0] = static_cast<std::uint8_t>(0x40 | (serial[0] & 0x3F)); // positive, and 16 octets long
        crl.revoked.push_back({serial});
        if (withReasons) crl.revoked.back().reason = 1;
    }
}

Bytes Crl(bool withReasons)
{
    CrlSpec crl = CrlOf(SigningCa());
    Revoke(crl, kEntries, withReasons);
    return Build(crl);
}

Bytes Package(std::size_t payloadSize, std::size_t entries = 0, bool withReasons = false)
{
    DemoPki pki(KeyId::Rsa4096);
    Revoke(pki.signingCrl, entries, withReasons);
    const Bytes payload(payloadSize, 0x5A);
    return Build(SignedPackage(payload, DetachedCms(payload, DemoCms(pki)), pki.Crls()));
}

int Make(const std::string& dir)
{
    Write(dir + "/crl", Crl(false));
    Write(dir + "/crl_reasons", Crl(true));
    Write(dir + "/certificate", Build(Signer()));
    Write(dir + "/package", Package(16));
    Write(dir + "/large", Package(16 << 20));
    return 0;
}

template <typename Record, typename Decode, typename Free>
int Repeat(const Bytes& der, int times, Decode decode, Free release)
{
    PELNIC_VRF vrf{};
    vrf.st_size = sizeof vrf;
    (void)pelnic_set_callback_funcs(&vrf.callback_funcs); // fails for null only
    for (int i = 0; i < times; ++i) {
        Record* record = nullptr;
        PNV_UINT32 octets = 0;
        if (decode(&vrf, der.data(), Len(der), &record, &octets) != 0) return 1;
        release(&vrf, record);
    }
    return 0;
}

int Decode(const std::string& kind, const std::string& path, int times)
{
    const Bytes der = ReadWholeFile(path);
    return kind == "crl" ? Repeat<PELNIC_X509_CRL>(der, times, pelnic_x509_decode_crl, pelnic_x509_free_crl)
                         : Repeat<PELNIC_X509_CERT>(der, times, pelnic_x509_decode_cert, pelnic_x509_free_cert);
}

int Faults(char** program)
{
    constexpr int kRuns = 7;
    long fewest = 0;
    for (int i = 0; i < kRuns; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            execv(program[0], program);
            _exit(127);
        }
        int status = 0;
        rusage usage{};
        if (wait4(child, &status, 0, &usage) != child || status != 0) return 1;
        fewest = i == 0 ? usage.ru_minflt : std::min(fewest, usage.ru_minflt);
    }
    std::printf("%ld\n", fewest);
    return 0;
}

} // namespace
} // namespace pnvtest

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "make" && argc == 3) return pnvtest::Make(argv[2]);
    if (mode == "package" && argc == 6) {
        pnvtest::Write(argv[2], pnvtest::Package(std::strtoul(argv[3], nullptr, 10), std::strtoul(argv[4], nullptr, 10),
                                                 std::string(argv[5]) == "reasons"));
        return 0;
    }
    if (mode == "decode" && argc == 5) return pnvtest::Decode(argv[2], argv[3], std::atoi(argv[4]));
    if (mode == "faults" && argc > 2) return pnvtest::Faults(argv + 2);
    return 2;
}
