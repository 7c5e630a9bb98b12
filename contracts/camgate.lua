-- Shows in Wireshark and tshark what `camsim export RECORDING --pcapng FILE` writes:
--
--     wireshark -X lua_script:camgate.lua FILE
--
-- A packet is four texts with a NUL behind each (kind, sender, receiver, socket or path) and the bytes that passed. Names
-- and offsets are those of messages.md. HTTPS is in packets of its own, which need nothing of this.

local camgate = Proto("camgate", "Messages of camgate")

local malformed = ProtoExpert.new("camgate.malformed", "Malformed", expert.group.MALFORMED, expert.severity.ERROR)
local strange = ProtoExpert.new("camgate.strange", "Not as usual", expert.group.PROTOCOL, expert.severity.WARN)
camgate.experts = {malformed, strange}

local HEAD = 280
local MESSAGE = 21408
local BLOCK = 56

-- Name, offset and type of each field; a text has its width instead.
local COMMAND_HEAD = {
    {"destPath", 0, 8}, {"srcPath", 8, 8}, {"tag", 240, "u32"}, {"reserved2", 244, "u32"}, {"bodyLength", 256, "u32"},
    {"reserved4", 260, "u32"}, {"reserved5", 264, "u32"},
}
local MSG_DATA = {
    {"destPath", 0, 8}, {"srcPath", 8, 8}, {"subType", 160, "u32"}, {"command", 164, "u32"}, {"module", 200, "i64"},
}
local COMMANDS = {
    [1037] = {name = "CMD_CUSTOM_PROTOCOL_READY", request = {}, reply = {}},
    [7018] = {name = "CMD_ALARM_FACE_LIB_SET", request = {
        {"Count", 208, "u32"}, {"ListId", 216, "u64"}, {"ListType", 224, "i32"}, {"ListOnControl", 228, "i32"},
        {"ListThreshold", 232, "i64"}, {"ListName", 240, 65},
    }, reply = {}},
    [7019] = {name = "CMD_FACE_LIB_CLEAR", request = {}, reply = {
        {"ClearStatus", 176, "u32"}, {"ClearConfigPath", 216, 21192},
    }},
    [7020] = {name = "CMD_FACE_IMPORT_FILE", request = {
        {"Count", 208, "u32"}, {"ImportFileFlag", 312, "u32"}, {"ImportFileDirectory", 316, 132},
        {"ImportFileName", 448, 132},
    }, reply = {{"ImportFileTaskId", 584, "i64"}}},
    [7021] = {name = "CMD_FACE_IMPORT_PROGRESS", request = {{"ProgressTaskId", 304, "i64"}}, reply = {
        {"ProgressStatus", 312, "u32"}, {"ProgressTotal", 320, "i64"}, {"ProgressCurrent", 328, "i64"},
        {"ProgressStatePath", 336, 21072},
    }},
    [7031] = {name = "CMD_FACE_IMPORT_PAGE", request = {}, reply = {{"PageTime", 304, 21104}}},
}
local SUBSCRIPTION_HEADER = {
    {"magic", 0, "u16"}, {"type", 3, "u8"}, {"headerLength", 8, "u16"}, {"bodyLength", 12, "u32"},
}
local SUBSCRIPTION_BODY = {{"publisherName", 16, 16}, {"subscriberTag", 32, 16}}
local NOTIFICATION_HEAD = {{"noBuffer", 4, "u16"}, {"status", 6, "u16"}, {"descriptorOffset", 8, "u16"}}
local BUFFER_DESCRIPTOR = {
    {"identifier", 0, "u32"}, {"length", 8, "u32"}, {"attribute", 12, "u32"},
}
local BLOCK_HEADER = {{"dataLength", 52, "u32"}}

local WIDTHS = {u8 = 1, u16 = 2, u32 = 4, i32 = 4, u64 = 8, i64 = 8}
local MAKERS = {
    u8 = ProtoField.uint8, u16 = ProtoField.uint16, u32 = ProtoField.uint32, i32 = ProtoField.int32,
    u64 = ProtoField.uint64, i64 = ProtoField.int64,
}
local fields = {}

local function declare(layout)
    for _, field in ipairs(layout) do
        local name, kind = field[1], field[3]
        if fields[name] == nil then
            fields[name] = (MAKERS[kind] or ProtoField.string)("camgate." .. name, name)
        end
    end
end

for _, layout in ipairs({COMMAND_HEAD, MSG_DATA, SUBSCRIPTION_HEADER, SUBSCRIPTION_BODY, NOTIFICATION_HEAD,
                         BUFFER_DESCRIPTOR, BLOCK_HEADER}) do
    declare(layout)
end
for _, command in pairs(COMMANDS) do
    declare(command.request)
    declare(command.reply)
end
for _, name in ipairs({"kind", "from", "to", "socket", "path", "buffer", "level", "source", "text", "name", "taskName"}) do
    fields[name] = ProtoField.string("camgate." .. name, name)
end
fields.StatusCode = ProtoField.uint32("camgate.StatusCode", "StatusCode")
fields.direction = ProtoField.string("camgate.direction", "direction")
for _, field in pairs(fields) do
    table.insert(camgate.fields, field)
end

-- The text at a place: up to its first NUL, or to the end of its field.
local function text_at(buffer, offset, width)
    local raw = buffer:raw(offset, math.min(width, buffer:len() - offset))
    return raw:match("^[^\0]*")
end

-- Adds the fields of a layout that lie inside the bytes.
local function add_fields(buffer, tree, layout)
    for _, field in ipairs(layout) do
        local name, offset, kind = field[1], field[2], field[3]
        local width = WIDTHS[kind]
        if width == nil and offset < buffer:len() then
            local text = text_at(buffer, offset, kind)
            tree:add(fields[name], buffer(offset, math.min(kind, buffer:len() - offset)), text)
        elseif width ~= nil and offset + width <= buffer:len() then
            tree:add_le(fields[name], buffer(offset, width))
        end
    end
end

local function uint_at(buffer, offset)
    return buffer:len() >= offset + 4 and buffer(offset, 4):le_uint() or 0
end

-- Whether these bytes are a JSON object or array for sure, or nothing that begins one.
local function begins_json(buffer)
    return buffer:len() > 0 and buffer:raw():match("^[ \t\r\n]*[%[{]") ~= nil
end

local function add_json(buffer, pinfo, tree)
    Dissector.get("json"):call(buffer, pinfo, tree)
end

-- The text of a member of JSON text, wherever it stands.
local function member(buffer, pattern)
    return buffer:len() > 0 and buffer:raw():match(pattern) or nil
end

-- Which datagrams are heads: for each socket the length that its last head announced, until a body has come.
local announced = {}
local roles = {}

function camgate.init()
    announced = {}
    roles = {}
end

local function role_of(buffer, pinfo, socket)
    if roles[pinfo.number] == nil then
        local length = announced[socket]
        local again = buffer:len() == HEAD and length ~= HEAD and not begins_json(buffer)
        if length == nil or again then
            roles[pinfo.number] = {head = true}
            announced[socket] = uint_at(buffer, 256)
        else
            roles[pinfo.number] = {head = false, length = length}
            announced[socket] = nil
        end
    end
    return roles[pinfo.number]
end

local function dissect_head(buffer, pinfo, tree)
    add_fields(buffer, tree, COMMAND_HEAD)
    if buffer:len() ~= HEAD then
        tree:add_proto_expert_info(malformed, string.format("A head has %d bytes, not %d", HEAD, buffer:len()))
    end
    return string.format("head, tag %u, %u bytes follow", uint_at(buffer, 240), uint_at(buffer, 256))
end

local function dissect_body(buffer, pinfo, tree, length)
    local task = member(buffer, '"taskName"%s*:%s*"([^"]*)"')
    local status = member(buffer, '"StatusCode"%s*:%s*(%d+)')
    if begins_json(buffer) then
        add_json(buffer, pinfo, tree)
    else
        tree:add_proto_expert_info(malformed, "A body is a JSON object")
    end
    if task ~= nil then
        tree:add(fields.taskName, task):set_generated()
    end
    if status ~= nil then
        tree:add(fields.StatusCode, tonumber(status)):set_generated()
    end
    if buffer:len() ~= length then
        tree:add_proto_expert_info(strange, string.format("The head announced %u bytes", length))
    end
    return task or status or "body"
end

local function dissect_message(buffer, pinfo, tree, direction)
    local number = uint_at(buffer, 164)
    local command = COMMANDS[number]
    add_fields(buffer, tree, MSG_DATA)
    tree:add(fields.direction, direction):set_generated()
    if buffer:len() ~= MESSAGE then
        tree:add_proto_expert_info(malformed, string.format("A message has %d bytes, not %d", MESSAGE, buffer:len()))
    end
    if command == nil then
        tree:add_proto_expert_info(strange, "Unknown command")
        return string.format("%u %s", number, direction)
    end
    tree:add(fields.name, command.name):set_generated()
    add_fields(buffer, tree, command[direction])
    return string.format("%u %s %s", number, command.name, direction)
end

local function dissect_subscription(buffer, pinfo, tree)
    add_fields(buffer, tree, SUBSCRIPTION_HEADER)
    if buffer:len() ~= 304 then
        tree:add_proto_expert_info(malformed, string.format("A subscription has 304 bytes, not %d", buffer:len()))
    end
    if buffer:len() > 16 then
        add_fields(buffer:range(16):tvb(), tree, SUBSCRIPTION_BODY)
    end
    return "subscription"
end

local function dissect_notification(buffer, pinfo, tree)
    add_fields(buffer, tree, NOTIFICATION_HEAD)
    if buffer:len() < 10 then
        tree:add_proto_expert_info(malformed, "A notification has at least 10 bytes")
        return "notification"
    end
    local offset = buffer(8, 2):le_uint()
    if buffer(4, 2):le_uint() ~= 0 then
        return "notification without a buffer"
    elseif offset + 16 > buffer:len() then
        tree:add_proto_expert_info(malformed, "The descriptor does not lie inside the notification")
    else
        add_fields(buffer:range(offset, 16):tvb(), tree, BUFFER_DESCRIPTOR)
    end
    return "notification, status " .. buffer(6, 2):le_uint()
end

local function dissect_block(buffer, pinfo, tree)
    add_fields(buffer, tree, BLOCK_HEADER)
    local length = uint_at(buffer, 52)
    -- Old producers put 8 bytes before the data.
    local begin = buffer:len() == length + BLOCK + 8 and BLOCK + 8 or BLOCK
    if buffer:len() < BLOCK or begin + length > buffer:len() then
        tree:add_proto_expert_info(malformed, "The data do not lie inside the buffer")
    elseif length > 0 then
        add_json(buffer:range(begin, length):tvb(), pinfo, tree)
    end
    return string.format("buffer, %u bytes of data", length)
end

local function dissect_document(buffer, pinfo, tree)
    if begins_json(buffer) then
        add_json(buffer, pinfo, tree)
    end
end

-- By receiver, then by what the datagram is.
local function dissect_datagram(buffer, pinfo, tree, sender, receiver, socket)
    if socket == "/tmp/HK" or socket == "/tmp/KH" then
        local role = role_of(buffer, pinfo, socket)
        local what = sender == "service" and "reply" or "command"
        if role.head then
            return what .. " " .. dissect_head(buffer, pinfo, tree)
        end
        return what .. " " .. dissect_body(buffer, pinfo, tree, role.length)
    elseif socket == "/mnt/srvfs/event.paas.olv" then
        return (sender == "service" and dissect_subscription or dissect_notification)(buffer, pinfo, tree)
    end
    return dissect_message(buffer, pinfo, tree, sender == "service" and "request" or "reply")
end

-- What the fourth text of each kind is.
local PLACES = {datagram = "socket", file = "path", buffer = "buffer", record = "buffer", log = "source"}

function camgate.dissector(buffer, pinfo, tree)
    local texts, offset = {}, 0
    local branch = tree:add(camgate, buffer())
    for number = 1, 4 do
        texts[number] = text_at(buffer, offset, buffer:len())
        offset = offset + #texts[number] + 1
    end
    local kind, sender, receiver, place = texts[1], texts[2], texts[3], texts[4]
    branch:add(fields.kind, kind)
    branch:add(fields.from, sender)
    branch:add(kind == "log" and fields.level or fields.to, receiver)
    branch:add(fields[PLACES[kind] or "path"], place)

    local info = "empty"
    if offset < buffer:len() then
        local data = buffer:range(offset):tvb()
        local text = data:raw()
        if kind == "datagram" then
            info = dissect_datagram(data, pinfo, branch, sender, receiver, place)
        elseif kind == "buffer" then
            info = dissect_block(data, pinfo, branch)
        elseif kind == "log" then
            branch:add(fields.text, data(), text)
            info = text
        else
            dissect_document(data, pinfo, branch)
            info = string.format("%s, %d bytes", place, data:len())
        end
    end
    pinfo.cols.protocol = "camgate"
    pinfo.cols.src = sender
    pinfo.cols.dst = kind == "log" and "log" or receiver
    pinfo.cols.info = info
end
