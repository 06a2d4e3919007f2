/// The URIs of the subscriptions, and what follows from their form.
#pragma once

#include <string>
#include <string_view>

namespace event_service {

/// The member with this Id.
std::string MemberUri(std::string_view id);

/// The Id of the member that `uri` names; empty when it names none: another resource, the collection itself, or
/// something below a member.
std::string_view MemberIdOf(std::string_view uri);

/// True for the collection's URI followed by one to seven characters that are no blanks: such a member can't be
/// deleted. Generated Ids have eight.
bool IsUndeletableSubscriptionUri(std::string_view uri);

/// True for a member with such a short Id whose SubscriptionType is SNMPTrap: it starts disabled. Generated Ids are
/// longer, so only an Id that the client chose qualifies.
bool IsSnmpTrapDestination(std::string_view uri, std::string_view subscriptionType);

}  // namespace event_service
