#include "tools/tqrd/SourceText.h"

#include <cstring>

#include "tools/bus/PinName.h"
#include "tqr/tqr_util.h"
#include "tqr/trace.h"

std::string FieldText(const char* value) {
    std::string text(strlen(value) + 2, '\0');
    char* end = text.data();
    tqr_copyval(value, end);
    text.resize(static_cast<size_t>(end - text.data()) - 1);  // without the blank after it
    return text;
}

int RemoteInput(const ChannelConfig& config) {
    return (config.gpi & 0xFF) + 1;
}

std::string RemoteServer(const ChannelConfig& config) {
    return std::string(DottedQuad(config.ip).text) + ":" + std::to_string(config.port);
}

std::string DescribeSource(const ChannelConfig& config) {
    switch (config.proto) {
        case KIND_REMOTE:
            return "input " + std::to_string(RemoteInput(config)) + " of " + RemoteServer(config);
        case KIND_BUS:
            return "writes on the bus to " + AddressText(config.ach);
        default:
            return "nothing";
    }
}
