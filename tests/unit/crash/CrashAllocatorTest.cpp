// A crash while the allocator is locked still writes its report and ends the process
// with its signal. The test binary puts a lock around malloc and free (standing in for
// the allocator's own arena lock); a thread that stalls inside malloc holds it forever,
// so any allocation on the signal path would hang the dying child.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <thread>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <tessrakite/crash/JtCrashLogger.hpp>

#include "CrashChild.hpp"
#include "TestEnv.hpp"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TESSRA_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define TESSRA_TEST_SANITIZED 1
#endif
#endif

#ifndef TESSRA_TEST_SANITIZED
#define TESSRA_TEST_LOCKED_MALLOC 1

extern "C" {
void* __libc_malloc(std::size_t size);
void __libc_free(void* pointer);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
}

namespace {

std::atomic<bool> gLocking{false};
std::atomic<bool> gHolding{false};
pthread_mutex_t gAllocatorLock = PTHREAD_MUTEX_INITIALIZER;
thread_local bool tStallInside = false;
thread_local bool tCrashInside = false;
int* volatile gNull = nullptr;

__attribute__((no_sanitize_undefined)) void crashNow() { *gNull = 1; }

// While locking is on, every allocation takes the lock. A thread marked to stall keeps
// it forever; a thread marked to crash faults while holding it.
class AllocatorSection {
public:
    AllocatorSection() : locked_(gLocking.load(std::memory_order_acquire)) {
        if (!locked_) return;
        pthread_mutex_lock(&gAllocatorLock);
        if (tStallInside) {
            gHolding.store(true);
            for (;;) ::pause();
        }
        if (tCrashInside) crashNow();
    }
    ~AllocatorSection() {
        if (locked_) pthread_mutex_unlock(&gAllocatorLock);
    }

private:
    bool locked_;
};

}  // namespace

extern "C" void* malloc(std::size_t size) noexcept {
    AllocatorSection section;
    return __libc_malloc(size);
}
extern "C" void free(void* pointer) noexcept {
    AllocatorSection section;
    __libc_free(pointer);
}
extern "C" void* calloc(std::size_t count, std::size_t size) noexcept {
    AllocatorSection section;
    return __libc_calloc(count, size);
}
extern "C" void* realloc(void* pointer, std::size_t size) noexcept {
    AllocatorSection section;
    return __libc_realloc(pointer, size);
}
#endif

namespace tessrakite::test {
namespace {

#ifdef TESSRA_TEST_LOCKED_MALLOC

// Starts a thread that enters malloc and stays there holding the allocator's lock.
void holdAllocatorFromAnotherThread() {
    std::thread([] {
        tStallInside = true;
        gLocking.store(true, std::memory_order_release);
        void* volatile p = std::malloc(32);
        (void)p;
    }).detach();
    while (!gHolding.load()) ::sched_yield();
}

void crashWhileAnotherThreadHoldsTheAllocator() {
    holdAllocatorFromAnotherThread();
    crashNow();
}

void crashInsideTheAllocator() {
    tCrashInside = true;
    gLocking.store(true);
    void* volatile p = std::malloc(16);
    (void)p;
}

void* volatile gSink = nullptr;
extern "C" void allocatingHandler(int) {
    gSink = std::malloc(64);
    ::_exit(9);
}

#endif

class CrashWithAllocatorLocked : public ::testing::Test {
protected:
    void SetUp() override {
#ifndef TESSRA_TEST_LOCKED_MALLOC
        GTEST_SKIP() << "the sanitizer owns malloc, so the test cannot put a lock around it";
#endif
        installMainBundle(home_.path(), "com.example.crash", {{"CFBundleName", "CrashSample"}});
    }
    std::string logFile() const {
        return (home_.path() / "Apps/com.example.crash/Documents/crashlog/crash.txt").string();
    }
    ScopedHome home_;
};

TEST_F(CrashWithAllocatorLocked, TheTestWouldCatchAHandlerThatAllocates) {
#ifdef TESSRA_TEST_LOCKED_MALLOC
    // Control: a handler that calls malloc hangs until the child's alarm ends it.
    EXPECT_EQ(runInChild(
                  [] {
                      ::signal(SIGSEGV, &allocatingHandler);
                      holdAllocatorFromAnotherThread();
                      crashNow();
                  },
                  2),
              SIGALRM);
#endif
}

TEST_F(CrashWithAllocatorLocked, TheReportIsWrittenAndTheProcessDiesWithItsSignal) {
#ifdef TESSRA_TEST_LOCKED_MALLOC
    const std::pair<void (*)(), int> cases[] = {{&crashWhileAnotherThreadHoldsTheAllocator, 200},
                                                {&crashInsideTheAllocator, 20}};
    for (const auto& [crash, runs] : cases) {
        for (int run = 0; run < runs; ++run) {
            std::filesystem::remove(logFile());
            ASSERT_EQ(runInChild(
                          [crash = crash] {
                              JtCrashLogger::registerLogger();
                              crash();
                          },
                          5),
                      SIGSEGV)
                << "run " << run;
            const auto text = readFile(logFile());
            ASSERT_EQ(text.rfind("FROM signal: CrashSample\n", 0), 0u) << "run " << run << ": " << text;
            ASSERT_NE(text.find("\nInfo: signal:11\naddress:0x00000000\n[(nil)]\n"), std::string::npos) << text;
            ASSERT_EQ(text.back(), '\n');
        }
    }
#endif
}

}  // namespace
}  // namespace tessrakite::test
