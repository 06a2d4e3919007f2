-- Takes a stored event object over for delivery: checks it and puts its key on the queue that event delivery reads.
--
--   KEYS[1]  the key of the object: a hash with "Id", "Name" and "Events", whose events lie under the key with
--            "/Events/0", "/Events/1" ... behind it, each with its "MessageArgs" in a list one level further
--
-- Answers with
--   1                                  queued: the object now belongs to delivery, which deletes it after sending
--   0                                  discarded: the service is disabled and publishes nothing (but the end of a
--                                      subscription, which its destination must learn of)
--   {status, message id, arguments...} refused; the arguments leave out the action's name, which the caller knows
--
-- The element of the queue is the key, which begins with "&&"; elements that begin with "{" are whole events.
--
-- The event of a subscription's end names its one receiver in "&&EventDestination". That member is gone when the event is
-- delivered, so what delivery needs of it is put into the object: field "&&Receiver", JSON text in the member's form.

local QUEUE = "&&/redfish/v1/EventService/EVENTQ"
local SERVICE = "/redfish/v1/EventService"

local EVENT_TYPES = {Alert = true, MetricReport = true, Other = true, ResourceAdded = true, ResourceRemoved = true,
                     ResourceUpdated = true, StatusChange = true}
local SEVERITIES = {OK = true, Warning = true, Critical = true}

-- A failed command (a key of the wrong type) counts as nothing stored.
local function read(...)
  local reply = redis.pcall(...)
  if type(reply) == "table" and reply.err then return nil end
  return reply or nil
end

local function hash(key)
  local fields, stored = {}, read("HGETALL", key) or {}
  for i = 1, #stored, 2 do fields[stored[i]] = stored[i + 1] end
  return fields
end

-- The text of a JSON string, nothing for any other JSON text.
local function text_of(json)
  local decoded, value = pcall(cjson.decode, "[" .. json .. "]")
  return decoded and #value == 1 and type(value[1]) == "string" and value[1] or nil
end

local function missing(name) return {"FAILURE", "Base.1.12.ActionParameterMissing", name} end
local function wrong_type(json, name) return {"FAILURE", "Base.1.12.ActionParameterValueTypeError", json, name} end
local function wrong_form(text, name) return {"FAILURE", "Base.1.12.ActionParameterValueFormatError", text, name} end

local function is_message_id(text) return text:match("^%w+%.%d+%.%d+%.[%w%.]+$") end
local function is_time_stamp(text) return text:match("^%d%d%d%d%-%d%d%-%d%dT%d%d:%d%d:%d%d") end
local function is_event_type(text) return EVENT_TYPES[text] end
local function is_severity(text) return SEVERITIES[text] end
local function is_any(_) return true end

-- In the order in which they are looked at.
local TEXTS = {
  {name = "MessageId", required = true, is_valid = is_message_id},
  {name = "MemberId", required = true, is_valid = is_any},
  {name = "EventType", required = true, is_valid = is_event_type},
  {name = "EventId", is_valid = is_any},
  {name = "EventTimestamp", is_valid = is_time_stamp},
  {name = "Message", is_valid = is_any},
  {name = "MessageSeverity", is_valid = is_severity},
  {name = "Severity", is_valid = is_any},
}

local function refusal_of_text(event, rule)
  local json = event[rule.name]
  if not json then return rule.required and missing(rule.name) or nil end
  local text = text_of(json)
  if not text then return wrong_type(json, rule.name) end
  if not rule.is_valid(text) then return wrong_form(text, rule.name) end
end

local function refusal_of_arguments(event, key)
  if not event.MessageArgs then return nil end
  if event.MessageArgs ~= "&&Array MessageArgs " .. key .. "/MessageArgs" then
    return wrong_type(event.MessageArgs, "MessageArgs")
  end
  for _, json in ipairs(read("LRANGE", key .. "/MessageArgs", 0, -1) or {}) do
    if not text_of(json) then return wrong_type(json, "MessageArgs") end
  end
end

local function refusal_of_event(event, key)
  for _, rule in ipairs(TEXTS) do
    local refusal = refusal_of_text(event, rule)
    if refusal then return refusal end
  end
  if event.EventGroupId and not event.EventGroupId:match("^%-?%d+$") then
    return wrong_type(event.EventGroupId, "EventGroupId")
  end
  return refusal_of_arguments(event, key)
end

-- The elements of a member's array of objects, as JSON text; nothing without any.
local function objects_in(array_key)
  local objects = {}
  for _, marker in ipairs(read("LRANGE", array_key, 0, -1) or {}) do
    local members = {}
    for name, json in pairs(hash(marker:match("^&&Object (.*)$") or "")) do
      members[#members + 1] = cjson.encode(name) .. ":" .. json
    end
    objects[#objects + 1] = "{" .. table.concat(members, ",") .. "}"
  end
  return #objects > 0 and "[" .. table.concat(objects, ",") .. "]" or nil
end

-- Stored values are JSON texts already, but for control fields.
local function receiver(uri)
  local member, kept = hash(uri), {}
  for _, name in ipairs({"Destination", "Protocol", "SubscriptionType", "VerifyCertificate", "Context"}) do
    if member[name] then kept[#kept + 1] = cjson.encode(name) .. ":" .. member[name] end
  end
  local headers = objects_in("&&" .. uri .. "/HttpHeaders")
  if headers then kept[#kept + 1] = '"HttpHeaders":' .. headers end
  local channel = member["&&SSE-CHANNEL"]
  if channel then kept[#kept + 1] = '"&&SSE-CHANNEL":' .. cjson.encode(channel) end
  return "{" .. table.concat(kept, ",") .. "}"
end

local key = KEYS[1]
local object = hash(key)
local events = read("LRANGE", key .. "/Events", 0, -1) or {}
if not object.Id or not object.Name or #events == 0 then return {"EXCEPTION", "Base.1.12.OperationFailed"} end

local ends_subscription = false
for index, marker in ipairs(events) do
  local event_key = key .. "/Events/" .. (index - 1)
  if marker ~= "&&Object " .. event_key then return {"EXCEPTION", "Base.1.12.OperationFailed"} end
  local event = hash(event_key)
  local refusal = refusal_of_event(event, event_key)
  if refusal then return refusal end
  ends_subscription = ends_subscription or event.MessageId:match("%.SubscriptionTerminated\"$") ~= nil
end

if not ends_subscription and read("HGET", SERVICE, "ServiceEnabled") ~= "true" then return 0 end
if object["&&EventDestination"] then
  read("HSET", key, "&&Receiver", receiver(object["&&EventDestination"]))
end
if not read("RPUSH", QUEUE, key) then return {"EXCEPTION", "Base.1.12.OperationFailed"} end
return 1
