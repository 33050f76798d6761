#pragma once

#include <any>
#include <string>

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/Url.hpp>

namespace tessrakite {

/// The host's callbacks. Every member has an empty default, so a host overrides only what
/// it wants. The SDK holds the delegate weakly: keep it alive.
class TESSRA_EXPORT TessraQuillDelegate {
public:
    virtual ~TessraQuillDelegate() = default;
    virtual void notificationTokenChanged(const std::string& token) { (void)token; }
    virtual void enteredGeofenceRegionWith(const std::string& id) { (void)id; }
    virtual void enteredBeaconRegionWith(const std::string& id) { (void)id; }
    virtual void tessraInited(bool inited) { (void)inited; }
    virtual void handleURL(const Url& url) { (void)url; }
    virtual void locationChanged(double lat, double lng) {
        (void)lat;
        (void)lng;
    }
    virtual void passLocation(const std::any& location) { (void)location; }
};

}  // namespace tessrakite
