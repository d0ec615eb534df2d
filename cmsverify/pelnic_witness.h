// What a verification decides and where decoding fails, told while it happens to whoever asked for it.
//
// A product has none of it: without CMSVERIFY_WITNESS every macro below is nothing, or the code that it is given. With
// it no decision, code or log record is another, and none of the witness's answers is ever asked for.
#ifndef PELNIC_WITNESS_H
#define PELNIC_WITNESS_H

#ifdef CMSVERIFY_WITNESS

#include "pelnic_asn1_templ.h"

typedef struct pelnic_x509_cert_st PELNIC_X509_CERT;
typedef struct pelnic_x509_crl_st PELNIC_X509_CRL;

// Why an element does not decode.
enum class DecodeFault : PNV_BYTE {
    None,
    End,        // nothing stands there
    TagForm,    // a tag of more than one octet
    Tag,        // another element than the expected one
    LengthForm, // the indefinite form, or a length of more than four octets
    Length,     // more than is left of the input
    Missing,    // the element ends before a field that it must have
    Overrun,    // what is inside ends behind the element's own end
    Value,      // content that the type does not have
    Type,       // a type that the table does not know
};

// An element that is being decoded, in the element around it.
struct DecodeStep {
    DecodeStep(const PELNIC_BUF* b, const PELNIC_ASN1_TEMPLATE* row, const PNV_CHAR* name, PNV_UINT32 index = NO_INDEX);
    ~DecodeStep();
    DecodeStep(const DecodeStep&) = delete;
    DecodeStep& operator=(const DecodeStep&) = delete;

    static constexpr PNV_UINT32 NO_INDEX = 0xFFFFFFFF;

    const DecodeStep* above;
    const PELNIC_BUF* input; // null for a list whose elements are inputs of their own
    const PELNIC_ASN1_TEMPLATE* row;
    const PNV_CHAR* name; // null for an input as a whole
    PNV_UINT32 index;     // in its list
    PNV_UINT32 offset;    // in its input
};

// Where a verification decides. Each has a code, 0 for yes, and the records that it is about; they are the library's,
// and good during the call alone.
enum class Decision : PNV_BYTE {
    Undecodable,   // step, fault and row: the element, and the row of what was expected
    Roots,         // trusted certificates were taken in
    Crls,          // CRLs were taken in
    Signature,     // a signature was decoded
    CertTaken,     // cert: one that came with a signature went into a store
    Signer,        // a signer is next
    SignerDone,    // its own signature, or where the payload is signed directly, that it can be checked
    Token,         // a signer's timestamp was decoded, up to its TSTInfo
    Time,          // the imprint was compared, and the time became time
    Authority,     // a signer of the timestamp is next
    AuthorityDone, // all of the above about it
    SignerCert,    // cert or null: that of the signer or authority
    Usage,         // cert: what it may be used for; number: the purpose, 0 for its key usage
    Chain,         // cert: the verification of its chain is next
    ChainDone,     // cert
    TooDeep,       // cert: not looked at
    Dates,         // cert at time
    SelfSigned,    // cert: the end of its chain
    Issuer,        // cert, and other or null: the CA that issued it
    CrlUnfit,      // cert, crl: why it gets no score, in unfit
    CrlScored,     // cert, crl; number: the score
    CrlIssuer,     // crl, other: whether its issuer verifies
    CrlChosen,     // cert, and crl or null
    Revocation,    // cert, crl; number: the entry that decided
    Link,          // cert: all of the above about it
    Value,         // cert: whether its key made the signature
    Payload,       // the content was compared; number: the verdict
};

enum class CrlUnfit : PNV_BYTE { None, NoIssuer, OtherRoot, NoEnd, Expired };

struct WitnessEvent {
    Decision decision;
    PELNIC_ERROR_CODE code = 0;
    const PELNIC_X509_CERT* cert = nullptr;
    const PELNIC_X509_CRL* crl = nullptr;
    const PELNIC_X509_CERT* other = nullptr;
    PNV_UINT32 number = 0;
    CrlUnfit unfit = CrlUnfit::None;
    PNV_TIME_T time = 0;
    const DecodeStep* step = nullptr;
    DecodeFault fault = DecodeFault::None;
    const PELNIC_ASN1_TEMPLATE* row = nullptr; // null where nothing in particular was expected
};
typedef void (*WitnessFunc)(void* user, const WitnessEvent& event);

// Who is told of what this thread does from now on; null for nobody. Gives back who was.
struct Witness {
    WitnessFunc func;
    void* user;
};
Witness _pnvSetWitness(Witness witness);

void _pnvTell(const WitnessEvent& event);
// Of the element that is being decoded; row is that of what is missing, or null for its own.
void _pnvTellFault(DecodeFault fault, const PELNIC_ASN1_TEMPLATE* row = nullptr);

#define PNV_TELL(...) _pnvTell(WitnessEvent{__VA_ARGS__})
#define PNV_DECODING(...) const DecodeStep witnessed(__VA_ARGS__)
#define PNV_WHY(fault, code) (_pnvTellFault(DecodeFault::fault), code)
#define PNV_WHY_ROW(fault, row, code) (_pnvTellFault(DecodeFault::fault, row), code)

#else

#define PNV_TELL(...) ((void)0)
#define PNV_DECODING(...) ((void)0)
#define PNV_WHY(fault, code) (code)
#define PNV_WHY_ROW(fault, row, code) (code)

#endif

#endif
