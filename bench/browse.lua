-- The request of bench/browse's wrk runs: a Browse of a page of 50
-- children at a random offset, sorted by title. Arguments: the number of
-- children and the id text of the container.
local count, id = 50, "0"

function init(args)
   count = tonumber(args[1]) or count
   id = args[2] or id
   -- Threads start within the same second: the table's address tells them apart.
   math.randomseed(os.time() + tonumber(tostring({}):match("0x(%x+)") or "0", 16))
end

local head = '<?xml version="1.0" encoding="utf-8"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" ' ..
   's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body><u:Browse ' ..
   'xmlns:u="urn:schemas-upnp-org:service:ContentDirectory:1"><ObjectID>%s</ObjectID>' ..
   '<BrowseFlag>BrowseDirectChildren</BrowseFlag><Filter>*</Filter><StartingIndex>%d</StartingIndex>' ..
   '<RequestedCount>50</RequestedCount><SortCriteria>+dc:title</SortCriteria></u:Browse></s:Body></s:Envelope>'
local headers = {
   ["Content-Type"] = 'text/xml; charset="utf-8"',
   ["SOAPACTION"] = '"urn:schemas-upnp-org:service:ContentDirectory:1#Browse"',
}

function request()
   local body = string.format(head, id, math.random(0, math.max(count - 50, 0)))
   return wrk.format("POST", nil, headers, body)
end
