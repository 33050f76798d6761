#include <gtest/gtest.h>

#include <fstream>

#include <nlohmann/json.hpp>

#include <tessrakite/crash/JtCrashLogFile.hpp>

#include "CrashChild.hpp"
#include "TestEnv.hpp"

namespace tessrakite::test {
namespace {

JtCrashLogFile fullRecord() {
    JtCrashLogFile r;
    r.type = 2;
    r.address = 0xDEADBEEF;
    r.code = -6;
    r.callStack = std::vector<std::string>{"libc.so.6(raise+0x1) [0x1]", "app(+0x2) [0x2]"};
    r.appVersion = "2.5";
    r.info = "signal:6\naddress:0x00001234\n[0x1234]";
    r.buildVersion = "77";
    r.name = "n";
    r.codee = "c";
    r.reason = "r";
    r.time = "2024-01-01 00:00:00";
    r.osVersion = "6.1";
    r.deviceModel = "x86_64";
    r.className = "k";
    r.method = "m";
    r.lineNumber = "1";
    r.stackTrace = "s";
    r.extra = "e";
    return r;
}

class CrashLogFileArchive : public ::testing::Test {
protected:
    std::filesystem::path file(const char* name) const { return home_.path() / name; }
    void write(const char* name, const std::string& text) { std::ofstream(file(name), std::ios::binary) << text; }
    ScopedHome home_;
};

TEST_F(CrashLogFileArchive, KeepsTheSevenKeysAndOnlyThose) {
    ASSERT_TRUE(fullRecord().writeToFile(file("record")));

    auto keys = nlohmann::json::parse(readFile(file("record").string()));
    std::vector<std::string> names;
    for (auto it = keys.begin(); it != keys.end(); ++it) names.push_back(it.key());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"address", "appVersion", "buildVersion", "callStack", "code",
                                               "info", "type"}));

    auto back = JtCrashLogFile::createFromLogFileName(file("record"));
    ASSERT_TRUE(back);
    JtCrashLogFile expected;
    expected.type = 2;
    expected.address = 0xDEADBEEF;
    expected.code = -6;
    expected.callStack = fullRecord().callStack;
    expected.appVersion = "2.5";
    expected.info = fullRecord().info;
    expected.buildVersion = "77";
    EXPECT_EQ(*back, expected);
}

TEST_F(CrashLogFileArchive, AbsentValuesStayAbsent) {
    JtCrashLogFile r;
    r.type = 1;
    ASSERT_TRUE(r.writeToFile(file("record")));
    auto back = JtCrashLogFile::createFromLogFileName(file("record"));
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, r);
}

TEST_F(CrashLogFileArchive, AnythingElseYieldsNoRecord) {
    const std::pair<const char*, std::string> cases[] = {
        {"a plain-text report", "FROM signal: Sample\nVERSION: 1.0BUILD: 1\nTYPE: 2\n"},
        {"garbage", "\x01\x02garbage\xff"},
        {"empty", ""},
        {"a JSON array", "[1,2,3]"},
        {"a missing key", R"({"type":2,"address":1,"code":0,"callStack":[],"appVersion":"1","info":"i"})"},
        {"a wrong type", R"({"type":"2","address":1,"code":0,"callStack":[],"appVersion":"1","info":"i","buildVersion":"1"})"},
        {"a number out of range", R"({"type":2,"address":-1,"code":0,"callStack":[],"appVersion":"1","info":"i","buildVersion":"1"})"},
        {"a stack of numbers", R"({"type":2,"address":1,"code":0,"callStack":[1],"appVersion":"1","info":"i","buildVersion":"1"})"},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        write("record", text);
        EXPECT_EQ(JtCrashLogFile::createFromLogFileName(file("record")), nullptr);
    }
    EXPECT_EQ(JtCrashLogFile::createFromLogFileName(file("missing")), nullptr);
    EXPECT_EQ(JtCrashLogFile::createFromLogFileName(home_.path()), nullptr) << "a folder";
}

TEST_F(CrashLogFileArchive, WritingIntoAMissingFolderFails) {
    EXPECT_FALSE(fullRecord().writeToFile(home_.path() / "no" / "such" / "record"));
}

}  // namespace
}  // namespace tessrakite::test
