// The beacon manager: what it asks of the platform, the notifications region events post,
// the suppression table ranging keeps, and the thread its events arrive on.

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include <tessrakite/core/StorageKey.hpp>
#include <tessrakite/core/TessraBuilder.hpp>
#include <tessrakite/core/TessraQuill.hpp>
#include <tessrakite/location/TessraBeaconManager.hpp>

#include "SdkFixture.hpp"
#include "core/FacadeState.hpp"

namespace tessrakite::test {
namespace {

using Json = nlohmann::ordered_json;
using platform::CLRegionState;

constexpr const char* kUuid61 = "00000000-0000-0000-0000-000000000330";
constexpr const char* kUuid94 = "00000000-0000-0000-0000-000000000340";

struct Effect {
    std::string name;
    Json args;
    std::thread::id thread;
};

class BeaconManagerTest : public SdkFixture {
protected:
    void SetUp() override {
        SdkFixture::SetUp();
        headless.effects->setSink([this](const std::string& name, const Json& args) {
            std::lock_guard lock(mutex_);
            effects_.push_back({name, args, std::this_thread::get_id()});
        });
    }

    std::vector<Effect> effects(const std::string& name = {}) {
        std::lock_guard lock(mutex_);
        std::vector<Effect> out;
        for (const auto& e : effects_)
            if (name.empty() || e.name == name) out.push_back(e);
        return out;
    }
    void clearEffects() {
        std::lock_guard lock(mutex_);
        effects_.clear();
    }
    /// (identifier, body) of each notification posted so far.
    std::vector<std::pair<std::string, std::string>> posted() {
        std::vector<std::pair<std::string, std::string>> out;
        for (const auto& e : effects("notificationAdded"))
            out.emplace_back(e.args["identifier"].get<std::string>(), e.args["content"]["body"].get<std::string>());
        return out;
    }
    void range(const std::string& region, const std::vector<std::string>& uuids) {
        std::vector<platform::CLBeacon> beacons;
        for (const auto& u : uuids) beacons.push_back({*platform::UUID::parse(u), 1, 2});
        headless.location->rangeBeacons(region, beacons);
        pump();
    }
    // Key order does not matter in the store.
    nlohmann::json storedTable() {
        return nlohmann::json::parse(storage().object(StorageKey::beaconInterval).value_or(PlistValue()).toJSONString());
    }

    std::mutex mutex_;
    std::vector<Effect> effects_;
};

TEST_F(BeaconManagerTest, WatchesBothFixedRegionsInOrder) {
    TessraBeaconManager manager;
    std::vector<Json> calls;
    for (const auto& e : effects()) calls.push_back({{e.name, e.args}});
    const Json expected = Json::parse(R"([
        {"requestAlwaysAuthorization": {}},
        {"startMonitoring": {"region": "iBKS105-61", "uuid": "00000000-0000-0000-0000-000000000330"}},
        {"startRanging": {"region": "iBKS105-61"}},
        {"requestState": {"region": "iBKS105-61"}},
        {"startMonitoring": {"region": "iBKS105-94", "uuid": "00000000-0000-0000-0000-000000000340"}},
        {"startRanging": {"region": "iBKS105-94"}},
        {"requestState": {"region": "iBKS105-94"}}])");
    EXPECT_EQ(Json(calls), expected);
    pump();  // both states are unknown so far: nothing is posted
    EXPECT_TRUE(posted().empty());
}

TEST_F(BeaconManagerTest, RegionEventsPostNumberedNotificationsAndANewManagerCountsFromOne) {
    {
        TessraBeaconManager manager;
        headless.location->enterRegion("iBKS105-61");
        headless.location->exitRegion("iBKS105-94");
        headless.location->determineState("iBKS105-94", CLRegionState::outside);
        headless.location->determineState("iBKS105-94", CLRegionState::unknown);
        headless.location->determineState("iBKS105-61", CLRegionState::inside);
        clearEffects();
        pump();
        const std::vector<std::pair<std::string, std::string>> expected = {
            {"notification.id.1", "ENTERED, iBKS105-61"},
            {"notification.id.2", "Exit , iBKS105-94"},
            {"notification.id.3", "INSIDE, iBKS105-61"}};
        EXPECT_EQ(posted(), expected);
        // Inside a region, ranging starts (again) there.
        ASSERT_EQ(effects("startRanging").size(), 1u);
        EXPECT_EQ(effects("startRanging")[0].args["region"], "iBKS105-61");
    }
    EXPECT_TRUE(console->lines().back().ends_with(" DEINITED"));

    // The platform still knows "iBKS105-61" is inside: the new manager's state request says so.
    clearEffects();
    TessraBeaconManager next;
    headless.location->exitRegion("iBKS105-94");
    pump();
    const std::vector<std::pair<std::string, std::string>> restarted = {{"notification.id.1", "INSIDE, iBKS105-61"},
                                                                        {"notification.id.2", "Exit , iBKS105-94"}};
    EXPECT_EQ(posted(), restarted);
}

TEST_F(BeaconManagerTest, RangingKeepsAFiveSecondSuppressionTablePerUuid) {
    TessraBeaconManager manager;
    pump();
    const double t0 = clock->now();

    // A fresh install: the first callback only stores the (empty) table.
    range("iBKS105-61", {kUuid61});
    EXPECT_EQ(storedTable(), nlohmann::json::object());
    EXPECT_TRUE(TessraQuill::beaconSpamDict().empty());

    // Keys are upper case, whatever case the UUID came in.
    range("iBKS105-61", {"0000000a-0000-0000-0000-00000000abcd"});
    EXPECT_EQ(storedTable(), (nlohmann::json{{"0000000A-0000-0000-0000-00000000ABCD", t0 + 5.0}}));

    // Still suppressed: the walk stops there, and the beacon after it is not examined.
    clock->set(t0 + 5.0);
    range("iBKS105-61", {"0000000a-0000-0000-0000-00000000abcd", kUuid94});
    EXPECT_EQ(storedTable(), (nlohmann::json{{"0000000A-0000-0000-0000-00000000ABCD", t0 + 5.0}}));

    // Past the time: refreshed, and the walk goes on.
    clock->set(t0 + 6.0);
    range("iBKS105-61", {"0000000a-0000-0000-0000-00000000abcd", kUuid94});
    EXPECT_EQ(storedTable(), (nlohmann::json{{"0000000A-0000-0000-0000-00000000ABCD", t0 + 11.0}, {kUuid94, t0 + 11.0}}));
    EXPECT_TRUE(posted().empty());  // ranging never posts
}

TEST_F(BeaconManagerTest, EventsArriveOnTheCreatingThreadNotTheInjectingOne) {
    TessraBeaconManager manager;
    pump();
    std::thread injector([this] { headless.location->enterRegion("iBKS105-94"); });
    injector.join();
    EXPECT_TRUE(posted().empty());  // queued until the main queue runs
    pump();
    const auto added = effects("notificationAdded");
    ASSERT_EQ(added.size(), 1u);
    EXPECT_EQ(added[0].thread, std::this_thread::get_id());
}

TEST_F(BeaconManagerTest, StartUpMakesTheManagerOnlyWithPushAndBeaconsOn) {
    struct Case {
        bool push;
        bool beacon;
        bool made;
    };
    serveConfig(Answer::json(R"({"analytics": true})"));  // a document that leaves push alone
    for (const auto& c : {Case{true, true, true}, Case{true, false, false}, Case{false, true, false}}) {
        SCOPED_TRACE(::testing::Message() << "push " << c.push << " beacon " << c.beacon);
        detail::resetFacadeForTesting();
        storage().set(StorageKey::push, PlistValue(false));
        clearEffects();
        TessraBuilder builder{std::string(kApiKey)};
        builder.beacon(c.beacon);
        if (c.push) builder.push();
        TessraQuill::initialize(builder.build());
        pump();
        EXPECT_EQ(TessraQuill::tessraBecon() != nullptr, c.made);
    }
}

}  // namespace
}  // namespace tessrakite::test
