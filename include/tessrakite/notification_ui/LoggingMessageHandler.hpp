#pragma once

#include <tessrakite/Export.hpp>
#include <tessrakite/platform/WebView.hpp>

namespace tessrakite {

/// The prompt page's "logging" channel: each message body becomes a console line.
class TESSRA_EXPORT LoggingMessageHandler final : public platform::ScriptMessageHandler {
public:
    void userContentController(platform::UserContentController& controller,
                               const platform::ScriptMessage& message) override;
};

}  // namespace tessrakite
