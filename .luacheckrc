-- The plugins are run by Wireshark, which has Lua 5.2 and these besides.
std = "lua52"
read_globals = {
    "DESEGMENT_ONE_MORE_SEGMENT", "DissectorTable", "NSTime", "Pref", "Proto", "ProtoExpert",
    "ProtoField", "Address", "base", "bit", "expert", "frametype",
}
