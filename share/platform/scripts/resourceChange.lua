-- Raises the event of a resource's life cycle: puts it on the queue that event delivery reads.
--
-- All values come as keys:
--   KEYS[1]        what happened: "add", "remove", "change" or "status"
--   KEYS[2]        the resource's URI
--   KEYS[3]        its type, such as "EventDestination"
--   KEYS[4]        only with six or more keys: a text of its own for the event's message
--   KEYS[n-1..n]   the word "EventGroupId" and the number
--
-- Answers with the integer 1, or with an array of two: "FAILURE" and why.
--
-- The element of the queue is a whole Redfish event as JSON text; its members "&&ResourceType" and "&&TimeStamp" are for
-- delivery alone (filters, buffering) and are taken out before it is sent.

local QUEUE = "&&/redfish/v1/EventService/EVENTQ"

local KINDS = {
  add = {type = "ResourceAdded", id = "ResourceCreated", text = "The resource has been created successfully."},
  remove = {type = "ResourceRemoved", id = "ResourceRemoved", text = "The resource has been removed successfully."},
  change = {type = "ResourceUpdated", id = "ResourceChanged", text = "One or more resource properties have changed."},
  status = {type = "StatusChange", id = "ResourceStateChanged", text = "The state of resource `%s` has changed to %s."},
}

local function refuse(text) return {"FAILURE", text} end

-- Seconds since 1970 as a date in UTC. The calendar begins in March, so that the leap day is a year's last.
local function time_stamp(seconds)
  local days, rest = math.floor(seconds / 86400), seconds % 86400
  local shifted = days + 719468
  local era = math.floor(shifted / 146097)
  local day_of_era = shifted % 146097
  local year_of_era = math.floor(
      (day_of_era - math.floor(day_of_era / 1460) + math.floor(day_of_era / 36524) - math.floor(day_of_era / 146096)) / 365)
  local day_of_year = day_of_era - (365 * year_of_era + math.floor(year_of_era / 4) - math.floor(year_of_era / 100))
  local month_from_march = math.floor((5 * day_of_year + 2) / 153)
  local day = day_of_year - math.floor((153 * month_from_march + 2) / 5) + 1
  local month = month_from_march < 10 and month_from_march + 3 or month_from_march - 9
  local year = year_of_era + era * 400 + (month <= 2 and 1 or 0)
  return string.format("%04d-%02d-%02dT%02d:%02d:%02d+00:00", year, month, day, math.floor(rest / 3600),
                       math.floor(rest / 60) % 60, rest % 60)
end

-- The state of a member whose status has changed, as it is stored now.
local function state_of(uri)
  local stored = redis.pcall("HGET", "&&" .. uri .. "/Status", "State")
  return type(stored) == "string" and stored:match('^"(.*)"$') or "Absent"
end

if #KEYS < 5 or KEYS[#KEYS - 1] ~= "EventGroupId" then return refuse("The event's keys are not as expected.") end
local kind, uri, resource_type = KINDS[KEYS[1]], KEYS[2], KEYS[3]
local group = tonumber(KEYS[#KEYS])
if not kind then return refuse("Unknown kind of change: " .. KEYS[1]) end
if uri:sub(1, 1) ~= "/" then return refuse("No URI: " .. uri) end
if not group then return refuse("No EventGroupId: " .. KEYS[#KEYS]) end

local now = redis.call("TIME")
local event = {
  MemberId = "0",
  EventType = kind.type,
  EventId = now[1] .. string.format("%06d", tonumber(now[2])),
  EventTimestamp = time_stamp(tonumber(now[1])),
  EventGroupId = group,
  MessageId = "ResourceEvent.1.2." .. kind.id,
  Message = kind.text,
  Severity = "OK",
  MessageSeverity = "OK",
  OriginOfCondition = {["@odata.id"] = uri},
}
if kind == KINDS.status then
  event.MessageArgs = {uri, state_of(uri)}
  event.Message = kind.text:format(unpack(event.MessageArgs))
end
if #KEYS > 5 then event.Message = KEYS[4] end

local pushed = redis.pcall("RPUSH", QUEUE, cjson.encode({
  ["@odata.type"] = "#Event.v1_7_0.Event",
  Id = event.EventId,
  Name = "Resource life cycle event",
  Events = {event},
  ["&&ResourceType"] = resource_type,
  ["&&TimeStamp"] = event.EventTimestamp,
}))
if type(pushed) == "table" then return refuse(pushed.err) end
return 1
