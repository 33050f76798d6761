#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <limits>
#include <thread>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/UserDefaults.hpp>

#include "TestEnv.hpp"
#include "platform/SqliteUserDefaults.hpp"

namespace tessrakite::platform {
namespace {

namespace fs = std::filesystem;
using test::ConsoleCapture;

// Starts `body` in a forked child, which exits with its result and never returns into the
// test runner.
pid_t spawn(const std::function<int()>& body) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    return pid;
}
// The child's exit code, or 128 + signal.
int exitCode(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// False at end of file: the other side has gone.
bool waitForByte(int fd) {
    char c = 0;
    ssize_t n;
    while ((n = ::read(fd, &c, 1)) < 0 && errno == EINTR) {
    }
    return n == 1;
}
void sendByte(int fd) { [[maybe_unused]] auto n = ::write(fd, "x", 1); }

std::optional<PlistValue> increment(std::optional<PlistValue> v) {
    const auto* n = v ? v->asInteger() : nullptr;
    return PlistValue(static_cast<long long>((n ? *n : 0) + 1));
}

class UserDefaultsTest : public ::testing::Test {
protected:
    fs::path dbPath() const { return home.path() / "group" / "defaults.sqlite"; }
    std::shared_ptr<SqliteUserDefaults> open(bool walHeaderPrecheck = true) const {
        SqliteUserDefaults::Options options;
        options.walHeaderPrecheck = walHeaderPrecheck;
        return SqliteUserDefaults::open(dbPath(), options);
    }

    test::ScopedHome home;
};

TEST_F(UserDefaultsTest, ValuesReadBackUnchangedThroughAnotherConnectionAndRemovalIsSeenToo) {
    const std::vector<std::pair<std::string, PlistValue>> cases = {
        {"bool", false}, {"int max", std::numeric_limits<std::int64_t>::max()},
        {"int min", std::numeric_limits<std::int64_t>::min()}, {"infinity", std::numeric_limits<double>::infinity()},
        {"text with a NUL", std::string("a\0b\xC3\xA9", 5)}, {"data", Data{0xDE, 0xAD, 0x00, 0xEF}},
        {"date", Date{-12.5}}, {"empty array", PlistArray{}},
        {"nested", PlistDictionary{{"list", PlistArray{"a", 1, Data{9}, Date{1.0}, PlistDictionary{}}},
                                   {"nothing", PlistValue()}, {"ratio", 0.5}, {"flag", true}}},
    };
    auto store = open();
    ASSERT_TRUE(store);
    for (const auto& [key, value] : cases) store->set(key, value);
    store->set("removed", 1);
    store->set("nulled", 2);
    store->removeObject("removed");
    store->set("nulled", PlistValue());
    store->set("nan", std::numeric_limits<double>::quiet_NaN());

    auto reopened = open();  // another connection reads from the file, not from a cache
    for (const auto& [key, value] : cases) EXPECT_EQ(reopened->object(key), value) << key;
    EXPECT_FALSE(reopened->object("removed") || reopened->object("nulled"));
    EXPECT_TRUE(std::isnan(reopened->doubleValue("nan").value_or(0)));
}


TEST_F(UserDefaultsTest, SuitesLiveInPrivateFilesInTheirAppGroupFolder) {
    auto a = userDefaults("group.com.example.one");
    ASSERT_TRUE(a);
    EXPECT_EQ(a, userDefaults("group.com.example.one"));
    EXPECT_NE(a, userDefaults("group.com.example.two"));
    for (const char* bad : {"", ".", "..", "a/b"}) EXPECT_FALSE(userDefaults(bad)) << bad;
    a->set("secret", "token");
    const fs::path folder = FileRoots::appGroupContainer("group.com.example.one");
    for (const char* file : {"defaults.sqlite", "defaults.sqlite-wal", "defaults.sqlite-shm", ""}) {
        struct stat st {};
        ASSERT_EQ(::stat((folder / file).c_str(), &st), 0) << file;
        EXPECT_EQ(st.st_mode & 0777, *file ? 0600u : 0700u) << file;
    }
    test::installMainBundle(home.path(), "com.example.standard");
    ASSERT_TRUE(standardUserDefaults());
    standardUserDefaults()->set("k", 1);
    EXPECT_TRUE(fs::exists(FileRoots::appFolder("com.example.standard") / "defaults.sqlite"));
}

class CrossProcessTest : public UserDefaultsTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override { fs::create_directories(dbPath().parent_path()); }
    std::shared_ptr<SqliteUserDefaults> open() const { return UserDefaultsTest::open(GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(WalHeaderPrecheck, CrossProcessTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "On" : "Off"; });

TEST_P(CrossProcessTest, TwoProcessesSeeEachOthersWritesAtOnce) {
    constexpr int kRounds = 20;
    int toChild[2], toParent[2];
    ASSERT_EQ(::pipe(toChild), 0);
    ASSERT_EQ(::pipe(toParent), 0);
    pid_t child = spawn([&] {
        ::close(toChild[1]);
        ::close(toParent[0]);
        auto store = open();
        if (!store) return 2;
        if (store->object("fromParent")) return 3;  // now cached as missing
        sendByte(toParent[1]);
        for (int i = 1; i <= kRounds; ++i) {
            if (!waitForByte(toChild[0])) return 4;
            if (store->integer("fromParent") != i) return 10 + i;
            store->set("fromChild", i);
            sendByte(toParent[1]);
        }
        return 0;
    });
    ::close(toChild[0]);
    ::close(toParent[1]);
    auto store = open();
    ASSERT_TRUE(store);
    if (waitForByte(toParent[0])) {
        EXPECT_FALSE(store->object("fromChild"));  // cached as missing
        for (int i = 1; i <= kRounds; ++i) {
            store->set("fromParent", i);
            sendByte(toChild[1]);
            if (!waitForByte(toParent[0])) break;  // the child's code says why
            EXPECT_EQ(store->integer("fromChild"), i) << "round " << i;
        }
    }
    ::close(toChild[1]);
    ::close(toParent[0]);
    EXPECT_EQ(exitCode(child), 0) << "10 + n: the child missed round n";
}

TEST_P(CrossProcessTest, FourProcessesIncrementingOneCounterLoseNoUpdate) {
    int start[2];
    ASSERT_EQ(::pipe(start), 0);
    std::vector<pid_t> children;
    for (int p = 0; p < 4; ++p)
        children.push_back(spawn([&] {
            ::close(start[1]);
            auto store = open();
            if (!store) return 2;
            waitForByte(start[0]);  // all begin together, when the parent closes the pipe
            for (int i = 0; i < 2000; ++i) store->update("counter", increment);
            return store->synchronize() ? 0 : 3;
        }));
    ::close(start[0]);
    ::close(start[1]);
    for (pid_t pid : children) EXPECT_EQ(exitCode(pid), 0);
    EXPECT_EQ(open()->integer("counter"), 8000);
}

TEST_F(UserDefaultsTest, ThreadsShareTheStoreAndAThrowingUpdateChangesNothing) {
    auto store = open();
    ASSERT_TRUE(store);
    std::vector<std::thread> threads(4);
    for (auto& t : threads) t = std::thread([&] { for (int i = 0; i < 200; ++i) store->update("counter", increment); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(open()->integer("counter"), 800);

    ConsoleCapture console;
    store->update("counter", [](auto) -> std::optional<PlistValue> { throw std::runtime_error("host bug"); });
    EXPECT_EQ(store->integer("counter"), 800);
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_EQ(console.lines()[0].rfind("UserDefaults: ", 0), 0u);
    store->update("counter", [](auto) { return std::optional<PlistValue>(); });
    EXPECT_FALSE(open()->object("counter")) << "no transaction was left open, and update can remove";
}

TEST_F(UserDefaultsTest, AnUnreadableOrForeignDatabaseIsMovedAsideWithOneConsoleLine) {
    auto withSql = [this](const char* sql) {
        return [this, sql] {
            sqlite3* db = nullptr;
            ASSERT_EQ(sqlite3_open(dbPath().c_str(), &db), SQLITE_OK);
            EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK);
            sqlite3_close(db);
        };
    };
    const std::vector<std::pair<std::string, std::function<void()>>> cases = {
        {"garbage",
         [this] {
             std::ofstream out(dbPath(), std::ios::binary);
             for (int i = 0; i < 8192; ++i) out.put(static_cast<char>((i * 7919) % 251));
         }},
        // A downgrade, or another tool's table of the same name.
        {"other columns", withSql("CREATE TABLE defaults(k TEXT, v BLOB); INSERT INTO defaults VALUES('a', 'b')")},
        {"our columns without the key", withSql("CREATE TABLE defaults(key TEXT, type INTEGER, value)")},
    };
    for (const auto& [name, make] : cases) {
        SCOPED_TRACE(name);
        fs::remove_all(dbPath().parent_path());
        fs::create_directories(dbPath().parent_path());
        make();
        ConsoleCapture console;
        auto store = open();
        ASSERT_TRUE(store);
        ASSERT_EQ(console.lines().size(), 1u);
        EXPECT_EQ(console.lines()[0].rfind("UserDefaults: ", 0), 0u) << console.lines()[0];
        int movedAside = 0;  // the database, not its WAL or journal
        for (const auto& e : fs::directory_iterator(dbPath().parent_path())) {
            const std::string file = e.path().filename().string();
            movedAside += file.rfind("defaults.sqlite.corrupt-", 0) == 0 && file.find("-wal") == std::string::npos &&
                          file.find("-journal") == std::string::npos;
        }
        EXPECT_EQ(movedAside, 1);
        store->set("after", "works");
        EXPECT_EQ(open()->string("after"), "works");
        EXPECT_EQ(console.lines().size(), 1u);
    }
}

TEST_F(UserDefaultsTest, FailedWriteIsReportedAndStaysVisibleInThisProcessOnly) {
    // The child cannot grow files past their current size: the disk is "full".
    int code = exitCode(spawn([this] {
        ConsoleCapture console;
        auto store = open();
        if (!store) return 2;
        store->set("small", 1);
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = static_cast<rlim_t>(fs::file_size(dbPath().string() + "-wal"));
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 3;
        store->set("big", Data(256 * 1024, 0x5A));
        if (console.lines().size() != 1 || console.lines()[0].rfind("UserDefaults: ", 0) != 0) return 4;
        if (store->data("big") != Data(256 * 1024, 0x5A) || !store->dictionaryRepresentation().count("big")) return 5;
        if (store->synchronize()) return 6;
        return store->integer("small") == 1 ? 0 : 7;
    }));
    EXPECT_EQ(code, 0);
    auto store = open();
    ASSERT_TRUE(store);
    EXPECT_EQ(store->integer("small"), 1);
    EXPECT_FALSE(store->object("big"));
}

}  // namespace
}  // namespace tessrakite::platform
