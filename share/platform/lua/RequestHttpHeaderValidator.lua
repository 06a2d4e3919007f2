-- Validates the HTTP headers that a client wants sent with its events, by patterns.
--
-- The EventService daemon loads this file once per thread and calls validateHttpHeaderByPattern with the array of
-- headers: one table of name -> value for each object of the property HttpHeaders. The answer is true when all of them
-- may be sent. A board may put its own module in this place.

local HEADER_NAME = "^[%w!#$%%&'*+%-.^_`|~]+$"
local HEADER_VALUE = "^[^%c]*$"

local validator = {}

function validator.validateHttpHeaderByPattern(headers)
  for _, header in ipairs(headers) do
    for name, value in pairs(header) do
      if not name:find(HEADER_NAME) or not value:find(HEADER_VALUE) then
        return false
      end
    end
  end
  return true
end

return validator
