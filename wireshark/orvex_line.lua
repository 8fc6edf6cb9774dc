-- Wireshark dissector of the control lines that orvex exchanges with its control server and with
-- remote GPIO servers: lines of text over TCP.
--
-- Filters begin with "orvex_line.": the parts of every line (orvex_line.command == "GPO",
-- orvex_line.number, orvex_line.state, orvex_line.pin1 to pin5, orvex_line.duration), its fields
-- (orvex_line.field.key, orvex_line.field.value), the decoded source of a channel
-- (orvex_line.source.kind, ...) and errors of a line (orvex_line.expert.unknown, ...).
-- docs/wireshark.md lists them all.
--
-- The TCP ports are a preference of the protocol. The bus is dissected by orvex.lua.

local common = require("orvex_common")

local orvex_line = Proto("orvex_line", "orvex control lines")

local MAX_LINE = 1999  -- characters of the longest line that is received, LINE_SIZE without its end
local MAX_NUMBER = 0x7FFFFFFF
local PINS = 5
local CHANNELS = 32
local INPUTS = 256
local DEFAULT_PORT = 93
local NO_ADDRESS = "255.255.255.255"

local f = {
    text = ProtoField.string("orvex_line.text", "Line"),
    command = ProtoField.string("orvex_line.command", "Command"),
    object = ProtoField.string("orvex_line.object", "Object"),
    number = ProtoField.int32("orvex_line.number", "Number"),
    state = ProtoField.string("orvex_line.state", "State"),
    pin1 = ProtoField.string("orvex_line.pin1", "Pin 1"),
    pin2 = ProtoField.string("orvex_line.pin2", "Pin 2"),
    pin3 = ProtoField.string("orvex_line.pin3", "Pin 3"),
    pin4 = ProtoField.string("orvex_line.pin4", "Pin 4"),
    pin5 = ProtoField.string("orvex_line.pin5", "Pin 5"),
    duration = ProtoField.int32("orvex_line.duration", "Duration in ms"),
    field = ProtoField.string("orvex_line.field", "Field"),
    key = ProtoField.string("orvex_line.field.key", "Key"),
    value = ProtoField.string("orvex_line.field.value", "Value"),
    nic_ipaddr = ProtoField.ipv4("orvex_line.nic_ipaddr", "Interface address"),
    source = ProtoField.string("orvex_line.source", "Source"),
    source_kind = ProtoField.string("orvex_line.source.kind", "Kind"),
    source_address = ProtoField.uint32("orvex_line.source.address", "Circuit-group address",
                                       base.HEX),
    source_group = ProtoField.string("orvex_line.source.group", "Circuit group"),
    source_ip = ProtoField.ipv4("orvex_line.source.ip", "Remote server"),
    source_port = ProtoField.uint16("orvex_line.source.port", "Remote port"),
    source_input = ProtoField.int32("orvex_line.source.input", "Remote input"),
}

local problem = common.problems("orvex_line.expert.")

local e = {
    unknown = problem("unknown", "PROTOCOL", "WARN", "Unknown line: ignored"),
    overlong = problem("overlong", "MALFORMED", "ERROR",
                       "More than 1999 characters: ends the connection"),
    nul = problem("nul", "MALFORMED", "ERROR", "NUL: nothing after it is read"),
    unfinished = problem("unfinished", "UNDECODED", "NOTE",
                         "The line's end is not in this segment"),
    number = problem("number", "PROTOCOL", "WARN", "Number out of range: ignored"),
    state = problem("state", "PROTOCOL", "WARN", "Not a state of up to five pins"),
    source = problem("source", "PROTOCOL", "WARN", "Unreadable address: counts as none"),
}

common.declare(orvex_line, f, e)

-- The number at pos, without sign, as C reads it in base 0, and the position after it; values of
-- more than 32 bits give 2^32. Nil if there is no digit.
local function read_digits(text, pos)
    local base_of, pattern = 10, "^%d+()"
    if text:find("^0[xX]%x", pos) then
        base_of, pattern, pos = 16, "^%x+()", pos + 2
    elseif text:find("^0", pos) then
        base_of, pattern = 8, "^[0-7]+()"
    end
    local behind = text:match(pattern, pos)
    if not behind then
        return nil, pos
    end
    local number = 0
    for digit in text:sub(pos, behind - 1):gmatch(".") do
        number = math.min(number * base_of + tonumber(digit, 16), 4294967296)
    end
    return number, behind
end

-- The same with blanks and a sign before the number, limited to 31 bits.
local function read_number(text, pos)
    local sign, digits = text:match("^[ \t\v\f]*([+-]?)()", pos)
    local number, behind = read_digits(text, digits)
    if not number then
        return nil, pos
    end
    number = math.min(number, MAX_NUMBER)
    return sign == "-" and -number or number, behind
end

-- The first and last positions of the fields from pos on. Blanks and commas separate them, except
-- in double quotes and after a backslash.
local function split_fields(text, pos)
    local fields, first, quoted = {}, pos, false
    while pos <= #text + 1 do
        local c = text:sub(pos, pos)
        if c == "" or not quoted and (c == " " or c == ",") then
            if pos > first then
                table.insert(fields, { first = first, last = pos - 1 })
            end
            first = pos + 1
        elseif c == "\\" and pos < #text then
            pos = pos + 1
        elseif c == '"' then
            quoted = not quoted
        end
        pos = pos + 1
    end
    return fields
end

-- The value at the beginning of a text, without quotes and backslashes.
local function unquote(text)
    local field = split_fields(text, 1)[1]
    if not field or field.first > 1 then
        return ""
    end
    return (text:sub(1, field.last):gsub("\\?.", function(c)
        return c == '"' and "" or c:sub(-1)
    end))
end

-- A number as C's atoi() reads it.
local function read_decimal(text)
    local number = tonumber(text:match("^%s*([+-]?%d+)")) or 0
    return math.max(-MAX_NUMBER, math.min(number, MAX_NUMBER))
end

-- An address as C's inet_addr() reads it, as a dotted quad; nil if malformed. It has one to four
-- numbers, the last of which fills the remaining bytes.
local function read_address(text)
    local parts, pos = {}, 1
    repeat
        local part, behind = read_digits(text, pos)
        if not part or #parts == 4 or (parts[#parts] or 0) > 255 then
            return nil
        end
        table.insert(parts, part)
        pos = behind + 1
    until text:sub(behind, behind) ~= "."
    local last, free = table.remove(parts), 4 - #parts
    if not text:find("^%s", pos - 1) and pos - 1 <= #text or last >= 256 ^ free then
        return nil
    end
    for i = free - 1, 0, -1 do
        table.insert(parts, math.floor(last / 256 ^ i) % 256)
    end
    return string.format("%d.%d.%d.%d", table.unpack(parts))
end

-- A source on the bus: a or a:b, which means a * 256 + b.
local function read_bus_source(text)
    local address, behind = read_number(text, 1)
    if text:sub(behind, behind) == ":" then
        local low = read_number(text, behind + 1) or 0
        address = bit.bor(bit.lshift(address, 8), low) % 4294967296
    end
    return { kind = "bus", address = address }
end

-- An input of a remote server: a.b.c.d, optionally :port, optionally /input.
local function read_remote_source(text)
    local server, input = text:match("^([^/]*)(.*)$")
    local host, port = server:match("^([^:]*)(.*)$")
    local ip = read_address(host)
    if not ip or ip == NO_ADDRESS then
        return { kind = "none", unreadable = true }
    end
    return {
        kind = "remote", ip = ip,
        port = port == "" and DEFAULT_PORT or read_decimal(port:sub(2)) % 65536,
        input = input == "" and 1 or read_decimal(input:sub(2)),
    }
end

-- Any '.' before the first blank makes a source a remote one, even one in another field.
local function read_source(text)
    text = text:gsub('^"', ""):gsub("^tqs://", "")
    if text:match("^[^ ]*"):find(".", 1, true) then
        return read_remote_source(unquote(text))
    elseif text:find("^%d") then
        return read_bus_source(text)
    end
    return { kind = "none" }
end

-- Adds the part of a line from first to last, by default with its text as the value.
local function add_part(line, parent, field, first, last, value)
    local range = line.tvb(line.start + first - 1, last - first + 1)
    return parent:add(field, range, value or common.printable(line.text:sub(first, last)))
end

-- The functions below show the meaning of a field's value, from first to last.
local function show_source(line, first, last)
    local source = read_source(line.text:sub(first))
    local node = add_part(line, line.node, f.source, first, last)
    local function add(field, value)
        add_part(line, node, field, first, last, value):set_generated()
    end
    add(f.source_kind, source.kind)
    if source.unreadable then
        node:add_proto_expert_info(e.source)
    elseif source.kind == "bus" then
        local address = source.address
        add(f.source_address, address)
        add(f.source_group, string.format("%d:%d", math.floor(address / 256), address % 256))
    elseif source.kind == "remote" then
        add(f.source_ip, Address.ip(source.ip))
        add(f.source_port, source.port)
        add(f.source_input, source.input)
    end
end

local function show_interface(line, first, last)
    local text = unquote(line.text:sub(first, last))
    local ip = text:find("%..*%..*%.") and read_address(text)
    if ip then
        add_part(line, line.node, f.nic_ipaddr, first, last, Address.ip(ip))
    else
        line.node:add_proto_expert_info(e.source)
    end
end

local function show_duration(line, first, last)
    local duration = read_number(unquote(line.text:sub(first, last)), 1)
    if duration then
        add_part(line, line.node, f.duration, first, last, duration)
    end
end

-- The fields from pos on; the first one with the key is passed to show.
local function show_fields(line, pos, key, show)
    for _, field in ipairs(split_fields(line.text, pos)) do
        local node = add_part(line, line.node, f.field, field.first, field.last)
        local sign = line.text:find("[:=]", field.first)
        if sign and sign <= field.last then
            local value = common.printable(unquote(line.text:sub(sign + 1, field.last)))
            add_part(line, node, f.key, field.first, sign - 1)
            add_part(line, node, f.value, sign + 1, field.last, value)
            if line.text:sub(field.first, sign - 1) == key then
                show(line, sign + 1, field.last)
                key = nil
            end
        end
    end
end

-- The number at pos; returns the position after it, or nil if there is none.
local function show_number(line, pos, limit)
    local number, behind = read_number(line.text, pos)
    if not number then
        return nil
    end
    local node = add_part(line, line.node, f.number, pos, behind - 1, number)
    if number < 1 or number > limit then
        node:add_proto_expert_info(e.number)
    end
    return behind
end

-- The state of pins at pos; returns the position after it.
local function show_state(line, pos)
    local state = line.text:match("^[^ ,]*", pos)
    local node = add_part(line, line.node, f.state, pos, pos + #state - 1)
    if not state:find("^[HLhlx]+$") or #state > PINS then
        node:add_proto_expert_info(e.state)
    end
    for i = 1, math.min(#state, PINS) do
        add_part(line, node, f["pin" .. i], pos + i - 1, pos + i - 1)
    end
    return pos + #state
end

-- One function per command, for the text after the command and a blank at position 5. They return
-- false for unknown lines.
local COMMANDS = {}

function COMMANDS.SET(line)
    show_fields(line, 5, "NIC_IPADDR", show_interface)
    return true
end

function COMMANDS.CFG(line)
    if line.text:sub(5, 7) ~= "GPO" then
        return false
    end
    add_part(line, line.node, f.object, 5, 7)
    if #line.text == 7 then
        return true  -- asks for the configuration
    end
    local behind = line.text:sub(8, 8) == " " and show_number(line, 9, CHANNELS)
    if behind then
        show_fields(line, behind, "SRCA", show_source)
    end
    return behind
end

local function dissect_pins(line, limit)
    local behind = show_number(line, 5, limit)
    if not behind or line.text:sub(behind, behind) ~= " " then
        return false
    end
    show_fields(line, show_state(line, behind + 1), "DURATION", show_duration)
    return true
end

function COMMANDS.GPI(line)
    return dissect_pins(line, INPUTS)
end

function COMMANDS.GPO(line)
    return dissect_pins(line, CHANNELS)
end

function COMMANDS.ADD(line)
    if line.text:sub(5, 8) ~= "GPI " then
        return false
    end
    add_part(line, line.node, f.object, 5, 7)
    local behind = show_number(line, 9, INPUTS)
    return behind and behind > #line.text
end

COMMANDS.DEL = COMMANDS.ADD

local function dissect_command(line)
    local command = line.text:match("^%u%u%u")
    if not COMMANDS[command] then
        return false
    end
    add_part(line, line.node, f.command, 1, 3)
    if #line.text == 3 then
        return command == "SET"  -- asks for the settings
    end
    return line.text:sub(4, 4) == " " and COMMANDS[command](line)
end

-- One line of length bytes from start, without its end. Returns its printable text.
local function dissect_line(tvb, start, length, tree)
    local range = tvb(start, length)
    local line = { tvb = tvb, start = start, text = range:raw() }
    local text = common.printable(line.text)
    line.node = tree:add(f.text, range, text)
    if length > MAX_LINE then
        line.node:add_proto_expert_info(e.overlong)
    elseif line.text:find("\0", 1, true) then
        line.node:add_proto_expert_info(e.nul)
    elseif not dissect_command(line) then
        line.node:add_proto_expert_info(e.unknown)
        text = text .. " (unknown)"
    end
    return text
end

-- Requests the rest of the line that begins at start, unless it is already too long or segments are
-- not reassembled; returns whether it did.
local function ask_for_more(tvb, start, pinfo)
    if pinfo.can_desegment == 0 or tvb:len() - start > MAX_LINE then
        return false
    end
    pinfo.desegment_offset = start
    pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
    return true
end

-- All lines, as { start, length }, and the bytes after the last line's end.
local function find_lines(text)
    local lines, pos = {}, text:match("^[\r\n]*()")
    for first, last in text:gmatch("()[^\r\n]+()[\r\n]") do
        table.insert(lines, { start = first - 1, length = last - first })
        pos = last
    end
    return lines, text:match("^[\r\n]*()", pos) - 1
end

function orvex_line.dissector(tvb, pinfo, tree)
    local lines, rest = find_lines(tvb:raw())
    local length = tvb:len() - rest
    local partial = length > 0 and not ask_for_more(tvb, rest, pinfo)
    if partial then
        table.insert(lines, { start = rest, length = length })
    end
    if #lines == 0 then
        return tvb:len()
    end
    local node = tree:add(orvex_line, tvb(0, partial and tvb:len() or rest))
    local texts = {}
    for i, line in ipairs(lines) do
        texts[i] = dissect_line(tvb, line.start, line.length, node)
    end
    if partial and length <= MAX_LINE then
        node:add_proto_expert_info(e.unfinished)
    end
    pinfo.cols.protocol = "ORVEX-LINE"
    pinfo.cols.info = table.concat(texts, " | ")
    return tvb:len()
end

common.serve_ports(orvex_line, "tcp", "93", "Ports of the control servers")
