// Base64 in two passes: the first validates and sizes, the second decodes.
#include "pelnic_base64.h"

constexpr PNV_BYTE PADDING = RADIX_OF_BASE64; // value of '='

// clang-format off
const PNV_BYTE pnv_base64_dec_map[128] = {
    127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127,
    127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127,
    127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127,  62, 127, 127, 127,  63,
     52,  53,  54,  55,  56,  57,  58,  59,  60,  61, 127, 127, 127,  64, 127, 127,
    127,   0,   1,   2,   3,   4,   5,   6,   7,   8,   9,  10,  11,  12,  13,  14,
     15,  16,  17,  18,  19,  20,  21,  22,  23,  24,  25, 127, 127, 127, 127, 127,
    127,  26,  27,  28,  29,  30,  31,  32,  33,  34,  35,  36,  37,  38,  39,  40,
     41,  42,  43,  44,  45,  46,  47,  48,  49,  50,  51, 127, 127, 127, 127, 127,
};
// clang-format on

static PNV_BYTE mapped(PNV_CHAR c)
{
    return pnv_base64_dec_map[static_cast<PNV_BYTE>(c)];
}

bool _pnvIsEndOfLine(const PNV_CHAR* encoded, PNV_UINT32 nEncoded, PNV_UINT32 i)
{
    if (encoded[i] == '\n') return true;
    return nEncoded - i >= 2 && encoded[i] == '\r' && encoded[i + 1] == '\n';
}

PELNIC_ERROR_CODE _pnvB64GetDecLen(const PELNIC_VRF*, const PNV_CHAR* encoded, PNV_UINT32 nEncoded, PNV_UINT32* nValid,
                                   PNV_UINT32* nLen)
{
    PNV_UINT32 characters = 0;
    PNV_UINT32 paddings = 0;
    PNV_UINT32 i = 0;
    while (i < nEncoded) {
        const PNV_UINT32 spacesFrom = i;
        while (i < nEncoded && encoded[i] == ' ') ++i;
        if (i == nEncoded) break;
        const bool afterSpaces = i != spacesFrom;
        if (!_pnvIsEndOfLine(encoded, nEncoded, i)) {
            if (afterSpaces) return PELNIC_ERR_SYS_BASE64;
            if (static_cast<PNV_BYTE>(encoded[i]) > MAX_ASCII) return PELNIC_ERR_SYS_BASE64;
            if (encoded[i] == '=' && ++paddings > 2) return PELNIC_ERR_SYS_BASE64;
            if (mapped(encoded[i]) < RADIX_OF_BASE64 && paddings != 0) return PELNIC_ERR_SYS_BASE64;
            ++characters; // also one outside the alphabet
        }
        ++i; // only the CR of CR LF: the LF is another line end
    }
    if (characters == 0) return PELNIC_ERR_SYS_BASE64;
    *nValid = i;
    *nLen = static_cast<PNV_UINT32>((PNV_UINT64{6} * characters + 7) >> 3) - paddings;
    return 0;
}

PNV_UINT32 _pnvB64DoDec(const PNV_CHAR* encoded, PNV_UINT32 nValid, PNV_BYTE* decoded)
{
    PNV_UINT32 written = 0;
    PNV_UINT32 group = 0;
    PNV_UINT32 inGroup = 0;
    PNV_UINT32 octets = 3; // per group; each '=' subtracts one
    for (PNV_UINT32 i = 0; i < nValid; ++i) {
        const PNV_CHAR c = encoded[i];
        if (c == '\r' || c == '\n' || c == ' ') continue;
        if (mapped(c) == PADDING) --octets;
        group = group << 6 | (mapped(c) & 63u);
        if (++inGroup < 4) continue;
        for (PNV_UINT32 k = 0; k < octets; ++k) decoded[written++] = static_cast<PNV_BYTE>(group >> (16 - 8 * k));
        group = 0;
        inGroup = 0;
    }
    return written;
}

PELNIC_ERROR_CODE pelnic_base64_decode(const PELNIC_VRF* pVrf, const PNV_CHAR* encoded, PNV_UINT32 nEncoded,
                                       PNV_BYTE* decoded, PNV_UINT32* nDecoded)
{
    if (pVrf == nullptr || encoded == nullptr || nDecoded == nullptr || nEncoded == 0) return PELNIC_ERR_NULL_POINTER;
    PNV_UINT32 nValid = 0;
    PNV_UINT32 nLen = 0;
    const PELNIC_ERROR_CODE rc = _pnvB64GetDecLen(pVrf, encoded, nEncoded, &nValid, &nLen);
    if (rc != 0) return rc;
    const bool fits = static_cast<PNV_INT>(*nDecoded) >= static_cast<PNV_INT>(nLen);
    *nDecoded = decoded != nullptr && fits ? _pnvB64DoDec(encoded, nValid, decoded) : nLen;
    return 0;
}
