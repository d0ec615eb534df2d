// Reports the decisions of a verification and the failures of decoding to an observer, as they happen.
//
// A product has none of it: without CMSVERIFY_WITNESS every macro below is empty, or just its code. With it all
// decisions, codes and log records stay the same, because the observer returns nothing.
#ifndef PELNIC_WITNESS_H
#define PELNIC_WITNESS_H

#ifdef CMSVERIFY_WITNESS

#include "pelnic_asn1_templ.h"

typedef struct pelnic_x509_cert_st PELNIC_X509_CERT;
typedef struct pelnic_x509_crl_st PELNIC_X509_CRL;

// Why an element cannot be decoded.
enum class DecodeFault : PNV_BYTE {
    None,
    End,        // no octets left
    TagForm,    // a tag of more than one octet
    Tag,        // not the expected element
    LengthForm, // the indefinite form, or a length of more than four octets
    Length,     // more than the rest of the input
    Missing,    // the element ends before a required field
    Overrun,    // the contents extend beyond the element
    Value,      // content that the type does not allow
    Type,       // a type that is not in the table
};

// An element being decoded, inside an outer element.
struct DecodeStep {
    DecodeStep(const PELNIC_BUF* b, const PELNIC_ASN1_TEMPLATE* row, const PNV_CHAR* name, PNV_UINT32 index = NO_INDEX);
    ~DecodeStep();
    DecodeStep(const DecodeStep&) = delete;
    DecodeStep& operator=(const DecodeStep&) = delete;

    static constexpr PNV_UINT32 NO_INDEX = 0xFFFFFFFF;

    const DecodeStep* above;
    const PELNIC_BUF* input; // null for a list whose elements are separate inputs
    const PELNIC_ASN1_TEMPLATE* row;
    const PNV_CHAR* name; // null for a whole input
    PNV_UINT32 index;     // in its list
    PNV_UINT32 offset;    // in its input
};

// The decisions of a verification. Each has a code, 0 for yes, and the records concerned; the library owns these, and
// they are valid only during the call. The numbers are part of the reason code: new ones come last.
enum class Decision : PNV_BYTE {
    Undecodable,   // step, fault and row: the element, and the row of the expected one
    Roots,         // trusted certificates were added
    Crls,          // CRLs were added
    Signature,     // a signature was decoded
    CertTaken,     // cert: a certificate of a signature was added to a store
    Signer,        // a signer is next
    SignerDone,    // its signature was verified, or prepared if it covers the payload directly
    Token,         // a signer's timestamp was decoded, but for its TSTInfo
    Time,          // the imprint was compared; time: the timestamp's
    Authority,     // a signer of the timestamp is next
    AuthorityDone, // all checks of it are done
    SignerCert,    // cert or null: the certificate of the signer or authority
    Usage,         // cert: its usage was checked; number: the extended key usage, 0 for the key usage
    Chain,         // cert: the verification of its chain is next
    ChainDone,     // cert
    TooDeep,       // cert: not verified
    Dates,         // cert at time
    SelfSigned,    // cert: the end of its chain, and whether that is trusted
    Issuer,        // cert; other: the CA that issued it, or null
    CrlUnfit,      // cert, crl; unfit: why it gets no score
    CrlScored,     // cert, crl; number: the score
    CrlIssuer,     // crl, other: whether its issuer verifies
    CrlChosen,     // cert; crl or null
    Revocation,    // cert, crl; number: the entry that decided
    Link,          // cert: all of the above about it
    Value,         // cert: whether its key made the signature
    Payload,       // the content's digest was compared; number: the verdict
    Begun,         // the end of begin, after a signature that was decoded
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
    const PELNIC_ASN1_TEMPLATE* row = nullptr; // null if nothing in particular was expected
};
typedef void (*WitnessFunc)(void* user, const WitnessEvent& event);

// Sets this thread's observer; null for none. Returns the previous one.
struct Witness {
    WitnessFunc func;
    void* user;
};
Witness _pnvSetWitness(Witness witness);

void _pnvTell(const WitnessEvent& event);
// About the element being decoded; row is that of the missing field, or null for the element's own.
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
