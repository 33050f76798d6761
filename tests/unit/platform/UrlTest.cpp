#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tessrakite/platform/Url.hpp>

namespace tessrakite {
namespace {

TEST(Url, AbsoluteUrlsAreAcceptedAndTakenApart) {
    struct Case {
        std::string text;
        std::string scheme;
        std::string host;
        std::optional<int> port;
        std::string path;
        std::optional<std::string> query;
    };
    const std::vector<Case> cases = {
        {"https://example.com", "https", "example.com", std::nullopt, "/", std::nullopt},
        {"https://track.example.com/v2/activity?type=mobile", "https", "track.example.com", std::nullopt,
         "/v2/activity", "type=mobile"},
        {"http://127.0.0.1:8080/post.php?ver=1.0&addr=1&code=2", "http", "127.0.0.1", 8080, "/post.php",
         "ver=1.0&addr=1&code=2"},
        {"https://example.com/a/b?x=1#frag", "https", "example.com", std::nullopt, "/a/b", "x=1"},
        {"myapp://deep/link?id=3", "myapp", "deep", std::nullopt, "/link", "id=3"},
        {"http://[::1]:80/", "http", "[::1]", 80, "/", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        auto url = Url::parse(c.text);
        ASSERT_TRUE(url);
        EXPECT_EQ(url->absoluteString(), c.text);
        EXPECT_EQ(url->scheme(), c.scheme);
        EXPECT_EQ(url->host(), c.host);
        EXPECT_EQ(url->port(), c.port);
        EXPECT_EQ(url->path(), c.path);
        EXPECT_EQ(url->query(), c.query);
    }
}

TEST(Url, TextsThatDoNotFormAUrlAreRejected) {
    for (const char* text : {"", "not a url", "/relative/path", "example.com/path", "http://",
                             "https://exa mple.com/", "https://example.com/a b", "https://host:99999/", "://missing"}) {
        EXPECT_FALSE(Url::parse(text)) << '"' << text << '"';
    }
}

TEST(Url, EqualUrlsHaveEqualTexts) {
    EXPECT_EQ(*Url::parse("https://example.com/x"), *Url::parse("https://example.com/x"));
    EXPECT_FALSE(*Url::parse("https://example.com/x") == *Url::parse("https://example.com/y"));
}

}  // namespace
}  // namespace tessrakite
