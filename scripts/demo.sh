# Sourced by scripts/run --demo: the main job, step by step, each answer held against what it should be.
# shellcheck shell=bash

: "${top:?}" # set by scripts/run

service=/redfish/v1/EventService
collection=$service/Subscriptions
member=$collection/demo-subscription
test_event=$service/Actions/EventService.SubmitTestEvent
answer=

# Prints a heading for the steps that follow.
part() { printf '\n== %s\n' "$1"; }

# request METHOD URI [BODY]: prints request and answer; the answer stays in $answer.
request() {
  printf '\n> %s %s\n' "$1" "$2"
  [[ -z ${3:-} ]] || printf '%s\n' "$3"
  if [[ -n ${3:-} ]]; then
    answer=$("$top/scripts/request" "$1" "$2" - <<<"$3") || true
  else
    answer=$("$top/scripts/request" "$1" "$2") || true
  fi
  printf '%s\n' "$answer"
}

# holds TEXT...: the last answer holds each of the texts.
holds() {
  local text
  for text in "$@"; do
    [[ $answer == *"$text"* ]] || die "The demo ends here: the answer should hold: $text"
  done
}

demo() {
  part "The service as a client sees it"
  request GET "$service"
  holds '"ServiceEnabled": true' '"ResourceTypes"' '"EventDestination"' '"Password": null'

  part "A test event goes to the delivery side"
  request POST "$test_event" '{"MessageId": "ResourceEvent.1.2.ResourceChanged", "OriginOfCondition": "/redfish/v1/EventService"}'
  holds OK_RES

  part "Bad test events are refused, each for its reason"
  request POST "$test_event" '{"EventId": "7"}'
  holds FAILURE Base.1.12.ActionParameterMissing "arguments: EventService.SubmitTestEvent, MessageId"
  request POST "$test_event" '{"MessageId": "ResourceEvent.1.2.ResourceChanged", "EventGroupId": "seven"}'
  holds FAILURE Base.1.12.ActionParameterValueTypeError

  part "The service is changed"
  request PATCH "$service" '{"DeliveryRetryAttempts": 5, "SMTP": {"Port": 2525, "Password": "secret"}}'
  holds OK_RES Base.1.12.Success
  request GET "$service"
  holds '"DeliveryRetryAttempts": 5' '"Port": 2525' '"Password": null'

  part "A change that is not acceptable leaves everything as it was"
  request PATCH "$service" '{"DeliveryRetryAttempts": -1}'
  holds FAILURE Base.1.12.PropertyValueOutOfRange '#/DeliveryRetryAttempts'
  request PATCH "$service" '{"Id": "other"}'
  holds FAILURE Base.1.12.PropertyNotWritable

  part "A subscription is created"
  request POST "$collection" '{
  "Id": "demo-subscription",
  "Destination": "https://collector.example.com/events",
  "Protocol": "Redfish",
  "Context": "rack 7",
  "HttpHeaders": [{"X-Token": "only the receiver knows"}],
  "RegistryPrefixes": ["ResourceEvent"],
  "OriginResources": [{"@odata.id": "/redfish/v1/Chassis/1"}],
  "SubordinateResources": true
}'
  holds OK_RES Base.1.12.Created "Location: $member"
  request GET "$member"
  holds '"Context": "rack 7"' '"HttpHeaders": []' '"State": "Enabled"'
  request GET "$collection"
  holds '"Members@odata.count": 1' "$member"

  part "A subscription to SNMP traps keeps its secrets"
  request POST "$collection" '{
  "Id": "demo-traps",
  "Destination": "snmp://operator@192.0.2.17",
  "Protocol": "SNMPv3",
  "SubscriptionType": "SNMPTrap",
  "SNMP": {"AuthenticationProtocol": "HMAC128_SHA224", "AuthenticationKey": "Passphrase:for nobody else"}
}'
  holds OK_RES Base.1.12.Created
  request GET "$collection/demo-traps"
  holds '"AuthenticationKey": null' '"AuthenticationKeySet": true'

  part "Bad subscriptions are refused, with a message for each property, and nothing is created"
  request POST "$collection" '{"Destination": "ftp://example.com", "Protocol": "Redfish", "Colour": "red"}'
  holds FAILURE Base.1.12.PropertyUnknown 'arguments: Colour' Base.1.12.PropertyValueFormatError '#/Destination'
  request POST "$collection" '{"Destination": "https://example.com", "Protocol": "Redfish",
  "MessageIds": ["Base.1.12.Success"], "RegistryPrefixes": ["Base"]}'
  holds FAILURE ExtendedError.1.2.UnprocessableEntity 'arguments: RegistryPrefixes, MessageIds'
  request GET "$collection"
  holds '"Members@odata.count": 2'

  part "The subscription is changed"
  request PATCH "$member" '{"Context": "rack 8", "Protocol": "SMTP"}'
  holds OK_RES Base.1.12.PropertyNotWritable 'arguments: Protocol'
  request PATCH "$member" '{"Context": "rack 8"}'
  holds OK_RES Base.1.12.NoOperation

  part "Everything survives a restart with an emptied Redis"
  stop
  start
  request GET "$service"
  holds '"DeliveryRetryAttempts": 5' '"Port": 2525'
  request GET "$member"
  holds '"Context": "rack 8"' '"Protocol": "Redfish"' '"State": "Enabled"'
  request GET "$collection"
  holds '"Members@odata.count": 2'

  part "Resuming a subscription that is not suspended changes nothing"
  request POST "$member/Actions/EventDestination.ResumeSubscription" '{}'
  holds OK_RES Base.1.12.NoOperation

  part "Subscriptions are deleted"
  request DELETE "$member"
  holds OK_EMPTY
  request DELETE "$collection/demo-traps"
  holds OK_EMPTY
  request DELETE "$member"
  holds NOT_FOUND Base.1.12.ResourceMissingAtURI
  request GET "$collection"
  holds '"Members": []' '"Members@odata.count": 0'

  part "A disabled service takes no subscriptions"
  request PATCH "$service" '{"ServiceEnabled": false}'
  holds OK_RES Base.1.12.Success
  request POST "$collection" '{"Destination": "https://example.com", "Protocol": "Redfish"}'
  holds UNAVAILABLE ExtendedError.1.2.ServiceDisabled

  part "The demo is through: every answer was as it should be."
}
