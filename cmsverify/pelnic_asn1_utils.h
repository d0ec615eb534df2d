// Comparison of decoded values, and times. Nothing here logs.
#ifndef PELNIC_ASN1_UTILS_H
#define PELNIC_ASN1_UTILS_H

#include "pelnic_asn1_def.h"

[[nodiscard]] inline PELNIC_BER_TAG pelnic_make_tag(PELNIC_BER_CLASS ber_class, PELNIC_BER_FORM ber_form,
                                                    PELNIC_BER_TAG_CODE ber_code)
{
    return PELNIC_BER_TAG{ber_class, ber_form, ber_code};
}

// All comparisons: 0 equal, anything else different; the tag counts.
[[nodiscard]] PNV_INT32 pelnic_compare_tag(const PELNIC_VRF* pVrf, const PELNIC_BER_TAG* pAsnTag1,
                                           const PELNIC_BER_TAG* pAsnTag2);
// -1 for a null argument.
[[nodiscard]] PNV_INT32 pelnic_compare_asn_octs(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* pAsnOctsExpect,
                                                const PELNIC_ASN_OCTS* pAsnOctsActual);
// The count of unused bits is not compared.
[[nodiscard]] PNV_INT32 pelnic_compare_asn_bits(const PELNIC_VRF* pVrf, const PELNIC_ASN_BITS* pAsnBitsExpect,
                                                const PELNIC_ASN_BITS* pAsnBitsActual);
[[nodiscard]] PNV_INT32 pelnic_compare_asn_bigint(const PELNIC_VRF* pVrf, const PELNIC_ASN_BIGINT* pAsnIntExpect,
                                                  const PELNIC_ASN_BIGINT* pAsnIntActual);

// Times in the two forms of RFC 5280, 4.1.2.5: YYMMDDhhmmssZ (50 to 99 are 1950 to 1999) and YYYYMMDDhhmmssZ. Digits
// and ranges are not checked. PELNIC_ERR_NULL_POINTER for a null argument or another length, PELNIC_ERR_SYS_TIME_FORMAT
// if the last character is not 'Z' (the fields are filled nevertheless), or the code of clearing the result.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_convert_from_utctime(const PELNIC_VRF* pVrf, const PELNIC_UTCTIME* pUtcTime,
                                                            PELNIC_DATETIME* pDateTime);
[[nodiscard]] PELNIC_ERROR_CODE pelnic_convert_from_generalizedtime(const PELNIC_VRF* pVrf,
                                                                    const PELNIC_GENERALIZEDTIME* pGenTime,
                                                                    PELNIC_DATETIME* pDateTime);
// Either form, by the tag's code; PELNIC_ERR_SYS_TIME_FORMAT for any other code.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_convert_from_time(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* pAsnTime,
                                                         PELNIC_DATETIME* pDateTime);
// The same in seconds since 1970-01-01 00:00:00 UTC.
[[nodiscard]] PELNIC_ERROR_CODE pelnic_convert_datetime_to_time(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* pAsnTime,
                                                                PNV_TIME_T* r_tm);

#endif
