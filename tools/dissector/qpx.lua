-- A dissector for Wireshark and tshark of the protocol between the library and the Gateway.
--
-- Every flow by its name with all of its fields, replies beside their requests with the time that
-- they took. What the fields mean is told in docs/protocol.md, how to use this in docs/seeing.md.
-- Passwords are not shown; the bytes of a capture have them all the same.

local qpx = Proto("qpx", "QPX Gateway Protocol")

-- ---- Names --------------------------------------------------------------------------------------

local REQUEST, REPLY, ERROR, HANDSHAKE, EXCEPTION, PING, CLOSE = 1, 3, 4, 5, 6, 7, 10

local flow_types = {
    [REQUEST] = "Request",
    [REPLY] = "Reply",
    [ERROR] = "Error",
    [HANDSHAKE] = "Handshake",
    [EXCEPTION] = "Exception",
    [PING] = "Ping",
    [CLOSE] = "Close",
}

local CALL, LIST, CALL_WITH_TPN = 1, 9, 12

local call_types = {
    [CALL] = "program",
    [LIST] = "list of systems",
    [CALL_WITH_TPN] = "program with a transaction program",
}

local COMMIT, BACKOUT = 2, 4

local extend_modes = {
    [0] = "a unit of work of its own",
    [1] = "opens a unit of work, or goes on with it",
    [COMMIT] = "commits",
    [BACKOUT] = "backs out",
}

local VERIFY, CHANGE = 0, 1

local password_calls = { [VERIFY] = "verify", [CHANGE] = "change" }

local ADDED, DELETED, MODIFIED, UNCHANGED = 1, 2, 3, 4

local changes = {
    [ADDED] = "added",
    [DELETED] = "deleted",
    [MODIFIED] = "modified",
    [UNCHANGED] = "unchanged",
}

local container_types = { [1] = "binary", [2] = "characters" }

local flags = { [0] = "no", [255] = "yes" }

-- Codes of the header, of a program call or a list, and of a password as the server sends them.
local gateway_codes = {
    [61451] = "QPX_ERR_INVALID_REQUEST_TYPE",
    [61450] = "QPX_ERR_GATEWAY_BACK_LEVEL",
    [61446] = "QPX_ERR_GATEWAY_EXCEPTION",
    [61445] = "QPX_ERR_WORK_WAS_REFUSED",
    [61444] = "QPX_ERR_GATEWAY_CLOSED",
    [0] = "QPX_OK",
}

local eci_codes = {
    [61451] = "QPX_ERR_INVALID_REQUEST_TYPE",
    [61450] = "QPX_ERR_GATEWAY_BACK_LEVEL",
    [61446] = "QPX_ERR_GATEWAY_EXCEPTION",
    [61445] = "QPX_ERR_WORK_WAS_REFUSED",
    [0] = "ECI_NO_ERROR",
    [-3] = "ECI_ERR_NO_VORN",
    [-4] = "ECI_ERR_VORN_DIED",
    [-5] = "ECI_ERR_REQUEST_TIMEOUT",
    [-6] = "ECI_ERR_RESPONSE_TIMEOUT",
    [-7] = "ECI_ERR_TRANSACTION_ABEND",
    [-8] = "ECI_ERR_LUW_TOKEN",
    [-9] = "ECI_ERR_SYSTEM_ERROR",
    [-16] = "ECI_ERR_RESOURCE_SHORTAGE",
    [-17] = "ECI_ERR_NO_SESSIONS",
    [-22] = "ECI_ERR_UNKNOWN_SERVER",
    [-25] = "QPX_ERR_MORE_SYSTEMS",
    [-26] = "QPX_ERR_NO_SYSTEMS",
    [-27] = "ECI_ERR_SECURITY_ERROR",
    [-28] = "ECI_ERR_MAX_SYSTEMS",
    [-29] = "ECI_ERR_MAX_SESSIONS",
    [-30] = "ECI_ERR_ROLLEDBACK",
}

local esi_codes = {
    [0] = "QPX_OK",
    [-3] = "ESI_ERR_NO_VORN",
    [-4] = "ESI_ERR_VORN_DIED",
    [-9] = "ESI_ERR_SYSTEM_ERROR",
    [-16] = "ESI_ERR_RESOURCE_SHORTAGE",
    [-17] = "ESI_ERR_NO_SESSIONS",
    [-22] = "ESI_ERR_UNKNOWN_SERVER",
    [-27] = "ESI_ERR_SECURITY_ERROR",
    [-28] = "ESI_ERR_MAX_SYSTEMS",
    [-29] = "ESI_ERR_MAX_SESSIONS",
    [-100] = "ESI_ERR_NULL_USERID",
    [-101] = "ESI_ERR_NULL_PASSWORD",
    [-102] = "ESI_ERR_NULL_NEW_PASSWORD",
    [-103] = "ESI_ERR_PEM_NOT_SUPPORTED",
    [-104] = "ESI_ERR_PEM_NOT_ACTIVE",
    [-105] = "ESI_ERR_PASSWORD_EXPIRED",
    [-106] = "ESI_ERR_PASSWORD_INVALID",
    [-107] = "ESI_ERR_PASSWORD_REJECTED",
    [-108] = "ESI_ERR_USERID_INVALID",
}

-- ---- Fields -------------------------------------------------------------------------------------

local f = {}

local function field(name, made)
    f[name] = made
    return made
end

local function int(name, title, names)
    return field(name, ProtoField.int32("qpx." .. name, title, base.DEC, names))
end

local function short(name, title)
    return field(name, ProtoField.int16("qpx." .. name, title, base.DEC))
end

local function byte(name, title, names)
    return field(name, ProtoField.uint8("qpx." .. name, title, base.DEC, names))
end

local function text(name, title)
    return field(name, ProtoField.string("qpx." .. name, title))
end

local function bytes(name, title)
    return field(name, ProtoField.bytes("qpx." .. name, title))
end

text("flow", "Flow")
text("eyecatcher", "Eyecatcher")
field("version", ProtoField.uint32("qpx.version", "Version", base.HEX))
int("flow_type", "Flow type", flow_types)
int("message_id", "Message id")
int("gateway_code", "Return code of the Gateway", gateway_codes)
int("type_length", "Length of the request type")
text("type", "Request type")
byte("security", "Security")
int("body_length", "Length of the body")

short("language_length", "Length of the language")
text("language", "Language")
short("country_length", "Length of the country")
text("country", "Country")
bytes("reserved", "Fixed")
short("applid_length", "Length of the applid")
text("applid", "Applid")
short("qualifier_length", "Length of the applid qualifier")
text("qualifier", "Applid qualifier")

int("call_type", "Call type", call_types)
int("extend_mode", "Extend mode", extend_modes)
int("unit_of_work", "Unit of work")
int("message_qualifier", "Message qualifier")
byte("callback", "A callback is there", flags)
int("server_length", "Length of the server name")
text("server", "Server")
text("user", "User id")
int("password_length", "Length of the password")
text("password", "Password")
int("new_password_length", "Length of the new password")
text("new_password", "New password")
text("program", "Program")
text("transaction", "Transaction")
int("workload_length", "Length of the workload token")
bytes("workload", "Workload token")
int("commarea_length", "Length of the COMMAREA")
byte("has_outbound", "Outbound length", flags)
int("outbound_length", "Outbound length")
byte("has_inbound", "Inbound length", flags)
int("inbound_length", "Inbound length")
byte("unused", "Of no meaning")
bytes("commarea", "COMMAREA")
byte("has_channel", "A channel", flags)
short("timeout", "Time-out of the call")
byte("gateway_qualifier", "The message qualifier is given by the Gateway", flags)
int("xid_format", "Format of the XID")
int("correlator", "Correlator")
int("server_code", "Return code of the server", eci_codes)
text("abend_code", "Abend code")

text("channel", "Channel")
int("channel_ccsid", "CCSID of the channel")
int("containers", "Number of containers")
text("container", "Container")
byte("change", "Change", changes)
byte("container_type", "Type", container_types)
int("ccsid", "CCSID")
int("data_length", "Length of the data")
bytes("data", "Data")

int("password_call", "Call type", password_calls)
int("password_code", "Return code of the server", esi_codes)
text("verified", "Last verified")
text("expires", "Expires")
text("accessed", "Last accessed")
int("attempts", "Wrong attempts")

int("systems_wanted", "Room for systems")
int("systems", "Number of systems")
int("systems_length", "Length of the systems")
text("system", "System")
text("description", "Description")

short("text_length", "Length of the text")
text("text", "Text")

field("request_in", ProtoField.framenum("qpx.request_in", "Request in", base.NONE,
    frametype.REQUEST))
field("reply_in", ProtoField.framenum("qpx.reply_in", "Reply in", base.NONE, frametype.RESPONSE))
field("time", ProtoField.relative_time("qpx.time", "Time from the request"))

qpx.fields = f

local malformed = ProtoExpert.new("qpx.malformed", "The flow is not as the protocol wants it",
    expert.group.MALFORMED, expert.severity.ERROR)
local failed = ProtoExpert.new("qpx.failed", "The call has failed", expert.group.RESPONSE_CODE,
    expert.severity.NOTE)
local unasked = ProtoExpert.new("qpx.unasked", "No request with this message id waits",
    expert.group.SEQUENCE, expert.severity.WARN)
qpx.experts = { malformed, failed, unasked }

local stream_of = Field.new("tcp.stream")

-- ---- A body, field by field ---------------------------------------------------------------------

local Body = {}
Body.__index = Body

function Body.new(range, tree)
    return setmetatable({ range = range, at = 0, length = range and range:len() or 0, tree = tree,
        short = false }, Body)
end

function Body:rest()
    return self.length - self.at
end

-- The next bytes; nil if there are not so many, and from then on always.
function Body:take(count)
    if self.short or count < 0 or count > self:rest() then
        self.short = true
        return nil
    end
    if count == 0 then
        return nil
    end
    local taken = self.range(self.at, count)
    self.at = self.at + count
    return taken
end

-- A number; 0 if it is not there.
function Body:number(name, count)
    local taken = self:take(count)
    if not taken then
        return 0
    end
    self.tree:add(f[name], taken)
    if count == 1 then
        return taken:uint()
    end
    return taken:int()
end

function Body:int(name)
    return self:number(name, 4)
end

function Body:short_int(name)
    return self:number(name, 2)
end

function Body:flag(name)
    return self:number(name, 1) ~= 0
end

local function trimmed(range)
    local shown = range:raw():gsub("[%z ]+$", ""):gsub("[%c]", ".")
    return shown
end

-- A text without what pads it; "" if it is not there.
function Body:text(name, count, tree)
    local taken = self:take(count)
    if not taken then
        return ""
    end
    local value = trimmed(taken)
    ;(tree or self.tree):add(f[name], taken, value)
    return value
end

function Body:bytes(name, count, tree)
    local taken = self:take(count)
    if taken then
        (tree or self.tree):add(f[name], taken)
    end
end

-- A password and its length. Deliberate: the item has none of its bytes, which would be written out
-- with it.
function Body:password(name)
    local count = self:int(name .. "_length")
    local taken = self:take(count)
    if taken then
        self.tree:add(f[name], self.range(0, 0), "(hidden)"):set_generated()
    end
end

function Body:time(name)
    local taken = self:take(28)
    if not taken then
        return
    end
    local part = {}
    for i = 0, 6 do
        part[i] = taken(i * 4, 4):int()
    end
    local value = "never"
    if part[0] ~= 0 then
        value = string.format("%04d-%02d-%02d %02d:%02d:%02d.%02d", part[0], part[1], part[2],
            part[3], part[4], part[5], part[6])
    end
    self.tree:add(f[name], taken, value)
end

-- ---- Flows --------------------------------------------------------------------------------------

local function read_channel(body, is_reply)
    local name = body:text("channel", 16)
    body:int("channel_ccsid")
    local count = body:int("containers")
    for _ = 1, count do
        if body.short then
            return name
        end
        local begin = body.at
        local outer = body.tree
        local head = body:take(16)
        if not head then
            return name
        end
        local container = trimmed(head)
        local tree = outer:add(f.container, head, container)
        body.tree = tree
        local change = body:number("change", 1)
        body:take(2)
        body:number("container_type", 1)
        body:int("ccsid")
        local length = body:int("data_length")
        if not is_reply or change == ADDED or change == MODIFIED then
            body:bytes("data", length)
        end
        tree:append_text(string.format(", %s, %d bytes", changes[change] or "unknown change",
            length))
        tree:set_len(body.at - begin)
        body.tree = outer
    end
    return name
end

local function read_handshake(body)
    local name = "Handshake"
    body:text("language", body:short_int("language_length"))
    body:text("country", body:short_int("country_length"))
    body:bytes("reserved", 10)
    local applid = body:text("applid", body:short_int("applid_length"))
    local qualifier = body:text("qualifier", body:short_int("qualifier_length"))
    if applid ~= "" or qualifier ~= "" then
        name = name .. " of " .. applid .. (qualifier ~= "" and "/" .. qualifier or "")
    end
    return name
end

local function read_end_of_request(body)
    body:short_int("timeout")
    body:flag("gateway_qualifier")
    body:int("xid_format")
    body:int("correlator")
end

local function read_program_call(body)
    local END = 12 -- bytes behind a COMMAREA, without a channel
    local mode = body:int("extend_mode")
    body:int("unit_of_work")
    body:int("message_qualifier")
    body:flag("callback")
    local server = body:text("server", body:int("server_length"))
    body:text("user", 16)
    body:password("password")
    local program = body:text("program", 8)
    body:text("transaction", 4)
    body:bytes("workload", body:int("workload_length"))
    local length = body:int("commarea_length")
    if body:flag("has_outbound") then
        length = body:int("outbound_length")
    end
    if body:flag("has_inbound") then
        body:int("inbound_length")
    end
    local ends = mode == COMMIT or mode == BACKOUT
    if not (ends and body:rest() == END) then
        body:bytes("commarea", length)
    end
    local channel
    if body:flag("has_channel") then
        channel = read_channel(body, false)
    end
    read_end_of_request(body)
    if ends then
        return mode == COMMIT and "Commit" or "Backout"
    end
    local name = "Program call " .. program
    if server ~= "" then
        name = name .. " on " .. server
    end
    if channel then
        name = name .. " with the channel " .. channel
    end
    return name
end

local function read_request(body, request_type)
    if request_type == "ESI" then
        local call = body:int("password_call")
        local user = body:text("user", 10)
        body:password("password")
        body:text("server", 8)
        if call == CHANGE then
            body:password("new_password")
            return "Change a password, of " .. user
        end
        return "Verify a password, of " .. user
    end
    local call = body:int("call_type")
    if call == LIST then
        body:int("systems_wanted")
        read_end_of_request(body)
        return "List systems"
    end
    if call ~= CALL and call ~= CALL_WITH_TPN then
        body.short = true
        return "Request of an unknown call type"
    end
    return read_program_call(body)
end

local function read_systems(body)
    local count = body:int("systems")
    local code = body:int("server_code")
    body:int("systems_length")
    for _ = 1, count do
        body:text("system", 9)
        body:text("description", 61)
    end
    return "Systems", code, eci_codes
end

local function read_reply(body, request_type)
    if request_type == "ESI" then
        local code = body:int("password_code")
        if code == 0 and not body.short then
            body:time("verified")
            body:time("expires")
            body:time("accessed")
            body:int("attempts")
        end
        return "Reply to a password", code, esi_codes
    end
    local call = body:int("call_type")
    if call == LIST then
        return read_systems(body)
    end
    body:int("unit_of_work")
    body:int("message_qualifier")
    local code = body:int("server_code")
    body:text("abend_code", 4)
    local length = body:int("commarea_length")
    if body:flag("has_inbound") then
        body:number("unused", 1)
        length = body:int("inbound_length")
    end
    body:bytes("commarea", length)
    local name = "Reply"
    if body:flag("has_channel") then
        name = "Reply with the channel " .. read_channel(body, true)
    end
    return name, code, eci_codes
end

local function read_exception(body)
    body:number("unused", 1)
    local said = body:text("text", body:short_int("text_length"))
    return "Exception: " .. said
end

local function name_of_code(code, names)
    return names[code] or gateway_codes[code] or eci_codes[code] or tostring(code)
end

-- ---- Conversations ------------------------------------------------------------------------------

-- By TCP stream: which port the client has, the requests that wait, whether the client has closed.
local conversations = {}
-- What is known of a flow once it has been read, by its frame, place, flow type and message id.
local known = {}

function qpx.init()
    conversations = {}
    known = {}
end

local function conversation_of()
    local stream = stream_of()
    local number = stream and stream.value or -1
    conversations[number] = conversations[number] or { waiting = {} }
    return conversations[number], number
end

local function remember(flow, pinfo, name)
    local conversation, number = conversation_of()
    local key = table.concat({ number, pinfo.number, flow.place, flow.kind, flow.id }, ":")
    if pinfo.visited then
        return known[key] or {}
    end
    local what = { client = conversation.client }
    known[key] = what
    if flow.kind == REQUEST or (flow.kind == HANDSHAKE and flow.length > 0) then
        conversation.client = pinfo.src_port
        what.client = pinfo.src_port
        conversation.waiting[flow.id] = { what = what, frame = pinfo.number, time = pinfo.abs_ts,
            name = name }
    elseif flow.kind == CLOSE then
        what.answers = conversation.closed
        conversation.closed = true
    elseif flow_types[flow.kind] and flow.kind ~= PING then
        local request = conversation.waiting[flow.id]
        conversation.waiting[flow.id] = nil
        if request then
            request.what.reply = pinfo.number
            what.request = request.frame
            what.asked = request.name
            what.took = pinfo.abs_ts - request.time
        else
            what.unasked = flow.id ~= -2 -- an error of the connection may come unasked
        end
    end
    return what
end

local function show_conversation(tree, pinfo, what)
    if what.reply then
        tree:add(f.reply_in, what.reply):set_generated()
    end
    if what.request then
        local seconds = math.floor(what.took)
        tree:add(f.request_in, what.request):set_generated()
        tree:add(f.time, NSTime.new(seconds, math.floor((what.took - seconds) * 1e9 + 0.5)))
            :set_generated()
    end
    if what.unasked then
        tree:add_proto_expert_info(unasked)
    end
end

-- ---- One flow -----------------------------------------------------------------------------------

local function name_of_flow(flow, body, pinfo)
    if flow.kind == REQUEST then
        return read_request(body, flow.type)
    elseif flow.kind == REPLY then
        return read_reply(body, flow.type)
    elseif flow.kind == HANDSHAKE then
        return flow.length > 0 and read_handshake(body) or "Handshake accepted"
    elseif flow.kind == ERROR then
        return "Error", flow.code, gateway_codes
    elseif flow.kind == EXCEPTION then
        return read_exception(body), flow.code, gateway_codes
    elseif flow.kind == PING then
        return "Ping"
    elseif flow.kind == CLOSE then
        return "Close"
    end
    body.short = true
    return "Flow of the unknown type " .. flow.kind
end

local function read_header(range, tree)
    local body = Body.new(range, tree)
    local flow = {}
    body:text("eyecatcher", 4)
    body.tree:add(f.version, body:take(4))
    flow.kind = body:int("flow_type")
    flow.id = body:int("message_id")
    flow.code = body:int("gateway_code")
    flow.type = body:text("type", body:int("type_length"))
    body:number("security", 1)
    flow.length = body:int("body_length")
    return flow
end

local function read_flow(range, pinfo, root, place)
    local tree = root:add(qpx, range)
    local header = tree:add(qpx, range(0, 0), "Header")
    local type_length = range(20, 4):int()
    local flow = read_header(range(0, 29 + type_length), header)
    flow.place = place
    header:set_len(29 + type_length)
    local body = Body.new(flow.length > 0 and range(29 + type_length, flow.length) or nil, tree)
    local name, code, names = name_of_flow(flow, body, pinfo)
    local what = remember(flow, pinfo, name)
    if flow.kind == CLOSE then
        if what.answers then
            name = "Close answered"
        elseif what.client and what.client ~= pinfo.src_port then
            name = "Close by the Gateway"
        end
    end
    local shown = name
    if flow.kind ~= HANDSHAKE and flow.kind ~= PING and flow.kind ~= CLOSE then
        shown = shown .. " [" .. flow.id .. "]"
    end
    if code then
        shown = shown .. ", " .. name_of_code(code, names)
        if code ~= 0 then
            tree:add_proto_expert_info(failed, name_of_code(code, names))
        end
    end
    if what.asked then
        shown = shown .. string.format(", %.3f ms", what.took * 1000)
    end
    tree:add(f.flow, range(0, 0), name):set_generated()
    tree:append_text(", " .. shown)
    show_conversation(tree, pinfo, what)
    if body.short or body:rest() > 0 then
        tree:add_proto_expert_info(malformed)
        shown = shown .. ", malformed"
    end
    return shown
end

-- ---- A segment ----------------------------------------------------------------------------------

-- The length of the flow that begins here: nil if more has to come before it can be told, and false
-- if none begins here.
local function length_of_flow(tvb, at)
    local rest = tvb:len() - at
    if tvb:range(at, math.min(rest, 4)):raw() ~= ("Gate"):sub(1, rest) then
        return false
    end
    if rest < 24 then
        return nil
    end
    local type_length = tvb(at + 20, 4):int()
    if type_length < 0 or type_length > 6 then
        return false
    end
    if rest < 29 + type_length then
        return nil
    end
    local length = tvb(at + 25 + type_length, 4):int()
    if length < 0 then
        return false
    end
    return 29 + type_length + length
end

function qpx.dissector(tvb, pinfo, root)
    local at = 0
    local shown = {}
    while at < tvb:len() do
        local length = length_of_flow(tvb, at)
        if length == false then
            if at == 0 then
                pinfo.cols.protocol = "QPX"
                pinfo.cols.info = "No flow begins here"
            end
            root:add(qpx, tvb:range(at)):add_proto_expert_info(malformed)
            return tvb:len()
        end
        if length == nil or length > tvb:len() - at then
            if tvb:reported_len() > tvb:len() then
                root:add(qpx, tvb:range(at), "A flow that was not captured to its end")
                return tvb:len()
            end
            pinfo.desegment_offset = at
            pinfo.desegment_len = length and length - (tvb:len() - at) or DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        shown[#shown + 1] = read_flow(tvb:range(at, length), pinfo, root,
            tvb:len() .. "-" .. at)
        at = at + length
    end
    if #shown > 0 then
        pinfo.cols.protocol = "QPX"
        pinfo.cols.info = table.concat(shown, " | ")
    end
    return tvb:len()
end

-- On its own port, and wherever a connection begins with a flow.
DissectorTable.get("tcp.port"):add_for_decode_as(qpx)
DissectorTable.get("tcp.port"):add(5770, qpx)

qpx:register_heuristic("tcp", function(tvb, pinfo, root)
    if tvb:len() < 8 or tvb:range(0, 8):raw() ~= "Gate\16\160\16\0" then
        return false
    end
    pinfo.conversation = qpx
    qpx.dissector(tvb, pinfo, root)
    return true
end)
