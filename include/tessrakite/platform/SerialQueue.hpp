#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <tessrakite/Export.hpp>

namespace tessrakite::platform {

/// A serial background queue (the platform's utility dispatch queue): work runs in order
/// on one thread of its own, so store writes and report building never cost the main
/// queue. The thread starts with the first item and stays for the queue's life.
class TESSRA_EXPORT SerialQueue {
public:
    explicit SerialQueue(std::string label);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void async(std::function<void()> work);
    /// Items queued or running.
    std::size_t pending() const;
    /// Blocks until nothing is queued or running, or `seconds` pass; true when idle.
    /// Returns at once when called from the queue's own thread.
    bool waitIdle(double seconds);
    bool isCurrent() const;
    const std::string& label() const { return label_; }

private:
    void run();

    std::string label_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::deque<std::function<void()>> items_;
    std::size_t running_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace tessrakite::platform
