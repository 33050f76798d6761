#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

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

constexpr auto kGenerous = 30s;  // an upper bound for things that take milliseconds

Url url(const std::string& text) {
    auto parsed = Url::parse(text);
    if (!parsed) throw std::runtime_error("not a URL: " + text);
    return *parsed;
}

UrlRequest request(const std::string& text, std::string method = "GET", std::string body = {}) {
    UrlRequest r(url(text));
    r.httpMethod = std::move(method);
    r.httpBody = std::move(body);
    return r;
}

std::string text(const UrlResult& r) { return r.data ? std::string(r.data->begin(), r.data->end()) : "<no data>"; }

struct Outcome {
    UrlResult result;
    std::thread::id thread;
};

/// Runs one data task and waits (boundedly) for its completion.
Outcome fetch(UrlSession& session, UrlRequest r) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto future = promise->get_future();
    session.dataTask(std::move(r), [promise](const UrlResult& result) {
        promise->set_value(Outcome{result, std::this_thread::get_id()});
    });
    if (future.wait_for(kGenerous) != std::future_status::ready) throw std::runtime_error("no completion");
    return future.get();
}

enum class Path { dataTask, synchronous };
const char* name(Path p) { return p == Path::dataTask ? "data task" : "synchronous send"; }

UrlResult exchange(UrlSession& session, Path path, UrlRequest r) {
    return path == Path::dataTask ? fetch(session, std::move(r)).result : session.sendSynchronous(r);
}

/// Restores an environment variable when the test ends.
class ScopedEnv {
public:
    ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value)
            ::setenv(name, value->c_str(), 1);
        else
            ::unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_)
            ::setenv(name_, old_->c_str(), 1);
        else
            ::unsetenv(name_);
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    const char* name_;
    std::optional<std::string> old_;
};

class UrlSessionTest : public ::testing::Test {
protected:
    // Declared in this order so the session (and its connections) goes first.
    FakeBackend backend;
    std::shared_ptr<UrlSession> session = makeCurlUrlSession(test::trustingTestCa());
};

TEST_F(UrlSessionTest, MethodHeadersAndBodyArriveAsSent) {
    struct Case {
        const char* what;
        std::string method;
        std::string path;
        std::string query;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        bool https;
    };
    const std::vector<Case> cases = {
        {"GET with a query and headers", "GET", "/v2/cfg/key.json", "ver=2.0&q=a%20b",
         {{"If-Modified-Since", "Fri, 12 Jan 2024 09:42:01 GMT"}, {"X-Tessra", "1"}}, "", true},
        {"JSON post", "POST", "/v2/activity", "type=mobile", {{"Content-Type", "application/json"}},
         R"({"a":1,"b":"\u00fc"})", true},
        {"form post over plain HTTP", "POST", "/post.php", "ver=1.0&addr=1&code=2", {}, "stack=TQ==", false},
        {"large post, sent at once", "POST", "/upload", "", {{"Content-Type", "application/octet-stream"}},
         std::string(2 * 1024 * 1024, 'x'), true},
        {"empty post", "POST", "/empty", "", {}, "", true},
        {"PUT", "PUT", "/thing", "", {{"Content-Type", "text/plain"}}, "hello", false},
        {"DELETE", "DELETE", "/thing/1", "", {}, "", true},
    };
    for (Path path : {Path::dataTask, Path::synchronous}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.what) + " by " + name(path));
            backend.clearRequests();
            backend.on(c.method, c.path, Answer::text("ok"));
            auto target = (c.https ? backend.httpsBase() : backend.httpBase()) + c.path +
                          (c.query.empty() ? "" : "?" + c.query);
            UrlRequest r = request(target, c.method, c.body);
            for (const auto& [field, value] : c.headers) r.setValue(value, field);

            UrlResult result = exchange(*session, path, r);

            ASSERT_FALSE(result.error) << result.error->message;
            EXPECT_EQ(result.response->statusCode, 200);
            EXPECT_EQ(text(result), "ok");
            auto seen = backend.requests();
            ASSERT_EQ(seen.size(), 1u);
            EXPECT_EQ(seen[0].method, c.method);
            EXPECT_EQ(seen[0].path, c.path);
            EXPECT_EQ(seen[0].query, c.query);
            EXPECT_EQ(seen[0].body.size(), c.body.size());
            EXPECT_TRUE(seen[0].body == c.body);
            EXPECT_EQ(seen[0].tls, c.https);
            for (const auto& [field, value] : c.headers) EXPECT_EQ(seen[0].header(field), value) << field;
            EXPECT_FALSE(seen[0].header("Expect")) << "posts must not wait for 100-continue";
        }
    }
}

TEST_F(UrlSessionTest, StatusHeadersAndBodyReachTheCaller) {
    struct Case {
        const char* what;
        std::string path;
        std::optional<Answer> answer;  // none: unscripted
        long status;
        std::string body;
        std::optional<std::string> token;
    };
    const std::string big(100 * 1024, 'b');
    const std::vector<Case> cases = {
        {"JSON with headers", "/json", Answer::json(R"({"ok":true})").header("X-Token", "abc"), 200, R"({"ok":true})",
         "abc"},
        {"created", "/created", Answer::withStatus(201), 201, "", std::nullopt},
        {"not modified", "/cfg", Answer::withStatus(304).header("X-Token", "t"), 304, "", "t"},
        {"server error", "/boom", Answer::text("down", 500), 500, "down", std::nullopt},
        {"unscripted", "/nowhere", std::nullopt, 404, "no script for GET /nowhere", std::nullopt},
        {"chunked body", "/chunked", Answer::text(big).inChunks(), 200, big, std::nullopt},
    };
    for (Path path : {Path::dataTask, Path::synchronous}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.what) + " by " + name(path));
            if (c.answer) backend.on("GET", c.path, *c.answer);
            UrlResult result = exchange(*session, path, request(backend.httpsBase() + c.path));
            ASSERT_FALSE(result.error) << result.error->message;
            ASSERT_TRUE(result.response);
            EXPECT_EQ(result.response->statusCode, c.status);
            EXPECT_TRUE(text(result) == c.body);
            EXPECT_EQ(result.response->value("x-TOKEN"), c.token);
        }
    }
}

TEST_F(UrlSessionTest, RedirectsAreFollowed) {
    backend.on("GET", "/old", Answer::withStatus(302).header("Location", "/new"));
    backend.on("GET", "/new", Answer::text("moved here").header("X-Final", "yes"));
    UrlResult result = fetch(*session, request(backend.httpsBase() + "/old")).result;
    ASSERT_FALSE(result.error) << result.error->message;
    EXPECT_EQ(result.response->statusCode, 200);
    EXPECT_EQ(text(result), "moved here");
    EXPECT_EQ(result.response->value("X-Final"), "yes");
    EXPECT_FALSE(result.response->value("Location")) << "only the final response's headers";
}

TEST_F(UrlSessionTest, AnExchangeSlowerThanItsTimeoutFailsWithATimeout) {
    backend.on("GET", "/slow", Answer::text("late").after(5s));
    for (Path path : {Path::dataTask, Path::synchronous}) {
        SCOPED_TRACE(name(path));
        UrlRequest r = request(backend.httpsBase() + "/slow");
        r.timeoutInterval = 0.3;
        UrlResult result = exchange(*session, path, r);
        ASSERT_TRUE(result.error);
        EXPECT_EQ(result.error->code, UrlError::timedOut) << result.error->message;
        EXPECT_FALSE(result.response);
        EXPECT_FALSE(result.data);
    }
}

TEST_F(UrlSessionTest, SequentialRequestsReuseOneConnection) {
    backend.on("GET", "/ping", Answer::text("pong"));
    for (bool https : {false, true}) {
        for (Path path : {Path::dataTask, Path::synchronous}) {
            SCOPED_TRACE(std::string(https ? "https " : "http ") + name(path));
            backend.clearRequests();
            for (int i = 0; i < 3; ++i) {
                UrlResult result =
                    exchange(*session, path, request((https ? backend.httpsBase() : backend.httpBase()) + "/ping"));
                ASSERT_FALSE(result.error) << result.error->message;
            }
            auto seen = backend.requests();
            ASSERT_EQ(seen.size(), 3u);
            EXPECT_EQ(seen[1].remotePort, seen[0].remotePort);
            EXPECT_EQ(seen[2].remotePort, seen[0].remotePort);
        }
    }
}

TEST(UrlSessionTls, AServerIsTrustedOnlyWhenItsAuthorityIs) {
    struct Case {
        const char* what;
        std::string certificate;  // the server's, under tests/data/tls
        std::optional<std::string> extraCa;
        bool succeeds;
    };
    const std::vector<Case> cases = {
        {"test server, system authorities only", "server", std::nullopt, false},
        {"test server, its authority added", "server", "test-ca", true},
        {"other authority's server, test authority added", "untrusted-server", "test-ca", false},
        {"other authority's server, that authority added", "untrusted-server", "untrusted-ca", true},
        {"certificate for another host name", "wrong-host-server", "test-ca", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        FakeBackend backend({"tls/" + c.certificate + ".pem", "tls/" + c.certificate + ".key"});
        backend.on("GET", "/hello", Answer::text("hi"));
        UrlSessionOptions options;
        if (c.extraCa) options.extraCaFile = test::testData("tls/" + *c.extraCa + ".pem").string();
        auto session = makeCurlUrlSession(options);
        for (Path path : {Path::dataTask, Path::synchronous}) {
            SCOPED_TRACE(name(path));
            UrlResult result = exchange(*session, path, request(backend.httpsBase() + "/hello"));
            if (c.succeeds) {
                ASSERT_FALSE(result.error) << result.error->message;
                EXPECT_EQ(text(result), "hi");
            } else {
                ASSERT_TRUE(result.error);
                EXPECT_FALSE(result.response);
                EXPECT_TRUE(backend.requests().empty()) << "nothing is sent to an untrusted server";
            }
        }
    }
}

TEST(UrlSessionTls, AnUnreadableExtraAuthorityIsNamedInTheFailure) {
    FakeBackend backend;
    UrlSessionOptions options;
    options.extraCaFile = "/nonexistent/sandbox-ca.pem";
    auto session = makeCurlUrlSession(options);
    UrlResult result = fetch(*session, request(backend.httpsBase() + "/")).result;
    ASSERT_TRUE(result.error);
    EXPECT_NE(result.error->message.find("/nonexistent/sandbox-ca.pem"), std::string::npos) << result.error->message;
}

TEST(UrlSessionCap, ABodyOverTheCapIsAnErrorNotACrash) {
    constexpr std::size_t cap = 1000;
    struct Case {
        const char* what;
        std::size_t size;
        bool chunked;
        bool succeeds;
    };
    const std::vector<Case> cases = {
        {"exactly the cap, announced", cap, false, true},
        {"exactly the cap, chunked", cap, true, true},
        {"one byte over, announced", cap + 1, false, false},
        {"one byte over, chunked", cap + 1, true, false},
        {"far over, chunked", 8 * 1024 * 1024, true, false},
    };
    FakeBackend backend;
    auto session = makeCurlUrlSession(test::trustingTestCa(cap));
    for (const auto& c : cases) {
        for (Path path : {Path::dataTask, Path::synchronous}) {
            SCOPED_TRACE(std::string(c.what) + " by " + name(path));
            // Not a compressible type, so the announced length is the body's own.
            Answer answer = Answer::withStatus(200).header("Content-Type", "application/octet-stream");
            answer.body.assign(c.size, 'z');
            if (c.chunked) answer.inChunks();
            backend.on("GET", "/big", answer);
            UrlResult result = exchange(*session, path, request(backend.httpsBase() + "/big"));
            if (c.succeeds) {
                ASSERT_FALSE(result.error) << result.error->message;
                EXPECT_EQ(result.data->size(), c.size);
            } else {
                ASSERT_TRUE(result.error);
                EXPECT_EQ(result.error->code, UrlError::bodyTooLarge);
                EXPECT_NE(result.error->message.find("1000 bytes"), std::string::npos) << result.error->message;
                EXPECT_FALSE(result.response);
                EXPECT_FALSE(result.data);
            }
        }
    }
}

TEST(UrlSessionCap, WithoutACapOfItsOwnASessionUsesTheBuildsLimit) {
    FakeBackend backend;
    Answer answer = Answer::withStatus(200).header("Content-Type", "application/octet-stream");
    answer.body.assign(std::size_t{TESSRA_DEFAULT_MAX_RESPONSE_BYTES} + 1, 'z');
    backend.on("GET", "/huge", answer);
    backend.on("GET", "/small", Answer::text("fits"));
    auto session = makeCurlUrlSession(test::trustingTestCa());
    UrlResult huge = fetch(*session, request(backend.httpsBase() + "/huge")).result;
    ASSERT_TRUE(huge.error);
    EXPECT_EQ(huge.error->code, UrlError::bodyTooLarge);
    EXPECT_FALSE(fetch(*session, request(backend.httpsBase() + "/small")).result.error);
}

TEST_F(UrlSessionTest, ADroppedConnectionIsATransportErrorWithoutResponse) {
    backend.on("POST", "/drop", Answer::dropped());
    for (bool https : {false, true}) {
        for (Path path : {Path::dataTask, Path::synchronous}) {
            SCOPED_TRACE(std::string(https ? "https " : "http ") + name(path));
            UrlResult result = exchange(
                *session, path, request((https ? backend.httpsBase() : backend.httpBase()) + "/drop", "POST", "{}"));
            ASSERT_TRUE(result.error);
            EXPECT_GT(result.error->code, 0) << result.error->message;
            EXPECT_FALSE(result.response);
            EXPECT_FALSE(result.data);
        }
    }
}

TEST_F(UrlSessionTest, RequestsThatCannotBeMadeFailWithAnError) {
    // A port nothing listens on: bind one, note it, close it.
    int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const int closedPort = ntohs(address.sin_port);
    ::close(probe);

    struct Case {
        const char* what;
        std::string url;
        std::string method;
    };
    const std::vector<Case> cases = {
        {"a scheme that is not HTTP", "tessra://open/page", "GET"},
        {"nothing listening", "http://127.0.0.1:" + std::to_string(closedPort) + "/", "GET"},
        {"a method that is not a token", backend.httpBase() + "/", "GET / HTTP/1.1\r\nX:"},
    };
    for (const auto& c : cases) {
        for (Path path : {Path::dataTask, Path::synchronous}) {
            SCOPED_TRACE(std::string(c.what) + " by " + name(path));
            UrlResult result = exchange(*session, path, request(c.url, c.method));
            ASSERT_TRUE(result.error);
            EXPECT_FALSE(result.error->message.empty());
            EXPECT_FALSE(result.response);
        }
    }
    EXPECT_TRUE(backend.requests().empty());
}

TEST_F(UrlSessionTest, HeaderValuesCannotInjectLines) {
    backend.on("GET", "/h", Answer::text("ok"));
    UrlRequest r = request(backend.httpBase() + "/h");
    r.setValue("a\r\nX-Injected: yes", "X-Bad");
    r.setValue("fine", "X-Good");
    UrlResult result = fetch(*session, r).result;
    ASSERT_FALSE(result.error) << result.error->message;
    auto seen = backend.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_FALSE(seen[0].header("X-Injected"));
    EXPECT_FALSE(seen[0].header("X-Bad"));
    EXPECT_EQ(seen[0].header("X-Good"), "fine");
}

TEST_F(UrlSessionTest, CompletionsRunOnTheSessionsOneWorkerThread) {
    backend.on("GET", "/t", Answer::text("ok"));
    std::vector<std::future<std::thread::id>> threads;
    for (int i = 0; i < 5; ++i) {
        auto promise = std::make_shared<std::promise<std::thread::id>>();
        threads.push_back(promise->get_future());
        session->dataTask(request(backend.httpsBase() + "/t"),
                          [promise](const UrlResult&) { promise->set_value(std::this_thread::get_id()); });
    }
    std::vector<std::thread::id> ids;
    for (auto& f : threads) {
        ASSERT_EQ(f.wait_for(kGenerous), std::future_status::ready);
        ids.push_back(f.get());
    }
    for (auto id : ids) {
        EXPECT_NE(id, std::this_thread::get_id());
        EXPECT_EQ(id, ids[0]);
    }
}

TEST_F(UrlSessionTest, ASynchronousSendWorksFromInsideACompletion) {
    backend.on("GET", "/first", Answer::text("1"));
    backend.on("GET", "/second", Answer::text("2"));
    auto inner = std::make_shared<std::promise<UrlResult>>();
    auto innerResult = inner->get_future();
    std::weak_ptr<UrlSession> weak = session;
    const std::string second = backend.httpsBase() + "/second";
    session->dataTask(request(backend.httpsBase() + "/first"), [weak, inner, second](const UrlResult&) {
        if (auto s = weak.lock()) inner->set_value(s->sendSynchronous(request(second)));
    });
    ASSERT_EQ(innerResult.wait_for(kGenerous), std::future_status::ready) << "the worker deadlocked";
    UrlResult result = innerResult.get();
    ASSERT_FALSE(result.error) << result.error->message;
    EXPECT_EQ(text(result), "2");
}

TEST_F(UrlSessionTest, SynchronousSendsRunConcurrentlyFromManyThreads) {
    backend.on("POST", "/crash", Answer::withStatus(200));
    std::atomic<int> succeeded{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3; ++i) {
                UrlResult r = session->sendSynchronous(
                    request(backend.httpBase() + "/crash", "POST", "stack=" + std::to_string(t * 10 + i)));
                if (!r.error && r.response->statusCode == 200) ++succeeded;
            }
        });
    }
    // And data tasks at the same time.
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(fetch(*session, request(backend.httpsBase() + "/crash", "POST")).result.error);
    for (auto& t : threads) t.join();
    EXPECT_EQ(succeeded.load(), 18);
    EXPECT_EQ(backend.requests().size(), 21u);
}

TEST_F(UrlSessionTest, InFlightCountsATaskUntilItsCompletionHasReturned) {
    backend.on("GET", "/a", Answer::text("a"));
    backend.on("GET", "/b", Answer::text("b").after(200ms));
    std::atomic<std::size_t> seenInsideCompletion{0};
    std::atomic<bool> followUpDone{false};
    std::weak_ptr<UrlSession> weak = session;
    const std::string b = backend.httpsBase() + "/b";
    session->dataTask(request(backend.httpsBase() + "/a"), [&, weak, b](const UrlResult&) {
        auto s = weak.lock();
        if (!s) return;
        seenInsideCompletion = s->inFlight();
        s->dataTask(request(b), [&](const UrlResult&) { followUpDone = true; });
    });
    EXPECT_GE(session->inFlight(), 0u);
    ASSERT_TRUE(session->waitIdle(30.0));
    EXPECT_TRUE(followUpDone) << "waitIdle returned before the follow-up's completion";
    EXPECT_EQ(seenInsideCompletion.load(), 1u);
    EXPECT_EQ(session->inFlight(), 0u);
    EXPECT_TRUE(session->waitIdle(0));
}

TEST_F(UrlSessionTest, AThrowingCompletionDoesNotStopTheSession) {
    backend.on("GET", "/x", Answer::text("x"));
    session->dataTask(request(backend.httpsBase() + "/x"),
                      [](const UrlResult&) { throw std::runtime_error("host bug"); });
    ASSERT_TRUE(session->waitIdle(30.0));
    EXPECT_FALSE(fetch(*session, request(backend.httpsBase() + "/x")).result.error);
}

TEST_F(UrlSessionTest, DestroyingTheSessionCancelsWhatIsInFlight) {
    backend.on("GET", "/never", Answer::text("late").after(20s));
    auto first = std::make_shared<std::promise<UrlResult>>();
    auto followUp = std::make_shared<std::promise<UrlResult>>();
    UrlSession* raw = session.get();
    const std::string target = backend.httpsBase() + "/never";
    session->dataTask(request(target), [first, followUp, raw, target](const UrlResult& r) {
        first->set_value(r);
        // A completion that queues more work while the session shuts down.
        raw->dataTask(request(target), [followUp](const UrlResult& again) { followUp->set_value(again); });
    });
    ASSERT_TRUE(backend.waitForRequests(1));
    session.reset();
    auto a = first->get_future();
    auto b = followUp->get_future();
    ASSERT_EQ(a.wait_for(0s), std::future_status::ready) << "the destructor returned before completing";
    ASSERT_EQ(b.wait_for(0s), std::future_status::ready);
    for (const UrlResult& r : {a.get(), b.get()}) {
        ASSERT_TRUE(r.error);
        EXPECT_EQ(r.error->code, UrlError::cancelled);
        EXPECT_FALSE(r.response);
    }
}

TEST_F(UrlSessionTest, ASessionReleasedInsideItsOwnCompletionShutsDownCleanly) {
    backend.on("GET", "/last", Answer::text("bye"));
    auto done = std::make_shared<std::promise<std::string>>();
    auto keep = std::make_shared<std::shared_ptr<UrlSession>>(session);
    session.reset();
    (*keep)->dataTask(request(backend.httpsBase() + "/last"), [keep, done](const UrlResult& r) {
        keep->reset();  // the last reference goes on the worker thread
        done->set_value(text(r));
    });
    auto f = done->get_future();
    ASSERT_EQ(f.wait_for(kGenerous), std::future_status::ready);
    EXPECT_EQ(f.get(), "bye");
}

TEST(UrlSessionValues, SetValueReplacesAFieldWhateverItsCase) {
    UrlRequest r(url("https://example.com/"));
    r.setValue("application/json", "Content-Type");
    r.setValue("1", "X-A");
    r.setValue("text/plain", "content-type");
    ASSERT_EQ(r.headers.size(), 2u);
    EXPECT_EQ(r.headers[0].second, "text/plain");
    EXPECT_EQ(r.headers[1], (std::pair<std::string, std::string>{"X-A", "1"}));
}

TEST(UrlSessionValues, ResponseFieldsAreFoundWhateverTheirCase) {
    HttpResponse response;
    response.headers = {{"last-modified", "Fri, 12 Jan 2024 09:42:01 GMT"}, {"Vary", "a"}, {"vary", "b"}};
    EXPECT_EQ(response.value("Last-Modified"), "Fri, 12 Jan 2024 09:42:01 GMT");
    EXPECT_EQ(response.value("VARY"), "a, b");
    EXPECT_FALSE(response.value("ETag"));
}

TEST(UrlSessionEnvironment, DeploymentHostsComeFromTheEnvironmentElseTheBuild) {
    struct Case {
        DeploymentHost which;
        const char* variable;
        const char* builtIn;
    };
    const std::vector<Case> cases = {
        {DeploymentHost::tracking, "TESSRA_TRACKING_HOST", TESSRA_DEFAULT_TRACKING_HOST},
        {DeploymentHost::cdn, "TESSRA_CDN_HOST", TESSRA_DEFAULT_CDN_HOST},
        {DeploymentHost::ad, "TESSRA_AD_HOST", TESSRA_DEFAULT_AD_HOST},
        {DeploymentHost::crash, "TESSRA_CRASH_HOST", TESSRA_DEFAULT_CRASH_HOST},
        {DeploymentHost::web, "TESSRA_WEB_HOST", TESSRA_DEFAULT_WEB_HOST},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.variable);
        {
            ScopedEnv env(c.variable, std::nullopt);
            EXPECT_EQ(deploymentHost(c.which), c.builtIn);
        }
        {
            ScopedEnv env(c.variable, "");
            EXPECT_EQ(deploymentHost(c.which), c.builtIn);
        }
        {
            ScopedEnv env(c.variable, "127.0.0.1:8443");
            EXPECT_EQ(deploymentHost(c.which), "127.0.0.1:8443");
        }
    }
}

TEST(UrlSessionEnvironment, TheExtraAuthorityComesFromTessraCaBundle) {
    {
        ScopedEnv env("TESSRA_CA_BUNDLE", std::nullopt);
        EXPECT_EQ(UrlSessionOptions::fromEnvironment().extraCaFile, "");
    }
    ScopedEnv env("TESSRA_CA_BUNDLE", test::testCaFile());
    auto options = UrlSessionOptions::fromEnvironment();
    EXPECT_EQ(options.extraCaFile, test::testCaFile());
    EXPECT_EQ(options.maxResponseBytes, 0u);

    FakeBackend backend;
    backend.on("GET", "/env", Answer::text("trusted"));
    auto session = makeCurlUrlSession(options);
    UrlResult result = fetch(*session, request(backend.httpsBase() + "/env")).result;
    ASSERT_FALSE(result.error) << result.error->message;
    EXPECT_EQ(text(result), "trusted");
}

}  // namespace
}  // namespace tessrakite::platform
