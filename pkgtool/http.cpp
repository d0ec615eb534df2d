#include "http.h"

#include "error.h"

#include <curl/curl.h>

#include <memory>
#include <stdexcept>

namespace pkgtool {

namespace {

constexpr long TIMEOUT_SECONDS = 60;
constexpr std::size_t MAX_RESPONSE = 1 << 20; // a token is some kilobytes, even with a long chain

struct Cleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// Taking fewer octets than there are ends the transfer with an error.
std::size_t collect(char* data, std::size_t, std::size_t count, void* target)
{
    Bytes& body = *static_cast<Bytes*>(target);
    if (body.size() + count > MAX_RESPONSE) return 0;
    body.insert(body.end(), data, data + count);
    return count;
}

} // namespace

Bytes postTimestampQuery(const std::string& url, const Bytes& query)
{
    const std::unique_ptr<CURL, Cleanup> curl(curl_easy_init());
    const std::unique_ptr<curl_slist, Cleanup> headers(
        curl_slist_append(nullptr, "Content-Type: application/timestamp-query"));
    if (curl == nullptr || headers == nullptr) throw std::runtime_error("libcurl cannot start");

    Bytes body;
    char reason[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(query.size()));
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, query.data());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl.get(), CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, TIMEOUT_SECONDS);
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, reason);
    const CURLcode code = curl_easy_perform(curl.get());
    if (code != CURLE_OK) {
        throw UserError("no answer from " + url + ": " + (reason[0] != '\0' ? reason : curl_easy_strerror(code)));
    }
    return body;
}

} // namespace pkgtool
