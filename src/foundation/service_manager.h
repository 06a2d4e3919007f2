/// What the process tells the service manager that has started it.
#pragma once

namespace event_service {

/// Says that the service is ready, to whom NOTIFY_SOCKET names. Without that variable nobody has asked, and nothing
/// happens. False with errno when it cannot be said. Logs nothing.
[[nodiscard]] bool TellServiceManagerReady();

}  // namespace event_service
