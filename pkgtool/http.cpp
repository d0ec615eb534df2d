#include "http.h"

#include "error.h"
#include "progress.h"

#include <curl/curl.h>

#include <memory>
#include <stdexcept>

namespace pkgtool {

namespace {

constexpr long CONNECT_SECONDS = 10;
constexpr long TIMEOUT_SECONDS = 60;
constexpr std::size_t MAX_RESPONSE = 1 << 20; // a token is some kilobytes, even with a long chain

struct Cleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
    void operator()(char* text) const { curl_free(text); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct Exchange {
    std::string url; // for messages
    Bytes body;
    bool isTooLong = false;
};

// Accepting fewer octets than offered ends the transfer with an error.
std::size_t collect(char* data, std::size_t, std::size_t count, void* target)
{
    Exchange& exchange = *static_cast<Exchange*>(target);
    exchange.isTooLong = exchange.body.size() + count > MAX_RESPONSE;
    if (exchange.isTooLong) return 0;
    exchange.body.insert(exchange.body.end(), data, data + count);
    return count;
}

// A URL may contain a password, which no message may show.
std::string withoutCredentials(const std::string& url)
{
    const std::unique_ptr<CURLU, Cleanup> parts(curl_url());
    char* text = nullptr;
    const bool isParsed =
        parts != nullptr &&
        curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK &&
        curl_url_set(parts.get(), CURLUPART_USER, nullptr, 0) == CURLUE_OK &&
        curl_url_set(parts.get(), CURLUPART_PASSWORD, nullptr, 0) == CURLUE_OK &&
        curl_url_get(parts.get(), CURLUPART_URL, &text, 0) == CURLUE_OK;
    const std::unique_ptr<char, Cleanup> owner(text);
    return isParsed ? text : url;
}

} // namespace

Bytes postTimestampQuery(const std::string& url, const Bytes& query)
{
    const std::unique_ptr<CURL, Cleanup> curl(curl_easy_init());
    const std::unique_ptr<curl_slist, Cleanup> headers(
        curl_slist_append(nullptr, "Content-Type: application/timestamp-query"));
    if (curl == nullptr || headers == nullptr) throw std::runtime_error("libcurl cannot start");

    Exchange exchange{withoutCredentials(url), {}};
    char reason[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(query.size()));
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, query.data());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(curl.get(), CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT, CONNECT_SECONDS);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, TIMEOUT_SECONDS);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L); // there is another thread
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, reason);
    const CURLcode code = [&] {
        const Progress progress("waiting for the authority at " + exchange.url, 0, Progress::Log::Told);
        return curl_easy_perform(curl.get());
    }();
    if (exchange.isTooLong) throw UserError("the answer from " + exchange.url + " is longer than any timestamp");
    if (code != CURLE_OK) {
        throw UserError("no answer from " + exchange.url + ": " +
                        (reason[0] != '\0' ? reason : curl_easy_strerror(code)));
    }
    return exchange.body;
}

} // namespace pkgtool
