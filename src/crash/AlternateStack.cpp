#include "crash/AlternateStack.hpp"

#include <csignal>
#include <mutex>
#include <vector>

#include <sys/mman.h>

namespace tessrakite::crash {

namespace {
void* mapStack() {
    void* p = ::mmap(nullptr, kAlternateStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}
}  // namespace

bool installPermanentAlternateStack() {
    void* memory = mapStack();
    if (!memory) return false;
    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = kAlternateStackSize;
    stack.ss_flags = 0;
    if (::sigaltstack(&stack, nullptr) != 0) {
        ::munmap(memory, kAlternateStackSize);
        return false;
    }
    // Kept reachable on purpose: the stack is never freed and is no leak.
    static std::mutex mutex;
    static auto* stacks = new std::vector<void*>();
    std::lock_guard lock(mutex);
    stacks->push_back(memory);
    return true;
}

ThreadAlternateStack::ThreadAlternateStack() {
    stack_t current{};
    if (::sigaltstack(nullptr, &current) != 0 || !(current.ss_flags & SS_DISABLE)) return;
    void* memory = mapStack();
    if (!memory) return;
    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = kAlternateStackSize;
    if (::sigaltstack(&stack, nullptr) != 0) {
        ::munmap(memory, kAlternateStackSize);
        return;
    }
    memory_ = memory;
}

ThreadAlternateStack::~ThreadAlternateStack() {
    if (!memory_) return;
    stack_t off{};
    off.ss_flags = SS_DISABLE;
    ::sigaltstack(&off, nullptr);
    ::munmap(memory_, kAlternateStackSize);
}

}  // namespace tessrakite::crash
