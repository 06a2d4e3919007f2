/// The index from origins to subscriptions that event delivery reads: one hash for each origin path, with one field for
/// each subscription, which holds its filter mask. SubordinateResources widens OriginResources to everything below them
/// (DSP0266, Eventing).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "resource_store/store_encoding.h"

namespace event_service {

/// What the keys of the index begin with.
inline constexpr std::string_view kIndexPrefix = "&&subs:";

inline constexpr std::string_view kMetricReportKey = "&&subs:MetricReport";
inline constexpr std::string_view kMetricReportField = "Total_Num_Subscriber";

/// True for a subscription to metric reports: it is counted, and stands in no origin index.
bool IsMetricReportDestination(const Json& destination);

/// The keys of the index in which a subscription to events stands, each once: "&&subs:" and the origin without
/// "/redfish/v1/", or "&&subs:*" without an origin; where subordinate resources are wanted and matched, also the keys
/// of everything below. None for a subscription to metric reports.
std::vector<std::string> OriginIndexKeys(const Json& destination, bool matchesSubordinates);

}  // namespace event_service
