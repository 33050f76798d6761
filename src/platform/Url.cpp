#include <tessrakite/platform/Url.hpp>

#include <cstdlib>
#include <string>

#include <curl/curl.h>

namespace tessrakite {
namespace {
std::optional<std::string> part(CURLU* u, CURLUPart which) {
    char* value = nullptr;
    if (curl_url_get(u, which, &value, 0) != CURLUE_OK || !value) return std::nullopt;
    std::string out(value);
    curl_free(value);
    return out;
}
}  // namespace

std::string Url::percentEncoded(std::string_view text) {
    if (text.empty()) return {};
    char* escaped = curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size()));
    if (!escaped) return {};
    std::string out(escaped);
    curl_free(escaped);
    return out;
}

std::optional<Url> Url::parse(std::string_view text) {
    if (text.empty()) return std::nullopt;
    CURLU* u = curl_url();
    if (!u) return std::nullopt;
    std::string copy(text);
    // Any scheme (deep links included); the text must be absolute and well formed.
    auto rc = curl_url_set(u, CURLUPART_URL, copy.c_str(), CURLU_NON_SUPPORT_SCHEME);
    if (rc != CURLUE_OK) {
        curl_url_cleanup(u);
        return std::nullopt;
    }
    Url url;
    url.text_ = std::move(copy);
    url.scheme_ = part(u, CURLUPART_SCHEME).value_or("");
    url.host_ = part(u, CURLUPART_HOST).value_or("");
    url.path_ = part(u, CURLUPART_PATH).value_or("");
    url.query_ = part(u, CURLUPART_QUERY);
    if (auto p = part(u, CURLUPART_PORT)) url.port_ = std::atoi(p->c_str());
    curl_url_cleanup(u);
    return url;
}

}  // namespace tessrakite
