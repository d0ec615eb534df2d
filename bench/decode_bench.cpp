// Certificates and CRLs decoded, searched and freed, beside libcrypto. Every measurement starts with a freshly decoded
// record, as a check does: libcrypto's first search of a CRL sorts it.
#include "cmsverify/pelnic_asn1_utils.h"
#include "cmsverify/pelnic_x509_parse.h"
#include "heap_meter.h"
#include "inputs.h"
#include "ratio_reporter.h"

#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

namespace pnvbench {

namespace {

using pnvtest::Len;

class Library {
public:
    explicit Library(const PELNIC_CALLBACK_FUNCS& callbacks)
    {
        vrf_.st_size = sizeof vrf_;
        vrf_.callback_funcs = callbacks;
    }

    PELNIC_X509_CERT* Decode(const CertInput& input) const
    {
        PELNIC_X509_CERT* cert = nullptr;
        PNV_UINT32 octets = 0;
        (void)pelnic_x509_decode_cert(&vrf_, input.der.data(), Len(input.der), &cert, &octets); // null says it all
        return cert;
    }
    PELNIC_X509_CRL* Decode(const CrlInput& input) const
    {
        PELNIC_X509_CRL* crl = nullptr;
        PNV_UINT32 octets = 0;
        (void)pelnic_x509_decode_crl(&vrf_, input.der.data(), Len(input.der), &crl, &octets);
        return crl;
    }

    PELNIC_ASN_BIGINT Serial(const Bytes& magnitude) const
    {
        // Only compared: nothing writes through it.
        return {Len(magnitude), pelnic_make_tag(CBC_UNIV, CBF_PRIM, CBT_INTEGER),
                const_cast<PNV_BYTE*>(magnitude.data())};
    }
    bool Lists(const PELNIC_X509_CRL* crl, const PELNIC_ASN_BIGINT& serial) const
    {
        const LIST_TYPE_PELNIC_X509_REVOKED_ENTRY& entries = crl->tbs_cert_list->revoked_certs->revoked_list;
        return pelnic_list_search(&vrf_, _pnvAsList(&entries), &serial, CompareSerial) != nullptr;
    }

    void Free(PELNIC_X509_CERT* cert) const { pelnic_x509_free_cert(&vrf_, cert); }
    void Free(PELNIC_X509_CRL* crl) const { pelnic_x509_free_crl(&vrf_, crl); }

private:
    static PNV_INT CompareSerial(const PELNIC_VRF* vrf, const void* serial, const void* entry)
    {
        return pelnic_compare_asn_bigint(vrf, static_cast<const PELNIC_ASN_BIGINT*>(serial),
                                         static_cast<const PELNIC_X509_REVOKED_ENTRY*>(entry)->user_cert);
    }

    PELNIC_VRF vrf_{};
};

class Libcrypto {
public:
    X509* Decode(const CertInput& input) const
    {
        const unsigned char* in = input.der.data();
        return d2i_X509(nullptr, &in, static_cast<long>(input.der.size()));
    }
    X509_CRL* Decode(const CrlInput& input) const
    {
        const unsigned char* in = input.der.data();
        return d2i_X509_CRL(nullptr, &in, static_cast<long>(input.der.size()));
    }

    struct IntegerFree {
        void operator()(ASN1_INTEGER* integer) const { ASN1_INTEGER_free(integer); }
    };
    using OwnedInteger = std::unique_ptr<ASN1_INTEGER, IntegerFree>;
    OwnedInteger Serial(const Bytes& magnitude) const
    {
        OwnedInteger serial(ASN1_INTEGER_new());
        ASN1_STRING_set(serial.get(), magnitude.data(), static_cast<int>(magnitude.size()));
        return serial;
    }
    bool Lists(X509_CRL* crl, const OwnedInteger& serial) const
    {
        X509_REVOKED* entry = nullptr;
        return X509_CRL_get0_by_serial(crl, &entry, serial.get()) == 1;
    }

    void Free(X509* cert) const { X509_free(cert); }
    void Free(X509_CRL* crl) const { X509_CRL_free(crl); }
};

void Demand(bool right)
{
    if (right) return;
    std::fputs("a decoder does not do what is measured\n", stderr);
    std::exit(1);
}

// The thread's own time, which leaves out what else runs on the machine.
double Now()
{
    timespec now{};
    Demand(clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now) == 0);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

enum class Step { Decode, Search, Free };

// Decodes, uses and frees some records; the time of one step for one record is the iteration's.
template <typename Decoder, typename Input, typename Use>
void Measure(benchmark::State& state, Step timed, const Decoder& decoder, const Input& input, Use use)
{
    // So many that reading the clock does not matter.
    std::vector<decltype(decoder.Decode(input))> records(input.entries < 1000 ? 32 : 1);
    double total = 0;
    for ([[maybe_unused]] auto iteration : state) {
        const auto run = [&](Step step, auto operation) {
            const double start = Now();
            for (auto& record : records) operation(record);
            if (step != timed) return;
            const double seconds = (Now() - start) / static_cast<double>(records.size());
            state.SetIterationTime(seconds);
            total += seconds;
        };
        run(Step::Decode, [&](auto& record) { record = decoder.Decode(input); });
        run(Step::Search, [&](auto& record) { use(record); });
        run(Step::Free, [&](auto& record) { decoder.Free(record); });
    }
    if (timed == Step::Decode)
        state.counters["ns/entry"] =
            total * 1e9 / (static_cast<double>(state.iterations()) * static_cast<double>(input.entries));
}

template <typename Decoder, typename Input>
void CountHeap(benchmark::State& state, const Decoder& counted, const Input& input)
{
    const HeapMeter meter;
    const auto record = counted.Decode(input);
    const HeapUse use = meter.Use();
    counted.Free(record);
    const auto report = [&](const char* counter, std::size_t total) {
        state.counters[counter] = static_cast<double>(total) / static_cast<double>(input.entries);
    };
    report("allocations/entry", use.allocations);
    report("heap bytes/entry", use.held);
    report("peak bytes/entry", use.peak);
}

template <typename Run> void Register(const std::string& name, std::size_t entries, Run run)
{
    // Counted, not timed: a step is a small part of its iteration.
    benchmark::RegisterBenchmark(name.c_str(), run)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond)
        ->Iterations(entries < 10000 ? 20 : 1);
}

// The same measurement for both: run(state, decoder, the decoder with its heap counted).
template <typename Run> void RegisterPair(const std::string& name, std::size_t entries, Run run)
{
    PELNIC_CALLBACK_FUNCS callbacks;
    (void)pelnic_set_callback_funcs(&callbacks); // fails for null only
    const Library library(callbacks);
    const Library counted(CountingCallbacks());
    Register(name + libraryEnding, entries, [=](benchmark::State& state) { run(state, library, counted); });
    Register(name + yardstickEnding, entries, [=](benchmark::State& state) { run(state, Libcrypto(), Libcrypto()); });
}

// The inputs outlive the benchmarks.
template <typename Input> void RegisterDecodeAndFree(const Input& input)
{
    const auto decoded = [](const auto* record) { Demand(record != nullptr); };
    RegisterPair(input.name + "/decode", input.entries,
                 [&input, decoded](auto& state, const auto& decoder, const auto& counted) {
                     Measure(state, Step::Decode, decoder, input, decoded);
                     CountHeap(state, counted, input);
                 });
    RegisterPair(input.name + "/free", input.entries, [&input, decoded](auto& state, const auto& decoder, const auto&) {
        Measure(state, Step::Free, decoder, input, decoded);
    });
}

void RegisterSearch(const std::string& name, const CrlInput& input, const Bytes& magnitude, bool listed)
{
    RegisterPair(name, input.entries, [&, listed](auto& state, const auto& decoder, const auto&) {
        const auto serial = decoder.Serial(magnitude);
        Measure(state, Step::Search, decoder, input,
                [&](auto* crl) { Demand(crl != nullptr && decoder.Lists(crl, serial) == listed); });
    });
}

// Flags in front of the user's, which win.
void Initialize(int argc, char** argv)
{
    std::string defaults[] = {"--benchmark_repetitions=7", "--benchmark_enable_random_interleaving=true"};
    std::vector<char*> arguments{argv[0]};
    for (std::string& flag : defaults) arguments.push_back(flag.data());
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) std::exit(1);
}

} // namespace

} // namespace pnvbench

int main(int argc, char** argv)
{
    using namespace pnvbench;
    HookLibcrypto();
    Initialize(argc, argv);

    const CertInput certs[] = {MakeCert("certificate/rsa2048", pnvtest::KeyId::Rsa2048A),
                               MakeCert("certificate/rsa4096", pnvtest::KeyId::Rsa4096)};
    std::vector<CrlInput> crls;
    for (const bool withReasons : {false, true}) {
        for (const std::size_t entries : {10u, 1000u, 100000u}) crls.push_back(MakeCrl(entries, withReasons));
    }
    for (const CertInput& cert : certs) RegisterDecodeAndFree(cert);
    for (const CrlInput& crl : crls) {
        RegisterDecodeAndFree(crl);
        RegisterSearch(crl.name + "/search_last", crl, crl.lastSerial, true);
        RegisterSearch(crl.name + "/search_absent", crl, crl.absentSerial, false);
    }

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
