/// The thread that serves every request for the collection of subscriptions and its members, one after the other: this
/// is what keeps creations, changes and deletions apart.
#pragma once

namespace event_service {

/// Thread entry point; the argument is not used. Ends when the connection on which requests are announced fails or
/// cannot be set up.
void* SubscriptionsListenerThread(void* unused);

}  // namespace event_service
