// CRL bundles: decoded into summaries, compared, asked for what they revoke, and handed out again.
#include "cmsverify/cms_verify.h"
#include "cmsverify/pelnic_pki_impl.h"

#include "support/cms.h"
#include "support/crl_bundle.h"
#include "support/exact_heap.h"
#include "support/temp_dir.h"
#include "support/vrf.h"
#include "support/x509.h"

#include <iomanip>
#include <limits>
#include <sstream>

namespace pnvtest {
namespace {

// Midnight of 1 January; the CRLs of DemoPki are of 2025 and wait for the next one until 2035.
constexpr PNV_TIME_T k2024 = 1704067200;
constexpr PNV_TIME_T k2025 = 1735689600;
constexpr PNV_TIME_T k2026 = 1767225600;
constexpr PNV_TIME_T k2035 = 2051222400;

constexpr PNV_INT kIntMin = std::numeric_limits<PNV_INT>::min();
constexpr PNV_INT kIntMax = std::numeric_limits<PNV_INT>::max();

Bytes SerialOf(std::size_t octets, std::uint8_t last = 0x01)
{
    Bytes serial(octets, 0x5A);
    serial.back() = last;
    return serial;
}

PELNIC_SERIAL_NUM SerialNumber(const Bytes& octets)
{
    PELNIC_SERIAL_NUM serial{};
    std::copy(octets.begin(), octets.end(), serial.sn);
    serial.sn_len = Len(octets);
    return serial;
}

Bytes Octets(const PELNIC_SERIAL_NUM& serial)
{
    return Bytes(serial.sn, serial.sn + serial.sn_len);
}

std::vector<Bytes> Serials(const PELNIC_REVOKE_LIST& list)
{
    std::vector<Bytes> serials;
    for (PNV_UINT32 i = 0; i < list.revoke_count; ++i) serials.push_back(Octets(list.sn_list[i]));
    return serials;
}

std::string Line(const char* level, PELNIC_ERROR_CODE rc, const std::string& message = "")
{
    std::ostringstream line;
    line << level << " " << std::hex << std::setw(8) << std::setfill('0') << rc;
    if (!message.empty()) line << " " << message;
    return line.str();
}

// What was logged, but for where and when: "error 88200102" or "warning 00000000 text".
std::vector<std::string> Told(const CallbackPlan& plan)
{
    std::vector<std::string> told;
    for (const LogRecord& record : plan.Logs()) {
        const char* level = record.level == PELNIC_LOG_TYPE_ERROR ? "error" : "warning";
        told.push_back(Line(level, record.rc, record.message.value_or("(null)")));
    }
    return told;
}
using Lines = std::vector<std::string>;

// ---- Comparing summaries that a caller made ----

struct Summary {
    std::string issuer;
    PNV_TIME_T updateTime = k2025;
    Bytes issuerSerial{};
    std::vector<Bytes> revoked{};
    PNV_INT valid = 1;
};

// Each record lies in a heap block of just its size.
class MadeBundle {
public:
    MadeBundle(std::initializer_list<Summary> summaries) : MadeBundle(std::vector<Summary>(summaries)) {}
    explicit MadeBundle(const std::vector<Summary>& summaries) : bundle_(new PELNIC_CRL_BUNDLE_INFO{})
    {
        bundle_->st_size = sizeof *bundle_;
        for (const Summary& summary : summaries) Append(summary);
    }

    operator PELNIC_CRL_BUNDLE_INFO*() const { return bundle_.get(); }
    PELNIC_CRL_BUNDLE_INFO* operator->() const { return bundle_.get(); }
    PELNIC_CRL_INFO* At(std::size_t i) const { return infos_.at(i).get(); }

private:
    void Append(const Summary& summary)
    {
        auto info = std::make_unique<PELNIC_CRL_INFO>();
        *info = {};
        info->st_size = sizeof *info;
        info->valid = summary.valid;
        info->update_time = summary.updateTime;
        info->valid_until = k2035;
        std::copy(summary.issuer.begin(), summary.issuer.end(), info->issuer);
        info->issuer_sn = SerialNumber(summary.issuerSerial);

        std::vector<PELNIC_SERIAL_NUM> serials;
        serials.reserve(summary.revoked.size());
        for (const Bytes& serial : summary.revoked) serials.push_back(SerialNumber(serial));
        info->revoke_list.revoke_count = Len(serials);
        info->revoke_list.sn_list = serials.empty() ? nullptr : serials.data();

        bundle_->crl_info_list[bundle_->crl_count++] = info.get();
        infos_.push_back(std::move(info));
        serials_.push_back(std::move(serials));
    }

    std::unique_ptr<PELNIC_CRL_BUNDLE_INFO> bundle_;
    std::vector<std::unique_ptr<PELNIC_CRL_INFO>> infos_;
    std::vector<std::vector<PELNIC_SERIAL_NUM>> serials_;
};

Summary OfRoot(PNV_TIME_T updateTime = k2025, std::vector<Bytes> revoked = {})
{
    return {"CN=Root", updateTime, {0x01}, std::move(revoked)};
}
Summary OfA(PNV_TIME_T updateTime = k2025)
{
    return {"CN=A", updateTime, {0x0A}};
}
Summary OfB(PNV_TIME_T updateTime = k2025)
{
    return {"CN=B", updateTime, {0x0B}};
}
Summary OfC(PNV_TIME_T updateTime = k2025)
{
    return {"CN=C", updateTime, {0x0C}};
}
Summary Unverified(Summary summary, PNV_INT valid = 0)
{
    summary.valid = valid;
    return summary;
}

std::vector<Summary> Issuers(std::size_t count)
{
    std::vector<Summary> summaries;
    for (std::size_t i = 0; i < count; ++i) summaries.push_back({"CN=" + std::to_string(i)});
    return summaries;
}

class CrlCompare : public ::testing::Test {
protected:
    void ExpectVerdict(PELNIC_CRL_PERIOD_STAT verdict, const MadeBundle& offered, const MadeBundle& device)
    {
        PELNIC_CRL_PERIOD_STAT stat = verdict == SCPS_MIX ? SCPS_NEW : SCPS_MIX;
        EXPECT_EQ(pelnic_crl_compare(vrf_, offered, device, &stat), 0u);
        EXPECT_EQ(stat, verdict);
        EXPECT_EQ(Told(vrf_.Plan()), Lines{});
    }
    void ExpectNewer(const MadeBundle& newer, const MadeBundle& older)
    {
        ExpectVerdict(SCPS_NEW, newer, older);
        ExpectVerdict(SCPS_OLD, older, newer);
    }

    // Refused with that code and left at stat, which was NEW before the call.
    void ExpectRefused(PELNIC_ERROR_CODE code, PELNIC_CRL_PERIOD_STAT stat, const PELNIC_CRL_BUNDLE_INFO* offered,
                       const PELNIC_CRL_BUNDLE_INFO* device)
    {
        PELNIC_CRL_PERIOD_STAT answer = SCPS_NEW;
        EXPECT_EQ(pelnic_crl_compare(vrf_, offered, device, &answer), code);
        EXPECT_EQ(answer, stat);
        ExpectLogged(code);
    }
    void ExpectMix(PELNIC_ERROR_CODE code, const PELNIC_CRL_BUNDLE_INFO* offered, const PELNIC_CRL_BUNDLE_INFO* device)
    {
        ExpectRefused(code, SCPS_MIX, offered, device);
    }
    void ExpectLogged(PELNIC_ERROR_CODE code)
    {
        EXPECT_EQ(Told(vrf_.Plan()), Lines{Line("error", code)});
        vrf_.Plan().ClearLogs();
    }

    Vrf vrf_;
};

TEST_F(CrlCompare, TheSameIssuersAndDatesAreTheSame)
{
    ExpectVerdict(SCPS_SAME, {OfA()}, {OfA()});
    ExpectVerdict(SCPS_SAME, {OfRoot(), OfA(), OfB()}, {OfB(), OfRoot(), OfA()});
}

TEST_F(CrlCompare, OneLaterCrlIsNewer)
{
    ExpectNewer({OfA(k2026)}, {OfA()});
    ExpectNewer({OfA(k2025 + 1)}, {OfA()});
    ExpectNewer({OfA(k2026), OfB()}, {OfA(), OfB()});
    ExpectNewer({OfA(), OfB(k2026)}, {OfB(), OfA()});
}

TEST_F(CrlCompare, DatesAreComparedBeyondThirtyTwoBits)
{
    ExpectNewer({OfA(k2025 + (PNV_TIME_T{1} << 32))}, {OfA(k2025 + 1)});
    ExpectNewer({OfA(1)}, {OfA(-1)});
}

TEST_F(CrlCompare, LaterAndEarlierIsMixedAndNoFailure)
{
    ExpectVerdict(SCPS_MIX, {OfA(k2026), OfB(k2024)}, {OfA(), OfB()});
    ExpectVerdict(SCPS_MIX, {OfA(k2024), OfB(k2026)}, {OfA(), OfB()});
    ExpectVerdict(SCPS_MIX, {OfA(k2024), OfB(), OfC(k2026)}, {OfA(), OfB(), OfC()});
}

TEST_F(CrlCompare, CountsDecideBetweenEqualDates)
{
    ExpectNewer({OfA(), OfB()}, {OfA()});
    ExpectNewer({OfA(), OfB(), OfC()}, {OfC()});
}

// The device's bundle counts as the newer one then, and it lacks nothing: fewer CRLs of equal date are no failure.
TEST_F(CrlCompare, EqualDatesWithFewerCrlsAreOlderWithoutFailure)
{
    ExpectVerdict(SCPS_OLD, {OfA()}, {OfA(), OfB()});
    ExpectVerdict(SCPS_OLD, {OfRoot(k2025, {{0x0B}}), OfA()}, {OfRoot(), OfA(), OfB()});
}

TEST_F(CrlCompare, EqualDatesAndCountsOfOtherIssuersAreRefused)
{
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfA(), OfB()}, MadeBundle{OfA(), OfC()});
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfA()}, MadeBundle{OfB()});
}

TEST_F(CrlCompare, MoreCrlsOfEqualDateMustCoverEveryIssuer)
{
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfA(), OfB()}, MadeBundle{OfC()});
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfC()}, MadeBundle{OfA(), OfB()});
}

TEST_F(CrlCompare, ALaterBundleMayAddAnIssuer)
{
    ExpectNewer({OfA(k2026), OfB()}, {OfA()});
}

TEST_F(CrlCompare, ALaterBundleThatDropsAnIssuerIsRefused)
{
    const MadeBundle newer{OfRoot(k2026), OfA()};
    const MadeBundle older{OfRoot(), OfA(), OfB()};
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, newer, older);
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, older, newer);
}

TEST_F(CrlCompare, ARootThatRevokesTheDroppedIssuerExcusesIt)
{
    const MadeBundle older{OfRoot(), OfA(), OfB()};
    ExpectNewer({OfRoot(k2026, {{0x0B}}), OfA()}, older);
    ExpectNewer({OfA(), OfRoot(k2026, {{0x77}, {0x0B}})}, older);
    ExpectNewer({OfRoot(k2026, {{0x0A}, {0x0B}})}, older);
}

TEST_F(CrlCompare, ARootThatRevokesOthersExcusesNothing)
{
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfRoot(k2026, {{0x0A}, {0x0C}}), OfA()},
              MadeBundle{OfRoot(), OfA(), OfB()});
}

TEST_F(CrlCompare, EveryDroppedIssuerNeedsItsExcuse)
{
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfRoot(k2026, {{0x0A}})}, MadeBundle{OfRoot(), OfA(), OfB()});
}

TEST_F(CrlCompare, TheOlderBundlesRootExcusesNothing)
{
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfRoot(), OfA(k2026)},
              MadeBundle{OfRoot(k2025, {{0x0B}}), OfA(), OfB()});
}

// Only the first entry with a revoke list speaks for dropped issuers, whoever issued it.
TEST_F(CrlCompare, OnlyTheFirstRevokeListExcuses)
{
    const Summary other{"CN=Other Root", k2025, {0x02}, {{0x0A}}};
    const MadeBundle older{OfRoot(), OfA(), OfB()};
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{other, OfRoot(k2026, {{0x0B}}), OfA()}, older);
    ExpectNewer({OfRoot(k2026, {{0x0B}}), other, OfA()}, older);
}

// In every state but NEW the device's bundle is taken for the newer one.
TEST_F(CrlCompare, TheDevicesRootExcusesWhatTheDeviceLacks)
{
    ExpectVerdict(SCPS_OLD, {OfA()}, {OfRoot(k2025, {{0x0A}}), OfB()});
    ExpectVerdict(SCPS_SAME, {OfRoot(), OfA()}, {OfRoot(k2025, {{0x0A}}), OfB()});
}

TEST_F(CrlCompare, AMixedStateIsStillCheckedForDroppedIssuers)
{
    const MadeBundle three{OfA(k2026), OfB(k2024), OfC()};
    const MadeBundle two{OfA(), OfB()};
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, three, two);
    ExpectVerdict(SCPS_MIX, two, three);
}

TEST_F(CrlCompare, SerialNumbersExcuseByLengthAndOctets)
{
    for (std::size_t octets : {1u, 31u, 32u}) {
        SCOPED_TRACE(octets);
        const Summary dropped{"CN=B", k2025, SerialOf(octets)};
        const MadeBundle older{OfRoot(), dropped};
        ExpectNewer({OfRoot(k2026, {SerialOf(octets)})}, older);
        ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfRoot(k2026, {SerialOf(octets, 0x02)})}, older);
    }
    const MadeBundle older{OfRoot(), {"CN=B", k2025, Bytes(31, 0x5A)}};
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfRoot(k2026, {Bytes(30, 0x5A), Bytes(32, 0x5A)})}, older);
}

TEST_F(CrlCompare, AnIssuerWithoutASerialNumberHasNoExcuse)
{
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{OfRoot(k2026, {{0x0B}})},
              MadeBundle{OfRoot(), {"CN=B", k2025, {}}});
}

TEST_F(CrlCompare, AnUnverifiedEntryInEitherBundleIsRefused)
{
    const MadeBundle good{OfA(), OfB()};
    for (PNV_INT valid : {0, 2, -1, kIntMin}) {
        SCOPED_TRACE(valid);
        for (const MadeBundle& bad :
             {MadeBundle{Unverified(OfA(), valid), OfB()}, MadeBundle{OfA(), Unverified(OfB(), valid)}}) {
            ExpectMix(PELNIC_ERR_CRL_INVALID_ENTRY, bad, good);
            ExpectMix(PELNIC_ERR_CRL_INVALID_ENTRY, good, bad);
        }
    }
}

TEST_F(CrlCompare, AMissingEntryInEitherBundleIsRefused)
{
    const MadeBundle good{OfA(), OfB()};
    for (std::size_t missing : {0u, 1u}) {
        const MadeBundle bad{OfA(), OfB()};
        bad->crl_info_list[missing] = nullptr;
        ExpectMix(PELNIC_ERR_CRL_INVALID_ENTRY, bad, good);
        ExpectMix(PELNIC_ERR_CRL_INVALID_ENTRY, good, bad);
    }
}

// The mixed dates would end the comparison of entries before it reaches the bad one.
TEST_F(CrlCompare, EntriesAreCheckedBeforeAnyIsCompared)
{
    ExpectMix(PELNIC_ERR_CRL_INVALID_ENTRY, MadeBundle{OfA(k2026), OfB(k2024), Unverified(OfC())},
              MadeBundle{OfA(), OfB(), OfC()});
}

TEST_F(CrlCompare, TwoCrlsOfOneIssuerAreRefused)
{
    const MadeBundle twice{OfA(), OfB(), OfA(k2026)};
    const MadeBundle once{OfA(), OfB()};
    ExpectMix(PELNIC_ERR_CRL_DUPLICATE_ISSUER, twice, once);
    ExpectMix(PELNIC_ERR_CRL_DUPLICATE_ISSUER, once, twice);
    ExpectMix(PELNIC_ERR_CRL_DUPLICATE_ISSUER, twice, twice);
}

TEST_F(CrlCompare, RefusalsHaveAnOrder)
{
    ExpectMix(PELNIC_ERR_CRL_INVALID_ENTRY, MadeBundle{OfA(), OfA(), Unverified(OfB())}, MadeBundle{OfA()});
    ExpectMix(PELNIC_ERR_CRL_DUPLICATE_ISSUER, MadeBundle{OfA(), OfA()}, MadeBundle{OfB()});
    ExpectMix(PELNIC_ERR_CRL_DUPLICATE_ISSUER, MadeBundle{OfA(k2026), OfB(k2024), OfB()}, MadeBundle{OfA(), OfB()});
}

// A name that could not be converted is empty, so all such issuers pass for one.
TEST_F(CrlCompare, NamelessIssuersAreOneIssuer)
{
    const Summary nameless{"", k2025, {0x0A}};
    const Summary laterNameless{"", k2026, {0x0B}};
    ExpectNewer({laterNameless}, {nameless});
    ExpectMix(PELNIC_ERR_CRL_DUPLICATE_ISSUER, MadeBundle{nameless, laterNameless}, MadeBundle{nameless});
}

TEST_F(CrlCompare, IssuersAreComparedWhole)
{
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{{"CN=A"}}, MadeBundle{{"CN=AB"}});
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{{"CN=AB"}}, MadeBundle{{"CN=A"}});
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{{"CN=A"}}, MadeBundle{{"CN=a"}});
}

TEST_F(CrlCompare, SixteenEntriesAreCompared)
{
    std::vector<Summary> later = Issuers(16);
    later.back().updateTime = k2026;
    ExpectVerdict(SCPS_SAME, MadeBundle(Issuers(16)), MadeBundle(Issuers(16)));
    ExpectNewer(MadeBundle(later), MadeBundle(Issuers(16)));
    ExpectNewer(MadeBundle(Issuers(16)), MadeBundle(Issuers(15)));
}

TEST_F(CrlCompare, AnEmptyBundleIsRefusedWithoutAVerdict)
{
    const MadeBundle good{OfA()};
    for (PNV_INT count : {0, -1, kIntMin}) {
        SCOPED_TRACE(count);
        const MadeBundle empty{OfA()};
        empty->crl_count = count;
        ExpectRefused(PELNIC_ERR_CRL_EMPTY_BUNDLE, SCPS_NEW, empty, good);
        ExpectRefused(PELNIC_ERR_CRL_EMPTY_BUNDLE, SCPS_NEW, good, empty);
    }
}

TEST_F(CrlCompare, ACountBeyondTheTableIsRefused)
{
    const MadeBundle good{OfA()};
    const MadeBundle empty{};
    for (PNV_INT count : {17, 1000, kIntMax}) {
        SCOPED_TRACE(count);
        const MadeBundle bad(Issuers(16));
        bad->crl_count = count;
        ExpectMix(PELNIC_ERR_CRL_INVALID_ENTRY, bad, good);
        ExpectMix(PELNIC_ERR_CRL_INVALID_ENTRY, good, bad);
        ExpectRefused(PELNIC_ERR_CRL_EMPTY_BUNDLE, SCPS_NEW, bad, empty);
    }
}

// What follows the text in its record is the serial number.
TEST_F(CrlCompare, IssuerTextEndsWithItsField)
{
    const std::string whole(sizeof PELNIC_CRL_INFO{}.issuer, 'x');
    ExpectVerdict(SCPS_SAME, {{whole, k2025, SerialOf(32)}}, {{whole, k2025, SerialOf(31)}});
    ExpectNewer({{whole, k2026, {0x01}}}, {{whole, k2025, {0x02}}});
    ExpectMix(PELNIC_ERR_CRL_DUPLICATE_ISSUER, MadeBundle{{whole, k2025, {0x01}}, {whole, k2025, {0x02}}},
              MadeBundle{OfA()});
    ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, MadeBundle{{whole}}, MadeBundle{{whole.substr(1)}});
}

// A length beyond the field is compared as it stands, and no octet beyond the field is read.
TEST_F(CrlCompare, SerialNumbersEndWithTheirField)
{
    for (PNV_UINT32 length : {33u, 36u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(length);
        const MadeBundle newer{OfRoot(k2026, {SerialOf(32)})};
        const MadeBundle older{OfRoot(), {"CN=B", k2025, SerialOf(32)}};
        newer.At(0)->revoke_list.sn_list[0].sn_len = length;
        ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, newer, older);

        older.At(1)->issuer_sn.sn_len = length;
        ExpectNewer(newer, older);
        older.At(1)->issuer_sn.sn[31] ^= 0x01;
        ExpectMix(PELNIC_ERR_CRL_ISSUER_DROPPED, newer, older);
    }
}

TEST_F(CrlCompare, NullArgumentsAreRefusedWithoutAVerdict)
{
    const MadeBundle good{OfA()};
    ExpectRefused(PELNIC_ERR_NULL_POINTER, SCPS_NEW, nullptr, good);
    ExpectRefused(PELNIC_ERR_NULL_POINTER, SCPS_NEW, good, nullptr);
    EXPECT_EQ(pelnic_crl_compare(vrf_, good, good, nullptr), PELNIC_ERR_NULL_POINTER);
    ExpectLogged(PELNIC_ERR_NULL_POINTER);
}

// ---- The steps of a comparison ----

TEST_F(CrlCompare, StateTakesInEachVerdict)
{
    const PELNIC_CRL_PERIOD_STAT states[] = {SCPS_SAME, SCPS_NEW, SCPS_OLD, SCPS_MIX};
    const struct {
        PNV_TIME_T time;
        PELNIC_CRL_PERIOD_STAT after[4]; // each of them
    } cases[] = {{k2025, {SCPS_SAME, SCPS_NEW, SCPS_OLD, SCPS_MIX}},
                 {k2026, {SCPS_NEW, SCPS_NEW, SCPS_MIX, SCPS_MIX}},
                 {k2024, {SCPS_OLD, SCPS_MIX, SCPS_OLD, SCPS_MIX}}};
    const MadeBundle reference{OfA(), OfB()};
    for (const auto& [time, after] : cases) {
        const MadeBundle bundle{OfA(time)};
        for (PELNIC_CRL_PERIOD_STAT before : states) {
            SCOPED_TRACE(::testing::Message() << time << " " << before);
            PELNIC_CRL_PERIOD_STAT state = before;
            EXPECT_EQ(_pnvCompareCrlInfo(vrf_, bundle.At(0), reference.At(1), &state), -1);
            EXPECT_EQ(state, before);
            EXPECT_EQ(_pnvCompareCrlInfo(vrf_, bundle.At(0), reference.At(0), &state), 0);
            EXPECT_EQ(state, after[before]);
        }
    }
}

TEST_F(CrlCompare, IntercrossStartsFromTheStateGiven)
{
    const MadeBundle later{OfA(k2026), OfB()};
    const MadeBundle earlier{OfB(), OfA()};
    PELNIC_CRL_PERIOD_STAT state = SCPS_SAME;
    EXPECT_EQ(_pnvCompareIntercrossCrl(vrf_, later, earlier, &state), 0u);
    EXPECT_EQ(state, SCPS_NEW);
    EXPECT_EQ(_pnvCompareIntercrossCrl(vrf_, earlier, later, &state), 0u);
    EXPECT_EQ(state, SCPS_MIX);
}

TEST_F(CrlCompare, IntercrossRefusesUnlogged)
{
    PELNIC_CRL_PERIOD_STAT state = SCPS_NEW;
    EXPECT_EQ(_pnvCompareIntercrossCrl(vrf_, MadeBundle{OfA()}, MadeBundle{Unverified(OfB())}, &state),
              PELNIC_ERR_CRL_INVALID_ENTRY);
    EXPECT_EQ(state, SCPS_MIX);
    EXPECT_EQ(Told(vrf_.Plan()), Lines{});
}

TEST_F(CrlCompare, DuplicatesAreFoundWhereverTheyStand)
{
    EXPECT_EQ(_pnvFindDuplicateCrlIssuer(vrf_, MadeBundle{}), 0);
    EXPECT_EQ(_pnvFindDuplicateCrlIssuer(vrf_, MadeBundle{OfA()}), 0);
    EXPECT_EQ(_pnvFindDuplicateCrlIssuer(vrf_, MadeBundle(Issuers(16))), 0);
    for (std::size_t first = 0; first < 15; ++first) {
        std::vector<Summary> summaries = Issuers(16);
        summaries[15].issuer = summaries[first].issuer;
        EXPECT_EQ(_pnvFindDuplicateCrlIssuer(vrf_, MadeBundle(summaries)), 1) << first;
    }
}

TEST_F(CrlCompare, ARevokeListIsSearchedToItsEnd)
{
    const MadeBundle root{OfRoot(k2025, {{0x0A}, {0x00, 0x0B}, {0x0B, 0x0B}, {0x0C}})};
    const MadeBundle issuers{OfA(), OfB(), OfC(), {"CN=D", k2025, {0x0B, 0x0B}}};
    EXPECT_EQ(_pnvIsCrlIssuerRevoked(vrf_, root.At(0), issuers.At(0)), 1);
    EXPECT_EQ(_pnvIsCrlIssuerRevoked(vrf_, root.At(0), issuers.At(1)), 0);
    EXPECT_EQ(_pnvIsCrlIssuerRevoked(vrf_, root.At(0), issuers.At(2)), 1);
    EXPECT_EQ(_pnvIsCrlIssuerRevoked(vrf_, root.At(0), issuers.At(3)), 1);
    EXPECT_EQ(_pnvIsCrlIssuerRevoked(vrf_, issuers.At(0), issuers.At(0)), 0);
}

TEST_F(CrlCompare, CoverageFailsOnAMissingEntry)
{
    const MadeBundle whole{OfA(), OfB()};
    const MadeBundle holed{OfA(), OfB()};
    EXPECT_EQ(_pnvCheckNewCrl(vrf_, whole, holed), 0);
    holed->crl_info_list[1] = nullptr;
    EXPECT_EQ(_pnvCheckNewCrl(vrf_, whole, holed), -1);
    EXPECT_EQ(_pnvCheckNewCrl(vrf_, holed, whole), -1);
}

// ---- Revoke lists ----

class RevokeList : public ::testing::Test {
protected:
    using OwnedRevoked = OwnedItem<PELNIC_SEQOF_X509_REVOKED_item>;

    OwnedRevoked Revoked(const std::vector<Bytes>& serials)
    {
        Bytes entries;
        for (const Bytes& serial : serials) entries = Cat(entries, Seq(Int(serial), UtcTime("250601000000Z")));
        return DecodeItem<PELNIC_SEQOF_X509_REVOKED_item>(vrf_, Seq(entries));
    }
    std::vector<Bytes> Take(const PELNIC_X509_REVOKED* revoked)
    {
        PELNIC_REVOKE_LIST list{};
        EXPECT_EQ(_pnvGetRevokeList(vrf_, &list, revoked), 0u);
        const std::vector<Bytes> serials = Serials(list);
        _pnvDestoryRevokeList(vrf_, &list);
        return serials;
    }

    Vrf vrf_;
};

TEST_F(RevokeList, KeepsTheOrderOfTheCrl)
{
    EXPECT_EQ(Take(Revoked({{0x30}, {0x10}, {0x20}, {0x10}}).get()),
              (std::vector<Bytes>{{0x30}, {0x10}, {0x20}, {0x10}}));
}

TEST_F(RevokeList, LeavesOutLongSerialNumbersWithoutAGap)
{
    const std::vector<Bytes> kept{SerialOf(31), SerialOf(32), {0x01}};
    EXPECT_EQ(Take(Revoked({SerialOf(33), SerialOf(31), SerialOf(33), SerialOf(32), SerialOf(40), {0x01}}).get()),
              kept);
    EXPECT_EQ(Take(Revoked({SerialOf(33), SerialOf(33)}).get()), std::vector<Bytes>{});
}

// 02 21 00 FF ...: the zero that keeps the number positive is dropped on decoding.
TEST_F(RevokeList, MeasuresSerialNumbersWithoutTheirLeadingZero)
{
    const Bytes serial(32, 0xFF);
    EXPECT_EQ(Take(Revoked({Cat(Bytes{0x00}, serial)}).get()), std::vector<Bytes>{serial});
}

TEST_F(RevokeList, LeavesOutEmptySerialNumbers)
{
    const OwnedRevoked revoked = Revoked({{0x01}, {0x02}, {0x03}});
    revoked->revoked_list.data[1]->user_cert->len = 0;
    EXPECT_EQ(Take(revoked.get()), (std::vector<Bytes>{{0x01}, {0x03}}));
}

TEST_F(RevokeList, OfNoEntriesTakesNoMemory)
{
    PELNIC_X509_REVOKED none{};
    PELNIC_REVOKE_LIST list{};
    EXPECT_EQ(_pnvGetRevokeList(vrf_, &list, &none), 0u);
    EXPECT_EQ(list.sn_list, nullptr);
    EXPECT_EQ(list.revoke_count, 0u);
    EXPECT_EQ(vrf_.Plan().Count(Call::Malloc), 0u);
}

TEST_F(RevokeList, PassesUpTheAllocatorsCode)
{
    const OwnedRevoked revoked = Revoked({{0x01}});
    PELNIC_REVOKE_LIST list{};
    vrf_.Plan().Fail(Call::Malloc, 1);
    EXPECT_EQ(_pnvGetRevokeList(vrf_, &list, revoked.get()), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(list.revoke_count, 0u);
    _pnvDestoryRevokeList(vrf_, &list);
    EXPECT_EQ(Told(vrf_.Plan()), Lines{});
}

TEST_F(RevokeList, IsDestroyedOnlyWhereThereIsOne)
{
    _pnvDestoryRevokeList(vrf_, nullptr);
    EXPECT_EQ(vrf_.Plan().Count(Call::Free), 0u);
}

// The first count whose room in octets does not fit into 32 bits.
TEST_F(RevokeList, RefusesWhatNoAllocationCanHold)
{
    const OwnedRevoked revoked = Revoked({{0x01}});
    const PNV_UINT32 trueCount = revoked->revoked_list.num;
    revoked->revoked_list.num = static_cast<PNV_UINT32>((PNV_UINT64{1} << 32) / sizeof(PELNIC_SERIAL_NUM) + 1);
    PELNIC_REVOKE_LIST list{};
    EXPECT_EQ(_pnvGetRevokeList(vrf_, &list, revoked.get()), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(list.revoke_count, 0u);
    revoked->revoked_list.num = trueCount;
}

// ---- Decoding bundles ----

struct FreeBundle {
    PELNIC_VRF_CTX ctx;
    void operator()(PELNIC_CRL_BUNDLE_INFO* bundle) const { EXPECT_EQ(pelnic_crl_free(ctx, bundle), 0u); }
};
using OwnedBundle = std::unique_ptr<PELNIC_CRL_BUNDLE_INFO, FreeBundle>;

const char kRootName[] = "C=ZZ,O=Example,CN=Test Root";
const char kSigningName[] = "C=ZZ,O=Example,CN=Test Signing CA";
const char kTsaName[] = "C=ZZ,O=Example,CN=Test TSA CA";

// A context that trusts nobody, and a PKI to add from.
class CrlBundle : public ::testing::Test {
protected:
    void TearDown() override
    {
        ctx_.reset();
        ExpectNoProblems(plan_);
    }

    PELNIC_VRF_CTX Ctx() const { return *ctx_; }
    PELNIC_VRF* Record() const { return ctx_->Record(); }
    void Add(const CertSpec& cert) const
    {
        const Bytes der = Build(cert);
        ASSERT_EQ(pelnic_verify_add_cert(Ctx(), der.data(), Len(der)), 0u);
    }
    void AddCas() const
    {
        for (const CertSpec& ca : {pki_.root, pki_.signingCa, pki_.tsaCa}) Add(ca);
    }

    OwnedBundle Decode(const Bytes& input) const
    {
        const ExactHeap content(input);
        PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
        EXPECT_EQ(pelnic_decode_crl(Ctx(), content.data(), Len(content), &bundle), 0u);
        return OwnedBundle(bundle, {Ctx()});
    }
    void ExpectRefused(const Bytes& input, PELNIC_ERROR_CODE code) const
    {
        const ExactHeap content(input);
        PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
        EXPECT_EQ(pelnic_decode_crl(Ctx(), content.data(), Len(content), &bundle), code);
        EXPECT_EQ(bundle, nullptr);
    }

    const LIST_TYPE_PELNIC_X509_CRL& Pending() const { return Record()->crl_list; }
    std::size_t StoredCrls() const
    {
        const PELNIC_PKI_TRUST_STORE* store = static_cast<PELNIC_PKI*>(Record()->pki_ctx)->pki_store.trust_store;
        return store == nullptr ? 0 : store->crl_store.num;
    }

    CallbackPlan plan_;
    DemoPki pki_;
    std::optional<Context> ctx_{plan_};
};

// The context trusts the PKI's three CAs.
class CrlDecode : public CrlBundle {
protected:
    void SetUp() override { AddCas(); }
};

TEST_F(CrlDecode, SummarisesEachCrlInItsOrder)
{
    const OwnedBundle bundle =
        Decode(Cat(Build(pki_.tsaCrl), Build(UpdatedOn("260101", pki_.rootCrl)), Build(pki_.signingCrl)));
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(bundle->st_size, sizeof(PELNIC_CRL_BUNDLE_INFO));
    ASSERT_EQ(bundle->crl_count, 3);

    const struct {
        const char* issuer;
        PNV_TIME_T updateTime;
        Bytes serial;
    } expected[] = {
        {kTsaName, k2025, pki_.tsaCa.serial},
        {kRootName, k2026, pki_.root.serial},
        {kSigningName, k2025, pki_.signingCa.serial},
    };
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        const PELNIC_CRL_INFO& info = *bundle->crl_info_list[i];
        EXPECT_EQ(info.st_size, sizeof info);
        EXPECT_EQ(info.valid, 1);
        EXPECT_STREQ(info.issuer, expected[i].issuer);
        EXPECT_EQ(info.update_time, expected[i].updateTime);
        EXPECT_EQ(info.valid_until, k2035);
        EXPECT_EQ(Octets(info.issuer_sn), expected[i].serial);
        EXPECT_EQ(info.revoke_list.sn_list, nullptr);
        EXPECT_EQ(info.revoke_list.revoke_count, 0u);
    }
    for (std::size_t i = 3; i < PELNIC_CRL_BUNDLE_MAX; ++i) EXPECT_EQ(bundle->crl_info_list[i], nullptr) << i;
    EXPECT_EQ(Told(plan_), Lines{});
}

TEST_F(CrlDecode, ReadsPemAsItReadsDer)
{
    const OwnedBundle bundle = Decode(Cat(Pem("X509 CRL", Build(pki_.rootCrl)), Pem("X509 CRL", Build(pki_.tsaCrl))));
    ASSERT_EQ(bundle->crl_count, 2);
    EXPECT_STREQ(bundle->crl_info_list[1]->issuer, kTsaName);
    EXPECT_EQ(bundle->crl_info_list[1]->valid, 1);
}

TEST_F(CrlDecode, KeepsWhatASelfSignedIssuerRevokes)
{
    const std::vector<Bytes> serials{{0x77}, SerialOf(31), SerialOf(33), SerialOf(32), {0x78}};
    const OwnedBundle bundle = Decode(Build(Revoking(serials, pki_.rootCrl)));
    EXPECT_EQ(Serials(bundle->crl_info_list[0]->revoke_list),
              (std::vector<Bytes>{{0x77}, SerialOf(31), SerialOf(32), {0x78}}));
}

TEST_F(CrlDecode, DropsWhatOtherIssuersRevoke)
{
    const OwnedBundle bundle = Decode(Cat(Build(pki_.rootCrl), Build(Revoking({{0x77}}, pki_.signingCrl))));
    EXPECT_EQ(bundle->crl_info_list[1]->valid, 1);
    EXPECT_EQ(bundle->crl_info_list[1]->revoke_list.sn_list, nullptr);
    EXPECT_EQ(bundle->crl_info_list[1]->revoke_list.revoke_count, 0u);
}

TEST_F(CrlDecode, TakesSixteenCrlsAndRefusesSeventeen)
{
    ExpectRefused(DailyCrls(pki_.rootCrl, 17), PELNIC_ERR_CRL_TOO_MANY);
    EXPECT_EQ(Told(plan_), Lines{"error 88200108"});
    EXPECT_EQ(Pending().num, 0u);
    EXPECT_EQ(StoredCrls(), 0u);

    const OwnedBundle bundle = Decode(DailyCrls(pki_.rootCrl, 16));
    EXPECT_EQ(bundle->crl_count, 16);
    for (const PELNIC_CRL_INFO* info : bundle->crl_info_list) EXPECT_EQ(info->valid, 1);
    EXPECT_EQ(StoredCrls(), 16u);
}

TEST_F(CrlDecode, CountsCrlsAndNotCertificates)
{
    const OwnedBundle bundle = Decode(Cat(Build(pki_.signer), DailyCrls(pki_.rootCrl, 16), Build(pki_.tsa)));
    EXPECT_EQ(bundle->crl_count, 16);
}

TEST_F(CrlDecode, EndsAStreamAtWhatDoesNotDecode)
{
    const OwnedBundle bundle = Decode(Cat(Build(pki_.rootCrl), Bytes{0x00, 0x01, 0x02}, Build(pki_.tsaCrl)));
    EXPECT_EQ(bundle->crl_count, 1);
}

TEST_F(CrlDecode, RefusesInputsWithoutACrl)
{
    for (const Bytes& input : {Bytes(37, 0x30), Bytes(38, 0x30), Build(pki_.signer),
                               Text("-----BEGIN X509 CRL----- without an end"), Pem("X509 CRL", Bytes(64, 0x30))}) {
        plan_.ClearLogs();
        ExpectRefused(input, PELNIC_ERR_CRL_DECODE);
        ASSERT_FALSE(plan_.Logs().empty());
        EXPECT_EQ(Told(plan_).back(), "error 88200102");
    }
}

TEST_F(CrlDecode, RefusesNullArgumentsAndNoOctets)
{
    const Bytes crl = Build(pki_.rootCrl);
    PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
    EXPECT_EQ(pelnic_decode_crl(Ctx(), nullptr, Len(crl), &bundle), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_decode_crl(Ctx(), crl.data(), 0, &bundle), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_decode_crl(Ctx(), crl.data(), Len(crl), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(bundle, nullptr);
    EXPECT_EQ(Told(plan_), Lines(3, "error 88100001"));
}

// ---- What the stores get ----

TEST_F(CrlBundle, CertificatesOfTheBundleJoinTheStores)
{
    Add(pki_.root);
    const OwnedBundle bundle = Decode(Cat(pki_.Crls(), Build(pki_.signingCa), Build(pki_.tsaCa)));
    ASSERT_EQ(bundle->crl_count, 3);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(bundle->crl_info_list[i]->valid, 1) << i;
    EXPECT_EQ(Told(plan_), Lines{});
}

TEST_F(CrlBundle, ARootOfTheBundleIsNotTrusted)
{
    const OwnedBundle bundle = Decode(Cat(Build(pki_.root), Build(Revoking({{0x77}}, pki_.rootCrl))));
    EXPECT_EQ(bundle->crl_info_list[0]->valid, 0);
    EXPECT_EQ(bundle->crl_info_list[0]->issuer_sn.sn_len, 0u);
    EXPECT_EQ(bundle->crl_info_list[0]->revoke_list.revoke_count, 0u);
    EXPECT_EQ(Told(plan_), Lines{"warning 00000000 There is a root certificate, which is not "
                                 "allowed when add crl or cms."});
}

TEST_F(CrlDecode, KeepsTheCrlsPendingAndCopiesThemToTheStore)
{
    const OwnedBundle first = Decode(pki_.Crls());
    EXPECT_EQ(Pending().num, 3u);
    EXPECT_EQ(StoredCrls(), 3u);
    EXPECT_EQ(Record()->crl_frozen, 0u);

    const OwnedBundle second = Decode(Cat(Build(pki_.rootCrl), Build(UpdatedOn("260101", pki_.rootCrl))));
    EXPECT_EQ(Pending().num, 5u);
    EXPECT_EQ(StoredCrls(), 4u);
    EXPECT_EQ(Told(plan_), Lines{});
}

TEST_F(CrlDecode, CopiesCrlsThatWereAddedBefore)
{
    const Bytes rootCrl = Build(pki_.rootCrl);
    ASSERT_EQ(pelnic_verify_add_crl(Ctx(), rootCrl.data(), Len(rootCrl)), 0u);
    const OwnedBundle bundle = Decode(Build(pki_.signingCrl));
    ASSERT_EQ(bundle->crl_count, 1);
    EXPECT_EQ(bundle->crl_info_list[0]->valid, 1);
    EXPECT_EQ(StoredCrls(), 2u);
}

TEST_F(CrlDecode, TakesCrlsAfterAVerificationHasBegun)
{
    const Bytes crls = pki_.Crls();
    const Bytes noSignature(38, 0x30);
    EXPECT_NE(pelnic_verify_detach_signature_begin(Ctx(), noSignature.data(), Len(noSignature)), 0u);
    ASSERT_EQ(Record()->crl_frozen, 1u);
    EXPECT_EQ(pelnic_verify_add_crl(Ctx(), crls.data(), Len(crls)), PELNIC_ERR_CRL_FROZEN);
    plan_.ClearLogs();

    const OwnedBundle bundle = Decode(crls);
    EXPECT_EQ(bundle->crl_count, 3);
    EXPECT_EQ(bundle->crl_info_list[1]->valid, 1); // by the root's CRL of the same bundle
    EXPECT_EQ(StoredCrls(), 3u);
    EXPECT_EQ(Record()->crl_frozen, 1u);
    EXPECT_EQ(Told(plan_), Lines{});
}

TEST_F(CrlDecode, LeavesTheContextReadyForAVerification)
{
    const Bytes noSignature(38, 0x30);
    const OwnedBundle bundle = Decode(pki_.Crls());
    EXPECT_NE(pelnic_verify_detach_signature_begin(Ctx(), noSignature.data(), Len(noSignature)), 0u);
    EXPECT_EQ(Record()->crl_frozen, 1u);
    EXPECT_EQ(Pending().num, 0u);
    EXPECT_EQ(StoredCrls(), 3u);
}

// Unlike adding CRLs, where a certificate that cannot be added is a warning. The CRLs are pending by then.
TEST_F(CrlDecode, FailsWithACertificateThatCannotBeAdded)
{
    ExpectRefused(Cat(pki_.Crls(), Build(Version1(pki_.signer))), PELNIC_ERR_CRL_DECODE);
    EXPECT_EQ(Told(plan_).back(), "error 88200102");
    EXPECT_EQ(Pending().num, 3u);
    EXPECT_EQ(StoredCrls(), 0u);

    const OwnedBundle bundle = Decode(Build(pki_.tsaCrl));
    EXPECT_EQ(bundle->crl_info_list[0]->valid, 1);
    EXPECT_EQ(StoredCrls(), 3u);
}

// ---- The issuer's judgement ----

TEST_F(CrlBundle, WithoutItsIssuerACrlIsNotValid)
{
    const OwnedBundle bundle = Decode(Build(pki_.rootCrl));
    const PELNIC_CRL_INFO& info = *bundle->crl_info_list[0];
    EXPECT_EQ(info.valid, 0);
    EXPECT_STREQ(info.issuer, kRootName);
    EXPECT_EQ(info.update_time, k2025);
    EXPECT_EQ(info.valid_until, k2035);
    EXPECT_EQ(info.issuer_sn.sn_len, 0u);
    EXPECT_EQ(Record()->base_time, 0);

    PELNIC_CRL_PERIOD_STAT stat = SCPS_NEW;
    EXPECT_EQ(pelnic_crl_compare(Ctx(), bundle.get(), bundle.get(), &stat), PELNIC_ERR_CRL_INVALID_ENTRY);
    EXPECT_EQ(stat, SCPS_MIX);
}

TEST_F(CrlDecode, ACrlThatItsIssuerDidNotSignIsNotValid)
{
    CrlSpec forged = pki_.rootCrl;
    forged.brokenSignature = true;
    CrlSpec foreign = pki_.rootCrl;
    foreign.issuerKey = KeyId::Rsa2048H;
    for (const CrlSpec& crl : {forged, foreign}) {
        const OwnedBundle bundle = Decode(Build(Revoking({{0x77}}, crl)));
        EXPECT_EQ(bundle->crl_info_list[0]->valid, 0);
        EXPECT_EQ(bundle->crl_info_list[0]->issuer_sn.sn_len, 0u);
        EXPECT_EQ(bundle->crl_info_list[0]->revoke_list.revoke_count, 0u);
    }
}

TEST_F(CrlBundle, AnIssuerWithoutCrlSignIsNone)
{
    Add(With(pki_.root, &CertSpec::keyUsage, usage::keyCertSign));
    EXPECT_EQ(Decode(Build(pki_.rootCrl))->crl_info_list[0]->valid, 0);
}

// The issuer is known then, but nothing says that it is not revoked.
TEST_F(CrlDecode, AnIntermediateIssuerNeedsTheRootsCrl)
{
    const OwnedBundle bundle = Decode(Build(pki_.signingCrl));
    EXPECT_EQ(bundle->crl_info_list[0]->valid, 0);
    EXPECT_EQ(Octets(bundle->crl_info_list[0]->issuer_sn), pki_.signingCa.serial);
    EXPECT_EQ(Record()->base_time, k2025);
}

TEST_F(CrlDecode, WithoutRevocationChecksAnIntermediateIssuerNeedsNoCrl)
{
    PELNIC_VRF_PARAMS params{};
    params.st_size = sizeof params;
    params.no_check_crl = 1;
    ASSERT_EQ(pelnic_set_verify_params(Ctx(), &params), 0u);
    EXPECT_EQ(Decode(Build(pki_.signingCrl))->crl_info_list[0]->valid, 1);
}

TEST_F(CrlDecode, ARevokedIssuerIsNotValid)
{
    const OwnedBundle bundle = Decode(Cat(Build(pki_.tsaCrl), Build(Revoking({pki_.tsaCa.serial}, pki_.rootCrl))));
    EXPECT_EQ(bundle->crl_info_list[0]->valid, 0);
    EXPECT_EQ(bundle->crl_info_list[1]->valid, 1);
}

// Each CRL is judged at its own date, whatever the dates of the others: the root here ends with 2025.
TEST_F(CrlBundle, TheIssuerIsJudgedAtTheCrlsOwnDate)
{
    CertSpec root = pki_.root;
    root.notBefore = UtcTime("250101000000Z");
    root.notAfter = UtcTime("251231235959Z");
    Add(root);
    const OwnedBundle bundle =
        Decode(Cat(Build(UpdatedOn("241231", pki_.rootCrl)), Build(UpdatedOn("250101", pki_.rootCrl)),
                   Build(UpdatedOn("251231", pki_.rootCrl)), Build(UpdatedOn("260101", pki_.rootCrl))));
    ASSERT_EQ(bundle->crl_count, 4);
    EXPECT_EQ(bundle->crl_info_list[0]->valid, 0);
    EXPECT_EQ(bundle->crl_info_list[1]->valid, 1);
    EXPECT_EQ(bundle->crl_info_list[2]->valid, 1);
    EXPECT_EQ(bundle->crl_info_list[3]->valid, 0);
}

// An issuer that did not verify still shows what it revokes, if it signed itself.
TEST_F(CrlBundle, AnExpiredRootIsSummarisedWithItsRevokeList)
{
    Add(With(pki_.root, &CertSpec::notAfter, UtcTime("240101000000Z")));
    const OwnedBundle bundle = Decode(Build(Revoking({{0x77}}, pki_.rootCrl)));
    EXPECT_EQ(bundle->crl_info_list[0]->valid, 0);
    EXPECT_EQ(Serials(bundle->crl_info_list[0]->revoke_list), std::vector<Bytes>{{0x77}});
    EXPECT_EQ(Octets(bundle->crl_info_list[0]->issuer_sn), pki_.root.serial);
}

TEST_F(CrlDecode, TheContextsTimeStaysAtTheLastCrlWithAnIssuer)
{
    CrlSpec stranger = UpdatedOn("270101", pki_.rootCrl);
    stranger.issuer = TestName("Nobody");
    const OwnedBundle bundle = Decode(
        Cat(Build(UpdatedOn("260101", pki_.rootCrl)), Build(UpdatedOn("240101", pki_.signingCrl)), Build(stranger)));
    EXPECT_EQ(bundle->crl_count, 3);
    EXPECT_EQ(Record()->base_time, k2024);

    (void)Decode(Build(UpdatedOn("260101", pki_.rootCrl)));
    EXPECT_EQ(Record()->base_time, k2026);
}

TEST_F(CrlDecode, ATimeThatDoesNotConvertIsZero)
{
    (void)Decode(Build(pki_.rootCrl));
    ASSERT_EQ(Record()->base_time, k2025);

    const Bytes fraction = GenTime("20250101000000.5Z");
    const OwnedBundle bundle = Decode(Cat(Build(With(pki_.rootCrl, &CrlSpec::nextUpdate, fraction)),
                                          Build(With(pki_.rootCrl, &CrlSpec::thisUpdate, fraction))));
    ASSERT_EQ(bundle->crl_count, 2);
    EXPECT_EQ(bundle->crl_info_list[0]->update_time, k2025);
    EXPECT_EQ(bundle->crl_info_list[0]->valid_until, 0);
    EXPECT_EQ(bundle->crl_info_list[0]->valid, 1);
    EXPECT_EQ(bundle->crl_info_list[1]->update_time, 0);
    EXPECT_EQ(bundle->crl_info_list[1]->valid_until, k2035);
    EXPECT_EQ(bundle->crl_info_list[1]->valid, 0); // judged in 1970
    EXPECT_EQ(Record()->base_time, 0);
    EXPECT_EQ(Told(plan_), Lines{});
}

TEST_F(CrlDecode, IssuerSerialNumbersOfMoreThan32OctetsAreLeftOut)
{
    const Bytes positive = Cat(Bytes{0x00}, Bytes(32, 0xFF)); // 33 octets of content for a number of 32
    const struct {
        Bytes serial, kept;
    } cases[] = {
        {SerialOf(31), SerialOf(31)}, {SerialOf(32), SerialOf(32)}, {SerialOf(33), {}}, {positive, Bytes(32, 0xFF)}};
    for (const auto& [serial, kept] : cases) {
        SCOPED_TRACE(serial.size());
        CertSpec ca = With(pki_.signingCa, &CertSpec::serial, serial);
        ca.subject = TestName("CA " + std::to_string(serial[0]) + " " + std::to_string(serial.size()));
        Add(ca);
        const OwnedBundle bundle = Decode(Cat(Build(pki_.rootCrl), Build(CrlOf(ca))));
        EXPECT_EQ(bundle->crl_info_list[1]->valid, 1);
        EXPECT_EQ(Octets(bundle->crl_info_list[1]->issuer_sn), kept);
    }
}

// A serialNumber attribute is unknown to the table of identifiers.
TEST_F(CrlBundle, AnIssuerNameThatDoesNotConvertIsEmpty)
{
    CertSpec root = pki_.root;
    root.subject = Name(C("ZZ"), NameAttr(oid::serialNumber, Printable("1")), Cn("Numbered"));
    Add(IssuedBy(root, root));
    CertSpec other = Root(KeyId::Rsa2048F);
    other.subject = Name(NameAttr(oid::serialNumber, Printable("2")));
    Add(IssuedBy(other, other));

    const OwnedBundle bundle = Decode(Cat(Build(CrlOf(root)), Build(CrlOf(other))));
    ASSERT_EQ(bundle->crl_count, 2);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_STREQ(bundle->crl_info_list[i]->issuer, "");
        EXPECT_EQ(bundle->crl_info_list[i]->valid, 1);
    }
    EXPECT_EQ(Told(plan_), Lines{});

    PELNIC_CRL_PERIOD_STAT stat = SCPS_NEW;
    EXPECT_EQ(pelnic_crl_compare(Ctx(), bundle.get(), bundle.get(), &stat), PELNIC_ERR_CRL_DUPLICATE_ISSUER);
    EXPECT_EQ(stat, SCPS_MIX);
}

TEST_F(CrlBundle, ALongIssuerNameIsCutBetweenItsAttributes)
{
    CertSpec root = pki_.root;
    const std::string wide(100, 'w');
    root.subject = Name(C("ZZ"), Ou(wide), O(wide), L(wide), Cn("End"));
    Add(IssuedBy(root, root));
    const OwnedBundle bundle = Decode(Build(CrlOf(IssuedBy(root, root))));
    EXPECT_EQ(bundle->crl_info_list[0]->issuer, "C=ZZ,OU=" + wide + ",O=" + wide + ",CN=End");
    EXPECT_EQ(bundle->crl_info_list[0]->valid, 1);
}

// ---- One summary ----

TEST_F(CrlDecode, OneSummaryFailsOnlyForWantOfItsMemory)
{
    const OwnedCrl crl = DecodeCrl(Record(), Build(pki_.rootCrl));
    PELNIC_CRL_INFO* info = nullptr;
    plan_.Fail(Call::Malloc, 1);
    EXPECT_EQ(_pnvGetCrlInfo(Record(), crl.get(), &info), PELNIC_ERR_SYS_MEM_ALLOC);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(Told(plan_), Lines{"error 88000001"});
}

// ---- From the bundles to the verdict ----

class CrlUpdate : public CrlDecode {
protected:
    void ExpectVerdict(const Bytes& offered, const Bytes& device, PELNIC_ERROR_CODE code,
                       PELNIC_CRL_PERIOD_STAT verdict)
    {
        const OwnedBundle onDevice = Decode(device);
        const OwnedBundle toUpdate = Decode(offered);
        PELNIC_CRL_PERIOD_STAT stat = verdict == SCPS_MIX ? SCPS_NEW : SCPS_MIX;
        EXPECT_EQ(pelnic_crl_compare(Ctx(), toUpdate.get(), onDevice.get(), &stat), code);
        EXPECT_EQ(stat, verdict);
    }

    const Bytes newRootCrl_ = Build(UpdatedOn("260101", pki_.rootCrl));
    const Bytes newSigningCrl_ = Build(UpdatedOn("260101", pki_.signingCrl));
    const Bytes newRootCrlWithoutTsa_ = Build(UpdatedOn("260101", Revoking({pki_.tsaCa.serial}, pki_.rootCrl)));
};

TEST_F(CrlUpdate, TheSameBundleIsTheSame)
{
    ExpectVerdict(pki_.Crls(), pki_.Crls(), 0, SCPS_SAME);
}

TEST_F(CrlUpdate, ALaterCrlIsNewer)
{
    ExpectVerdict(Cat(newRootCrl_, Build(pki_.signingCrl), Build(pki_.tsaCrl)), pki_.Crls(), 0, SCPS_NEW);
}

TEST_F(CrlUpdate, AnEarlierCrlIsOlder)
{
    ExpectVerdict(pki_.Crls(), Cat(Build(pki_.rootCrl), newSigningCrl_, Build(pki_.tsaCrl)), 0, SCPS_OLD);
}

TEST_F(CrlUpdate, LaterAndEarlierIsMixed)
{
    ExpectVerdict(Cat(Build(pki_.rootCrl), newSigningCrl_), Cat(newRootCrl_, Build(pki_.signingCrl)), 0, SCPS_MIX);
}

TEST_F(CrlUpdate, ADroppedIssuerIsRefused)
{
    ExpectVerdict(Cat(newRootCrl_, newSigningCrl_), pki_.Crls(), PELNIC_ERR_CRL_ISSUER_DROPPED, SCPS_MIX);
}

TEST_F(CrlUpdate, ADroppedIssuerThatTheRootRevokedIsNot)
{
    ExpectVerdict(Cat(newRootCrlWithoutTsa_, newSigningCrl_), pki_.Crls(), 0, SCPS_NEW);
}

TEST_F(CrlUpdate, ARevokedIssuersOwnCrlSpoilsTheBundle)
{
    ExpectVerdict(Cat(newRootCrlWithoutTsa_, newSigningCrl_, Build(pki_.tsaCrl)), pki_.Crls(),
                  PELNIC_ERR_CRL_INVALID_ENTRY, SCPS_MIX);
}

// Serial numbers of 33 octets stand in no summary, so their revocation excuses nothing.
TEST_F(CrlUpdate, OnlySerialNumbersOfUpTo32OctetsAreExcused)
{
    for (std::size_t octets : {31u, 32u, 33u}) {
        SCOPED_TRACE(octets);
        CertSpec ca = With(pki_.signingCa, &CertSpec::serial, SerialOf(octets));
        ca.subject = TestName("CA " + std::to_string(octets));
        Add(ca);
        const Bytes device = Cat(Build(pki_.rootCrl), Build(CrlOf(ca)));
        const Bytes offered = Build(UpdatedOn("260101", Revoking({ca.serial}, pki_.rootCrl)));
        if (octets <= 32) {
            ExpectVerdict(offered, device, 0, SCPS_NEW);
        } else {
            ExpectVerdict(offered, device, PELNIC_ERR_CRL_ISSUER_DROPPED, SCPS_MIX);
        }
    }
}

// ---- Files ----

class CrlFile : public CrlDecode {
protected:
    PELNIC_ERROR_CODE DecodeFile(const char* path) { return pelnic_decode_crl_file(Ctx(), path, &bundle_); }
    void ExpectRefused(const char* path, PELNIC_ERROR_CODE code, const Lines& lines)
    {
        EXPECT_EQ(DecodeFile(path), code);
        EXPECT_EQ(bundle_, nullptr);
        EXPECT_EQ(Told(plan_), lines);
    }
    void ExpectCrls(const std::string& path, int count)
    {
        ASSERT_EQ(DecodeFile(path.c_str()), 0u);
        EXPECT_EQ(bundle_->crl_count, count);
        EXPECT_EQ(bundle_->crl_info_list[0]->valid, 1);
        EXPECT_EQ(pelnic_crl_free(Ctx(), bundle_), 0u);
    }

    TempDir dir_;
    PELNIC_CRL_BUNDLE_INFO* bundle_ = nullptr;
};

TEST_F(CrlFile, IsReadAsDerOrPem)
{
    ExpectCrls(dir_.Write("crls.der", pki_.Crls()), 3);
    ExpectCrls(dir_.Write("crl.pem", Pem("X509 CRL", Build(pki_.rootCrl))), 1);
}

TEST_F(CrlFile, NullArgumentsAreRefused)
{
    const std::string path = dir_.Write("crl.der", Build(pki_.rootCrl));
    EXPECT_EQ(DecodeFile(nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(pelnic_decode_crl_file(Ctx(), path.c_str(), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(Told(plan_), Lines(2, "error 88100001"));
    EXPECT_EQ(plan_.Count(Call::Fopen), 0u);
}

// The reader logs one code and returns another, which is logged again.
TEST_F(CrlFile, AnEmptyPathIsRefused)
{
    ExpectRefused("", PELNIC_ERR_NULL_POINTER, {"error 88000101 Empty file path.", "error 88100001"});
}

TEST_F(CrlFile, AMissingFileIsRefused)
{
    const std::string path = dir_.Path("missing");
    ExpectRefused(path.c_str(), PELNIC_ERR_SYS_FILE_OPEN,
                  {"error 88000101 Can not open file '" + path + "'.", "error 88000101"});
}

TEST_F(CrlFile, AnEmptyFileIsRefused)
{
    ExpectRefused(dir_.Write("empty", {}).c_str(), PELNIC_ERR_SYS_FILE_EMPTY, {"error 88000104", "error 88000104"});
}

TEST_F(CrlFile, TwoMillionOctetsAreRead)
{
    ExpectCrls(dir_.WriteSparse("two_million", 2000000, Build(pki_.rootCrl)), 1);
}

TEST_F(CrlFile, OneOctetMoreIsRefused)
{
    ExpectRefused(dir_.WriteSparse("more", 2000001, Build(pki_.rootCrl)).c_str(), PELNIC_ERR_SYS_FILE_TOO_LARGE,
                  {"error 88000106", "error 88000106"});
}

TEST_F(CrlFile, AShortReadIsRefused)
{
    plan_.Fail(Call::Fread, 1);
    ExpectRefused(dir_.Write("crl.der", Build(pki_.rootCrl)).c_str(), PELNIC_ERR_SYS_FILE_READ, {"error 88000102"});
}

TEST_F(CrlFile, ContentWithoutACrlIsRefused)
{
    EXPECT_EQ(DecodeFile(dir_.Write("zeros", Bytes(100, 0x00)).c_str()), PELNIC_ERR_CRL_DECODE);
    EXPECT_EQ(bundle_, nullptr);
    EXPECT_EQ(Told(plan_).front(), "error 88200102");
}

TEST_F(CrlFile, SeventeenCrlsAreRefused)
{
    EXPECT_EQ(DecodeFile(dir_.Write("many", DailyCrls(pki_.rootCrl, 17)).c_str()), PELNIC_ERR_CRL_TOO_MANY);
    EXPECT_EQ(bundle_, nullptr);
    EXPECT_EQ(Told(plan_).front(), "error 88200108");
}

// ---- Release, and handles that are none ----

TEST_F(CrlBundle, FreeingNothingIsRefusedUnlogged)
{
    EXPECT_EQ(pelnic_crl_free(Ctx(), nullptr), PELNIC_ERR_NULL_POINTER);
    EXPECT_EQ(Told(plan_), Lines{});
}

// The plan complains at the test's end about whatever is left or given back twice.
TEST_F(CrlDecode, FreeingStaysWithinTheBundlesTable)
{
    const Bytes crls = DailyCrls(Revoking({{0x77}}, pki_.rootCrl), 16);
    for (PNV_INT count : {16, 17, kIntMax}) {
        OwnedBundle bundle = Decode(crls);
        bundle->crl_count = count;
        EXPECT_EQ(pelnic_crl_free(Ctx(), bundle.release()), 0u) << count;
    }
    for (PNV_INT count : {0, -1, kIntMin}) {
        OwnedBundle bundle = Decode(Build(pki_.rootCrl));
        PELNIC_CRL_INFO* kept = std::exchange(bundle->crl_info_list[0], nullptr);
        bundle->crl_count = count;
        EXPECT_EQ(pelnic_crl_free(Ctx(), bundle.release()), 0u) << count;
        plan_.Table().plt_funcs.sys_funcs.mem_funcs.free(kept);
    }
}

TEST_F(CrlDecode, FreeingPassesOverMissingEntries)
{
    OwnedBundle bundle = Decode(pki_.Crls());
    PELNIC_CRL_INFO* kept = std::exchange(bundle->crl_info_list[1], nullptr);
    EXPECT_EQ(pelnic_crl_free(Ctx(), bundle.release()), 0u);
    plan_.Table().plt_funcs.sys_funcs.mem_funcs.free(kept);
}

TEST_F(CrlBundle, EveryOperationTestsItsHandleFirst)
{
    std::vector<PELNIC_ERROR_CODE> codes;
    const auto callAll = [&](PELNIC_VRF_CTX ctx) {
        codes = {pelnic_decode_crl(ctx, nullptr, 0, nullptr), pelnic_decode_crl_file(ctx, nullptr, nullptr),
                 pelnic_crl_compare(ctx, nullptr, nullptr, nullptr), pelnic_crl_free(ctx, nullptr)};
    };
    callAll(nullptr);
    EXPECT_EQ(codes, std::vector<PELNIC_ERROR_CODE>(4, PELNIC_ERR_NULL_POINTER));

    const std::size_t trueSize = Record()->st_size;
    for (std::size_t size : {std::size_t{0}, trueSize - 1, trueSize + 1}) {
        Record()->st_size = size;
        callAll(Ctx());
        EXPECT_EQ(codes, std::vector<PELNIC_ERROR_CODE>(4, PELNIC_ERR_INVALID_SIZE));
    }
    Record()->st_size = trueSize;
    EXPECT_EQ(Told(plan_), Lines{});
}

// ---- Hostile input and faults ----

TEST_F(CrlBundle, EveryPrefixIsRefusedOrGivesFewerCrls)
{
    const Bytes crls = Cat(Build(pki_.rootCrl), Build(Revoking({{0x77}}, pki_.signingCrl)));
    const Bytes firstCrl = Build(pki_.rootCrl);
    ForEveryPrefix(crls, [&](const ExactHeap& input) {
        PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
        const PELNIC_ERROR_CODE rc = pelnic_decode_crl(Ctx(), input.data(), Len(input), &bundle);
        if (input.size() == 0) {
            EXPECT_EQ(rc, PELNIC_ERR_NULL_POINTER);
        } else if (input.size() < firstCrl.size()) {
            EXPECT_EQ(rc, PELNIC_ERR_CRL_DECODE);
        } else {
            EXPECT_EQ(rc, 0u);
        }
        EXPECT_EQ(bundle != nullptr, rc == 0);
        if (bundle == nullptr) return;
        EXPECT_EQ(bundle->crl_count, 1);
        EXPECT_EQ(pelnic_crl_free(Ctx(), bundle), 0u);
    });
}

// A bundle whose second CRL is of an issuer that the first one revokes, decoded with the n-th call failing.
class CrlFaults : public ::testing::Test {
protected:
    struct Outcome {
        PELNIC_ERROR_CODE rc = 0;
        bool logged = false;
        std::vector<std::string> valid{}; // issuers
        std::size_t summaries = 0;
    };

    // A context that trusts the PKI's CAs, made without faults.
    std::unique_ptr<Context> Trusting(CallbackPlan& plan) const
    {
        std::unique_ptr<Context> ctx;
        plan.WithoutFaults([&] {
            ctx = std::make_unique<Context>(plan);
            for (const CertSpec& ca : {pki_.root, pki_.signingCa, pki_.tsaCa}) {
                const Bytes der = Build(ca);
                EXPECT_EQ(pelnic_verify_add_cert(*ctx, der.data(), Len(der)), 0u);
            }
        });
        return ctx;
    }

    static Outcome DecodeIn(PELNIC_VRF_CTX ctx, const CallbackPlan& plan, const Bytes& input)
    {
        PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
        const PELNIC_ERROR_CODE rc = pelnic_decode_crl(ctx, input.data(), Len(input), &bundle);
        return Taken(ctx, plan, rc, bundle);
    }
    // What a decoding answered; releases the bundle.
    static Outcome Taken(PELNIC_VRF_CTX ctx, const CallbackPlan& plan, PELNIC_ERROR_CODE rc,
                         PELNIC_CRL_BUNDLE_INFO* bundle)
    {
        Outcome outcome;
        outcome.rc = rc;
        for (const LogRecord& record : plan.Logs()) {
            outcome.logged |= record.level == PELNIC_LOG_TYPE_ERROR && record.rc == rc;
        }
        EXPECT_EQ(bundle != nullptr, rc == 0);
        if (bundle == nullptr) return outcome;

        outcome.summaries = static_cast<std::size_t>(bundle->crl_count);
        for (std::size_t i = 0; i < outcome.summaries; ++i) {
            if (bundle->crl_info_list[i]->valid != 0) outcome.valid.push_back(bundle->crl_info_list[i]->issuer);
        }
        EXPECT_EQ(pelnic_crl_free(ctx, bundle), 0u);
        return outcome;
    }

    // The failures that these kinds of calls may end in.
    void Sweep(Calls kinds, const std::vector<PELNIC_ERROR_CODE>& codes)
    {
        SweepFaults(
            kinds,
            [&](CallbackPlan& plan) {
                if (!realCryptography_) plan.StubVerification(0, 1);
                return DecodeIn(*Trusting(plan), plan, input_);
            },
            [&](const Outcome& outcome, const FaultRun& run) { Judge(outcome, run, codes); });
    }
    void Judge(const Outcome& outcome, const FaultRun& run, const std::vector<PELNIC_ERROR_CODE>& codes)
    {
        if (outcome.rc != 0) {
            EXPECT_TRUE(run.met);
            EXPECT_NE(std::find(codes.begin(), codes.end(), outcome.rc), codes.end()) << outcome.rc;
            EXPECT_TRUE(outcome.logged);
            return;
        }
        for (const std::string& issuer : outcome.valid) EXPECT_NE(issuer, kSigningName);
        EXPECT_LE(outcome.valid.size(), 2u);
        if (!run.met) {
            EXPECT_EQ(outcome.summaries, 3u);
            EXPECT_EQ(outcome.valid.size(), 2u);
        }
        summaryLeftOut_ |= outcome.summaries < 3;
    }

    const DemoPki pki_;
    const Bytes input_ =
        Cat(Build(Revoking({pki_.signingCa.serial}, pki_.rootCrl)), Build(pki_.signingCrl), Build(pki_.tsaCrl));
    bool realCryptography_ = false;
    bool summaryLeftOut_ = false;
};

TEST_F(CrlFaults, WantOfMemoryIsRefusedOrLeavesSummariesOut)
{
    Sweep(Call::Malloc, {PELNIC_ERR_SYS_MEM_ALLOC, PELNIC_ERR_CRL_DECODE});
    EXPECT_TRUE(summaryLeftOut_);
}

TEST_F(CrlFaults, FailingCopiesNeverMakeAnIssuerValid)
{
    Sweep(calls::copies, {injectedFault, PELNIC_ERR_CRL_DECODE});
}

TEST_F(CrlFaults, FailingCryptographyNeverMakesAnIssuerValid)
{
    realCryptography_ = true;
    Sweep(calls::crypto, {});
    Sweep(Call::VerifyVerdict, {});
}

// One wrong answer of the cryptography can let a self-signed certificate in, but never to the end of a chain.
TEST_F(CrlFaults, FailingCryptographyNeverMakesARootOfTheBundleTrusted)
{
    const Bytes input = Cat(Build(pki_.root), pki_.Crls(), Build(pki_.signingCa));
    for (Calls kinds : {calls::verification, Calls(Call::VerifyVerdict)}) {
        SweepFaults(
            kinds,
            [&](CallbackPlan& plan) {
                const Context ctx(plan);
                return DecodeIn(ctx, plan, input);
            },
            [](const Outcome& outcome, const FaultRun&) {
                EXPECT_TRUE(outcome.rc == 0 || outcome.rc == PELNIC_ERR_CRL_DECODE);
                EXPECT_EQ(outcome.valid, std::vector<std::string>{});
            });
    }
}

TEST_F(CrlFaults, FailingFilesAreRefused)
{
    const TempDir dir;
    const std::string path = dir.Write("crls", input_);
    SweepFaults(
        calls::files,
        [&](CallbackPlan& plan) {
            const std::unique_ptr<Context> ctx = Trusting(plan);
            PELNIC_CRL_BUNDLE_INFO* bundle = nullptr;
            const PELNIC_ERROR_CODE rc = pelnic_decode_crl_file(*ctx, path.c_str(), &bundle);
            return Taken(*ctx, plan, rc, bundle);
        },
        [&](const Outcome& outcome, const FaultRun& run) {
            Judge(outcome, run, {PELNIC_ERR_SYS_FILE_OPEN, PELNIC_ERR_SYS_FILE_TOO_LARGE, PELNIC_ERR_SYS_FILE_READ});
        });
}

// A comparison takes memory for its log record only.
TEST_F(CrlFaults, AComparisonNeedsNoMemory)
{
    const MadeBundle newer{OfA(k2026)};
    const MadeBundle older{OfA()};
    SweepFaults(
        Call::Malloc | calls::copies,
        [&](CallbackPlan& plan) {
            Vrf vrf(plan);
            PELNIC_CRL_PERIOD_STAT good = SCPS_MIX;
            PELNIC_CRL_PERIOD_STAT dropped = SCPS_NEW;
            EXPECT_EQ(pelnic_crl_compare(vrf, newer, older, &good), 0u);
            EXPECT_EQ(pelnic_crl_compare(vrf, newer, MadeBundle{OfB()}, &dropped), PELNIC_ERR_CRL_ISSUER_DROPPED);
            return std::make_pair(good, dropped);
        },
        [](const auto& verdicts, const FaultRun&) {
            EXPECT_EQ(verdicts.first, SCPS_NEW);
            EXPECT_EQ(verdicts.second, SCPS_MIX);
        });
}

} // namespace
} // namespace pnvtest
