#include "subscriptions/resource/origin_index.h"

#include <algorithm>

#include "subscriptions/resource/event_destination.h"

namespace event_service {
namespace {

constexpr std::string_view kServiceRoot = "/redfish/v1/";
constexpr std::string_view kEveryOrigin = "*";

/// The members of "OriginResources" without the service root.
std::vector<std::string> OriginPaths(const Json& destination) {
  std::vector<std::string> paths;
  const auto origins = destination.find("OriginResources");
  if (origins == destination.end() || !origins->is_array()) return paths;
  for (const Json& origin : *origins) {
    const std::string_view uri = TextMember(origin, "@odata.id");
    paths.emplace_back(uri.substr(std::min(uri.size(), kServiceRoot.size())));
  }
  return paths;
}

bool WantsSubordinates(const Json& destination) {
  const auto wanted = destination.find("SubordinateResources");
  return wanted != destination.end() && *wanted == true;
}

}  // namespace

bool IsMetricReportDestination(const Json& destination) {
  return TextMember(destination, "EventFormatType") == "MetricReport";
}

std::vector<std::string> OriginIndexKeys(const Json& destination, bool matchesSubordinates) {
  std::vector<std::string> keys;
  if (IsMetricReportDestination(destination)) return keys;
  const auto add = [&keys](std::string path) {
    path.insert(0, kIndexPrefix);
    if (std::ranges::find(keys, path) == keys.end()) keys.push_back(std::move(path));
  };
  std::vector<std::string> paths = OriginPaths(destination);
  if (paths.empty()) paths.emplace_back(kEveryOrigin);
  const bool withSubordinates = matchesSubordinates && WantsSubordinates(destination);
  for (const std::string& path : paths) {
    add(path);
    if (withSubordinates && path != kEveryOrigin) add(path + (path.ends_with('/') ? "*" : "/*"));
  }
  return keys;
}

}  // namespace event_service
