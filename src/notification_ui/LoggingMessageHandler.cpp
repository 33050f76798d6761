#include <tessrakite/notification_ui/LoggingMessageHandler.hpp>

#include <tessrakite/platform/Console.hpp>

namespace tessrakite {

void LoggingMessageHandler::userContentController(platform::UserContentController&,
                                                  const platform::ScriptMessage& message) {
    Console::print(message.bodyDescription());
}

}  // namespace tessrakite
