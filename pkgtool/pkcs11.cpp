// Engines are OpenSSL's older way to a token, and the only one where no PKCS #11 provider is packaged.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "pkcs11.h"

#include "error.h"

#include <openssl/engine.h>

#include <regex>

namespace pkgtool {

bool isPkcs11Uri(const std::string& location)
{
    return location.rfind("pkcs11:", 0) == 0;
}

std::string withoutPin(const std::string& location)
{
    static const std::regex pin("(pin-value=)[^&;]*");
    return isPkcs11Uri(location) ? std::regex_replace(location, pin, "$1...") : location;
}

#ifndef OPENSSL_NO_ENGINE

namespace {

const char* const NO_ENGINE =
    "install the pkcs11 engine (Debian: libengine-pkcs11-openssl) or load a pkcs11 provider in openssl.cnf; "
    "PKCS11_MODULE_PATH names the token's library";

void releaseEngine(ENGINE* engine)
{
    ENGINE_finish(engine);
    ENGINE_free(engine);
}
using Engine = Owned<ENGINE, releaseEngine>;

Engine openEngine()
{
    ENGINE_load_builtin_engines();
    ENGINE* const engine = ENGINE_by_id("pkcs11");
    if (engine == nullptr) throw UserError("no way to a PKCS #11 token", NO_ENGINE);
    if (ENGINE_init(engine) != 1) {
        ENGINE_free(engine);
        throw UserError("the pkcs11 engine does not start", NO_ENGINE);
    }
    return Engine(engine);
}

} // namespace

Pkey loadEngineKey(const std::string& uri, const std::optional<std::string>& pin)
{
    const Engine engine = openEngine(); // a key holds a reference of its own
    if (pin) ensure(ENGINE_ctrl_cmd_string(engine.get(), "PIN", pin->c_str(), 0) == 1, "handing over the PIN");
    Pkey key(ENGINE_load_private_key(engine.get(), uri.c_str(), nullptr, nullptr));
    if (key == nullptr) {
        throw UserError("no private key at " + withoutPin(uri),
                        "look with p11tool --list-all; a PIN comes from --pass");
    }
    return key;
}

#else

Pkey loadEngineKey(const std::string& uri, const std::optional<std::string>&)
{
    throw UserError("no private key at " + withoutPin(uri), "load a pkcs11 provider in openssl.cnf");
}

#endif

} // namespace pkgtool
