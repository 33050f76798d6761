#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tessrakite/platform/Url.hpp>

namespace tessrakite {
namespace {

TEST(Url, AbsoluteUrlsAreTakenApartAndOtherTextsRejected) {
    struct Case {
        std::string text;
        std::string host;
        std::optional<int> port;
        std::string path;
        std::optional<std::string> query;
    };
    const std::vector<Case> cases = {
        {"http://127.0.0.1:8080/post.php?ver=1.0&addr=1&code=2", "127.0.0.1", 8080, "/post.php", "ver=1.0&addr=1&code=2"},
        {"https://example.com/a/b?x=1#frag", "example.com", std::nullopt, "/a/b", "x=1"},
        {"myapp://deep/link?id=3", "deep", std::nullopt, "/link", "id=3"},  // deep links are URLs too
        {"http://[::1]:80/", "[::1]", 80, "/", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        auto url = Url::parse(c.text);
        ASSERT_TRUE(url);
        EXPECT_EQ(url->absoluteString(), c.text);
        EXPECT_EQ(url->host(), c.host);
        EXPECT_EQ(url->port(), c.port);
        EXPECT_EQ(url->path(), c.path);
        EXPECT_EQ(url->query(), c.query);
    }
    for (const char* text : {"", "/relative/path", "example.com/path", "http://", "https://exa mple.com/",
                             "https://example.com/a b", "https://host:99999/"})
        EXPECT_FALSE(Url::parse(text)) << '"' << text << '"';
}

}  // namespace
}  // namespace tessrakite
