// The prompt page's fixed parts and the switch that sends a permission request through it.

#include <mutex>
#include <string>

#include <tessrakite/platform/UrlSession.hpp>

#include "core/FacadeState.hpp"
#include "notification_ui/CustomPromt.hpp"

namespace tessrakite::detail {

bool shouldPresentCustomPromt() {
    auto& state = facade();
    std::lock_guard lock(state.mutex);
    return state.shouldPresentCustomPromt;
}

void setShouldPresentCustomPromt(bool value) {
    auto& state = facade();
    std::lock_guard lock(state.mutex);
    state.shouldPresentCustomPromt = value;
}

std::string promptPageTemplate() {
    // The document goes in as script text, so the page's script and the remote one read it
    // as the global _TXPC. The remote script is async: the inline script below has run by
    // the time it executes.
    return R"html(<!DOCTYPE html>
<html lang="en">
<head>
    <meta charset="UTF-8">
    <meta name="viewport" content="width=device-width, initial-scale=1.0">
    <meta http-equiv="X-UA-Compatible" content="ie=edge">
    <script async src="https://)html" +
           platform::deploymentHost(platform::DeploymentHost::web) + R"html(/v2/mobile.js"></script>
</head>
<body>
    <script>
        if (window.webkit && window.webkit.messageHandlers) {
            const mData = JSON.stringify;
            const wwk = window.webkit.messageHandlers.JSBridge;
            var _TXPC = AUTOCONF;
            window.addEventListener("pns.htmlOK", function (e) {
                var data = e.txData || {};
                wwk.postMessage(mData({event: "pns.ok", data: data}));
            }, true);
            window.addEventListener("pns.show", function (e) {
                wwk.postMessage(mData({event: "pns.ok"}));
            }, true);
        }
    </script>
</body>
</html>
)html";
}

const std::string& consoleBridgeScript() {
    static const std::string script = R"js(function log(emoji, type, args) {
  var text = Array.prototype.map.call(args, function (v) {
    var s = typeof v === "undefined" ? "undefined" : typeof v === "object" ? JSON.stringify(v) : v.toString();
    return s.substring(0, 3000);
  }).join(", ");
  window.webkit.messageHandlers.logging.postMessage(emoji + " JS " + type + ": " + text);
}

var originalLog = console.log;
var originalWarn = console.warn;
var originalError = console.error;
var originalDebug = console.debug;

console.log = function () { log("📗", "log", arguments); originalLog.apply(console, arguments); };
console.warn = function () { log("📙", "warning", arguments); originalWarn.apply(console, arguments); };
console.error = function () { log("📕", "error", arguments); originalError.apply(console, arguments); };
console.debug = function () { log("📘", "debug", arguments); originalDebug.apply(console, arguments); };

window.addEventListener("error", function (e) {
  log("💥", "Uncaught", [e.message + " at " + e.filename + ":" + e.lineno + ":" + e.colno]);
});
)js";
    return script;
}

}  // namespace tessrakite::detail
