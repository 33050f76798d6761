#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include <tessrakite/Export.hpp>

namespace tessrakite {

/// A unit of work run once by an OperationQueue.
class TESSRA_EXPORT Operation {
public:
    virtual ~Operation() = default;
    /// The work. Runs on one of the queue's worker threads.
    virtual void main() = 0;
    bool isFinished() const { return finished_.load(); }

private:
    friend class OperationQueue;
    std::atomic<bool> finished_{false};
};

/// A small pool of worker threads that runs operations, several at once. Workers start
/// when operations are added and end when none are left; each has its own alternate
/// signal stack. Dropping the queue does not stop or wait for operations already added.
class TESSRA_EXPORT OperationQueue {
public:
    static constexpr int defaultMaxConcurrentOperationCount = 4;

    explicit OperationQueue(int maxConcurrentOperationCount = defaultMaxConcurrentOperationCount);
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    void addOperation(std::shared_ptr<Operation> operation);
    /// Operations added and not yet finished.
    std::size_t operationCount() const;
    /// Blocks until every operation added so far has finished, at most `seconds`;
    /// true when they all finished.
    bool waitUntilAllOperationsAreFinished(double seconds);

private:
    struct State;
    static void runWorker(std::shared_ptr<State> state);
    std::shared_ptr<State> state_;
};

}  // namespace tessrakite
