#include "reader.h"

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
        at += object->length;
        objects.push_back(std::move(*object));
    }
    return objects;
}

} // namespace pkgtool
