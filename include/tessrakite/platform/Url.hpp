#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// A URL, made only through parse(); a text "does not form a URL" exactly when parse
/// rejects it. Validation is libcurl's URL parser (any scheme, absolute URLs only).
class TESSRA_EXPORT Url {
public:
    static std::optional<Url> parse(std::string_view text);
    /// `text` with every byte but letters, digits and "-._~" percent-encoded: fit for one
    /// path segment or query value.
    static std::string percentEncoded(std::string_view text);

    const std::string& absoluteString() const { return text_; }
    std::string scheme() const { return scheme_; }
    std::string host() const { return host_; }
    std::optional<int> port() const { return port_; }
    std::string path() const { return path_; }
    std::optional<std::string> query() const { return query_; }

    friend bool operator==(const Url& a, const Url& b) { return a.text_ == b.text_; }

private:
    Url() = default;
    std::string text_, scheme_, host_, path_;
    std::optional<int> port_;
    std::optional<std::string> query_;
};

}  // namespace tessrakite
