#include <atomic>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include <tessrakite/BuildConfig.hpp>
#include <tessrakite/platform/UrlSession.hpp>

#include "FakeBackend.hpp"
#include "TestEnv.hpp"

namespace tessrakite::platform {
namespace {

using namespace std::chrono_literals;
using test::Answer;
using test::FakeBackend;

UrlRequest request(const std::string& target, std::string method = "GET", std::string body = {}) {
    UrlRequest r(Url::parse(target).value());
    r.httpMethod = std::move(method);
    r.httpBody = std::move(body);
    return r;
}

std::string text(const UrlResult& r) { return r.data ? std::string(r.data->begin(), r.data->end()) : "<no data>"; }

/// Runs one data task and waits (boundedly) for its completion.
UrlResult fetch(UrlSession& session, UrlRequest r) {
    auto promise = std::make_shared<std::promise<UrlResult>>();
    auto future = promise->get_future();
    session.dataTask(std::move(r), [promise](const UrlResult& result) { promise->set_value(result); });
    if (future.wait_for(30s) != std::future_status::ready) throw std::runtime_error("no completion");
    return future.get();
}

class UrlSessionTest : public ::testing::Test {
protected:
    std::string base(bool https) const { return https ? backend.httpsBase() : backend.httpBase(); }

    // Declared in this order so the session (and its connections) goes first.
    FakeBackend backend;
    std::shared_ptr<UrlSession> session = makeCurlUrlSession(test::trustingTestCa());
};

/// Tests of exchanges, run once by data task and once by synchronous send.
class UrlExchangeTest : public UrlSessionTest, public ::testing::WithParamInterface<bool> {
protected:
    UrlResult exchange(UrlSession& s, UrlRequest r) { return GetParam() ? s.sendSynchronous(r) : fetch(s, r); }
    UrlResult exchange(UrlRequest r) { return exchange(*session, std::move(r)); }
};
INSTANTIATE_TEST_SUITE_P(Path, UrlExchangeTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "SendSynchronous" : "DataTask"; });

TEST_P(UrlExchangeTest, RequestsArriveAsSentAndAnswersReachTheCaller) {
    struct Case {
        std::string method, target;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        bool https;
        std::optional<Answer> answer;  // none: unscripted
        long status;
        std::string reply;
    };
    const std::string big(100 * 1024, 'b');
    const std::vector<Case> cases = {
        {"GET", "/v2/cfg/key.json?ver=2.0&q=a%20b",
         {{"If-Modified-Since", "Fri, 12 Jan 2024 09:42:01 GMT"}, {"X-Tessra", "1"}}, "", true,
         Answer::json(R"({"ok":true})"), 200, R"({"ok":true})"},
        {"POST", "/v2/activity?type=mobile", {{"Content-Type", "application/json"}}, R"({"a":1,"b":"\u00fc"})", true,
         Answer::withStatus(201), 201, ""},
        {"POST", "/upload", {{"Content-Type", "application/octet-stream"}}, std::string(2 << 20, 'x'), true,
         Answer::text(big).inChunks(), 200, big},
        {"DELETE", "/thing/1", {}, "", true, std::nullopt, 404, "no script for DELETE /thing/1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method + " " + c.target);
        backend.clearRequests();
        if (c.answer) backend.on(c.method, "/*", Answer(*c.answer).header("X-Echo", "1"));
        UrlRequest r = request(base(c.https) + c.target, c.method, c.body);
        for (const auto& [field, value] : c.headers) r.setValue(value, field);
        UrlResult result = exchange(r);
        ASSERT_FALSE(result.error) << result.error->message;
        EXPECT_EQ(result.response->statusCode, c.status);
        EXPECT_TRUE(text(result) == c.reply);
        EXPECT_EQ(result.response->value("x-ECHO"), c.answer ? "1" : std::optional<std::string>());
        auto seen = backend.requests();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].method + " " + seen[0].target(), c.method + " " + c.target);
        EXPECT_TRUE(seen[0].body == c.body);
        EXPECT_EQ(seen[0].tls, c.https);
        for (const auto& [field, value] : c.headers) EXPECT_EQ(seen[0].header(field), value) << field;
        EXPECT_FALSE(seen[0].header("Expect")) << "posts must not wait for 100-continue";
    }
}

TEST_P(UrlExchangeTest, RedirectsAreFollowedAndHeaderFieldsCannotInjectLines) {
    backend.on("GET", "/old", Answer::withStatus(302).header("Location", "/new"));
    backend.on("GET", "/new", Answer::text("moved here"));
    UrlRequest r = request(backend.httpBase() + "/old");
    r.setValue("text/html", "X-Good");
    r.setValue("fine", "x-good");  // replaces, whatever the case
    r.setValue("a\r\nX-Injected: yes", "X-Bad");
    UrlResult result = exchange(r);
    ASSERT_FALSE(result.error) << result.error->message;
    EXPECT_EQ(text(result), "moved here");
    EXPECT_FALSE(result.response->value("Location")) << "only the final answer's fields";
    auto seen = backend.requests();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_FALSE(seen[0].header("X-Injected") || seen[0].header("X-Bad"));
    EXPECT_EQ(seen[0].header("X-Good"), "fine");
}

TEST_P(UrlExchangeTest, FailuresAreErrorsWithoutResponse) {
    backend.on("GET", "/slow", Answer::text("late").after(5s));
    backend.on("POST", "/drop", Answer::dropped());
    for (bool https : {false, true}) {
        UrlRequest slow = request(base(https) + "/slow");
        slow.timeoutInterval = 0.3;
        UrlResult late = exchange(slow), dropped = exchange(request(base(https) + "/drop", "POST", "{}"));
        EXPECT_EQ(late.error ? late.error->code : 0, UrlError::timedOut);
        EXPECT_GT(dropped.error ? dropped.error->code : 0, 0) << "a transport error";
        for (const UrlResult& r : {late, dropped, exchange(request("tessra://open/page")),  // not HTTP: never sent
                                   exchange(request(base(https) + "/", "GET / HTTP/1.1\r\nX:"))}) {
            ASSERT_TRUE(r.error) << https;
            EXPECT_FALSE(r.response || r.data);
        }
    }
    EXPECT_EQ(backend.requests().size(), 4u) << "only the slow and the dropped requests were sent";
}

TEST_P(UrlExchangeTest, SequentialRequestsReuseOneConnectionAndAPostWhoseConnectionDiesIsSentOnceAndFails) {
    backend.on("GET", "/ping", Answer::text("pong"));
    for (bool https : {false, true}) {
        SCOPED_TRACE(https);
        backend.clearRequests();
        backend.onSequence("POST", "/report", {Answer::json("{}", 201), Answer::dropped()});
        for (int i = 0; i < 2; ++i) ASSERT_FALSE(exchange(request(base(https) + "/ping")).error);
        ASSERT_FALSE(exchange(request(base(https) + "/report", "POST", "{}")).error);
        auto seen = backend.requests();
        ASSERT_EQ(seen.size(), 3u);
        EXPECT_EQ(seen[1].remotePort, seen[0].remotePort);
        EXPECT_EQ(seen[2].remotePort, seen[0].remotePort);
        // The server reads the next post on the same connection, then closes it unanswered.
        UrlResult failed = exchange(request(base(https) + "/report", "POST", R"({"n":2})"));
        ASSERT_TRUE(failed.error);
        EXPECT_FALSE(failed.response);
        EXPECT_EQ(backend.requestsTo("/report").size(), 2u) << "the failed post was not sent again";
        // A GET may still be retried on a fresh connection, and the session goes on working.
        EXPECT_EQ(text(exchange(request(base(https) + "/ping"))), "pong");
    }
}

TEST_P(UrlExchangeTest, APostAfterTheServerClosedTheIdleConnectionGoesOutOnceOnAFreshOne) {
    // Servers close idle connections after a few seconds (this one after one); over TLS
    // libcurl may not notice before it sends, and a post is never sent twice.
    FakeBackend::Options options;
    options.keepAliveSeconds = 1;
    FakeBackend server(options);
    server.on("POST", "/report", Answer::json("{}", 201));
    ASSERT_FALSE(exchange(request(server.httpsBase() + "/report", "POST", "{}")).error);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    UrlResult second = exchange(request(server.httpsBase() + "/report", "POST", R"({"n":2})"));
    EXPECT_FALSE(second.error) << second.error->localizedDescription();
    EXPECT_EQ(server.requestsTo("/report").size(), 2u);
}

TEST_P(UrlExchangeTest, AServerIsTrustedOnlyWhenItsAuthorityIs) {
    struct Case {
        std::string certificate;             // the server's, under tests/data/tls
        std::optional<std::string> extraCa;  // under tests/data/tls, or an absolute path
        bool succeeds;
    };
    for (const auto& c : std::vector<Case>{{"server", std::nullopt, false}, {"server", "test-ca", true},
                                           {"untrusted-server", "test-ca", false},
                                           {"untrusted-server", "untrusted-ca", true},
                                           {"wrong-host-server", "test-ca", false},  // certificate for another name
                                           {"server", "/nonexistent/sandbox-ca.pem", false}}) {
        SCOPED_TRACE(c.certificate + " with " + c.extraCa.value_or("system authorities only"));
        FakeBackend server({"tls/" + c.certificate + ".pem", "tls/" + c.certificate + ".key"});
        server.on("GET", "/hello", Answer::text("hi"));
        UrlSessionOptions options;
        const bool absolute = c.extraCa && c.extraCa->front() == '/';
        if (c.extraCa)
            options.extraCaFile = absolute ? *c.extraCa : test::testData("tls/" + *c.extraCa + ".pem").string();
        UrlResult result = exchange(*makeCurlUrlSession(options), request(server.httpsBase() + "/hello"));
        if (c.succeeds) {
            ASSERT_FALSE(result.error) << result.error->message;
            EXPECT_EQ(text(result), "hi");
        } else {
            ASSERT_TRUE(result.error);
            EXPECT_FALSE(result.response);
            EXPECT_TRUE(server.requests().empty()) << "nothing is sent to an untrusted server";
            EXPECT_TRUE(!absolute || result.error->message.find(*c.extraCa) != std::string::npos);
        }
    }
}

TEST_P(UrlExchangeTest, ABodyOverTheCapIsAnErrorNotACrash) {
    constexpr std::size_t cap = 1000, buildCap = TESSRA_DEFAULT_MAX_RESPONSE_BYTES;
    struct Case {
        std::size_t cap, size;  // cap 0: the build's limit
        bool chunked;
    };
    for (const auto& c : std::vector<Case>{{cap, cap, true}, {cap, cap + 1, false}, {cap, 8 << 20, true},
                                           {0, buildCap + 1, false}}) {
        SCOPED_TRACE(std::to_string(c.size) + (c.chunked ? " chunked" : " announced"));
        // Not a compressible type, so the announced length is the body's own.
        Answer answer = Answer::withStatus(200).header("Content-Type", "application/octet-stream");
        answer.body.assign(c.size, 'z');
        if (c.chunked) answer.inChunks();
        backend.on("GET", "/big", answer);
        UrlResult result = exchange(*makeCurlUrlSession(test::trustingTestCa(c.cap)), request(base(true) + "/big"));
        if (c.size <= (c.cap ? c.cap : buildCap)) {
            ASSERT_FALSE(result.error) << result.error->message;
            EXPECT_EQ(result.data->size(), c.size);
        } else {
            ASSERT_TRUE(result.error);
            EXPECT_EQ(result.error->code, UrlError::bodyTooLarge);
            EXPECT_TRUE(!c.cap || result.error->message.find("1000 bytes") != std::string::npos);
            EXPECT_FALSE(result.response || result.data);
        }
    }
}

TEST_F(UrlSessionTest, CompletionsRunOnOneWorkerThreadAndSynchronousSendsWorkFromAnyThread) {
    backend.on("GET", "/t", Answer::text("ok"));
    const std::string target = backend.httpsBase() + "/t";
    std::mutex mutex;
    std::set<std::thread::id> workers;
    std::vector<std::string> replies;
    auto send = [&](bool https) {
        UrlResult r = session->sendSynchronous(request(base(https) + "/t"));
        std::lock_guard lock(mutex);
        replies.push_back(text(r));
    };
    for (int i = 0; i < 5; ++i)
        session->dataTask(request(target), [&, i](const UrlResult&) {
            send(i % 2);  // from the worker, inside a completion
            std::lock_guard lock(mutex);
            workers.insert(std::this_thread::get_id());
        });
    std::vector<std::thread> senders;
    for (int t = 0; t < 6; ++t) senders.emplace_back([&, t] { for (int i = 0; i < 3; ++i) send(t % 2); });
    for (auto& t : senders) t.join();
    ASSERT_TRUE(session->waitIdle(30.0)) << "the worker deadlocked";
    EXPECT_EQ(workers.size(), 1u);
    EXPECT_FALSE(workers.count(std::this_thread::get_id()));
    EXPECT_EQ(replies, std::vector<std::string>(5 + 6 * 3, "ok"));
    EXPECT_EQ(backend.requests().size(), 5u + 5 + 6 * 3);
}

TEST_F(UrlSessionTest, WaitIdleCoversFollowUpsAndAThrowingCompletionDoesNotStopTheSession) {
    backend.on("GET", "/a", Answer::text("a"));
    backend.on("GET", "/b", Answer::text("b").after(200ms));
    std::atomic<bool> followUpDone{false};
    const std::string b = backend.httpsBase() + "/b";
    session->dataTask(request(backend.httpsBase() + "/a"), [&, s = session.get()](const UrlResult&) {
        s->dataTask(request(b), [&](const UrlResult&) { followUpDone = true; });
        throw std::runtime_error("host bug");
    });
    ASSERT_TRUE(session->waitIdle(30.0));
    EXPECT_TRUE(followUpDone) << "waitIdle returned before the follow-up's completion";
    EXPECT_FALSE(fetch(*session, request(b)).error);
}

TEST_F(UrlSessionTest, DestroyingTheSessionCancelsWhatIsInFlight) {
    backend.on("GET", "/never", Answer::text("late").after(20s));
    std::promise<UrlResult> first, followUp;
    const std::string target = backend.httpsBase() + "/never";
    session->dataTask(request(target), [&, s = session.get()](const UrlResult& r) {
        first.set_value(r);  // and queue more work while the session shuts down
        s->dataTask(request(target), [&](const UrlResult& again) { followUp.set_value(again); });
    });
    ASSERT_TRUE(backend.waitForRequests(1));
    session.reset();
    for (auto* p : {&first, &followUp}) {
        auto f = p->get_future();
        ASSERT_EQ(f.wait_for(0s), std::future_status::ready) << "the destructor returned before completing";
        EXPECT_EQ(f.get().error.value_or(UrlError{}).code, UrlError::cancelled);
    }
}

TEST_F(UrlSessionTest, ASessionReleasedInsideItsOwnCompletionShutsDownCleanly) {
    backend.on("GET", "/last", Answer::text("bye"));
    auto done = std::make_shared<std::promise<std::string>>();
    auto keep = std::make_shared<std::shared_ptr<UrlSession>>(std::move(session));
    (*keep)->dataTask(request(backend.httpsBase() + "/last"), [keep, done](const UrlResult& r) {
        keep->reset();  // the last reference goes on the worker thread
        done->set_value(text(r));
    });
    auto f = done->get_future();
    ASSERT_EQ(f.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(f.get(), "bye");
}

}  // namespace
}  // namespace tessrakite::platform
