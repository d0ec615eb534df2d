// Comparisons and times.
#include "pelnic_asn1_utils.h"

#include "pelnic_plt_proxy.h"

constexpr PNV_UINT32 UTCTIME_LENGTH = 13;         // YYMMDDhhmmssZ
constexpr PNV_UINT32 GENERALIZEDTIME_LENGTH = 15; // YYYYMMDDhhmmssZ

PNV_INT32 pelnic_compare_tag(const PELNIC_VRF* pVrf, const PELNIC_BER_TAG* pAsnTag1, const PELNIC_BER_TAG* pAsnTag2)
{
    if (pAsnTag1 == pAsnTag2) return 0;
    return pelnic_memcmp(pVrf, pAsnTag1, pAsnTag2, sizeof(PELNIC_BER_TAG));
}

static bool isSameTag(const PELNIC_BER_TAG& tag1, const PELNIC_BER_TAG& tag2)
{
    return tag1.cls == tag2.cls && tag1.form == tag2.form && tag1.code == tag2.code;
}

// The lengths come first, because they differ most often, then the octets. The result is the callback's.
static PNV_INT32 compareTagged(const PELNIC_VRF* pVrf, const PELNIC_BER_TAG& tag1, const PNV_BYTE* octets1,
                               PNV_UINT32 length1, const PELNIC_BER_TAG& tag2, const PNV_BYTE* octets2,
                               PNV_UINT32 length2)
{
    if (length1 != length2) return -1;
    const PNV_INT32 difference = octets1 == octets2 ? 0 : pelnic_memcmp(pVrf, octets1, octets2, length1);
    if (difference != 0) return isSameTag(tag1, tag2) ? difference : -1;
    return pelnic_compare_tag(pVrf, &tag1, &tag2) == 0 ? 0 : -1;
}

PNV_INT32 pelnic_compare_asn_octs(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* pAsnOctsExpect,
                                  const PELNIC_ASN_OCTS* pAsnOctsActual)
{
    const PELNIC_ASN_OCTS* const a = pAsnOctsExpect;
    const PELNIC_ASN_OCTS* const b = pAsnOctsActual;
    if (pVrf == nullptr || a == nullptr || b == nullptr) return -1;
    return a == b ? 0 : compareTagged(pVrf, a->tag, a->octs, a->len, b->tag, b->octs, b->len);
}

PNV_INT32 pelnic_compare_asn_bits(const PELNIC_VRF* pVrf, const PELNIC_ASN_BITS* pAsnBitsExpect,
                                  const PELNIC_ASN_BITS* pAsnBitsActual)
{
    const PELNIC_ASN_BITS* const a = pAsnBitsExpect;
    const PELNIC_ASN_BITS* const b = pAsnBitsActual;
    if (pVrf == nullptr || a == nullptr || b == nullptr) return -1;
    return a == b ? 0 : compareTagged(pVrf, a->tag, a->bits, a->byteLen, b->tag, b->bits, b->byteLen);
}

PNV_INT32 pelnic_compare_asn_bigint(const PELNIC_VRF* pVrf, const PELNIC_ASN_BIGINT* pAsnIntExpect,
                                    const PELNIC_ASN_BIGINT* pAsnIntActual)
{
    return pelnic_compare_asn_octs(pVrf, pAsnIntExpect, pAsnIntActual);
}

// Characters other than digits give an arbitrary number.
static PNV_INT32 twoDigits(const PNV_BYTE* octs)
{
    return (octs[0] - '0') * 10 + (octs[1] - '0');
}

// MMDDhhmmssZ, the end of both forms.
static PELNIC_ERROR_CODE fillFromMonth(const PNV_BYTE* octs, PELNIC_DATETIME* pDateTime)
{
    pDateTime->uMonth = static_cast<PNV_BYTE>(twoDigits(octs));
    pDateTime->uDay = static_cast<PNV_BYTE>(twoDigits(octs + 2));
    pDateTime->uHour = static_cast<PNV_BYTE>(twoDigits(octs + 4));
    pDateTime->uMinute = static_cast<PNV_BYTE>(twoDigits(octs + 6));
    pDateTime->uSecond = static_cast<PNV_BYTE>(twoDigits(octs + 8));
    return octs[10] == 'Z' ? 0 : PELNIC_ERR_SYS_TIME_FORMAT;
}

static PELNIC_ERROR_CODE clear(const PELNIC_VRF* pVrf, PELNIC_DATETIME* pDateTime)
{
    return pelnic_memset_s(pVrf, pDateTime, sizeof *pDateTime, 0, sizeof *pDateTime);
}

PELNIC_ERROR_CODE pelnic_convert_from_utctime(const PELNIC_VRF* pVrf, const PELNIC_UTCTIME* pUtcTime,
                                              PELNIC_DATETIME* pDateTime)
{
    if (pVrf == nullptr || pUtcTime == nullptr || pDateTime == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (pUtcTime->len != UTCTIME_LENGTH || pUtcTime->octs == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PELNIC_ERROR_CODE rc = clear(pVrf, pDateTime);
    if (rc != 0) return rc;
    const PNV_INT32 year = twoDigits(pUtcTime->octs);
    pDateTime->uYear = static_cast<PNV_UINT16>(year + (year >= 50 ? 1900 : 2000));
    return fillFromMonth(pUtcTime->octs + 2, pDateTime);
}

PELNIC_ERROR_CODE pelnic_convert_from_generalizedtime(const PELNIC_VRF* pVrf, const PELNIC_GENERALIZEDTIME* pGenTime,
                                                      PELNIC_DATETIME* pDateTime)
{
    if (pVrf == nullptr || pGenTime == nullptr || pDateTime == nullptr) return PELNIC_ERR_NULL_POINTER;
    if (pGenTime->len != GENERALIZEDTIME_LENGTH || pGenTime->octs == nullptr) return PELNIC_ERR_NULL_POINTER;
    const PELNIC_ERROR_CODE rc = clear(pVrf, pDateTime);
    if (rc != 0) return rc;
    pDateTime->uYear = static_cast<PNV_UINT16>(twoDigits(pGenTime->octs) * 100 + twoDigits(pGenTime->octs + 2));
    return fillFromMonth(pGenTime->octs + 4, pDateTime);
}

PELNIC_ERROR_CODE pelnic_convert_from_time(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* pAsnTime,
                                           PELNIC_DATETIME* pDateTime)
{
    if (pVrf == nullptr || pAsnTime == nullptr || pDateTime == nullptr) return PELNIC_ERR_NULL_POINTER;
    switch (pAsnTime->tag.code) { // of any class and form
    case CBT_UTCTIME: return pelnic_convert_from_utctime(pVrf, pAsnTime, pDateTime);
    case CBT_GENERALIZEDTIME: return pelnic_convert_from_generalizedtime(pVrf, pAsnTime, pDateTime);
    default: return PELNIC_ERR_SYS_TIME_FORMAT;
    }
}

PELNIC_ERROR_CODE pelnic_convert_datetime_to_time(const PELNIC_VRF* pVrf, const PELNIC_ASN_OCTS* pAsnTime,
                                                  PNV_TIME_T* r_tm)
{
    if (r_tm == nullptr) return PELNIC_ERR_NULL_POINTER;
    PELNIC_DATETIME date = {};
    const PELNIC_ERROR_CODE rc = pelnic_convert_from_time(pVrf, pAsnTime, &date);
    if (rc == 0) *r_tm = pelnic_mktime(pVrf, &date);
    return rc;
}
