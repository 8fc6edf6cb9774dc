-- Shared by the dissectors of orvex; each loads it with require. Wireshark also loads this file
-- with the others, which has no effect.

local common = {}

-- A function that makes the remarks ("expert information") whose names begin with prefix.
function common.problems(prefix)
    return function(name, group, severity, text)
        return ProtoExpert.new(prefix .. name, text, expert.group[group], expert.severity[severity])
    end
end

-- Registers the protocol's fields and remarks, two tables with the dissector's own keys.
function common.declare(proto, fields, experts)
    local function values(map)
        local list = {}
        for _, value in pairs(map) do
            list[#list + 1] = value
        end
        return list
    end
    proto.fields = values(fields)
    proto.experts = values(experts)
end

-- Text from the wire, made printable.
function common.printable(text)
    return (text:gsub("[^\32-\126]", "."))
end

-- Makes the ports of a transport ("udp", "tcp") a preference of the protocol, and applies it.
function common.serve_ports(proto, transport, ports, description)
    local name = transport:upper() .. " ports"
    proto.prefs.ports = Pref.range(name, ports, description, 65535)
    local dissectors = DissectorTable.get(transport .. ".port")
    local registered = ""
    local function register()
        if registered ~= "" then
            dissectors:remove(registered, proto)
        end
        registered = proto.prefs.ports
        if registered ~= "" then
            dissectors:add(registered, proto)
        end
    end
    proto.prefs_changed = register
    register()
    dissectors:add_for_decode_as(proto)
end

return common
