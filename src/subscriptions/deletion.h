/// The end of subscriptions: one that is deleted, or every one that belongs to a stream.
#pragma once

#include "requests/answer.h"
#include "requests/request.h"

namespace event_service {

/// Deletes the target: its destination is told, the syslog forwarder, the indexes, the collection, every key, the file,
/// those who watch, in this order. A step that fails is logged and the others run, so that no half stays behind; the
/// answer is then an exception, unless it was the first. On success the status "OK_EMPTY" has been set, unless the
/// delivery side asked. The gates have been passed.
Answer DeleteEventDestination(Request& request);

/// Deletes every subscription that belongs to a stream; always ends in "OK_EMPTY".
Answer DeleteAllSseSubscriptions(Request& request);

}  // namespace event_service
