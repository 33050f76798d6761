#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <typeinfo>

#include <cxxabi.h>

namespace tessrakite::platform {

/// The demangled name of a dynamic type ("MyApp::HomeScreen").
inline std::string demangledName(const std::type_info& type) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                     std::free);
    return status == 0 && demangled ? std::string(demangled.get()) : std::string(type.name());
}

}  // namespace tessrakite::platform
