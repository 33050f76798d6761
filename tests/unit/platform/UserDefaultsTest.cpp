#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <limits>
#include <thread>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <tessrakite/platform/Console.hpp>
#include <tessrakite/platform/FileRoots.hpp>
#include <tessrakite/platform/UserDefaults.hpp>

#include "TestEnv.hpp"
#include "platform/SqliteUserDefaults.hpp"

namespace tessrakite::platform {
namespace {

namespace fs = std::filesystem;
using test::ConsoleCapture;
using test::ScopedHome;

// Runs `body` in a forked child and returns its exit code (or 128 + signal). The child
// never returns into the test runner; checks inside it report through the code.
int runInChild(const std::function<int()>& body) {
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
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

unsigned modeOf(const fs::path& p) {
    struct stat st {};
    ::stat(p.c_str(), &st);
    return st.st_mode & 0777;
}

// The databases moved aside (not their WAL files).
std::vector<fs::path> movedAside(const fs::path& folder) {
    std::vector<fs::path> out;
    for (const auto& e : fs::directory_iterator(folder)) {
        auto name = e.path().filename().string();
        if (name.rfind("defaults.sqlite.corrupt-", 0) == 0 && name.find("-wal") == std::string::npos &&
            name.find("-journal") == std::string::npos)
            out.push_back(e.path());
    }
    return out;
}

class UserDefaultsTest : public ::testing::Test {
protected:
    fs::path dbPath() const { return home.path() / "group" / "defaults.sqlite"; }
    std::shared_ptr<SqliteUserDefaults> open(SqliteUserDefaults::Options options = {}) {
        return SqliteUserDefaults::open(dbPath(), options);
    }

    ScopedHome home;
};

TEST_F(UserDefaultsTest, EveryPropertyListValueReadsBackUnchangedInThisAndANewProcess) {
    const PlistDictionary nested{
        {"flag", true},
        {"count", -3},
        {"ratio", 0.5},
        {"name", "tessra"},
        {"blob", Data{0, 1, 2, 255}},
        {"when", Date{1'700'000'000.25}},
        {"nothing", PlistValue()},
        {"list", PlistArray{"a", 1, PlistArray{}, PlistDictionary{}}},
    };
    const std::vector<std::pair<std::string, PlistValue>> cases = {
        {"true", true},
        {"false", false},
        {"zero", 0},
        {"int max", std::numeric_limits<std::int64_t>::max()},
        {"int min", std::numeric_limits<std::int64_t>::min()},
        {"double", 3.25},
        {"infinity", std::numeric_limits<double>::infinity()},
        {"empty string", ""},
        {"text with a NUL", std::string("a\0b\xC3\xA9", 5)},
        {"empty data", Data{}},
        {"data", Data{0xDE, 0xAD, 0x00, 0xEF}},
        {"date", Date{-12.5}},
        {"empty array", PlistArray{}},
        {"array with data and dates", PlistArray{Data{9}, Date{1.0}, PlistArray{PlistArray{7}}}},
        {"empty dictionary", PlistDictionary{}},
        {"nested dictionary", nested},
    };
    auto store = open();
    ASSERT_TRUE(store);
    for (const auto& [key, value] : cases) store->set(key, value);

    auto reopened = open();  // another connection reads from the file, not from a cache
    ASSERT_TRUE(reopened);
    for (const auto& [key, value] : cases) {
        EXPECT_EQ(store->object(key), value) << key;
        EXPECT_EQ(reopened->object(key), value) << key;
    }
    EXPECT_EQ(reopened->dictionaryRepresentation().size(), cases.size());

    store->set("nan", std::numeric_limits<double>::quiet_NaN());
    EXPECT_TRUE(std::isnan(open()->doubleValue("nan").value_or(0)));
}

TEST_F(UserDefaultsTest, TypedReadsGiveNothingForAMissingKeyOrAnotherType) {
    enum Read { kBool, kInt, kDouble, kString, kData, kArray, kDict };
    struct Case {
        const char* name;
        std::optional<PlistValue> stored;
        std::vector<Read> readable;
    };
    const std::vector<Case> cases = {
        {"missing", std::nullopt, {}},
        {"bool", true, {kBool}},
        {"integer (also a double)", 7, {kInt, kDouble}},
        {"double", 7.0, {kDouble}},
        {"string", "7", {kString}},
        {"data", Data{7}, {kData}},
        {"date", Date{7}, {}},
        {"array", PlistArray{7}, {kArray}},
        {"dictionary", PlistDictionary{{"7", 7}}, {kDict}},
    };
    auto store = open();
    ASSERT_TRUE(store);
    for (const auto& c : cases) {
        if (c.stored) store->set(c.name, *c.stored);
        auto can = [&](Read r) { return std::find(c.readable.begin(), c.readable.end(), r) != c.readable.end(); };
        EXPECT_EQ(store->boolValue(c.name).has_value(), can(kBool)) << c.name;
        EXPECT_EQ(store->integer(c.name).has_value(), can(kInt)) << c.name;
        EXPECT_EQ(store->doubleValue(c.name).has_value(), can(kDouble)) << c.name;
        EXPECT_EQ(store->string(c.name).has_value(), can(kString)) << c.name;
        EXPECT_EQ(store->data(c.name).has_value(), can(kData)) << c.name;
        EXPECT_EQ(store->array(c.name).has_value(), can(kArray)) << c.name;
        EXPECT_EQ(store->dictionary(c.name).has_value(), can(kDict)) << c.name;
    }
    EXPECT_EQ(store->doubleValue("integer (also a double)"), 7.0);
    EXPECT_EQ(store->boolValue("bool"), true);
}

TEST_F(UserDefaultsTest, RemovingOrSettingNullDeletesTheKeyForEveryone) {
    auto store = open();
    ASSERT_TRUE(store);
    store->set("a", 1);
    store->set("b", 2);
    store->removeObject("a");
    store->set("b", PlistValue());
    auto other = open();
    for (const auto& s : {store, other}) {
        EXPECT_FALSE(s->object("a"));
        EXPECT_FALSE(s->object("b"));
        EXPECT_TRUE(s->dictionaryRepresentation().empty());
    }
}

TEST_F(UserDefaultsTest, SuitesLiveInTheirAppGroupFolderAndAreSharedInTheProcess) {
    auto a = userDefaults("group.com.example.one");
    ASSERT_TRUE(a);
    EXPECT_EQ(a, userDefaults("group.com.example.one"));
    EXPECT_NE(a, userDefaults("group.com.example.two"));
    a->set("k", "v");
    EXPECT_TRUE(fs::exists(FileRoots::appGroupContainer("group.com.example.one") / "defaults.sqlite"));

    for (const char* bad : {"", ".", "..", "a/b"}) EXPECT_FALSE(userDefaults(bad)) << bad;

    test::installMainBundle(home.path(), "com.example.standard");
    auto standard = standardUserDefaults();
    ASSERT_TRUE(standard);
    standard->set("k", 1);
    EXPECT_TRUE(fs::exists(FileRoots::appFolder("com.example.standard") / "defaults.sqlite"));
}

TEST_F(UserDefaultsTest, DatabaseFilesAndFolderArePrivateToTheUser) {
    auto store = open();
    ASSERT_TRUE(store);
    store->set("secret", "token");
    const std::string db = dbPath().string();
    for (const auto& file : {db, db + "-wal", db + "-shm"}) {
        ASSERT_TRUE(fs::exists(file)) << file;
        EXPECT_EQ(modeOf(file), 0600u) << file;
    }
    EXPECT_EQ(modeOf(dbPath().parent_path()), 0700u);
}

class CrossProcessTest : public UserDefaultsTest, public ::testing::WithParamInterface<bool> {
protected:
    SqliteUserDefaults::Options options() const {
        SqliteUserDefaults::Options o;
        o.walHeaderPrecheck = GetParam();
        return o;
    }
};

TEST_P(CrossProcessTest, TwoProcessesSeeEachOthersWritesAtOnce) {
    int toChild[2], toParent[2];
    ASSERT_EQ(::pipe(toChild), 0);
    ASSERT_EQ(::pipe(toParent), 0);
    fs::create_directories(dbPath().parent_path());
    constexpr int kRounds = 20;

    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(toChild[1]);
        ::close(toParent[0]);
        auto store = SqliteUserDefaults::open(dbPath(), options());
        if (!store) ::_exit(2);
        if (store->object("fromParent")) ::_exit(3);  // now cached as missing
        sendByte(toParent[1]);
        for (int i = 1; i <= kRounds; ++i) {
            if (!waitForByte(toChild[0])) ::_exit(4);
            if (store->integer("fromParent") != i) ::_exit(10 + i);
            store->set("fromChild", i);
            sendByte(toParent[1]);
        }
        ::_exit(0);
    }
    ::close(toChild[0]);
    ::close(toParent[1]);
    auto store = SqliteUserDefaults::open(dbPath(), options());
    ASSERT_TRUE(store);
    if (waitForByte(toParent[0])) {
        EXPECT_FALSE(store->object("fromChild"));  // cached as missing
        for (int i = 1; i <= kRounds; ++i) {
            store->set("fromParent", i);
            sendByte(toChild[1]);
            if (!waitForByte(toParent[0])) break;  // the child's status says why
            EXPECT_EQ(store->integer("fromChild"), i) << "round " << i;
        }
    }
    ::close(toChild[1]);
    ::close(toParent[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "child exit code " << (WIFEXITED(status) ? WEXITSTATUS(status) : -1) << " (10 + n: missed round n)";
}

TEST_P(CrossProcessTest, FourProcessesIncrementingOneCounterLoseNoUpdate) {
    constexpr int kProcesses = 4;
    constexpr int kIncrements = 2000;
    int start[2];
    ASSERT_EQ(::pipe(start), 0);
    fs::create_directories(dbPath().parent_path());

    std::fflush(nullptr);
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t pid = ::fork();
        if (pid == 0) {
            ::close(start[1]);
            auto store = SqliteUserDefaults::open(dbPath(), options());
            if (!store) ::_exit(2);
            waitForByte(start[0]);  // all begin together, when the parent closes the pipe
            for (int i = 0; i < kIncrements; ++i)
                store->update("counter", [](std::optional<PlistValue> v) -> std::optional<PlistValue> {
                    const auto* n = v ? v->asInteger() : nullptr;
                    return PlistValue(static_cast<long long>((n ? *n : 0) + 1));
                });
            ::_exit(store->synchronize() ? 0 : 3);
        }
        children.push_back(pid);
    }
    ::close(start[0]);
    ::close(start[1]);
    for (pid_t pid : children) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    }
    auto store = SqliteUserDefaults::open(dbPath(), options());
    ASSERT_TRUE(store);
    EXPECT_EQ(store->integer("counter"), kProcesses * kIncrements);
}

INSTANTIATE_TEST_SUITE_P(WalHeaderPrecheck, CrossProcessTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "On" : "Off"; });

TEST_F(UserDefaultsTest, ThreadsOfOneProcessShareTheStoreSafely) {
    auto store = open();
    ASSERT_TRUE(store);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 200; ++i) {
                store->update("counter", [](std::optional<PlistValue> v) -> std::optional<PlistValue> {
                    return PlistValue(static_cast<long long>((v && v->asInteger() ? *v->asInteger() : 0) + 1));
                });
                store->set("thread" + std::to_string(t), i);
                (void)store->integer("counter");
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(store->integer("counter"), 800);
    EXPECT_EQ(open()->integer("thread3"), 199);
}

TEST_F(UserDefaultsTest, UpdateCanRemoveAndAThrowingUpdateChangesNothing) {
    auto store = open();
    ASSERT_TRUE(store);
    store->set("k", 1);
    ConsoleCapture console;
    store->update("k", [](std::optional<PlistValue>) -> std::optional<PlistValue> {
        throw std::runtime_error("no");
    });
    EXPECT_EQ(store->integer("k"), 1);
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_EQ(console.lines()[0].rfind("UserDefaults: ", 0), 0u);

    store->set("other", 2);  // the store is usable: no transaction was left open
    EXPECT_EQ(open()->integer("other"), 2);
    store->update("k", [](std::optional<PlistValue>) { return std::optional<PlistValue>(); });
    EXPECT_FALSE(open()->object("k"));
}

TEST_F(UserDefaultsTest, UnreadableDatabaseIsMovedAsideWithOneConsoleLine) {
    const std::vector<std::pair<std::string, std::function<void(const fs::path&)>>> damages = {
        {"garbage file",
         [](const fs::path& db) {
             std::ofstream out(db, std::ios::binary | std::ios::trunc);
             for (int i = 0; i < 8192; ++i) out.put(static_cast<char>((i * 7919) % 251));
         }},
        {"damaged table page",
         [this](const fs::path& db) {
             {
                 auto store = open();
                 for (int i = 0; i < 50; ++i) store->set("key" + std::to_string(i), std::string(100, 'v'));
             }  // closing checkpoints everything into the file
             std::fstream f(db, std::ios::binary | std::ios::in | std::ios::out);
             f.seekp(4096);  // page 2: the table
             for (int i = 0; i < 4096; ++i) f.put('\xFF');
         }},
    };
    for (const auto& [name, damage] : damages) {
        SCOPED_TRACE(name);
        fs::remove_all(dbPath().parent_path());
        fs::create_directories(dbPath().parent_path());
        damage(dbPath());

        ConsoleCapture console;
        auto store = open();
        ASSERT_TRUE(store);
        auto lines = console.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].rfind("UserDefaults: ", 0), 0u) << lines[0];
        EXPECT_EQ(movedAside(dbPath().parent_path()).size(), 1u);

        store->set("after", "works");
        EXPECT_EQ(open()->string("after"), "works");
        EXPECT_EQ(console.lines().size(), 1u);
    }
}

TEST_F(UserDefaultsTest, FailedWriteIsReportedAndStaysVisibleInThisProcessOnly) {
    // The child cannot grow files past their current size: the disk is "full".
    int code = runInChild([this] {
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
        if (store->data("big") != Data(256 * 1024, 0x5A)) return 5;
        if (store->synchronize()) return 6;
        if (store->integer("small") != 1) return 7;
        if (!store->dictionaryRepresentation().count("big")) return 8;
        return 0;
    });
    EXPECT_EQ(code, 0);
    auto store = open();
    ASSERT_TRUE(store);
    EXPECT_EQ(store->integer("small"), 1);
    EXPECT_FALSE(store->object("big"));
}

}  // namespace
}  // namespace tessrakite::platform
