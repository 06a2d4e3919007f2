# Sourced by scripts/run --demo: the main job, step by step, each answer held against what it should be.
# shellcheck shell=bash

: "${top:?}" "${root:?}" "${pid=}" "${daemon_pid=}" # set by scripts/run

service=/redfish/v1/EventService
collection=$service/Subscriptions
member=$collection/demo-subscription
test_event=$service/Actions/EventService.SubmitTestEvent
answer=
# Texts of messages are composed by the gateway itself here, so that they are the same everywhere.
unset REDFISH_REGISTRIES

# Prints a heading for the steps that follow.
part() { printf '\n== %s\n' "$1"; }

# request METHOD URI [BODY]: prints request and answer; the answer, with its status and Location, stays in $answer.
request() {
  local -a body=()
  printf '\n> %s %s\n' "$1" "$2"
  [[ -z ${3:-} ]] || printf '%s\n' "$3"
  [[ -z ${3:-} ]] || body=(-H 'Content-Type: application/json' -d "$3")
  answer=$("${gateway_curl[@]}" -i -X "$1" "${body[@]}" "$(address HTTPS)$2" | tr -d '\r' |
    sed -n '1s/HTTP[^ ]*/HTTP/p; /^Location:/p; /^$/,$p') || true
  printf '%s\n' "$answer"
}

# holds TEXT...: the last answer holds each of the texts.
holds() {
  local text
  for text in "$@"; do
    [[ $answer == *"$text"* ]] || die "The demo ends here: the answer should hold: $text"
  done
}

# arrives FILE TEXT: the text appears in the file, which is then shown.
arrives() {
  local tries
  for ((tries = 0; tries < 100; ++tries)); do
    if grep -qF -- "$2" "$1" 2>/dev/null; then
      printf '\n< %s\n' "$(grep -F -- "$2" "$1")"
      return
    fi
    sleep 0.1
  done
  die "The demo ends here: nothing with this has arrived: $2"
}

start_listener() {
  listener_port=$(free_port)
  launch "$top/share/examples/listener.py" "$listener_port"
  wait_for "$pid" is_served 127.0.0.1 "$listener_port" || die "The listener did not start."
  listened=$root/var/log/listener.py.output
}

open_stream() {
  streamed=$root/stream
  "${gateway_curl[@]}" -N "$(address HTTPS)$service/SSE?\$filter=$1" >"$streamed" 9>&- &
  stream_pid=$!
  pids+=("$stream_pid")
  arrives "$streamed" ": $collection/"
  stream_member=$(sed -n 's/^: \(\/redfish.*\)/\1/p' "$streamed")
}

demo() {
  gateway_curl=(curl -sS --cacert "$root/etc/certs/redfish-gateway/certificate.pem" -u "$(login)")

  part "The service as a client sees it"
  request GET "$service"
  holds 'HTTP 200' '"ServiceEnabled": true' '"ResourceTypes"' '"EventDestination"' '"Password": null'

  part "A listener, and a subscription for it"
  start_listener
  request POST "$collection" '{
  "Id": "demo-listener",
  "Destination": "http://127.0.0.1:'"$listener_port"'/events",
  "Protocol": "Redfish",
  "Context": "the demo",
  "HttpHeaders": [{"X-Token": "only the receiver knows"}]
}'
  holds 'HTTP 201' "Location: $collection/demo-listener" '"Context": "the demo"' '"HttpHeaders": []'

  part "A test event arrives"
  request POST "$test_event" '{"MessageId": "ResourceEvent.1.2.ResourceChanged", "OriginOfCondition": "/redfish/v1/EventService"}'
  holds 'HTTP 200' Base.1.12.Success
  arrives "$listened" "ResourceEvent.1.2.ResourceChanged $service (Context: the demo)"

  part "A stream of events needs no listener: its subscription lives as long as the connection"
  open_stream "RegistryPrefix%20eq%20'Base'"
  request GET "$stream_member"
  holds '"SubscriptionType": "SSE"'
  request POST "$test_event" '{"MessageId": "Base.1.12.Success", "Message": "hello, stream"}'
  arrives "$streamed" "hello, stream"
  kill "$stream_pid"
  wait_for "$daemon_pid" is_gone "$stream_member" || die "The demo ends here: the subscription should end with its stream."

  part "The listener's subscription is deleted; it is told so"
  request DELETE "$collection/demo-listener"
  holds 'HTTP 204'
  arrives "$listened" "Base.1.12.SubscriptionTerminated"

  part "Bad test events are refused, each for its reason"
  request POST "$test_event" '{"EventId": "7"}'
  holds 'HTTP 400' Base.1.12.ActionParameterMissing '"EventService.SubmitTestEvent"'
  request POST "$test_event" '{"MessageId": "ResourceEvent.1.2.ResourceChanged", "EventGroupId": "seven"}'
  holds 'HTTP 400' Base.1.12.ActionParameterValueTypeError

  part "The service is changed"
  request PATCH "$service" '{"DeliveryRetryAttempts": 5, "SMTP": {"Port": 2525, "Password": "secret"}}'
  holds 'HTTP 200' '"DeliveryRetryAttempts": 5' '"Port": 2525' '"Password": null'

  part "A change that is not acceptable leaves everything as it was"
  request PATCH "$service" '{"DeliveryRetryAttempts": -1}'
  holds 'HTTP 400' Base.1.12.PropertyValueOutOfRange '#/DeliveryRetryAttempts'
  request PATCH "$service" '{"Id": "other"}'
  holds 'HTTP 400' Base.1.12.PropertyNotWritable

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
  holds 'HTTP 201' "Location: $member"
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
  holds 'HTTP 201'
  request GET "$collection/demo-traps"
  holds '"AuthenticationKey": null' '"AuthenticationKeySet": true'

  part "Bad subscriptions are refused, with a message for each property, and nothing is created"
  request POST "$collection" '{"Destination": "ftp://example.com", "Protocol": "Redfish", "Colour": "red"}'
  holds 'HTTP 400' Base.1.12.PropertyUnknown '"Colour"' Base.1.12.PropertyValueFormatError '#/Destination'
  request POST "$collection" '{"Destination": "https://example.com", "Protocol": "Redfish",
  "MessageIds": ["Base.1.12.Success"], "RegistryPrefixes": ["Base"]}'
  holds 'HTTP 400' ExtendedError.1.2.UnprocessableEntity '"RegistryPrefixes"' '"MessageIds"'
  request GET "$collection"
  holds '"Members@odata.count": 2'

  part "The subscription is changed"
  request PATCH "$member" '{"Context": "rack 8", "Protocol": "SMTP"}'
  holds 'HTTP 200' '"Context": "rack 8"' Base.1.12.PropertyNotWritable
  request PATCH "$member" '{"Context": "rack 8"}'
  holds 'HTTP 200' Base.1.12.NoOperation

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
  holds 'HTTP 200' Base.1.12.NoOperation

  part "Subscriptions are deleted"
  request DELETE "$member"
  holds 'HTTP 204'
  request DELETE "$collection/demo-traps"
  holds 'HTTP 204'
  request DELETE "$member"
  holds 'HTTP 404' Base.1.12.ResourceMissingAtURI
  request GET "$collection"
  holds '"Members": []' '"Members@odata.count": 0'

  part "A disabled service takes no subscriptions"
  request PATCH "$service" '{"ServiceEnabled": false}'
  holds 'HTTP 200' '"ServiceEnabled": false'
  request POST "$collection" '{"Destination": "https://example.com", "Protocol": "Redfish"}'
  holds 'HTTP 503' ExtendedError.1.2.ServiceDisabled

  part "The demo is through: every answer was as it should be."
}
