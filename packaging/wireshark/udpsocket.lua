-- Dissector of the radar protocols: discovery, host-id negotiation and presence beacons over UDP, and the
-- discovery messages on the TCP connection to a fixed radar. docs/protocol.md describes them.
--
-- Display filter "udpsocket"; "_ws.expert && udpsocket" finds violations of the protocol, and notes on what may be a mistake.

-- ------------------------------------------------------------------------------------------ the wire, as tables

local GROUPS = {
    discovery = { address = "236.6.7.5", port = 6878 },
    negotiation = { address = "236.6.7.4", port = 6768 },
    beacon = { address = "236.6.7.20", port = 6720 },
}
local BEACON_MARKER = "aabbccdd"
local KEEP_ALIVE = "check\0" -- of the TCP connection
local TCP_NAME_START = "ZQ"  -- of every radar that is reached over TCP

-- Codes are written as little-endian numbers: bytes 01 B1 are 0xB101.
local QUERY, ANNOUNCEMENT, TCP_REPLY = 0xB101, 0xB201, 0xC201
local PROBE, CONFIRM, OBJECTION = 0xA101, 0xA102, 0xA103
local MESSAGES = {
    discovery = {
        [QUERY] = { text = "Query", lengths = { 2 } },
        [ANNOUNCEMENT] = { text = "Announcement", lengths = { 150, 222 } },
        [0xC101] = { text = "TCP service wanted", lengths = { 2 } },
        [0xC102] = { text = "TCP service not wanted", lengths = { 2 } },
        [TCP_REPLY] = { text = "TCP reply", lengths = { 38 } },
    },
    negotiation = {
        [PROBE] = { text = "Probe of host id", lengths = { 4 } },
        [CONFIRM] = { text = "Confirm of host id", lengths = { 4 } },
        [OBJECTION] = { text = "Objection to host id", lengths = { 4 } },
        [0xA120] = { text = "Reset", lengths = { 2 } },
    },
}

-- Fields: offset, width.
local NAME, RADAR_IP = { 2, 16 }, { 18, 4 }
local EXTENDED, RADAR_NUMBER, TCP_OFFERED, USER_VALID = { 22, 1 }, { 23, 1 }, { 30, 1 }, { 73, 1 }
local TCP_KINDS = 67
local HOST_ID, ALWAYS_ONE = { 2, 1 }, { 3, 1 } -- of a negotiation message

-- Endpoints, 4 bytes of address and 2 of port: key, offset.
local TCP_ENDPOINTS = {
    { "tcp.image", 31 }, { "tcp.image_control", 37 }, { "tcp.image_state", 43 },
    { "tcp.arpa", 49 }, { "tcp.arpa_control", 55 }, { "tcp.arpa_state", 61 },
}
local USER_ENDPOINTS = {
    { "user.image", 74 }, { "user.image_state", 80 }, { "user.image_control", 114 }, { "user.arpa", 150 },
}
local SHORT_ENDPOINTS = {
    { "stream0.image", 88 }, { "stream0.image_control", 98 }, { "stream0.image_state", 108 },
    { "stream0.arpa", 124 }, { "stream0.arpa_control", 134 }, { "stream0.arpa_state", 144 },
}
local LONG_ENDPOINTS = {
    { "stream0.image", 88 }, { "stream0.image_control", 98 }, { "stream0.image_state", 108 },
    { "stream1.image", 124 }, { "stream1.image_control", 134 }, { "stream1.image_state", 144 },
    { "stream0.arpa", 160 }, { "stream0.arpa_control", 170 }, { "stream0.arpa_state", 180 },
    { "stream1.arpa", 196 }, { "stream1.arpa_control", 206 }, { "stream1.arpa_state", 216 },
}
local LAYOUTS = {
    [150] = { streams = 1, endpoints = SHORT_ENDPOINTS },
    [222] = { streams = 2, endpoints = LONG_ENDPOINTS },
}

-- The address plan: offset into the block of a host id from 16 upwards; what host id 1 uses.
local PLAN = {
    ["stream0.image"] = { 0, "236.6.7.8", 6878 },
    ["stream0.image_control"] = { 1, "236.6.7.10", 6680 },
    ["stream0.image_state"] = { 2, "236.6.7.9", 6679 },
    ["stream1.image"] = { 3, "236.6.7.13", 6657 },
    ["stream1.image_control"] = { 4, "236.6.7.14", 6658 },
    ["stream1.image_state"] = { 5, "236.6.7.15", 6659 },
    ["stream0.arpa"] = { 6, "236.6.7.18", 6688 },
    ["stream0.arpa_control"] = { 7, "236.6.7.20", 6690 },
    ["stream0.arpa_state"] = { 8, "236.6.7.19", 6889 },
    ["stream1.arpa"] = { 9, "236.6.7.12", 6660 },
    ["stream1.arpa_control"] = { 10, "236.6.7.13", 6661 },
    ["stream1.arpa_state"] = { 11, "236.6.7.14", 6862 },
    ["stream0.original"] = { 12, "236.6.7.7", 6677 },
    ["stream1.original"] = { 13, "236.6.7.16", 6656 },
}
local FIRST_ID, LAST_ID = 16, 63
local FIRST_GROUP, FIRST_PORT = 0xEC060723, 6003 -- 236.6.7.35, of host id 16
local GROUPS_PER_HOST, PORTS_PER_HOST = 16, 32
local INFO_DEVICES = { ip = 0xEC060B0A, port = 7600, perHost = 32, baseId = 9 } -- 236.6.11.10

local PT_TCP = 2      -- in pinfo.port_type
local AGEING = 8      -- seconds after which a display forgets a silent radar
local CLAIM_TIME = 1  -- seconds that others have to object to a probe, and again to a confirm

-- ------------------------------------------------------------------------------------------ fields and warnings

local udpsocket = Proto("udpsocket", "Radar discovery and host ids")
local onTcp = Proto("udpsocket_tcp", "Radar discovery over TCP")

local codeTexts = {}
for _, codes in pairs(MESSAGES) do
    for code, message in pairs(codes) do codeTexts[code] = message.text end
end
local kindTexts = { [0] = "UDP", [1] = "TCP server", [2] = "TCP client" }

local fields = {
    code = ProtoField.uint16("udpsocket.code", "Code", base.HEX, codeTexts),
    name = ProtoField.string("udpsocket.announcement.name", "Name"),
    radar_ip = ProtoField.ipv4("udpsocket.announcement.radar_ip", "Radar's own address"),
    streams = ProtoField.uint8("udpsocket.announcement.streams", "Streams"),
    announced_id = ProtoField.uint8("udpsocket.announcement.host_id", "Host id"),
    extended = ProtoField.uint8("udpsocket.announcement.extended", "Extended"),
    radar_number = ProtoField.uint8("udpsocket.announcement.radar_number", "Dedicated number"),
    tcp_offered = ProtoField.uint8("udpsocket.announcement.tcp_offered", "TCP service offered"),
    user_valid = ProtoField.uint8("udpsocket.announcement.user_valid", "User endpoints valid"),
    host_id = ProtoField.uint8("udpsocket.negotiation.host_id", "Host id"),
    always_one = ProtoField.uint8("udpsocket.negotiation.one", "Always 1"),
    marker = ProtoField.string("udpsocket.beacon.marker", "Marker"),
    payload = ProtoField.bytes("udpsocket.payload", "Payload"),
    query_in = ProtoField.framenum("udpsocket.query_in", "Answer to the query in", base.NONE, frametype.REQUEST),
    answer_in = ProtoField.framenum("udpsocket.answer_in", "Answer in", base.NONE, frametype.RESPONSE),
    response_time = ProtoField.relative_time("udpsocket.response_time", "Time since the query"),
    claim_in = ProtoField.framenum("udpsocket.claim_in", "Objection to the claim in", base.NONE, frametype.REQUEST),
    objection_in = ProtoField.framenum("udpsocket.objection_in", "Objection in", base.NONE, frametype.RESPONSE),
}

-- Address and port of each endpoint, "udpsocket.announcement.stream0.image.ip" and so on.
local endpointFields = {}
local function addEndpointFields(key)
    local abbreviation = "udpsocket.announcement." .. key
    if endpointFields[key] then return end
    endpointFields[key] = {
        ip = ProtoField.ipv4(abbreviation .. ".ip", "Address"),
        port = ProtoField.uint16(abbreviation .. ".port", "Port"),
        kind = ProtoField.uint8(abbreviation .. ".kind", "Kind, as the radar sees it", base.DEC, kindTexts),
        label = key:gsub("^%l", string.upper):gsub("^Tcp", "TCP"):gsub("^Stream", "Stream "):gsub("arpa", "ARPA")
                   :gsub("[._]", " "),
    }
end
for key in pairs(PLAN) do addEndpointFields(key) end
for _, place in ipairs(TCP_ENDPOINTS) do addEndpointFields(place[1]) end
for _, place in ipairs(USER_ENDPOINTS) do addEndpointFields(place[1]) end
addEndpointFields("info_devices") -- the first of ten

local registered = {}
for _, field in pairs(fields) do table.insert(registered, field) end
for key, endpoint in pairs(endpointFields) do
    table.insert(registered, endpoint.ip)
    table.insert(registered, endpoint.port)
    if key:find("^tcp") then table.insert(registered, endpoint.kind) end
end
udpsocket.fields = registered

local function warning(name, text, severity)
    return ProtoExpert.new("udpsocket.expert." .. name, text, expert.group.PROTOCOL, severity or expert.severity.WARN)
end
local experts = {
    code = warning("code", "Unknown code"),
    length = warning("length", "Wrong length for this code"),
    host_id = warning("host_id", "No host id: 1, or 16 to 63"),
    unplanned = warning("unplanned", "Endpoint that is in the plan of no host id"),
    own = warning("own", "Image endpoint of the host's own", expert.severity.NOTE),
    mixed_ids = warning("mixed_ids", "Endpoints of different host ids"),
    name = warning("name", "No radar name"),
    full_name = warning("full_name", "Name fills its field: perhaps cut", expert.severity.NOTE),
    gap = warning("gap", "Bytes that are always zero are not"),
    kind = warning("kind", "Unknown kind of socket"),
    one = warning("one", "The fourth byte is always 1"),
    objection = warning("objection", "A host gives its id up", expert.severity.NOTE),
    reset = warning("reset", "Radars are told to reset", expert.severity.NOTE),
    marker = warning("marker", "Not the beacon marker"),
    unasked = warning("unasked", "Announcement without a query", expert.severity.NOTE),
    twice = warning("twice", "Two radars on one host id"),
    same_name = warning("same_name", "Two radars under one name"),
}
local registeredExperts = {}
for _, one in pairs(experts) do table.insert(registeredExperts, one) end
udpsocket.experts = registeredExperts

-- ---------------------------------------------------------------------------------------------- the address plan

local function dotted(ip)
    local bytes = {}
    for i = 4, 1, -1 do
        bytes[i] = string.format("%d", ip % 256)
        ip = math.floor(ip / 256)
    end
    return table.concat(bytes, ".")
end

local function isHostId(id) return id == 1 or (id >= FIRST_ID and id <= LAST_ID) end

local function plannedEndpoint(id, key)
    local offset, hostOneIp, hostOnePort = table.unpack(PLAN[key])
    if id < FIRST_ID or id > LAST_ID then return hostOneIp, hostOnePort end
    local k = id - FIRST_ID
    return dotted(FIRST_GROUP + GROUPS_PER_HOST * k + offset), FIRST_PORT + PORTS_PER_HOST * k + offset
end

-- The host id that an ARPA stream port stands for, as displays compute it; 0: none.
local function idOfArpaPort(port)
    local offset, _, hostOnePort = table.unpack(PLAN["stream0.arpa"])
    if port == hostOnePort then return 1 end
    local k = math.floor((port - FIRST_PORT - offset) % 65536 / PORTS_PER_HOST) % 256
    return k <= LAST_ID - FIRST_ID and k + FIRST_ID or 0
end

-- The host id whose plan has this endpoint in this place; nil: none.
local function idOfEndpoint(key, ip, port)
    if plannedEndpoint(1, key) == ip and select(2, plannedEndpoint(1, key)) == port then return 1 end
    local id = math.floor((port - FIRST_PORT - PLAN[key][1]) / PORTS_PER_HOST) + FIRST_ID
    if id < FIRST_ID or id > LAST_ID then return nil end
    local plannedIp, plannedPort = plannedEndpoint(id, key)
    return plannedIp == ip and plannedPort == port and id or nil
end

-- ------------------------------------------------------------------------------------------------ conversations

-- What was seen so far, and what it meant for each frame; made on the first pass, shown on every pass.
local seen, found

function udpsocket.init()
    seen = { query = nil, claim = nil, claims = {}, announcers = {} }
    found = { queryOf = {}, answersTo = {}, claimOf = {}, objectionTo = {}, twice = {}, sameName = {} }
end

local function rememberAnnouncement(pinfo, name, id)
    if pinfo.visited then return end
    local number, now, from = pinfo.number, pinfo.rel_ts, tostring(pinfo.src)
    if seen.query and now - seen.query.time < AGEING then
        found.queryOf[number] = seen.query
        table.insert(found.answersTo[seen.query.number], number)
    end
    local me = from .. "/" .. name
    for key, other in pairs(seen.announcers) do
        if now - other.time >= AGEING then
            seen.announcers[key] = nil
        elseif key ~= me and other.id == id and isHostId(id) then
            found.twice[number] = other
        elseif key ~= me and other.name == name then
            found.sameName[number] = other
        end
    end
    seen.announcers[me] = { number = number, time = now, id = id, name = name, from = from }
end

local function rememberNegotiation(pinfo, code, id)
    if pinfo.visited then return end
    local from = tostring(pinfo.src)
    if code ~= OBJECTION then
        seen.claim = { number = pinfo.number, time = pinfo.rel_ts, from = from }
        seen.claims[id] = seen.claim
        return
    end
    local claim = id == 1 and seen.claim or seen.claims[id] -- the holder of id 1 objects to every claim
    if claim and claim.from ~= from and pinfo.rel_ts - claim.time <= CLAIM_TIME then
        found.claimOf[pinfo.number] = claim.number
        found.objectionTo[claim.number] = pinfo.number
    end
end

-- ----------------------------------------------------------------------------------------------------- messages

local function at(tvb, field) return tvb(field[1], field[2]) end

local function printable(text)
    local function escape(bytes)
        return (bytes:gsub(".", function(c) return string.format("\\x%02X", c:byte()) end))
    end
    return (text:gsub("%c", escape):gsub("\194[\128-\159]", escape))
end

local function addGenerated(tree, field, ...)
    local item = tree:add(field, ...)
    item:set_generated()
    return item
end

local function addEndpoint(tree, tvb, place)
    local key, offset = table.unpack(place)
    local names = endpointFields[key]
    local ip, port = dotted(tvb(offset, 4):uint()), tvb(offset + 4, 2):uint()
    local item = tree:add(tvb(offset, 6), string.format("%s: %s:%d", names.label, ip, port))
    item:add(names.ip, tvb(offset, 4))
    item:add(names.port, tvb(offset + 4, 2))
    return item, ip, port
end

local function addPlanned(tree, key, ip, port)
    local names = endpointFields[key]
    local item = tree:add(udpsocket, string.format("%s: %s:%d", names.label, ip, port))
    item:set_generated()
    addGenerated(item, names.ip, Address.ip(ip))
    addGenerated(item, names.port, port)
end

-- Every byte that no field covers is zero.
local function checkGaps(tree, tvb, covered)
    local position = 0
    table.sort(covered, function(a, b) return a[1] < b[1] end)
    table.insert(covered, { tvb:len(), 0 })
    for _, range in ipairs(covered) do
        for i = position, range[1] - 1 do
            if tvb(i, 1):uint() ~= 0 then
                tree:add_tvb_expert_info(experts.gap, tvb(i, range[1] - i),
                                         string.format("Byte %d is always zero, and is not", i))
                break
            end
        end
        position = range[1] + range[2]
    end
end

local function dissectExtension(tree, tvb, covered)
    tree:add(fields.radar_number, at(tvb, RADAR_NUMBER))
    tree:add(fields.tcp_offered, at(tvb, TCP_OFFERED))
    for i, place in ipairs(TCP_ENDPOINTS) do
        local kind = tvb(TCP_KINDS + i - 1, 1)
        local item = addEndpoint(tree, tvb, place):add(endpointFields[place[1]].kind, kind)
        if not kindTexts[kind:uint()] then item:add_proto_expert_info(experts.kind) end
        table.insert(covered, { place[2], 6 })
        table.insert(covered, { TCP_KINDS + i - 1, 1 })
    end
    tree:add(fields.user_valid, at(tvb, USER_VALID))
    for _, place in ipairs(USER_ENDPOINTS) do
        addEndpoint(tree, tvb, place)
        table.insert(covered, { place[2], 6 })
    end
    for _, field in ipairs({ RADAR_NUMBER, TCP_OFFERED, USER_VALID }) do table.insert(covered, field) end
end

local function dissectStandardEndpoints(tree, tvb, layout, id, covered)
    local others = {}
    for _, place in ipairs(layout.endpoints) do
        local key = place[1]
        local item, ip, port = addEndpoint(tree, tvb, place)
        local owner = idOfEndpoint(key, ip, port)
        if not owner and layout.streams == 1 and key:find("image") then
            item:add_proto_expert_info(experts.own)
        elseif not owner then
            item:add_proto_expert_info(experts.unplanned)
        elseif owner ~= id and isHostId(id) then
            table.insert(others, string.format("%s is that of %d", endpointFields[key].label, owner))
        end
        table.insert(covered, { place[2], 6 })
    end
    if #others > 0 then
        tree:add_proto_expert_info(experts.mixed_ids, string.format(
            "Endpoints of different host ids: displays take it for %d, but %s%s", id, others[1],
            #others > 1 and string.format(", and %d more differ", #others - 1) or ""))
    end
end

local function dissectAnnouncement(tree, tvb, pinfo)
    local layout = LAYOUTS[tvb:len()]
    local covered = { { 0, 2 }, NAME, RADAR_IP }
    local raw = at(tvb, NAME)
    local name = raw:string(ENC_UTF_8):gsub("\0.*", "")
    local nameItem = tree:add(fields.name, raw, name)
    if name == "" then nameItem:add_proto_expert_info(experts.name, "The name is empty") end
    if raw:bytes():get_index(NAME[2] - 1) ~= 0 then nameItem:add_proto_expert_info(experts.full_name) end
    if pinfo.port_type == PT_TCP and name:sub(1, #TCP_NAME_START) ~= TCP_NAME_START then
        nameItem:add_proto_expert_info(experts.name, "Over TCP, displays drop a name that does not begin with ZQ")
    end
    tree:add(fields.radar_ip, at(tvb, RADAR_IP))
    if layout.streams == 2 then
        local extended = tree:add(fields.extended, at(tvb, EXTENDED))
        table.insert(covered, EXTENDED)
        if at(tvb, EXTENDED):uint() == 1 then dissectExtension(extended, tvb, covered) end
    end

    local arpa
    for _, place in ipairs(layout.endpoints) do
        if place[1] == "stream0.arpa" then arpa = tvb(place[2] + 4, 2) end
    end
    local id = idOfArpaPort(arpa:uint())
    dissectStandardEndpoints(tree, tvb, layout, id, covered)
    checkGaps(tree, tvb, covered)

    addGenerated(tree, fields.streams, layout.streams)
    local idItem = addGenerated(tree, fields.announced_id, arpa, id)
    if not isHostId(id) then idItem:add_proto_expert_info(experts.host_id) end
    for stream = 0, layout.streams - 1 do
        local key = string.format("stream%d.original", stream)
        addPlanned(tree, key, plannedEndpoint(id, key))
    end
    local info = INFO_DEVICES.perHost * (id >= FIRST_ID and id - INFO_DEVICES.baseId or 0)
    addPlanned(tree, "info_devices", dotted(INFO_DEVICES.ip + info), INFO_DEVICES.port + info)

    rememberAnnouncement(pinfo, name, id)
    local query = found.queryOf[pinfo.number]
    if query then
        addGenerated(tree, fields.query_in, query.number)
        local time = pinfo.rel_ts - query.time
        addGenerated(tree, fields.response_time, NSTime.new(math.floor(time), math.floor(time % 1 * 1e9 + 0.5)))
    elseif pinfo.port_type ~= PT_TCP then
        tree:add_proto_expert_info(experts.unasked)
    end
    local other = found.twice[pinfo.number]
    if other then
        idItem:add_proto_expert_info(experts.twice, string.format(
            "Host id %d is also that of %s at %s (frame %d)", id, printable(other.name), other.from, other.number))
    end
    other = found.sameName[pinfo.number]
    if other then
        nameItem:add_proto_expert_info(experts.same_name, string.format(
            "Host id %d at %s has this name, too (frame %d)", other.id, other.from, other.number))
    end
    return string.format("Announcement: %s, host id %d, %d %s", printable(name), id, layout.streams,
                         layout.streams == 1 and "stream" or "streams")
end

local function dissectNegotiation(tree, tvb, pinfo, code, message)
    local id = at(tvb, HOST_ID):uint()
    local idItem = tree:add(fields.host_id, at(tvb, HOST_ID))
    if not isHostId(id) then idItem:add_proto_expert_info(experts.host_id) end
    local one = tree:add(fields.always_one, at(tvb, ALWAYS_ONE))
    if at(tvb, ALWAYS_ONE):uint() ~= 1 then one:add_proto_expert_info(experts.one) end
    rememberNegotiation(pinfo, code, id)
    if found.claimOf[pinfo.number] then
        addGenerated(tree, fields.claim_in, found.claimOf[pinfo.number])
    elseif code == OBJECTION then
        idItem:add_proto_expert_info(experts.objection,
                                     string.format("The host that holds id %d is to take another", id))
    end
    if found.objectionTo[pinfo.number] then
        addGenerated(tree, fields.objection_in, found.objectionTo[pinfo.number])
    end
    return message.text .. " " .. id
end

local function contains(list, wanted)
    for _, value in ipairs(list) do
        if value == wanted then return true end
    end
    return false
end

-- One message that fills @p tvb. Returns the text of the info column.
local function dissectMessage(tvb, pinfo, root, codes)
    local tree = root:add(udpsocket, tvb())
    if tvb:len() < 2 then
        tree:add_proto_expert_info(experts.length, "Too short for a code")
        return "No message"
    end
    local code = tvb(0, 2):le_uint()
    local codeItem = tree:add_le(fields.code, tvb(0, 2))
    local message = codes[code]
    if not message then
        codeItem:add_proto_expert_info(experts.code)
        return string.format("Unknown code 0x%04X", code)
    end
    if not contains(message.lengths, tvb:len()) then
        codeItem:add_proto_expert_info(experts.length, string.format(
            "%d bytes, not %s: nobody acts on it", tvb:len(), table.concat(message.lengths, " or ")))
        return string.format("%s with %d bytes", message.text, tvb:len())
    end

    local text = message.text
    if code == ANNOUNCEMENT then
        text = dissectAnnouncement(tree, tvb, pinfo)
    elseif code == QUERY then
        if not pinfo.visited then
            seen.query = { number = pinfo.number, time = pinfo.rel_ts }
            found.answersTo[pinfo.number] = {}
        end
        for _, number in ipairs(found.answersTo[pinfo.number]) do addGenerated(tree, fields.answer_in, number) end
    elseif code == TCP_REPLY then
        tree:add(fields.payload, tvb(2))
    elseif codes == MESSAGES.negotiation then
        if tvb:len() == 4 then
            text = dissectNegotiation(tree, tvb, pinfo, code, message)
        else
            codeItem:add_proto_expert_info(experts.reset)
        end
    end
    tree:append_text(": " .. text)
    return text
end

local function dissectBeacon(tvb, _, root)
    local tree = root:add(udpsocket, tvb())
    if tvb:len() > 0 and tvb:raw() == BEACON_MARKER then
        tree:add(fields.marker, tvb())
        tree:append_text(": Presence beacon")
        return "Presence beacon"
    end
    tree:add(fields.payload, tvb())
    if LAYOUTS[tvb:len()] then
        tree:add_proto_expert_info(experts.marker, "Not the beacon marker, but displays take this length for one")
    else
        tree:add_proto_expert_info(experts.marker)
    end
    return "No beacon"
end

-- ------------------------------------------------------------------------------------------------- registration

function udpsocket.dissector(tvb, pinfo, root)
    -- Streams use the same ports on groups of their own (host id 1 sends its image to port 6878).
    for kind, group in pairs(GROUPS) do
        if pinfo.dst_port == group.port and pinfo.dst == Address.ip(group.address) then
            pinfo.cols.protocol = "UdpSocket"
            local dissect = kind == "beacon" and dissectBeacon or dissectMessage
            pinfo.cols.info = dissect(tvb, pinfo, root, MESSAGES[kind])
            return tvb:len()
        end
    end
    return 0
end

-- The length of the message at the start of a TCP stream's rest, or nil; messages follow each other unframed.
local function lengthOnTcp(rest)
    if rest:raw(0, 1) == KEEP_ALIVE:sub(1, 1) then return #KEEP_ALIVE end
    local message = MESSAGES.discovery[rest(0, 2):le_uint()]
    return message and message.lengths[#message.lengths]
end

function onTcp.dissector(tvb, pinfo, root)
    local texts = {}
    local offset = 0
    while offset < tvb:len() do
        local rest = tvb(offset):tvb()
        local length = rest:len() < 2 and 2 or lengthOnTcp(rest) or rest:len()
        if rest:len() < length then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = length - rest:len()
            break
        end
        local message = tvb(offset, length):tvb()
        if message:raw() == KEEP_ALIVE then
            root:add(udpsocket, message()):append_text(": Keep-alive")
            table.insert(texts, "Keep-alive")
        else
            table.insert(texts, dissectMessage(message, pinfo, root, MESSAGES.discovery))
        end
        offset = offset + length
    end
    pinfo.cols.protocol = "UdpSocket"
    if #texts > 0 then pinfo.cols.info = table.concat(texts, "; ") end
    return tvb:len()
end

for _, group in pairs(GROUPS) do DissectorTable.get("udp.port"):add(group.port, udpsocket) end
DissectorTable.get("tcp.port"):add(GROUPS.discovery.port, onTcp)
