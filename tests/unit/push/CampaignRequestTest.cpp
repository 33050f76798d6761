#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include <tessrakite/core/TessraRequest.hpp>

#include "SdkFixture.hpp"

namespace tessrakite {
namespace {

using test::Answer;

class CampaignRequest : public test::SdkFixture {};

TEST_F(CampaignRequest, AnswersDecodeToTheCampaignOrToNothingWithALine) {
    struct Case {
        const char* name;
        Answer answer;
        std::size_t entries;  // 0: no campaign
        std::string line;     // the console line's start, when one is printed
    };
    const std::vector<Case> cases = {
        {"campaign", Answer::json(R"({"p": [{"t": "Pick one", "o": {"body": "Red"}}, {"t": "Pick two", "o": {}}]})"), 2, ""},
        {"not found", Answer::json(R"({"p": []})", 404), 0, "Error took place  the campaign endpoint answered 404"},
        {"html", Answer::text("<html>down for maintenance</html>"), 0, "Error took place "},
        {"entry without its \"o\"", Answer::json(R"({"p": [{"t": "Pick one"}]})"), 0, "Error took place  keyNotFound"},
        {"truncated", Answer::json(R"({"p": [{"t": "Pick)"), 0, "Error took place "},
        {"dropped", Answer::dropped(), 0, "Error took place "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        backend->clearRequests();
        console->clear();
        backend->on("GET", "/campaigns/42", c.answer);
        std::mutex mutex;
        std::optional<std::optional<PCampaignObject>> received;
        TessraRequest().campaignGet(backend->httpsBase() + "/campaigns/42?id=7", [&](std::optional<PCampaignObject> campaign) {
            std::lock_guard lock(mutex);
            received = std::move(campaign);
        });
        pump();
        std::lock_guard lock(mutex);
        ASSERT_TRUE(received.has_value()) << "the completion is called whatever the answer";
        EXPECT_EQ(received->has_value() ? (*received)->p.size() : 0u, c.entries);
        // A GET may go out again when a kept-alive connection died under it.
        ASSERT_FALSE(backend->requests().empty());
        EXPECT_EQ(backend->requests()[0].target(), "/campaigns/42?id=7&ver=2.0");
        if (c.line.empty()) continue;
        bool printed = false;
        for (const auto& line : console->lines()) printed |= line.rfind(c.line, 0) == 0;
        EXPECT_TRUE(printed) << c.line;
    }
}

TEST_F(CampaignRequest, AnEndpointThatIsNotAUrlSendsAndCallsNothing) {
    std::atomic<bool> called = false;
    TessraRequest().campaignGet("not a url", [&](std::optional<PCampaignObject>) { called = true; });
    pump();
    EXPECT_FALSE(called);
    EXPECT_TRUE(backend->requests().empty());
}

}  // namespace
}  // namespace tessrakite
