# Sourced by scripts/run --demo: the main job, step by step, each answer held against what it should be.
# shellcheck shell=bash

: "${top:?}" # set by scripts/run

service=/redfish/v1/EventService
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
  request POST "$test_event" '{"MessageId": "ResourceEvent.1.0.ResourceChanged", "OriginOfCondition": "/redfish/v1/EventService"}'
  holds OK_RES

  part "Bad test events are refused, each for its reason"
  request POST "$test_event" '{"EventId": "7"}'
  holds FAILURE Base.1.12.ActionParameterMissing "arguments: EventService.SubmitTestEvent, MessageId"
  request POST "$test_event" '{"MessageId": "ResourceEvent.1.0.ResourceChanged", "EventGroupId": "seven"}'
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

  part "The change survives a restart with an emptied Redis"
  stop
  start
  request GET "$service"
  holds '"DeliveryRetryAttempts": 5' '"Port": 2525'
  part "The demo is through: every answer was as it should be."
}
