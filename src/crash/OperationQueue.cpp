#include <tessrakite/crash/OperationQueue.hpp>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "crash/AlternateStack.hpp"

namespace tessrakite {

struct OperationQueue::State {
    std::mutex mutex;
    std::condition_variable finished;
    std::deque<std::shared_ptr<Operation>> pending;
    std::size_t unfinished = 0;
    int workers = 0;
    int maxWorkers = 1;
};

OperationQueue::OperationQueue(int maxConcurrentOperationCount) : state_(std::make_shared<State>()) {
    state_->maxWorkers = maxConcurrentOperationCount > 0 ? maxConcurrentOperationCount : 1;
}

OperationQueue::~OperationQueue() = default;

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
    if (!operation) return;
    bool spawn = false;
    {
        std::lock_guard lock(state_->mutex);
        state_->pending.push_back(std::move(operation));
        ++state_->unfinished;
        if (state_->workers < state_->maxWorkers &&
            static_cast<std::size_t>(state_->workers) < state_->pending.size()) {
            ++state_->workers;
            spawn = true;
        }
    }
    if (!spawn) return;
    try {
        // Workers own the shared state, so they outlive the queue object.
        std::thread(runWorker, state_).detach();
    } catch (...) {
        // No thread to be had: run the work here rather than lose it.
        runWorker(state_);
    }
}

std::size_t OperationQueue::operationCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->unfinished;
}

bool OperationQueue::waitUntilAllOperationsAreFinished(double seconds) {
    std::unique_lock lock(state_->mutex);
    return state_->finished.wait_for(lock, std::chrono::duration<double>(seconds),
                                     [this] { return state_->unfinished == 0; });
}

void OperationQueue::runWorker(std::shared_ptr<State> state) {
    crash::ThreadAlternateStack alternateStack;
    std::unique_lock lock(state->mutex);
    while (!state->pending.empty()) {
        auto operation = std::move(state->pending.front());
        state->pending.pop_front();
        lock.unlock();
        try {
            operation->main();
        } catch (...) {
        }
        operation->finished_.store(true);
        operation.reset();
        lock.lock();
        --state->unfinished;
        state->finished.notify_all();
    }
    --state->workers;
}

}  // namespace tessrakite
