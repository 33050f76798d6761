#include <tessrakite/platform/MainQueue.hpp>
#include <tessrakite/platform/Platform.hpp>

#include <algorithm>
#include <chrono>
#include <limits>

namespace tessrakite::platform {
namespace {
constexpr double kNow = std::numeric_limits<double>::lowest();
using Steady = std::chrono::steady_clock;
}  // namespace

RunLoop::RunLoop(std::shared_ptr<Clock> clock) : clock_(std::move(clock)), mainThread_(std::this_thread::get_id()) {}

RunLoop::~RunLoop() = default;

RunLoop& RunLoop::main() { return *currentPlatform()->runLoop; }

void RunLoop::async(std::function<void()> work) { post(kNow, std::move(work)); }

void RunLoop::asyncAfter(double seconds, std::function<void()> work) {
    post(clock_->now() + std::max(0.0, seconds), std::move(work));
}

void RunLoop::post(double due, std::function<void()> work) {
    std::shared_ptr<RunLoopDriver> driver;
    {
        // The driver is read under the same lock: a post takes the lock once.
        std::lock_guard lock(mutex_);
        items_.push_back(Item{due, sequence_++, std::move(work)});
        driver = driver_;
    }
    wake_.notify_all();
    if (driver) driver->wake();
}

void RunLoop::setDriver(std::shared_ptr<RunLoopDriver> driver) {
    {
        std::lock_guard lock(mutex_);
        driver_ = driver;
    }
    if (driver) driver->wake();
}

std::optional<double> RunLoop::nextDue() const {
    std::lock_guard lock(mutex_);
    if (items_.empty()) return std::nullopt;
    double due = items_.front().due;
    for (const auto& i : items_) due = std::min(due, i.due);
    return std::max(0.0, due - clock_->now());
}

std::shared_ptr<RunLoopDriver> RunLoop::currentDriver() const {
    std::lock_guard lock(mutex_);
    return driver_;
}

void RunLoop::waitForWork(double seconds) {
    if (auto driver = currentDriver()) {
        driver->iterate(seconds);
        return;
    }
    std::unique_lock lock(mutex_);
    wake_.wait_for(lock, std::chrono::duration<double>(seconds));
}

bool RunLoop::isMainThread() const {
    std::lock_guard lock(mutex_);
    return std::this_thread::get_id() == mainThread_;
}

void RunLoop::adoptCurrentThread() {
    std::lock_guard lock(mutex_);
    mainThread_ = std::this_thread::get_id();
}

std::size_t RunLoop::pendingCount() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

void RunLoop::addBusySource(BusySource source) {
    std::lock_guard lock(mutex_);
    busySources_.push_back(std::move(source));
}

bool RunLoop::popDue(double now, std::function<void()>& out) {
    std::lock_guard lock(mutex_);
    auto best = items_.end();
    for (auto it = items_.begin(); it != items_.end(); ++it) {
        if (it->due > now) continue;
        if (best == items_.end() || it->due < best->due || (it->due == best->due && it->sequence < best->sequence))
            best = it;
    }
    if (best == items_.end()) return false;
    out = std::move(best->work);
    items_.erase(best);
    return true;
}

std::size_t RunLoop::runOnce() {
    adoptCurrentThread();
    std::size_t ran = 0;
    std::function<void()> work;
    while (popDue(clock_->now(), work)) {
        work();
        work = nullptr;
        ++ran;
    }
    return ran;
}

bool RunLoop::busy() const {
    std::vector<BusySource> sources;
    {
        std::lock_guard lock(mutex_);
        sources = busySources_;
    }
    return std::any_of(sources.begin(), sources.end(), [](const BusySource& s) { return s(); });
}

bool RunLoop::runUntilIdle(double maxSeconds) {
    auto deadline = Steady::now() + std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(maxSeconds));
    const auto driver = currentDriver();
    for (;;) {
        // The system loop's own ready sources (replies, signals) count as work too.
        if (driver) driver->iterate(0);
        runOnce();
        // Busy sources first: work that ends between the two checks has already posted
        // what it posts, so the queue check below sees it.
        const bool wasBusy = busy();
        bool anyDue;
        {
            std::lock_guard lock(mutex_);
            double now = clock_->now();
            anyDue = std::any_of(items_.begin(), items_.end(), [now](const Item& i) { return i.due <= now; });
        }
        if (!anyDue && !wasBusy) return true;
        if (Steady::now() >= deadline) return false;
        waitForWork(0.002);
    }
}

void RunLoop::runFor(double seconds) {
    if (clock_->isManual()) {
        // Virtual time: let outside work settle, then jump to the next timer.
        const double target = clock_->now() + seconds;
        for (;;) {
            runUntilIdle(10.0);
            std::optional<double> next;
            {
                std::lock_guard lock(mutex_);
                for (const auto& i : items_)
                    if (!next || i.due < *next) next = i.due;
            }
            if (!next || *next > target) break;
            clock_->advanceTo(*next);
        }
        clock_->advanceTo(target);
        runOnce();
        return;
    }
    const double deadline = clock_->now() + seconds;
    for (;;) {
        runOnce();
        double now = clock_->now();
        if (now >= deadline) return;
        double wait = deadline - now;
        if (currentDriver()) {
            if (auto next = nextDue()) wait = std::min(wait, *next);
            if (wait > 0) waitForWork(std::min(wait, 0.05));
            continue;
        }
        // Measured and waited under one lock, so a post in between is not missed.
        std::unique_lock lock(mutex_);
        for (const auto& i : items_) wait = std::min(wait, std::max(0.0, i.due - now));
        if (wait > 0) wake_.wait_for(lock, std::chrono::duration<double>(std::min(wait, 0.05)));
    }
}

}  // namespace tessrakite::platform
