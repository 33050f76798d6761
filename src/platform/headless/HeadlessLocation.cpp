#include <tessrakite/platform/headless/HeadlessPlatform.hpp>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>

namespace tessrakite::platform::headless {

using nlohmann::ordered_json;

// Not exported; defined below.
class HeadlessLocationManager;

// What the services and their managers share: the live managers and the last state
// injected per region identifier.
struct HeadlessLocationServices::Shared {
    std::mutex mutex;
    std::vector<std::weak_ptr<HeadlessLocationManager>> managers;
    std::map<std::string, CLRegionState> states;

    CLRegionState state(const std::string& identifier) {
        std::lock_guard lock(mutex);
        auto it = states.find(identifier);
        return it == states.end() ? CLRegionState::unknown : it->second;
    }
    void setState(const std::string& identifier, CLRegionState state) {
        std::lock_guard lock(mutex);
        states[identifier] = state;
    }
    std::vector<std::shared_ptr<HeadlessLocationManager>> live() {
        std::lock_guard lock(mutex);
        std::erase_if(managers, [](const auto& m) { return m.expired(); });
        std::vector<std::shared_ptr<HeadlessLocationManager>> out;
        for (const auto& m : managers)
            if (auto manager = m.lock()) out.push_back(std::move(manager));
        return out;
    }
};

using Post = std::function<void(std::function<void()>)>;

class HeadlessLocationManager final : public LocationManager,
                                      public std::enable_shared_from_this<HeadlessLocationManager> {
public:
    HeadlessLocationManager(std::shared_ptr<Effects> effects, std::weak_ptr<HeadlessLocationServices::Shared> shared,
                            Post post)
        : effects_(std::move(effects)), shared_(std::move(shared)), post_(std::move(post)) {}

    void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) override {
        std::lock_guard lock(mutex_);
        delegate_ = std::move(delegate);
    }

    void requestAlwaysAuthorization() override { effects_->emit("requestAlwaysAuthorization"); }

    void startMonitoring(std::shared_ptr<const CLRegion> region) override {
        if (!region) return;
        ordered_json args = {{"region", region->identifier()}};
        if (const auto* beacon = dynamic_cast<const CLBeaconRegion*>(region.get()))
            args["uuid"] = beacon->proximityUUID().uuidString();
        {
            std::lock_guard lock(mutex_);
            monitored_[region->identifier()] = region;
        }
        effects_->emit("startMonitoring", args);
    }

    void startRangingBeacons(std::shared_ptr<const CLBeaconRegion> region) override {
        if (!region) return;
        {
            std::lock_guard lock(mutex_);
            ranged_[region->identifier()] = region;
        }
        effects_->emit("startRanging", {{"region", region->identifier()}});
    }

    void requestState(std::shared_ptr<const CLRegion> region) override {
        if (!region) return;
        effects_->emit("requestState", {{"region", region->identifier()}});
        auto shared = shared_.lock();
        const auto state = shared ? shared->state(region->identifier()) : CLRegionState::unknown;
        deliver([region, state](LocationManagerDelegate& d, LocationManager& m) {
            d.locationManagerDidDetermineState(m, state, *region);
        });
    }

    std::shared_ptr<const CLRegion> monitored(const std::string& identifier) const {
        std::lock_guard lock(mutex_);
        auto it = monitored_.find(identifier);
        return it == monitored_.end() ? nullptr : it->second;
    }

    std::shared_ptr<const CLBeaconRegion> ranged(const std::string& identifier) const {
        std::lock_guard lock(mutex_);
        auto it = ranged_.find(identifier);
        return it == ranged_.end() ? nullptr : it->second;
    }

    /// Queues `call` for the delegate on the manager's own queue; it runs only if both are
    /// still alive then.
    void deliver(std::function<void(LocationManagerDelegate&, LocationManager&)> call) {
        post_([weak = weak_from_this(), call = std::move(call)] {
            auto self = weak.lock();
            if (!self) return;
            std::shared_ptr<LocationManagerDelegate> delegate;
            {
                std::lock_guard lock(self->mutex_);
                delegate = self->delegate_.lock();
            }
            if (delegate) call(*delegate, *self);
        });
    }

private:
    std::shared_ptr<Effects> effects_;
    std::weak_ptr<HeadlessLocationServices::Shared> shared_;
    Post post_;
    mutable std::mutex mutex_;
    std::weak_ptr<LocationManagerDelegate> delegate_;
    std::map<std::string, std::shared_ptr<const CLRegion>> monitored_;
    std::map<std::string, std::shared_ptr<const CLBeaconRegion>> ranged_;
};

HeadlessLocationServices::HeadlessLocationServices(std::shared_ptr<Effects> effects, std::shared_ptr<RunLoop> runLoop,
                                                   std::shared_ptr<SerialQueue> utilityQueue)
    : effects_(std::move(effects)),
      runLoop_(std::move(runLoop)),
      utilityQueue_(utilityQueue),
      shared_(std::make_shared<Shared>()) {}

std::shared_ptr<LocationManager> HeadlessLocationServices::makeLocationManager() {
    Post post;
    auto utility = utilityQueue_.lock();
    if (!runLoop_->isMainThread() && utility && utility->isCurrent()) {
        post = [weak = utilityQueue_](std::function<void()> work) {
            if (auto queue = weak.lock()) queue->async(std::move(work));
        };
    } else {
        // The main thread, or a thread without a queue of its own, which could never
        // receive anything: the main queue.
        post = [weak = std::weak_ptr<RunLoop>(runLoop_)](std::function<void()> work) {
            if (auto loop = weak.lock()) loop->async(std::move(work));
        };
    }
    auto manager = std::make_shared<HeadlessLocationManager>(effects_, shared_, std::move(post));
    std::lock_guard lock(shared_->mutex);
    shared_->managers.push_back(manager);
    return manager;
}

namespace {
using Call = std::function<void(LocationManagerDelegate&, LocationManager&)>;

// Queues, for every live manager that monitors a region with this identifier, the call
// `about` makes for that manager's region object.
template <class About>
std::size_t toMonitors(HeadlessLocationServices::Shared& shared, const std::string& identifier, About about) {
    std::size_t count = 0;
    for (const auto& manager : shared.live())
        if (auto region = manager->monitored(identifier)) {
            manager->deliver(about(region));
            ++count;
        }
    return count;
}
}  // namespace

std::size_t HeadlessLocationServices::enterRegion(const std::string& identifier) {
    shared_->setState(identifier, CLRegionState::inside);
    return toMonitors(*shared_, identifier, [](std::shared_ptr<const CLRegion> region) -> Call {
        return [region](LocationManagerDelegate& d, LocationManager& m) { d.locationManagerDidEnterRegion(m, *region); };
    });
}

std::size_t HeadlessLocationServices::exitRegion(const std::string& identifier) {
    shared_->setState(identifier, CLRegionState::outside);
    return toMonitors(*shared_, identifier, [](std::shared_ptr<const CLRegion> region) -> Call {
        return [region](LocationManagerDelegate& d, LocationManager& m) { d.locationManagerDidExitRegion(m, *region); };
    });
}

std::size_t HeadlessLocationServices::determineState(const std::string& identifier, CLRegionState state) {
    shared_->setState(identifier, state);
    return toMonitors(*shared_, identifier, [state](std::shared_ptr<const CLRegion> region) -> Call {
        return [region, state](LocationManagerDelegate& d, LocationManager& m) {
            d.locationManagerDidDetermineState(m, state, *region);
        };
    });
}

std::size_t HeadlessLocationServices::rangeBeacons(const std::string& identifier,
                                                   const std::vector<CLBeacon>& beacons) {
    std::size_t count = 0;
    for (const auto& manager : shared_->live())
        if (auto region = manager->ranged(identifier)) {
            manager->deliver([region, beacons](LocationManagerDelegate& d, LocationManager& m) {
                d.locationManagerDidRangeBeacons(m, beacons, *region);
            });
            ++count;
        }
    return count;
}

}  // namespace tessrakite::platform::headless
