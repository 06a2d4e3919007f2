-- Rebuilds what event delivery looks subscriptions up by, from the stored subscriptions: the origin index (a hash
-- "&&subs:<origin path>" for each path, field: the subscription's Id, value: its registry mask) and the number of
-- subscribers to metric reports. Run by the service at start-up, with neither keys nor arguments.
--
-- Every field equals what the creation of the subscription wrote, so that an emptied Redis gets them back.

local SERVICE = "/redfish/v1/EventService"
local COLLECTION = SERVICE .. "/Subscriptions"
local ORIGIN_ROOT_LENGTH = #"/redfish/v1/"
local NO_RESTRICTION = -1
local LARGEST_BIT = 2147483647

-- A failed command (a key of the wrong type) counts as nothing stored.
local function read(...)
  local reply = redis.pcall(...)
  if type(reply) == "table" and reply.err then return nil end
  return reply
end

local function field(key, name) return read("HGET", key, name) or nil end

local function list(key) return read("LRANGE", key, 0, -1) or {} end

-- The text of a JSON string; any other text as it stands.
local function unquoted(text)
  local decoded, value = pcall(cjson.decode, "[" .. text .. "]")
  if decoded and type(value[1]) == "string" then return value[1] end
  return text
end

-- The elements of an array property, which its marker leads to.
local function array(uri, name)
  local key = (field(uri, name) or ""):match("^&&Array [^ ]+ ([^ ]+)$")
  return key and list(key) or {}
end

-- The bit of each registry prefix: 2 to the power of its first position in the service's list.
local function prefix_bits()
  local bits = {}
  for position, stored in ipairs(list("&&" .. SERVICE .. "/RegistryPrefixes")) do
    local prefix = unquoted(stored)
    bits[prefix] = bits[prefix] or (position > 31 and LARGEST_BIT or 2 ^ (position - 1))
  end
  return bits
end

local function joined_bits(prefixes, bits)
  local mask = 0
  for _, prefix in ipairs(prefixes) do mask = bit.bor(mask, bits[prefix] or 0) end
  return mask
end

local function registry_mask(uri, bits)
  local prefixes = {}
  for _, element in ipairs(array(uri, "RegistryPrefixes")) do prefixes[#prefixes + 1] = unquoted(element) end
  if #prefixes == 0 then
    for _, element in ipairs(array(uri, "MessageIds")) do
      prefixes[#prefixes + 1] = unquoted(element):match("^[^.]*")
    end
  end
  if #prefixes == 0 then return NO_RESTRICTION end
  return joined_bits(prefixes, bits)
end

local function origin_paths(uri)
  local paths = {}
  for _, element in ipairs(array(uri, "OriginResources")) do
    local origin = element:match("^&&ObjectRef (.*)$")
    if origin then paths[#paths + 1] = origin:sub(ORIGIN_ROOT_LENGTH + 1) end
  end
  return #paths > 0 and paths or {"*"}
end

local function index(uri, id, bits, subordinates_supported)
  local mask = string.format("%d", registry_mask(uri, bits))
  local with_subordinates = subordinates_supported and field(uri, "SubordinateResources") == "true"
  for _, path in ipairs(origin_paths(uri)) do
    redis.call("HSET", "&&subs:" .. path, id, mask)
    if with_subordinates and path ~= "*" then
      local below = path:sub(-1) == "/" and path .. "*" or path .. "/*"
      redis.call("HSET", "&&subs:" .. below, id, mask)
    end
  end
end

for _, key in ipairs(redis.call("KEYS", "&&subs:*")) do redis.call("DEL", key) end

local bits = prefix_bits()
local subordinates_supported = field(SERVICE, "SubordinateResourcesSupported") == "true"
local seen = {}
for _, entry in ipairs(list("&&" .. COLLECTION .. "/Members")) do
  -- "&&ObjectRef &&<uri>" as the service writes it, or the bare uri of other loaders.
  local uri = entry:gsub("^&&ObjectRef ", ""):gsub("^&&", "")
  local id = uri:match("^" .. COLLECTION .. "/([^/]+)$")
  if id and not seen[uri] and read("TYPE", uri).ok == "hash" then
    seen[uri] = true
    if field(uri, "EventFormatType") == '"MetricReport"' then
      redis.call("HINCRBY", "&&subs:MetricReport", "Total_Num_Subscriber", 1)
    else
      index(uri, id, bits, subordinates_supported)
    end
  end
end
return redis.status_reply("OK")
