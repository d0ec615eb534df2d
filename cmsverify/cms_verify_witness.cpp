// The reason code: of all that the witness tells, the decision that stands behind the end of an operation.
//
// That is the last refusal before the operation ends, but for those that only hand up another one. A refusal that did
// not decide anything, of one issuer among several for instance, is followed by another decision or by none at all.
#include "include/pelnic_cms_witness.h"

#include "pelnic_witness.h"
#include "pelnic_x509_templ.h"

#ifdef CMSVERIFY_WITNESS

constexpr PNV_BYTE FORMAT = 1;
constexpr PNV_UINT32 TAIL = 8; // octets of a serial number or of an element

struct ReasonCode {
    PNV_BYTE octets[PELNIC_REASON_SIZE];
};

static thread_local struct {
    func_pelnic_witness func;
    void* user;
    ReasonCode reason;
    PNV_BYTE signer; // from 1
    bool isAuthority;
    PNV_TIME_T time;
} reporter;

static void putNumber(ReasonCode* reason, PNV_UINT32 at, PNV_UINT64 number)
{
    for (PNV_UINT32 i = 4; i-- > 0; number >>= 8) reason->octets[at + i] = static_cast<PNV_BYTE>(number);
}

static void putSerial(ReasonCode* reason, const PELNIC_ASN_BIGINT* serial)
{
    for (PNV_UINT32 i = 0; i < TAIL && i < serial->len; ++i) {
        reason->octets[PELNIC_REASON_SIZE - 1 - i] = serial->octs[serial->len - 1 - i];
    }
}

static void putElement(ReasonCode* reason, const WitnessEvent& event)
{
    reason->octets[20] = static_cast<PNV_BYTE>(event.fault);
    for (const DecodeStep* step = event.step->above; step != nullptr; step = step->above) ++reason->octets[21];
    putNumber(reason, 16, event.step->offset);
    const PELNIC_BUF* const input = event.step->input;
    for (PNV_UINT32 i = 0; input != nullptr && i < TAIL && event.step->offset + i < input->nBufLen; ++i) {
        reason->octets[PELNIC_REASON_SIZE - TAIL + i] = input->pVal[event.step->offset + i];
    }
}

static ReasonCode reasonOf(const WitnessEvent& event)
{
    ReasonCode reason = {};
    reason.octets[0] = FORMAT;
    reason.octets[1] = static_cast<PNV_BYTE>(event.decision);
    reason.octets[2] = reporter.signer;
    reason.octets[3] = reporter.isAuthority ? 1 : 0;
    putNumber(&reason, 8, event.code);
    putNumber(&reason, 12, static_cast<PNV_UINT64>(reporter.time));
    if (event.step != nullptr) putElement(&reason, event);
    if (event.unfit != CrlUnfit::None) reason.octets[20] = static_cast<PNV_BYTE>(event.unfit);
    if (event.unfit == CrlUnfit::Expired) putNumber(&reason, 16, static_cast<PNV_UINT64>(event.time));
    if (event.cert != nullptr) putSerial(&reason, event.cert->toBeSigned->serialNumber);
    return reason;
}

// Whether another refusal came first, and this one is only its consequence.
static bool isConsequence(const WitnessEvent& event)
{
    switch (event.decision) {
    case Decision::Roots:
    case Decision::Crls:
    case Decision::Signature:
    case Decision::Token:
    case Decision::Time:
    case Decision::Link:
    case Decision::ChainDone:
    case Decision::AuthorityDone:
    case Decision::SignerDone:
    case Decision::Begun: return reporter.reason.octets[0] != 0;
    case Decision::CrlChosen: // no CRL counts for more than what came before, but for a CRL that cannot be used
        return reporter.reason.octets[0] != 0 &&
               (event.code != PELNIC_ERR_CRL_NOT_FOUND ||
                reporter.reason.octets[1] == static_cast<PNV_BYTE>(Decision::CrlUnfit));
    default: return false;
    }
}

static bool isRefusal(const WitnessEvent& event)
{
    if (event.decision == Decision::Payload) return event.code != 0 || event.number == 0;
    return event.code != 0 || event.fault != DecodeFault::None || event.unfit != CrlUnfit::None;
}

static void follow(const WitnessEvent& event)
{
    if (event.decision == Decision::Signer) ++reporter.signer;
    if (event.decision == Decision::Time && event.code == 0) reporter.time = event.time;
    if (event.decision == Decision::Authority) reporter.isAuthority = true;
    if (event.decision == Decision::AuthorityDone) reporter.isAuthority = false;
}

// The ends of the public operations.
static bool isEnd(const WitnessEvent& event)
{
    if (event.decision == Decision::Signature) return event.code != 0;
    return event.decision == Decision::Roots || event.decision == Decision::Crls || event.decision == Decision::Begun ||
           event.decision == Decision::Payload;
}

static void note(void*, const WitnessEvent& event)
{
    if (isRefusal(event)) {
        if (!isConsequence(event)) reporter.reason = reasonOf(event);
    } else if (event.decision != Decision::Link) {
        reporter.reason = {}; // whatever was refused on the way was not needed
    }
    follow(event);
    if (!isEnd(event)) return;
    if (isRefusal(event)) {
        putNumber(&reporter.reason, 4, event.code);
        reporter.func(reporter.user, reporter.reason.octets);
    }
    reporter.reason = {};
    reporter.signer = 0;
    reporter.isAuthority = false;
    if (event.decision != Decision::Begun) reporter.time = 0;
}

void pelnic_set_witness(func_pelnic_witness func, void* user)
{
    reporter = {func, user, {}, 0, false, 0};
    (void)_pnvSetWitness({func != nullptr ? note : nullptr, nullptr});
}

#endif
