-- Wireshark dissector of the orvex bus: reliable-UDP packets that contain tagged messages.
--
-- Filters begin with "orvex.": the header's fields (orvex.type, orvex.tid, ...), the links between
-- packets (orvex.ack_in, orvex.request_in, ...) and errors of a packet (orvex.expert.short, ...).
-- docs/wireshark.md lists them all.
--
-- The UDP ports are a preference of the protocol. orvex_common.lua and orvex_message.lua must be beside
-- this file: the second one dissects the payload. orvex_line.lua dissects the control lines.

local common = require("orvex_common")

local orvex = Proto("orvex", "orvex bus")

local HEADER_LENGTH = 16
local ANSWER_LENGTH = 8
local PACKET_VERSION = 7
local PAYLOAD_VERSION = 2
local MESSAGE_LAYER = 3
local DATAGRAM, MESSAGE, ACK, NACK = 0x00, 0x4D, 0x41, 0x4E
local REPEAT_SECONDS = 10  -- receivers recognise repeats for that long, REPEAT_MEMORY_MS
local NO_ECHO = "0000000000000000"

local TYPE_NAMES = {
    [DATAGRAM] = "Datagram", [MESSAGE] = "Message", [ACK] = "Acknowledgement", [NACK] = "Refusal",
}

local f = {
    layer = ProtoField.uint8("orvex.layer", "Layer"),
    type = ProtoField.uint8("orvex.type", "Type", base.HEX, TYPE_NAMES),
    payload_version = ProtoField.uint8("orvex.payload_version", "Payload version"),
    version = ProtoField.uint8("orvex.version", "Packet version"),
    tid = ProtoField.uint32("orvex.tid", "Transaction ID", base.HEX_DEC),
    result_port = ProtoField.uint16("orvex.result_port", "Result port"),
    lock_id = ProtoField.uint16("orvex.lock_id", "Lock ID"),
    lock_tid = ProtoField.uint32("orvex.lock_tid", "Lock transaction ID", base.HEX_DEC),
    undecoded = ProtoField.bytes("orvex.undecoded", "Undecoded bytes"),
    repeat_of = ProtoField.framenum("orvex.repeat_of", "Repeats the packet in frame", base.NONE,
                                    frametype.RETRANS_PREV),
    copy_of = ProtoField.framenum("orvex.copy_of", "Second copy of the message in frame"),
    ack_in = ProtoField.framenum("orvex.ack_in", "Answered in frame", base.NONE, frametype.ACK),
    ack_to = ProtoField.framenum("orvex.ack_to", "Answers the packet in frame", base.NONE,
                                 frametype.ACK),
    ack_time = ProtoField.relative_time("orvex.ack_time", "Time since that packet"),
    request_in = ProtoField.framenum("orvex.request_in", "Request in frame", base.NONE,
                                     frametype.REQUEST),
    response_in = ProtoField.framenum("orvex.response_in", "Response in frame", base.NONE,
                                      frametype.RESPONSE),
    response_time = ProtoField.relative_time("orvex.response_time", "Time since the request"),
}

local problem = common.problems("orvex.expert.")

local e = {
    cut = problem("cut", "UNDECODED", "NOTE", "The capture contains only the beginning of the packet"),
    short = problem("short", "MALFORMED", "ERROR", "Too short for a packet: ignored"),
    long_answer = problem("long_answer", "PROTOCOL", "WARN", "Answer of more than 8 bytes"),
    type = problem("type", "PROTOCOL", "WARN", "Neither datagram nor message"),
    version = problem("version", "PROTOCOL", "WARN", "Packet version other than 7: dropped"),
    layer = problem("layer", "PROTOCOL", "WARN", "Layer below 3: refused"),
    payload_version = problem("payload_version", "PROTOCOL", "WARN",
                              "Payload version other than 2: dropped"),
    refused = problem("refused", "RESPONSE_CODE", "WARN", "The packet was refused"),
    repeated = problem("repeated", "SEQUENCE", "NOTE", "Repetition of an earlier packet"),
}

common.declare(orvex, f, e)

-- The header's fields with their widths.
local HEADER = {
    { f.layer, 1 }, { f.type, 1 }, { f.payload_version, 1 }, { f.version, 1 }, { f.tid, 4 },
    { f.result_port, 2 }, { f.lock_id, 2 }, { f.lock_tid, 4 },
}

-- Results of the first pass over a capture: notes on the frames (links to other frames) and the
-- packets, requests, last packet of each sender and addresses that later frames may refer to.
local notes, sent, requests, latest, addresses

function orvex.init()
    notes, sent, requests, latest, addresses = {}, {}, {}, {}, {}
end

-- A text for one end of a packet. An address's own text would change once its name is known.
local function endpoint(address, port)
    local number = 1
    while addresses[number] and addresses[number] ~= address do
        number = number + 1
    end
    addresses[number] = address
    return number .. ":" .. port
end

local function is_recent(packet, pinfo)
    return packet and pinfo.rel_ts - packet.time <= REPEAT_SECONDS
end

-- An answer belongs to the last transmission of the packet that it answers.
local function track_answer(pinfo, packet, note)
    local answered = sent[endpoint(pinfo.dst, pinfo.dst_port) .. "/" .. packet.tid]
    if is_recent(answered, pinfo) then
        note.ack_to = answered.frame
        note.ack_time = pinfo.rel_ts - answered.time
        notes[answered.frame].ack_in = notes[answered.frame].ack_in or pinfo.number
    end
end

local function track_repeat(pinfo, packet, note)
    local key = packet.sender .. "/" .. packet.tid
    if is_recent(sent[key], pinfo) then
        note.repeat_of = sent[key].frame
    end
    sent[key] = { frame = pinfo.number, time = pinfo.rel_ts }
end

-- Replies and reports are sent twice in a row, as packets of their own.
local function track_copy(pinfo, packet, note)
    local before = latest[packet.sender]
    if before and not before.is_copy and packet.tid == before.tid + 1
        and packet.payload == before.payload then
        note.copy_of = before.frame
    end
    latest[packet.sender] = {
        frame = pinfo.number, tid = packet.tid, payload = packet.payload,
        is_copy = note.copy_of ~= nil,
    }
end

-- A reply carries its request's identifier and echo. As an identifier, 0 means none.
local function track_request(pinfo, message, note)
    local key = (message.id or message.refi or 0) .. "/" .. (message.echo or NO_ECHO)
    if message.role == "read" and (message.id or 0) ~= 0 then
        requests[key] = { frame = pinfo.number, time = pinfo.rel_ts }
        note.responses = {}
    elseif message.role == "state" and requests[key] then
        note.request_in = requests[key].frame
        note.response_time = pinfo.rel_ts - requests[key].time
        if not note.copy_of then
            table.insert(notes[note.request_in].responses, pinfo.number)
        end
    end
end

local function track_data(pinfo, packet, note)
    packet.sender = endpoint(pinfo.src, pinfo.src_port)
    track_repeat(pinfo, packet, note)
    local message = packet.message
    if note.repeat_of or not (message and message.whole) then
        return
    end
    if message.role == "state" then
        track_copy(pinfo, packet, note)
    end
    track_request(pinfo, message, note)
end

-- The note on this frame, made when it is first seen.
local function note_of(pinfo, packet)
    local note = notes[pinfo.number]
    if not note then
        note = {}
        notes[pinfo.number] = note
        local track = packet.is_answer and track_answer or track_data
        track(pinfo, packet, note)
    end
    return note
end

local function add_time(node, field, seconds)
    if seconds then
        local whole = math.floor(seconds)
        local time = NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5))
        node:add(field, time):set_generated()
    end
end

local function show_links(node, note)
    for _, name in ipairs({ "repeat_of", "copy_of", "ack_in", "ack_to", "request_in" }) do
        if note[name] then
            node:add(f[name], note[name]):set_generated()
        end
    end
    for _, frame in ipairs(note.responses or {}) do
        node:add(f.response_in, frame):set_generated()
    end
    add_time(node, f.ack_time, note.ack_time)
    add_time(node, f.response_time, note.response_time)
    if note.repeat_of then
        node:add_proto_expert_info(e.repeated)
    end
end

-- An answer is the first half of a header; its bytes 0 and 2 have no meaning.
local function dissect_answer(tvb, node)
    node:add(f.type, tvb(1, 1))
    node:add(f.version, tvb(3, 1))
    node:add(f.tid, tvb(4, 4))
    local refused = tvb(1, 1):uint() == NACK
    if refused then
        node:add_proto_expert_info(e.refused)
    end
    if tvb(3, 1):uint() ~= PACKET_VERSION then
        node:add_proto_expert_info(e.version)
    end
    if tvb:reported_len() > ANSWER_LENGTH then
        node:add_proto_expert_info(e.long_answer)
    end
    local tid = tvb(4, 4):uint()
    return {
        is_answer = true, tid = tid,
        text = string.format("%s of %08X", refused and "NACK" or "ACK", tid),
    }
end

local function dissect_header(tvb, node)
    local offset = 0
    for _, part in ipairs(HEADER) do
        node:add(part[1], tvb(offset, part[2]))
        offset = offset + part[2]
    end
end

-- Why a receiver rejects a packet; the first reason counts.
local function refusal(layer, version, payload_version)
    if layer < MESSAGE_LAYER then
        return e.layer, "refused: layer " .. layer
    elseif version ~= PACKET_VERSION then
        return e.version, "dropped: packet version " .. version
    elseif payload_version ~= PAYLOAD_VERSION then
        return e.payload_version, "dropped: payload version " .. payload_version
    end
    return nil
end

local function dissect_payload(tvb, node, packet)
    local payload = tvb:len() > HEADER_LENGTH and tvb(HEADER_LENGTH) or nil
    packet.payload = payload and payload:raw() or ""
    local reason, text = refusal(tvb(0, 1):uint(), tvb(3, 1):uint(), tvb(2, 1):uint())
    if not reason then
        packet.message = require("orvex_message").dissect(tvb, HEADER_LENGTH, node)
        return packet.message.text
    end
    node:add_proto_expert_info(reason)
    if payload then
        node:add(f.undecoded, payload)
    end
    return text
end

local function dissect_data(tvb, node)
    dissect_header(tvb, node)
    local code = tvb(1, 1):uint()
    local packet = { tid = tvb(4, 4):uint() }
    if code ~= DATAGRAM and code ~= MESSAGE then
        node:add_proto_expert_info(e.type)
    end
    packet.text = dissect_payload(tvb, node, packet)
    if code ~= DATAGRAM then
        packet.text = string.format("%s (reliable %08X)", packet.text, packet.tid)
    end
    return packet
end

local function is_answer(tvb)
    if tvb:len() < ANSWER_LENGTH or tvb:reported_len() >= HEADER_LENGTH then
        return false
    end
    local code = tvb(1, 1):uint()
    return code == ACK or code == NACK
end

-- The packet, or nil if there are too few bytes.
local function dissect_packet(tvb, node)
    if is_answer(tvb) then
        return dissect_answer(tvb, node)
    elseif tvb:len() >= HEADER_LENGTH then
        return dissect_data(tvb, node)
    end
    node:add(f.undecoded, tvb())
    node:add_proto_expert_info(tvb:len() < tvb:reported_len() and e.cut or e.short)
    return nil
end

local function info_text(packet, note)
    local text = packet.text
    if note.repeat_of then
        text = "Repetition: " .. text
    elseif note.copy_of then
        text = text .. " (second copy)"
    end
    return text
end

function orvex.dissector(tvb, pinfo, tree)
    if tvb:len() == 0 then
        return 0
    end
    pinfo.cols.protocol = "ORVEX"
    pinfo.cols.info = tvb:reported_len() .. " bytes, no packet"
    local node = tree:add(orvex, tvb())
    local packet = dissect_packet(tvb, node)
    if packet then
        -- The packet quoted in an ICMP error was not sent in this frame.
        local note = pinfo.in_error_pkt and {} or note_of(pinfo, packet)
        local text = info_text(packet, note)
        show_links(node, note)
        node:append_text(", " .. text)
        pinfo.cols.info = text
    end
    return tvb:len()
end

common.serve_ports(orvex, "udp", "2055,2060", "Ports of the bus")
