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

constexpr int kMaxFrames = 128;

struct ThrowSite {
    void* object = nullptr;
    const std::type_info* type = nullptr;
    int count = 0;
    void* frames[kMaxFrames];
};

thread_local ThrowSite tThrowSite;
std::atomic<bool> gCapture{false};
std::atomic<ThrowFunction> gRuntimeThrow{nullptr};
// A __cxa_throw that comes before ours in the search order (a sanitizer's runtime
// wraps it too): its frame sits between ours and the thrower's and is left out.
std::atomic<std::uintptr_t> gWrapperStart{0};
std::atomic<std::uintptr_t> gWrapperEnd{0};

ThrowFunction runtimeThrow();

}  // namespace

extern "C" __attribute__((visibility("default"), noreturn)) void __cxa_throw(void* object, std::type_info* type,
                                                                               void (*destructor)(void*)) {
    if (gCapture.load(std::memory_order_relaxed)) {
        ThrowSite& site = tThrowSite;
        site.count = ::backtrace(site.frames, kMaxFrames);
        const auto start = gWrapperStart.load(std::memory_order_relaxed);
        const auto end = gWrapperEnd.load(std::memory_order_relaxed);
        int skip = 0;
        while (1 + skip < site.count) {
            const auto frame = reinterpret_cast<std::uintptr_t>(site.frames[1 + skip]);
            if (frame < start || frame >= end) break;
            ++skip;
        }
        if (skip > 0) {
            std::memmove(&site.frames[1], &site.frames[1 + skip], sizeof(void*) * static_cast<std::size_t>(site.count - 1 - skip));
            site.count -= skip;
        }
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
        void* first = ::dlsym(RTLD_DEFAULT, "__cxa_throw");
        Dl_info info{};
        void* entry = nullptr;
        if (first && first != reinterpret_cast<void*>(&tessraOwnThrow) &&
            ::dladdr1(first, &info, &entry, RTLD_DL_SYMENT) && entry) {
            const auto* symbol = static_cast<const ElfW(Sym)*>(entry);
            const auto start = reinterpret_cast<std::uintptr_t>(first);
            gWrapperStart.store(start);
            gWrapperEnd.store(start + symbol->st_size);
        }
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
