#include <tessrakite/platform/SerialQueue.hpp>

#include <chrono>
#include <exception>

#include <tessrakite/platform/Console.hpp>

#include "crash/AlternateStack.hpp"

namespace tessrakite::platform {

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void SerialQueue::async(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        items_.push_back(std::move(work));
        if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
    }
    wake_.notify_one();
}

void SerialQueue::run() {
    // A stack overflow in queued work must still reach the crash handler.
    crash::ThreadAlternateStack alternateStack;
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !items_.empty(); });
        // Work queued before shutdown still runs: it may be a report the app is waiting for.
        if (items_.empty()) return;
        auto work = std::move(items_.front());
        items_.pop_front();
        ++running_;
        lock.unlock();
        try {
            work();
        } catch (const std::exception& e) {
            Console::print(label_ + ": " + e.what());
        }
        work = nullptr;
        lock.lock();
        --running_;
        if (items_.empty() && running_ == 0) idle_.notify_all();
    }
}

std::size_t SerialQueue::pending() const {
    std::lock_guard lock(mutex_);
    return items_.size() + running_;
}

bool SerialQueue::isCurrent() const {
    std::lock_guard lock(mutex_);
    return thread_.get_id() == std::this_thread::get_id();
}

bool SerialQueue::waitIdle(double seconds) {
    std::unique_lock lock(mutex_);
    if (thread_.get_id() == std::this_thread::get_id()) return items_.empty();
    return idle_.wait_for(lock, std::chrono::duration<double>(seconds),
                          [this] { return items_.empty() && running_ == 0; });
}

}  // namespace tessrakite::platform
