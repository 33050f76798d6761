#include "crash/ThrowSite.hpp"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <typeinfo>

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <link.h>

namespace {

using ThrowFunction = void (*)(void*, std::type_info*, void (*)(void*));

// Every throw in the process pays for this while the logger is registered, and a report
// shows at most 19 frames: a few more cover the wrappers left out of it.
constexpr int kMaxFrames = 32;

struct ThrowSite {
    void* object = nullptr;
    const std::type_info* type = nullptr;
    int count = 0;
    void* frames[kMaxFrames];
};

thread_local ThrowSite tThrowSite;
std::atomic<bool> gCapture{false};
std::atomic<ThrowFunction> gRuntimeThrow{nullptr};
// Address ranges of functions, set once capture starts.
struct Range {
    std::atomic<std::uintptr_t> start{0};
    std::atomic<std::uintptr_t> end{0};
};
// Our own __cxa_throw.
Range gOwnRange;
// A __cxa_throw that comes before ours in the search order (a sanitizer's runtime
// wraps it too): its frame sits between ours and the thrower's.
Range gWrapperRange;

bool within(const Range& range, const void* address) {
    const auto a = reinterpret_cast<std::uintptr_t>(address);
    return a >= range.start.load(std::memory_order_relaxed) && a < range.end.load(std::memory_order_relaxed);
}

// Sets `range` to the function at `address`, from its symbol's size.
void setRange(Range& range, void* address) {
    Dl_info info{};
    void* entry = nullptr;
    if (!::dladdr1(address, &info, &entry, RTLD_DL_SYMENT) || !entry) return;
    const auto start = reinterpret_cast<std::uintptr_t>(address);
    range.start.store(start);
    range.end.store(start + static_cast<const ElfW(Sym)*>(entry)->st_size);
}

ThrowFunction runtimeThrow();

}  // namespace

extern "C" __attribute__((visibility("default"), noreturn)) void __cxa_throw(void* object, std::type_info* type,
                                                                               void (*destructor)(void*)) {
    if (gCapture.load(std::memory_order_acquire)) {
        ThrowSite& site = tThrowSite;
        const int count = ::backtrace(site.frames, kMaxFrames);
        // Entry 0 becomes our own frame (a sanitizer's backtrace() may add its own before
        // it), and a wrapper that called us is left out after it: entry 1 is the thrower.
        int own = 0;
        while (own < count && !within(gOwnRange, site.frames[own])) ++own;
        if (own == count) own = 0;
        int next = own + 1;
        while (next < count && within(gWrapperRange, site.frames[next])) ++next;
        int kept = 0;
        if (count > 0) {
            site.frames[0] = site.frames[own];
            kept = 1;
            for (int i = next; i < count; ++i) site.frames[kept++] = site.frames[i];
        }
        site.count = kept;
        site.object = object;
        site.type = type;
    }
    runtimeThrow()(object, type, destructor);
    __builtin_unreachable();
}

// Our own __cxa_throw, by a name that no other library can take over.
extern "C" __attribute__((visibility("hidden"), noreturn)) void tessraOwnThrow(void*, std::type_info*,
                                                                                 void (*)(void*))
    __attribute__((alias("__cxa_throw")));

namespace {

ThrowFunction runtimeThrow() {
    if (auto known = gRuntimeThrow.load(std::memory_order_acquire)) return known;
    auto found = reinterpret_cast<ThrowFunction>(::dlsym(RTLD_NEXT, "__cxa_throw"));
    if (!found || found == &tessraOwnThrow) {
        // Loaded after the C++ runtime (dlopen): there is nothing after us to find, so
        // ask the runtime's library directly.
        found = nullptr;
        for (const char* library : {"libstdc++.so.6", "libc++abi.so.1"}) {
            if (void* handle = ::dlopen(library, RTLD_LAZY | RTLD_NOLOAD)) {
                found = reinterpret_cast<ThrowFunction>(::dlsym(handle, "__cxa_throw"));
                ::dlclose(handle);
                if (found && found != &tessraOwnThrow) break;
                found = nullptr;
            }
        }
    }
    if (!found) std::abort();  // no runtime to throw with: nothing sensible is left
    gRuntimeThrow.store(found, std::memory_order_release);
    return found;
}

void* objectOf(const std::exception_ptr& exception) {
    // Both C++ runtimes hold the thrown object's address as an exception_ptr's one member.
    static_assert(sizeof(std::exception_ptr) == sizeof(void*));
    void* object = nullptr;
    std::memcpy(&object, static_cast<const void*>(&exception), sizeof object);
    return object;
}

const std::type_info* typeOf(const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (...) {
        return abi::__cxa_current_exception_type();
    }
}

}  // namespace

namespace tessrakite::crash {

void captureThrowSites(bool on) {
    if (on) {
        (void)runtimeThrow();
        setRange(gOwnRange, reinterpret_cast<void*>(&tessraOwnThrow));
        void* first = ::dlsym(RTLD_DEFAULT, "__cxa_throw");
        if (first && first != reinterpret_cast<void*>(&tessraOwnThrow)) setRange(gWrapperRange, first);
    }
    gCapture.store(on);
}

int throwSiteFrames(const std::exception_ptr& exception, void** frames, int capacity) {
    const ThrowSite& site = tThrowSite;
    if (!exception || !site.object || site.object != objectOf(exception)) return 0;
    // An address can be reused by a later exception whose throw was not captured.
    const std::type_info* type = typeOf(exception);
    if (!type || !site.type || *type != *site.type) return 0;
    const int count = site.count < capacity ? site.count : capacity;
    for (int i = 0; i < count; ++i) frames[i] = site.frames[i];
    return count;
}

}  // namespace tessrakite::crash
