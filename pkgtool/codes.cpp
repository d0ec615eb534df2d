#include "codes.h"

#include <algorithm>
#include <iterator>

namespace pkgtool {

namespace {

constexpr Code row(PELNIC_ERROR_CODE value, const char* name, const char* meaning, const char* advice = "")
{
    return {value, name, meaning, advice};
}

} // namespace

#define CODE(NAME, ...) row(PELNIC_ERR_##NAME, "PELNIC_ERR_" #NAME, __VA_ARGS__)

const std::vector<Code>& allCodes()
{
    static const std::vector<Code> codes = {
        CODE(
            FAILED,
            "The generic failure: a difference in a comparison, a missing context or callback, a check without its own "
            "code.",
            "The payload is not the signed one, there are no CRLs, or a sub-file lies outside the package: pack again "
            "what was signed."),
        CODE(SYS_MEM_ALLOC, "memory could not be allocated"),
        CODE(SYS_MEM_SET, "memset failed on a newly allocated verify context"),
        CODE(SYS_MEM_OVERFLOW, "a fill, move or copy exceeds the destination"),
        CODE(SYS_FILE_OPEN, "a file could not be opened; logged for an empty path"),
        CODE(SYS_FILE_READ, "fewer octets read than the file has"),
        CODE(SYS_FILE_EMPTY, "file size 0"),
        CODE(SYS_FILE_TOO_LARGE, "file larger than 2,000,000 octets"),
        CODE(SYS_BUF_END, "read at or beyond the end of a byte buffer"),
        CODE(SYS_BUF_POS, "buffer cursor before the requested position"),
        CODE(SYS_DB_APPEND, "appending to a data block failed"),
        CODE(SYS_TIME_FORMAT, "a time does not end in 'Z' or is neither of the two time types",
             "A timestamp's time does not end in Z: configure the timestamp authority for whole seconds of UTC."),
        CODE(SYS_BASE64, "malformed Base64 text"),
        CODE(SYS_STR_OVERFLOW, "a string does not fit; logged for an over-long name attribute"),
        CODE(NULL_POINTER, "a required argument is null or a length is 0",
             "A signer has no timestamp or one with fractions of a second, or the CRL sub-file is empty: sign with a "
             "timestamp in whole seconds, pack with --crl."),
        CODE(INVALID_SIZE, "a size field does not equal the structure's size"),
        CODE(CALLBACK_MISSING, "a required callback is null"),
        CODE(NO_PKI, "the verify context has no PKI object"),
        CODE(CERT_DUPLICATE, "already in the store (callers treat this as success)"),
        CODE(CERT_REVOKED, "revoked by a CRL"),
        CODE(CERT_NO_ISSUER, "no issuer in the trust store, no trust store, or no root"),
        CODE(CERT_SIGNATURE, "wrong issuer signature, or another issuer already recorded"),
        CODE(CERT_ROOT_IN_CMS, "self-signed certificate in a CMS or token (logged, not returned)"),
        CODE(CERT_USAGE, "(extended) key usage does not allow the required use",
             "Issue the certificate with digitalSignature and codeSigning, or timeStamping for an authority."),
        CODE(CERT_INVALID, "malformed or unusable certificate data", "A certificate's key is not RSA: use RSA keys."),
        CODE(CERT_VERIFY, "certificate verification failed; algorithms differ",
             "A certificate expired, is not valid yet, was revoked, or has no CRL or no path to the root: pkgtool "
             "explain tells which."),
        CODE(CERT_VERSION, "certificate version lower than 3 where a CA is needed"),
        CODE(CERT_NOT_CA, "a certificate given as trust anchor is not a CA"),
        CODE(CRL_NOT_FOUND, "no CRL found for a certificate"),
        CODE(CERT_NOT_YET_VALID, "verification time before notBefore"),
        CODE(CERT_EXPIRED, "verification time after notAfter"),
        CODE(UNSUPPORTED_DIGEST, "no digest algorithm for the signature algorithm"),
        CODE(UNSUPPORTED_ALGO, "algorithm not supported", "Use RSA keys, and SHA-256, SHA-384 or SHA-512."),
        CODE(NO_KEY_USAGE, "key usage extension missing or empty",
             "Issue the certificate with keyUsage = critical,digitalSignature."),
        CODE(PATH_TOO_DEEP, "nested certificate verification deeper than the limit"),
        CODE(CRL_FROZEN, "a CRL was added after verification began"),
        CODE(CRL_DECODE, "CRL input not decodable, without CRL, or not storable",
             "The CRL sub-file holds no CRL: pack CRLs in DER or PEM, each with a nextUpdate."),
        CODE(CRL_EXPIRED, "nextUpdate before the verification time (logged, not returned)"),
        CODE(CRL_VERIFY, "CRL signature failed, or no candidate with a verifiable issuer"),
        CODE(CRL_EMPTY_BUNDLE, "a CRL bundle to compare holds no CRL"),
        CODE(CRL_INVALID_ENTRY, "a CRL bundle entry is null or not valid"),
        CODE(CRL_DUPLICATE, "the CRL is already in the store"),
        CODE(CRL_TOO_MANY, "a CRL input holds more than 16 CRLs"),
        CODE(CRL_DUPLICATE_ISSUER, "two CRLs of one bundle have the same issuer"),
        CODE(CRL_ISSUER_DROPPED, "the newer bundle lacks an issuer that the older one had"),
        CODE(CRL_NO_IDP, "no issuing distribution point extension"),
        CODE(CMS_SIGNER_CERT_NOT_FOUND, "no certificate for a signer's issuer and serial",
             "Put the signer's certificate into the signature."),
        CODE(CMS_NO_MESSAGE_DIGEST, "signed attributes without message digest",
             "Sign with the signed attribute message digest, or without signed attributes."),
        CODE(CMS_DIGEST_CONFLICT, "two signers with one algorithm claim different digests",
             "The signers did not sign the same payload: let all of them sign it again."),
        CODE(CMS_FORMAT, "input under 38 octets or malformed PEM armour",
             "The signature is too short or its PEM armour is broken: pack the signature unchanged."),
        CODE(CMS_DIGEST_ALGO, "digest algorithm is not SHA-256, SHA-384 or SHA-512",
             "Sign with SHA-256, SHA-384 or SHA-512."),
        CODE(CMS_NOT_BEGUN, "content fed with no verification in progress", "Nobody signed: sign the payload."),
        CODE(CMS_NO_SIGNER, "nothing decoded, or no signed data or signer infos"),
        CODE(CMS_SIGNATURE, "a signature check failed",
             "The signature was altered, or is not RSA PKCS #1 v1.5 with SHA-2: sign again."),
        CODE(CMS_HASH_ALGO, "digest algorithm unsupported by a verification handle",
             "Sign with SHA-256, SHA-384 or SHA-512."),
        CODE(CMS_DECODE, "CMS, certificate inside it, or attribute not decodable",
             "The signature is not DER, or a signer has no readable timestamp: sign with pkgtool sign."),
        CODE(TSP_CERT_NOT_FOUND, "timestamp authority's certificate not found",
             "Ask the authority to put its certificate into the token, or add it with --chain."),
        CODE(TSP_IMPRINT_MISMATCH, "message imprint does not match the stamped signature",
             "The timestamp belongs to another signature: request one for this signature."),
        CODE(TSP_VERIFY, "the token's own signature or digest does not verify",
             "The timestamp token was altered: request a new one."),
        CODE(TSP_DECODE, "token without content, or TSTInfo not decodable",
             "The authority used unsupported fields, such as a tsa name or an accuracy without seconds: change its "
             "settings."),
        CODE(ASN_DECODE, "any failure of a top-level decode"),
        CODE(ASN_TAG, "a tag cannot be read, or is not the expected header"),
        CODE(ASN_PEEK_TAG, "a tag cannot be peeked"),
        CODE(ASN_TAG_MISMATCH, "unexpected tag"),
        CODE(ASN_LENGTH, "indefinite, more than four octets, or beyond the input"),
        CODE(ASN_OCTS, "a primitive value cannot be decoded"),
        CODE(ASN_PEEK_OCTS, "a raw element cannot be kept"),
        CODE(ASN_ANY, "an ANY field's selector has no entry in its map"),
        CODE(ASN_ANY_ABSENT, "an optional ANY is absent (internal)"),
        CODE(ASN_CHOICE, "no CHOICE alternative matches"),
        CODE(ASN_SEQ, "SEQUENCE length does not add up, or a mandatory field is missing"),
        CODE(ASN_BITS, "malformed BIT STRING"),
        CODE(ASN_INT, "small INTEGER or ENUMERATED of length 0 or more than 4"),
        CODE(ASN_SETOF, "a SET OF element fails, or the elements do not fill the content"),
        CODE(ASN_BOOL, "BOOLEAN content length not 1"),
    };
    return codes;
}

#undef CODE

const Code* findCode(PELNIC_ERROR_CODE value)
{
    const std::vector<Code>& codes = allCodes();
    const auto found = std::find_if(codes.begin(), codes.end(), [&](const Code& code) { return code.value == value; });
    return found != codes.end() ? &*found : nullptr;
}

const Code* findCode(const std::string& name)
{
    const std::vector<Code>& codes = allCodes();
    const auto found = std::find_if(codes.begin(), codes.end(), [&](const Code& code) {
        return name == code.name || std::string("PELNIC_ERR_") + name == code.name;
    });
    return found != codes.end() ? &*found : nullptr;
}

const Status* findStatus(PELNIC_ERROR_CODE value)
{
    static constexpr Status STATUSES[] = {
        {0, "accepted", "pkgtool explain tells whether anybody signed it."},
        {234, "no path was given", "Name the package: pkgcheck PACKAGE."},
        {253, "refused by a rule of the strict checker", "Its line names the rule; pkgtool lint finds it, too."},
        {254, "refused: neither 1 nor 3 sub-files", "Pack payload, signature and CRLs: pkgtool pack."},
        {255, "refused, or not read", "Its line tells which, with the code of a refusal; pkgtool explain tells why."},
    };
    const auto* const found = std::find_if(std::begin(STATUSES), std::end(STATUSES), [&](const Status& status) {
        return static_cast<PELNIC_ERROR_CODE>(status.value) == value;
    });
    return found != std::end(STATUSES) ? found : nullptr;
}

const Line* findLine(const std::string& text)
{
    static constexpr Line LINES[] = {
        {"Info: There is one subfile, Check signature passed", 0, "accepted; it is not signed and was not examined",
         "Pack payload, signature and CRLs, unless this is intended."},
        {"Failed to open file(name", 255, "the file cannot be opened, or its path has more than 64 octets",
         "The number after err is the system's; for a path that is too long the name is empty."},
        {"Failed to check file length(len", 255, "the file is shorter than a package's header of 352 octets",
         "It was cut off, or is not a package."},
        {"Failed to alloc memory", 255, "no memory for the file", "The checker reads the whole file into memory."},
        {"Failed to read file(", 255, "fewer octets were read than the file has",
         "The file changed meanwhile, or the medium fails."},
        {"Check cms fail for no sub file", 255, "there is a signature but no payload", "Pack both: pkgtool pack."},
        {"Check cms file fail for file(err", 255, "refused", ""},
        {"Error: Check cms fail for subfile num(", 254, "refused: neither 1 nor 3 sub-files",
         "Pack payload, signature and CRLs: pkgtool pack."},
        {"Invalid arg count", 234, "no path was given", "Name the package: pkgcheck PACKAGE."},
        {"Strict: ", 253, "refused by a rule of the strict checker", "pkgtool lint finds it, too."},
    };
    const auto* const found = std::find_if(std::begin(LINES), std::end(LINES), [&](const Line& line) {
        return text.find(line.words) != std::string::npos;
    });
    return found != std::end(LINES) ? found : nullptr;
}

} // namespace pkgtool
