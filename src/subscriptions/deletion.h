/// The end of subscriptions: one that is deleted, or every one that belongs to a stream.
#pragma once

#include "requests/answer.h"
#include "requests/request.h"

namespace event_service {

/// Deletes the target. In this order: tells the destination and the syslog forwarder, removes the index entries, the
/// Members entry, every key and the member in the file, raises the life-cycle events. A step that fails is logged and
/// the others run, so that no half stays behind; the answer is then an exception, unless only the destination could not
/// be told. On success the status "OK_EMPTY" has been set, unless the delivery side asked. The gates have been passed.
Answer DeleteEventDestination(Request& request);

/// Deletes every subscription that belongs to a stream; always ends in "OK_EMPTY".
Answer DeleteAllSseSubscriptions(Request& request);

}  // namespace event_service
