#pragma once

#include <string>

#include <tessrakite/Export.hpp>

namespace tessrakite::platform {

struct Rect {
    double x = 0, y = 0, width = 0, height = 0;
    friend bool operator==(const Rect&, const Rect&) = default;
};

struct Size {
    double width = 0, height = 0;
    friend bool operator==(const Size&, const Size&) = default;
};

enum class DeviceOrientation { unknown, portrait, portraitUpsideDown, landscapeLeft, landscapeRight, faceUp, faceDown };

/// The main screen.
class TESSRA_EXPORT Screen {
public:
    virtual ~Screen() = default;
    virtual Rect bounds() const = 0;
};

/// The device: machine identifier and system name from uname, orientation.
class TESSRA_EXPORT Device {
public:
    virtual ~Device() = default;
    /// uname's machine field (for example "x86_64").
    virtual std::string machine() const = 0;
    /// The operating system's name (uname's sysname, for example "Linux").
    virtual std::string systemName() const = 0;
    /// The operating system's version (uname's release).
    virtual std::string systemVersion() const = 0;
    /// The machine's vendor where the system tells it, else "unknown".
    virtual std::string vendor() const = 0;
    /// The kind of device ("desktop", "phone", ...).
    virtual std::string kind() const = 0;
    virtual DeviceOrientation orientation() const = 0;
};

}  // namespace tessrakite::platform
