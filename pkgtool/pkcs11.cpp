// Engines are OpenSSL's older access to tokens, and the only one where no PKCS #11 provider is packaged.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "pkcs11.h"

#include "error.h"

#include <openssl/engine.h>

#include <sys/mman.h>
#include <unistd.h>

#include <array>
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
    if (engine == nullptr)
        throw UserError("neither an engine nor a provider for PKCS #11 tokens is installed", NO_ENGINE);
    if (ENGINE_init(engine) != 1) {
        ENGINE_free(engine);
        throw UserError("the pkcs11 engine does not start", NO_ENGINE);
    }
    return Engine(engine);
}

// Captures the engine's own output, which does not say what to do.
class ErrorOutput {
public:
    ErrorOutput() : original_(dup(STDERR_FILENO)), file_(memfd_create("pkcs11", MFD_CLOEXEC))
    {
        (void)dup2(file_.get(), STDERR_FILENO);
    }
    ~ErrorOutput() { (void)dup2(original_.get(), STDERR_FILENO); }
    ErrorOutput(const ErrorOutput&) = delete;
    ErrorOutput& operator=(const ErrorOutput&) = delete;

    std::string text() const
    {
        std::array<char, 4096> text;
        const ssize_t count = pread(file_.get(), text.data(), text.size(), 0);
        return count > 0 ? std::string(text.data(), static_cast<std::size_t>(count)) : "";
    }

private:
    Descriptor original_;
    Descriptor file_;
};

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// The engine returns no reason; its output has it.
[[noreturn]] void throwNoKey(const std::string& uri, const std::string& words)
{
    const std::string where = withoutPin(uri);
    if (contains(words, "Unable to load module")) throw UserError("the token's library cannot be loaded", NO_ENGINE);
    if (contains(words, "Login")) {
        throw UserError("the token refuses the PIN for " + where,
                        "most tokens lock after a few wrong ones; p11tool --list-tokens shows their state");
    }
    if (contains(words, "No matching")) {
        throw UserError("no such token: " + where, "p11tool --list-tokens lists the existing ones");
    }
    throw UserError("no private key at " + where, "p11tool --login --list-all-privkeys TOKEN lists the existing ones");
}

} // namespace

Pkey loadEngineKey(const std::string& uri, const std::optional<std::string>& pin, UI_METHOD* askPin, void* asked)
{
    const Engine engine = openEngine(); // a key holds its own reference
    if (pin) ensure(ENGINE_ctrl_cmd_string(engine.get(), "PIN", pin->c_str(), 0) == 1, "handing over the PIN");
    ERR_clear_error();
    const ErrorOutput output;
    Pkey key(ENGINE_load_private_key(engine.get(), uri.c_str(), askPin, asked));
    if (key == nullptr && !contains(output.text(), "No PIN code was entered")) throwNoKey(uri, output.text());
    ERR_clear_error();
    return key;
}

#else

Pkey loadEngineKey(const std::string& uri, const std::optional<std::string>&, UI_METHOD*, void*)
{
    throw UserError("no private key at " + withoutPin(uri), "load a pkcs11 provider in openssl.cnf");
}

#endif

} // namespace pkgtool
