// Decoding of Base64 (RFC 4648) in PEM armour: line ends and the spaces before them are ignored.
#ifndef PELNIC_BASE64_H
#define PELNIC_BASE64_H

#include "pelnic_types.h"

constexpr PNV_UINT32 MAX_ASCII = 127;
constexpr PNV_UINT32 RADIX_OF_BASE64 = 64;

// By character code: 0 to 63 for the alphabet, 64 for '=', 127 for everything else.
extern const PNV_BYTE pnv_base64_dec_map[128];

// Decodes, or computes the decoded size if decoded is null or *nDecoded, read as a signed number, is too small.
// *nDecoded becomes the size or the number of octets written. Characters outside the alphabet are not refused; they
// count as 63. An incomplete last group of four characters counts in the size but is not decoded.
// PELNIC_ERR_NULL_POINTER for a null argument or an empty text; PELNIC_ERR_SYS_BASE64 for a space inside a line, more
// than two '=', data after '=', a character above 127, or no characters at all.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_base64_decode(const PELNIC_VRF* pVrf, const PNV_CHAR* encoded,
                                                     PNV_UINT32 nEncoded, PNV_BYTE* decoded, PNV_UINT32* nDecoded);

// Whether there is LF, or CR LF with both characters inside the text, at index i.
[[nodiscard]] bool _pnvIsEndOfLine(const PNV_CHAR* encoded, PNV_UINT32 nEncoded, PNV_UINT32 i);
// Validates; *nValid is the index of the end of the text, *nLen the decoded size.
[[nodiscard]] PELNIC_ERROR_CODE _pnvB64GetDecLen(const PELNIC_VRF* pVrf, const PNV_CHAR* encoded, PNV_UINT32 nEncoded,
                                                 PNV_UINT32* nValid, PNV_UINT32* nLen);
// Decodes a validated text and returns the number of octets written, never more than its size.
[[nodiscard]] PNV_UINT32 _pnvB64DoDec(const PNV_CHAR* encoded, PNV_UINT32 nValid, PNV_BYTE* decoded);

#endif
