#include "timestamp.h"

#include "der.h"
#include "error.h"
#include "http.h"
#include "signed_data.h"
#include "text.h"

#include <openssl/rand.h>

#include <algorithm>

namespace pkgtool {

namespace {

constexpr std::size_t SERIAL_SIZE = 16;
constexpr std::size_t NONCE_SIZE = 8;

// Positive, and never zero.
Asn1Integer toInteger(Bytes magnitude)
{
    magnitude.front() |= 0x01;
    const Bignum number(BN_bin2bn(magnitude.data(), static_cast<int>(magnitude.size()), nullptr));
    ensure(number != nullptr, "making a number");
    Asn1Integer integer(BN_to_ASN1_INTEGER(number.get(), nullptr));
    ensure(integer != nullptr, "making a number");
    return integer;
}

TsImprint makeImprint(Bytes digest, const EVP_MD* md)
{
    TsImprint imprint(TS_MSG_IMPRINT_new());
    const Owned<X509_ALGOR, X509_ALGOR_free> algorithm(X509_ALGOR_new());
    ensure(imprint != nullptr && algorithm != nullptr &&
               X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(EVP_MD_get_type(md)), V_ASN1_NULL, nullptr) == 1 &&
               TS_MSG_IMPRINT_set_algo(imprint.get(), algorithm.get()) == 1 &&
               TS_MSG_IMPRINT_set_msg(imprint.get(), digest.data(), static_cast<int>(digest.size())) == 1,
           "making an imprint");
    return imprint;
}

TsReq makeRequest(const Bytes& signature, const EVP_MD* md)
{
    TsReq request(TS_REQ_new());
    const TsImprint imprint = makeImprint(digestOf(md, signature), md);
    ensure(request != nullptr && TS_REQ_set_version(request.get(), 1) == 1 &&
               TS_REQ_set_msg_imprint(request.get(), imprint.get()) == 1 && TS_REQ_set_cert_req(request.get(), 1) == 1,
           "making a timestamp query");
    return request;
}

void setRandomNonce(TS_REQ* request)
{
    Bytes random(NONCE_SIZE);
    ensure(RAND_bytes(random.data(), static_cast<int>(random.size())) == 1, "drawing a nonce");
    ensure(TS_REQ_set_nonce(request, toInteger(random).get()) == 1, "setting the nonce");
}

// One second, as for a clock set over the network: verifiers of RFC 3161 may need it.
void setAccuracy(TS_TST_INFO* info)
{
    const Owned<TS_ACCURACY, TS_ACCURACY_free> accuracy(TS_ACCURACY_new());
    const Asn1Integer seconds(ASN1_INTEGER_new());
    ensure(accuracy != nullptr && seconds != nullptr && ASN1_INTEGER_set(seconds.get(), 1) == 1 &&
               TS_ACCURACY_set_seconds(accuracy.get(), seconds.get()) == 1 &&
               TS_TST_INFO_set_accuracy(info, accuracy.get()) == 1,
           "setting the accuracy");
}

// The nonce distinguishes the answer to this query from a recorded one.
void requireSameNonce(const Bytes& token, const TS_REQ* request, const std::string& url)
{
    const Cms cms = fromDer<CMS_ContentInfo_free>(d2i_CMS_ContentInfo, token);
    const TsTstInfo info = cms != nullptr ? tstInfoOf(cms.get()) : nullptr;
    const ASN1_INTEGER* const nonce = info != nullptr ? TS_TST_INFO_get_nonce(info.get()) : nullptr;
    if (nonce == nullptr || ASN1_INTEGER_cmp(nonce, TS_REQ_get_nonce(request)) != 0) {
        throw UserError("the answer from " + url + " is not to this query (other nonce)");
    }
}

std::string statusTextOf(TS_STATUS_INFO* status)
{
    std::string text;
    const STACK_OF(ASN1_UTF8STRING)* const lines = TS_STATUS_INFO_get0_text(status);
    for (int i = 0; i < sk_ASN1_UTF8STRING_num(lines); ++i) {
        const Bytes line = bytesOf(sk_ASN1_UTF8STRING_value(lines, i));
        text += ": " + std::string(line.begin(), line.end());
    }
    return text;
}

} // namespace

Asn1Time parseTime(const std::string& text)
{
    constexpr char LONG_FORM[] = "dddd-dd-ddTdd:dd:ddZ"; // this tool's output form
    constexpr std::size_t LENGTH = sizeof "YYYYMMDDhhmmssZ" - 1;
    const bool isLong = text.size() == sizeof LONG_FORM - 1 &&
                        std::equal(text.begin(), text.end(), LONG_FORM,
                                   [](char c, char form) { return form == 'd' ? c >= '0' && c <= '9' : c == form; });
    std::string digits = text;
    if (isLong) {
        digits.erase(std::remove_if(digits.begin(), digits.end() - 1, [](char c) { return c < '0' || c > '9'; }),
                     digits.end() - 1);
    }
    Asn1Time time(ASN1_GENERALIZEDTIME_new());
    ensure(time != nullptr, "allocating");
    if (digits.size() != LENGTH || ASN1_GENERALIZEDTIME_set_string(time.get(), digits.c_str()) != 1) {
        throw UserError("'" + text + "' is not a time", "write it as 2026-01-31T12:00:00Z or YYYYMMDDhhmmssZ, in UTC");
    }
    return time;
}

Bytes makeToken(const LocalAuthority& authority, const Bytes& signature, const EVP_MD* md)
{
    const Bytes digest = digestOf(md, signature);
    const TsImprint imprint = makeImprint(digest, md);
    const Asn1Integer serial = toInteger(Bytes(digest.begin(), digest.begin() + SERIAL_SIZE));
    const TsTstInfo info(TS_TST_INFO_new());
    ensure(info != nullptr && TS_TST_INFO_set_version(info.get(), 1) == 1 &&
               TS_TST_INFO_set_policy_id(info.get(), authority.policy.get()) == 1 &&
               TS_TST_INFO_set_msg_imprint(info.get(), imprint.get()) == 1 &&
               TS_TST_INFO_set_serial(info.get(), serial.get()) == 1 &&
               TS_TST_INFO_set_time(info.get(), authority.time.get()) == 1,
           "making a TSTInfo");
    setAccuracy(info.get());

    const Bytes content = toDer(i2d_TS_TST_INFO, info.get());
    const Cms cms = newAround(NID_id_smime_ct_TSTInfo, content);
    addCertificate(cms.get(), authority.identity.cert.get());
    for (const Cert& cert : authority.chain) addCertificate(cms.get(), cert.get());
    SignerOptions options{md, digestOf(md, content)};
    options.nameCertificate = true;
    addSigner(cms.get(), authority.identity, options);
    return encode(cms.get());
}

Bytes tokenOfResponse(const Bytes& response, const std::string& origin)
{
    requireDefiniteLengths(response, origin);
    if (fromDer<CMS_ContentInfo_free>(d2i_CMS_ContentInfo, response) != nullptr) return response;
    const TsResp decoded = fromDer<TS_RESP_free>(d2i_TS_RESP, response);
    if (decoded == nullptr) throw UserError(origin + " is neither a timestamp response nor a token");
    TS_STATUS_INFO* const status = TS_RESP_get_status_info(decoded.get());
    PKCS7* const token = TS_RESP_get_token(decoded.get());
    if (token == nullptr) throw UserError(origin + ": the authority refused" + statusTextOf(status));
    return toDer(i2d_PKCS7, token);
}

Bytes fetchToken(const std::string& url, const Bytes& signature, const EVP_MD* md)
{
    const TsReq request = makeRequest(signature, md);
    setRandomNonce(request.get());
    const Bytes token = tokenOfResponse(postTimestampQuery(url, toDer(i2d_TS_REQ, request.get())), url);
    requireSameNonce(token, request.get(), url);
    return token;
}

Bytes makeQuery(const Bytes& signature, const EVP_MD* md)
{
    return toDer(i2d_TS_REQ, makeRequest(signature, md).get());
}

std::string timeOfToken(const Bytes& token)
{
    const Cms cms = fromDer<CMS_ContentInfo_free>(d2i_CMS_ContentInfo, token);
    const TsTstInfo info = cms != nullptr ? tstInfoOf(cms.get()) : nullptr;
    std::tm utc{};
    if (info == nullptr || ASN1_TIME_to_tm(TS_TST_INFO_get_time(info.get()), &utc) != 1) return "";
    return timeText(timegm(&utc));
}

TsTstInfo tstInfoOf(CMS_ContentInfo* token)
{
    ASN1_OCTET_STRING** const content = CMS_get0_content(token);
    if (content == nullptr || *content == nullptr) return nullptr;
    return fromDer<TS_TST_INFO_free>(d2i_TS_TST_INFO, bytesOf(*content));
}

} // namespace pkgtool
