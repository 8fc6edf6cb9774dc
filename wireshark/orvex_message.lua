-- Wireshark dissector of the messages on the orvex bus, the payload of the packets of orvex.lua.
-- It has no port of its own: orvex.lua calls the dissect function in package.loaded.
--
-- Its filters begin with "orvex." too: the message (orvex.message == "WRNI"), its items
-- (orvex.item.tag, orvex.item.byte, ...), the pins (orvex.pin contains "out1=L",
-- orvex.pin.group == "1:2", orvex.write.duration), the special items (orvex.id, orvex.refi, ...)
-- and what is wrong with them (orvex.expert.truncated, ...). docs/wireshark.md lists them all.

local common = require("orvex_common")

local proto = Proto("orvex_message", "orvex message")

local BYTE, DWORD, NESTED, QWORD = 7, 1, 6, 9
local MAX_DEPTH = 16  -- nested messages below this one are shown as bytes
local MAX_PINS = 16   -- pins named in a summary

local ITEM_NAMES = {
    [0] = "none", "dword", "string", "byte array", "word array", "dword array", "message", "byte",
    "word", "qword",
}
local PIN_NAMES = {
    [13] = "in1", [12] = "in2", [11] = "in3", [10] = "in4", [9] = "in5",
    [8] = "out1", [7] = "out2", [6] = "out3", [5] = "out4", [4] = "out5",
}
local ROLES = { WRNI = "write", WRIN = "write", READ = "read", INDI = "state" }

local f = {
    message = ProtoField.string("orvex.message", "Message"),
    message_id = ProtoField.uint32("orvex.message.id", "Identifier", base.HEX),
    message_items = ProtoField.uint16("orvex.message.items", "Number of items"),
    item = ProtoField.none("orvex.item", "Item"),
    item_tag = ProtoField.uint32("orvex.item.tag", "Tag", base.HEX),
    item_type = ProtoField.uint8("orvex.item.type", "Type", base.DEC, ITEM_NAMES),
    item_count = ProtoField.uint16("orvex.item.count", "Count"),
    byte = ProtoField.uint8("orvex.item.byte", "Byte", base.HEX),
    word = ProtoField.uint16("orvex.item.word", "Word", base.HEX),
    dword = ProtoField.uint32("orvex.item.dword", "Dword", base.HEX),
    qword = ProtoField.uint64("orvex.item.qword", "Qword", base.HEX),
    string = ProtoField.string("orvex.item.string", "String"),
    bytes = ProtoField.bytes("orvex.item.bytes", "Bytes"),
    undecoded = ProtoField.bytes("orvex.undecoded", "Undecoded bytes"),
    pin = ProtoField.string("orvex.pin", "Pin"),
    pin_address = ProtoField.uint24("orvex.pin.address", "Circuit-group address", base.HEX),
    pin_group = ProtoField.string("orvex.pin.group", "Circuit group"),
    pin_circuit = ProtoField.uint8("orvex.pin.circuit", "Circuit"),
    pin_name = ProtoField.string("orvex.pin.name", "Name"),
    pin_level = ProtoField.string("orvex.pin.level", "Level"),
    write_step = ProtoField.uint8("orvex.write.step", "Step", base.DEC,
                                  { [0] = "250 ms", [1] = "10 ms" }, 0x80),
    write_level = ProtoField.uint8("orvex.write.level", "Level", base.DEC,
                                   { [0] = "H", [1] = "L" }, 0x40),
    write_count = ProtoField.uint8("orvex.write.count", "Steps", base.DEC, nil, 0x1F),
    write_duration = ProtoField.uint16("orvex.write.duration", "Duration in ms"),
    id = ProtoField.uint32("orvex.id", "Request's identifier", base.DEC_HEX),
    refi = ProtoField.uint32("orvex.refi", "Reply to request", base.DEC_HEX),
    reply_mark = ProtoField.uint8("orvex.reply_mark", "Reply mark"),
    echo = ProtoField.uint64("orvex.echo", "Echoed from request to reply", base.HEX),
}

local problem = common.problems("orvex.expert.")

local e = {
    truncated = problem("truncated", "MALFORMED", "ERROR", "Message extends past the packet: dropped"),
    trailing = problem("trailing", "MALFORMED", "ERROR", "Bytes after the message: dropped"),
    nested = problem("nested", "MALFORMED", "WARN", "Undecodable: counts as empty"),
    depth = problem("depth", "UNDECODED", "WARN", "Nested too deeply to be shown"),
    cut = problem("cut", "UNDECODED", "NOTE", "The capture contains only the beginning of the packet"),
    unknown_message = problem("unknown_message", "PROTOCOL", "NOTE", "Unknown message: ignored"),
    unknown_type = problem("unknown_type", "PROTOCOL", "NOTE", "Unknown type: no value"),
    unknown_tag = problem("unknown_tag", "PROTOCOL", "NOTE", "Neither pin nor special item"),
    item_type = problem("item_type", "PROTOCOL", "WARN", "Unexpected type or value"),
    input = problem("input", "PROTOCOL", "WARN", "Write to an input pin: ignored"),
}

common.declare(proto, f, e)

-- Reads bytes from pos up to limit, the announced end. The capture may end earlier.
local Cursor = {}
Cursor.__index = Cursor

local function new_cursor(tvb, pos, limit)
    return setmetatable({ tvb = tvb, pos = pos, limit = limit }, Cursor)
end

-- The next n bytes, or nil if they are missing; fault then says why, and nothing more is read.
function Cursor:take(n)
    local behind = self.pos + n
    if self.fault then
        return nil
    elseif behind > self.limit then
        self.fault = e.truncated
    elseif behind > self.tvb:len() then
        self.fault = e.cut
    else
        local range = self.tvb(self.pos, n)
        self.pos = behind
        return range
    end
    return nil
end

-- The bytes from start (by default the position) to the limit, as far as they were captured; nil if
-- there are none.
function Cursor:rest(start)
    start = start or self.pos
    local behind = math.min(self.limit, self.tvb:len())
    return behind > start and self.tvb(start, behind - start) or nil
end

-- Values of fixed width: width, field and the text of a value.
local SCALARS = {
    [BYTE] = { 1, f.byte, function(range) return string.format("%02X", range:uint()) end },
    [8] = { 2, f.word, function(range) return string.format("%04X", range:uint()) end },
    [DWORD] = { 4, f.dword, function(range) return string.format("%08X", range:uint()) end },
    [QWORD] = { 8, f.qword, function(range) return range:bytes():tohex() end },
}

-- Values with a count before them: the width of an element and how to show it.
local function show_string(node, range)
    local text = common.printable(range:raw():match("^[^\0]*"))
    node:add(f.string, range, text)
    return "'" .. text .. "'"
end

local function show_bytes(node, range)
    node:add(f.bytes, range)
    return range:len() .. " bytes"
end

local function show_elements(field, width)
    return function(node, range)
        for pos = 0, range:len() - 1, width do
            node:add(field, range(pos, width))
        end
        return math.floor(range:len() / width) .. " elements"
    end
end

local ARRAYS = {
    [2] = { 1, show_string },
    [3] = { 1, show_bytes },
    [4] = { 2, show_elements(f.word, 2) },
    [5] = { 4, show_elements(f.dword, 4) },
}

local dissect_message  -- nested messages lead back to it

-- The functions below return the text of the value; nil if it does not fit.
local function dissect_array(cur, node, item)
    local count = cur:take(2)
    if not count then
        return nil
    end
    node:add(f.item_count, count)
    local kind = ARRAYS[item.code]
    if not kind then
        node:add_proto_expert_info(e.unknown_type)
        return "no value"
    elseif count:uint() == 0 then
        return "empty"
    end
    local range = cur:take(count:uint() * kind[1])
    return range and kind[2](node, range)
end

local function dissect_nested(cur, node, _, depth)
    local length = cur:take(2)
    if not length then
        return nil
    end
    node:add(f.item_count, length)
    local behind = cur.pos + length:uint()
    if behind > cur.limit then
        cur.fault = e.truncated
        return nil
    end
    local inner = new_cursor(cur.tvb, cur.pos, behind)
    cur.pos = behind
    local message = dissect_message(inner, node, depth + 1)
    if inner.fault == e.cut then
        cur.fault = e.cut
        return nil
    end
    return message.name
end

local function dissect_scalar(cur, node, item)
    local width, field, text = table.unpack(SCALARS[item.code])
    local range = cur:take(width)
    if not range then
        return nil
    end
    node:add(field, range)
    item.range = range
    return text(range)
end

-- How the value of an item is dissected, by its type.
local DISSECTORS = setmetatable({ [NESTED] = dissect_nested }, {
    __index = function(_, code)
        return SCALARS[code] and dissect_scalar or dissect_array
    end,
})

-- The special tags: name, type, field and what the message records of the value.
local SPECIALS = {
    [0xFFFFFFFF] = { "id", DWORD, f.id, "id" },
    [0xFFFFFFFE] = { "refi", DWORD, f.refi, "refi" },
    [0xFFFFFFFD] = { "reply mark", BYTE, f.reply_mark },
    [0xFFFFFFFC] = { "echo", QWORD, f.echo, "echo" },
}

local function dissect_special(node, message, item)
    local _, code, field, key = table.unpack(SPECIALS[item.tag])
    if item.code ~= code then
        node:add_proto_expert_info(e.item_type)
        return
    end
    node:add(field, item.range)
    if key then
        message[key] = code == QWORD and item.range:bytes():tohex() or item.range:uint()
    end
end

-- The text of a pin in each kind of message. Errors are added to its problems.
local PIN_TEXTS = {}

function PIN_TEXTS.read(pin)
    return pin.name
end

function PIN_TEXTS.state(pin, item)
    local value = item.code == BYTE and item.range:uint()
    if value ~= 0 and value ~= 1 then
        pin.problems = { e.item_type }
        return pin.name .. "=?"
    end
    pin.level = value == 1 and "L" or "H"
    return pin.name .. "=" .. pin.level
end

-- Receivers treat anything but a byte as the byte 0.
function PIN_TEXTS.write(pin, item)
    local value = item.code == BYTE and item.range:uint() or 0
    pin.problems = { item.code ~= BYTE and e.item_type or nil }
    pin.level = value % 128 >= 64 and "L" or "H"
    pin.duration = value % 32 * (value >= 128 and 10 or 250)
    local text = pin.name .. "=" .. pin.level
    if pin.duration > 0 then
        text = text .. " " .. pin.duration .. " ms"
    end
    if pin.name:match("^in") then
        table.insert(pin.problems, e.input)
        text = text .. " ignored"
    end
    return text
end

local function show_pin(node, pin, item)
    local address, circuit = item.tag_range(0, 3), item.tag_range(3, 1)
    local value = item.range or circuit
    node:add(f.pin_address, address)
    node:add(f.pin_group, address, pin.group):set_generated()
    node:add(f.pin_circuit, circuit)
    node:add(f.pin_name, circuit, pin.name):set_generated()
    if pin.duration and item.code == BYTE then
        node:add(f.write_step, value)
        node:add(f.write_level, value)
        node:add(f.write_count, value)
    end
    if pin.level then
        node:add(f.pin_level, value, pin.level):set_generated()
    end
    if pin.duration then
        node:add(f.write_duration, value, pin.duration):set_generated()
    end
end

local function dissect_pin(node, message, item)
    local address = item.tag_range(0, 3):uint()
    local pin = { name = PIN_NAMES[item.circuit], problems = {} }
    pin.group = string.format("%d:%d", math.floor(address / 256), address % 256)
    pin.text = PIN_TEXTS[message.role](pin, item)
    local sub = node:add(f.pin, item.tag_range, pin.group .. " " .. pin.text):set_generated()
    for _, found in ipairs(pin.problems) do
        sub:add_proto_expert_info(found)
    end
    show_pin(sub, pin, item)
    table.insert(message.pins, pin)
end

-- The meaning of an item of the outermost message.
local function interpret_item(node, message, item)
    if SPECIALS[item.tag] then
        dissect_special(node, message, item)
    elseif message.role and PIN_NAMES[item.circuit] then
        dissect_pin(node, message, item)
    elseif message.role then
        node:add_proto_expert_info(e.unknown_tag)
    end
end

-- A tag with its name, if it has one.
local function tag_text(item)
    local special = SPECIALS[item.tag]
    local name = special and special[1] or item.tag_range:raw():match("^[\33-\126]+$")
    return string.format("%08X", item.tag) .. (name and " (" .. name .. ")" or "")
end

-- One item; false if it does not fit.
local function dissect_item(cur, tree, message, depth)
    local start = cur.pos
    local tag, code = cur:take(4), cur:take(1)
    if not (tag and code) then
        return false
    end
    local item = {
        tag = tag:uint(), tag_range = tag, circuit = tag(3, 1):uint(), code = code:uint(),
    }
    local node = tree:add(f.item, cur:rest(start))
    node:set_text(string.format("Item %s, %s", tag_text(item), ITEM_NAMES[item.code] or "unknown"))
    node:add(f.item_tag, tag)
    node:add(f.item_type, code)
    local text = DISSECTORS[item.code](cur, node, item, depth)
    if not text then
        return false
    end
    node:set_len(math.min(cur.pos, cur.tvb:len()) - start)
    node:append_text(": " .. text)
    if depth == 1 then
        interpret_item(node, message, item)
    end
    return true
end

local function dissect_items(cur, node, message, depth)
    local id, count = cur:take(4), cur:take(2)
    if not (id and count) then
        return false
    end
    node:add(f.message_id, id)
    node:add(f.message_items, count)
    for _ = 1, count:uint() do
        if not dissect_item(cur, node, message, depth) then
            return false
        end
    end
    return true
end

-- Truncation is marked once, at the outermost message.
local function mark_fault(cur, node, nested)
    if not nested then
        node:add_proto_expert_info(cur.fault)
    elseif cur.fault == e.truncated then
        node:add_proto_expert_info(e.nested)
    end
end

-- Receivers drop a message that does not fit its packet exactly. A nested one may be followed by
-- other bytes, and counts as empty if it does not fit.
local function check_end(cur, node, message, nested)
    if not message.whole then
        mark_fault(cur, node, nested)
    elseif cur.pos < cur.limit and not nested then
        message.whole = false
        node:add_proto_expert_info(e.trailing)
    elseif not (message.role or nested) then
        node:add_proto_expert_info(e.unknown_message)
    end
    if cur:rest() then
        node:add(f.undecoded, cur:rest())
    end
end

-- The message from the cursor to its limit; depth is 1 for the outermost one. The result has whole
-- set if a receiver would accept it.
function dissect_message(cur, tree, depth)
    local all = cur:rest()
    if not all then
        cur.fault = cur.pos < cur.limit and e.cut or e.truncated
        mark_fault(cur, tree, depth > 1)
        return { name = "empty", pins = {} }
    elseif depth > MAX_DEPTH then
        tree:add(f.undecoded, all):add_proto_expert_info(e.depth)
        return { name = "not shown" }
    end
    local message = { name = common.printable(all:raw(0, math.min(4, all:len()))), pins = {} }
    message.role = ROLES[message.name]
    local node = tree:add(f.message, all, message.name)
    message.whole = dissect_items(cur, node, message, depth)
    check_end(cur, node, message, depth > 1)
    return message
end

-- A summary of pins, each circuit group named once: "1:2 out1=L 50 ms, out2=H".
local function pins_text(pins)
    local words, group = {}, nil
    for i, pin in ipairs(pins) do
        if i > MAX_PINS then
            words[i] = "..."
            break
        end
        words[i] = (pin.group ~= group and pin.group .. " " or "") .. pin.text
        group = pin.group
    end
    return table.concat(words, ", ")
end

local function message_text(message)
    if not message.whole then
        return message.name .. " malformed"
    end
    local text = message.name
    for _, key in ipairs({ "id", "refi" }) do
        if message[key] then
            text = text .. " " .. key .. "=" .. message[key]
        end
    end
    return #message.pins > 0 and text .. " " .. pins_text(message.pins) or text
end

-- Plugins share only package.loaded, not globals; orvex.lua looks it up when needed, because it may
-- be loaded before this file.
local orvex_message = {}
package.loaded.orvex_message = orvex_message

-- Dissects the bytes of a packet from offset on. Returns a table: text, a summary; whole, whether a
-- receiver would accept the message; role, "read", "write" or "state", nil for unknown messages;
-- id, refi and echo, the values of its special items, nil without them.
function orvex_message.dissect(tvb, offset, tree)
    local message = dissect_message(new_cursor(tvb, offset, tvb:reported_len()), tree, 1)
    message.text = message_text(message)
    return message
end
