#include "reader.h"

#include "fingerprint.h"

namespace pkgtool {

std::optional<Object> ObjectReader::readObject(const unsigned char* der, std::size_t size)
{
    std::optional<Object> certificate = readCertificate(der, size);
    return certificate ? std::move(certificate) : readCrl(der, size);
}

std::vector<Object> ObjectReader::readDer(const Bytes& der)
{
    std::vector<Object> objects;
    std::size_t at = 0;
    while (std::optional<Object> object = readObject(der.data() + at, der.size() - at)) {
        at += object->encoding.size();
        objects.push_back(std::move(*object));
    }
    return objects;
}

void putFingerprints(Object& object)
{
    const auto fingerprint = [](const Bytes& octets) { return octets.empty() ? Json() : Json(sha256Text(octets)); };
    object.json["sha256"] = fingerprint(object.encoding);
    if (!object.isCrl) object.json["key_sha256"] = fingerprint(publicKeyIn(object.signedPart));
}

Json exponentJson(const BIGNUM* exponent)
{
    char* const digits = BN_bn2hex(exponent);
    ensure(digits != nullptr, "writing a number");
    Json json = digits;
    OPENSSL_free(digits);
    return json;
}

} // namespace pkgtool
