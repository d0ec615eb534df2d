// OpenSSL's store recognises the formats, and the URIs of the providers that its configuration loads.
#include "keys.h"

#include "error.h"
#include "pkcs11.h"
#include "text.h"

#include <openssl/conf.h>
#include <openssl/ui.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>

namespace pkgtool {

namespace {

using Store = Owned<OSSL_STORE_CTX, OSSL_STORE_close>;
using StoreInfo = Owned<OSSL_STORE_INFO, OSSL_STORE_INFO_free>;
using PasswordMethod = Owned<UI_METHOD, UI_destroy_method>;

std::optional<std::string> readPassword(const std::string& source)
{
    if (source.empty()) return std::nullopt;
    if (source.rfind("env:", 0) == 0) {
        const char* const value = std::getenv(source.c_str() + 4);
        if (value == nullptr) throw UserError("password " + source + ": no such environment variable");
        return value;
    }
    if (source.rfind("file:", 0) == 0) {
        const Bytes content = readFile(source.substr(5));
        return std::string(content.begin(), std::find(content.begin(), content.end(), '\n'));
    }
    throw UserError("a password is given as env:NAME or file:PATH", // without the given value, which may be a password
                    "every user of the machine can see a password on the command line");
}

// Reads it from the terminal, without echo; none without a terminal.
std::optional<std::string> askUser(const std::string& location)
{
    constexpr int MAX_LENGTH = 256;
    std::array<char, MAX_LENGTH> buffer{};
    const std::string prompt =
        std::string(isPkcs11Uri(location) ? "PIN" : "password") + " for " + printable(withoutPin(location)) + ": ";
    if (isatty(STDIN_FILENO) == 0 || EVP_read_pw_string(buffer.data(), MAX_LENGTH, prompt.c_str(), 0) != 0) {
        return std::nullopt;
    }
    std::string text = buffer.data();
    OPENSSL_cleanse(buffer.data(), buffer.size());
    return text;
}

// Answers OpenSSL's request for a password, and remembers the request. Without a given password it asks at the
// terminal.
class Password {
public:
    Password(const std::string& source, std::string location)
        : location_(std::move(location)), text_(readPassword(source)),
          method_(UI_UTIL_wrap_read_pem_callback(answer, 0))
    {
        ensure(method_ != nullptr, "allocating");
    }

    UI_METHOD* method() const { return method_.get(); }
    const std::optional<std::string>& text() const { return text_; }
    bool isMissing() const { return asked_ && !text_; }
    bool isWrong() const { return asked_ && text_; }

private:
    static int answer(char* buffer, int size, int, void* self)
    {
        Password& password = *static_cast<Password*>(self);
        password.asked_ = true;
        if (!password.text_) password.text_ = askUser(password.location_);
        if (!password.text_ || password.text_->size() > static_cast<std::size_t>(size)) return -1;
        std::memcpy(buffer, password.text_->data(), password.text_->size());
        return static_cast<int>(password.text_->size());
    }

    std::string location_;
    std::optional<std::string> text_;
    PasswordMethod method_;
    bool asked_ = false;
};

struct Content {
    std::vector<Pkey> keys;
    std::vector<Cert> certs;
};

void take(const OSSL_STORE_INFO* info, Content& content)
{
    switch (OSSL_STORE_INFO_get_type(info)) {
    case OSSL_STORE_INFO_PKEY: content.keys.emplace_back(OSSL_STORE_INFO_get1_PKEY(info)); break;
    case OSSL_STORE_INFO_CERT: content.certs.emplace_back(OSSL_STORE_INFO_get1_CERT(info)); break;
    default: break;
    }
}

// Keys may need a provider from OpenSSL's configuration, which main keeps OpenSSL from reading by itself. As lenient as
// OpenSSL.
void loadProviders()
{
    OPENSSL_load_builtin_modules();
    (void)CONF_modules_load_file(nullptr, nullptr,
                                 CONF_MFLAGS_DEFAULT_SECTION | CONF_MFLAGS_IGNORE_MISSING_FILE |
                                     CONF_MFLAGS_IGNORE_RETURN_CODES);
    ERR_clear_error();
}

// A provider's URI, unless it is the name of a file.
bool isUri(const std::string& location)
{
    struct stat status {};
    return location.find(':') != std::string::npos && stat(location.c_str(), &status) != 0;
}

// The objects of this type, or of any type if it is 0.
Content readStore(const std::string& location, int type, Password& password)
{
    static std::once_flag once;
    std::call_once(once, loadProviders);
    Content content;
    const Bytes file = isUri(location) ? Bytes() : readFile(location);
    const Bio bio = memoryBio(file);
    const Store store(isUri(location)
                          ? OSSL_STORE_open(location.c_str(), password.method(), &password, nullptr, nullptr)
                          : OSSL_STORE_attach(bio.get(), "file", nullptr, nullptr, password.method(), &password,
                                              nullptr, nullptr, nullptr));
    if (store == nullptr) return content;
    ensure(type == 0 || OSSL_STORE_expect(store.get(), type) == 1, "reading a key store");
    while (!OSSL_STORE_eof(store.get())) {
        const StoreInfo info(OSSL_STORE_load(store.get()));
        if (info != nullptr) take(info.get(), content);
    }
    ERR_clear_error();
    return content;
}

// Says why no such object was found.
[[noreturn]] void throwNothingFound(const std::string& what, const std::string& location, const Password& password)
{
    if (password.isMissing() && isPkcs11Uri(location)) {
        throw UserError(withoutPin(location) + " needs a PIN", "name it with --pass env:NAME or --pass file:PATH");
    }
    if (password.isMissing()) {
        throw UserError(location + " is encrypted", "name its password with --pass env:NAME or --pass file:PATH");
    }
    if (password.isWrong()) throw UserError("the password does not open " + location);
    throw UserError("no " + what + " in " + withoutPin(location), "PEM, DER and PKCS #12 are read");
}

bool isKeyOf(const X509* cert, const EVP_PKEY* key)
{
    const bool matches = X509_check_private_key(cert, key) == 1;
    ERR_clear_error();
    return matches;
}

} // namespace

Pkey loadKey(const std::string& location, const std::string& passwordSource)
{
    Password password(passwordSource, location);
    Content content = readStore(location, OSSL_STORE_INFO_PKEY, password);
    if (!content.keys.empty()) return std::move(content.keys.front());
    if (isPkcs11Uri(location)) {
        Pkey key = loadEngineKey(location, password.text(), password.method(), &password);
        if (key != nullptr) return key;
    }
    throwNothingFound("private key", location, password);
}

std::vector<Cert> loadCertificates(const std::string& location, const std::string& passwordSource)
{
    Password password(passwordSource, location);
    Content content = readStore(location, OSSL_STORE_INFO_CERT, password);
    if (content.certs.empty()) throwNothingFound("certificate", location, password);
    return std::move(content.certs);
}

void appendCertificates(const std::vector<std::string>& locations, std::vector<Cert>& certs)
{
    for (const std::string& location : locations) {
        for (Cert& cert : loadCertificates(location)) certs.push_back(std::move(cert));
    }
}

Identity loadIdentity(const std::string& certLocation, const std::string& keyLocation,
                      const std::string& passwordSource)
{
    Identity identity{std::move(loadCertificates(certLocation, passwordSource).front()),
                      loadKey(keyLocation, passwordSource)};
    if (!isKeyOf(identity.cert.get(), identity.key.get())) {
        throw UserError("the key " + withoutPin(keyLocation) + " does not match the certificate of " +
                            nameOf(identity.cert.get()),
                        "keys and certificates belong together in the order of the command line; in a file of several "
                        "certificates the signer's own comes first");
    }
    return identity;
}

Identity loadCertificate(const std::string& certLocation)
{
    return {std::move(loadCertificates(certLocation).front()), nullptr};
}

Identity loadPkcs12(const std::string& path, const std::string& passwordSource, std::vector<Cert>& chain)
{
    Password password(passwordSource, path);
    Content content = readStore(path, 0, password);
    if (content.keys.empty()) throwNothingFound("private key", path, password);
    Identity identity{nullptr, std::move(content.keys.front())};
    for (Cert& cert : content.certs) {
        if (identity.cert == nullptr && isKeyOf(cert.get(), identity.key.get())) {
            identity.cert = std::move(cert);
        } else {
            chain.push_back(std::move(cert));
        }
    }
    if (identity.cert == nullptr) throw UserError("the key in " + path + " does not match a certificate there");
    return identity;
}

std::string nameOf(const X509* cert)
{
    const Bio bio(BIO_new(BIO_s_mem()));
    ensure(bio != nullptr && X509_NAME_print_ex(bio.get(), X509_get_subject_name(cert), 0, XN_FLAG_RFC2253) >= 0,
           "printing a name");
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return "'" + std::string(text, static_cast<std::size_t>(length)) + "'";
}

} // namespace pkgtool
