// The observer and the elements being decoded, both per thread, because a context belongs to one thread.
#include "pelnic_witness.h"

#ifdef CMSVERIFY_WITNESS

static thread_local Witness current;
static thread_local const DecodeStep* innermost;

DecodeStep::DecodeStep(const PELNIC_BUF* b, const PELNIC_ASN1_TEMPLATE* templ, const PNV_CHAR* field,
                       PNV_UINT32 indexInList)
    : above(innermost), input(b), row(templ), name(field), index(indexInList), offset(b == nullptr ? 0 : b->iCursor)
{
    innermost = this;
}

DecodeStep::~DecodeStep()
{
    innermost = above;
}

Witness _pnvSetWitness(Witness witness)
{
    const Witness before = current;
    current = witness;
    return before;
}

void _pnvTell(const WitnessEvent& event)
{
    if (current.func != nullptr) current.func(current.user, event);
}

void _pnvTellFault(DecodeFault fault, const PELNIC_ASN1_TEMPLATE* row)
{
    if (innermost == nullptr) return; // a part of the decoder, called on its own
    WitnessEvent event{Decision::Undecodable};
    event.step = innermost;
    event.fault = fault;
    event.row = row != nullptr ? row : innermost->row;
    _pnvTell(event);
}

#endif
