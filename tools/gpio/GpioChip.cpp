#include "tools/gpio/GpioChip.h"

#include <fcntl.h>
#include <glob.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <system_error>

const char* const DEVICE_FOLDER = "/dev";

namespace {

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

template <typename Argument>
void Control(int fd, unsigned long request, Argument& argument, const char* what) {
    if (ioctl(fd, request, &argument) < 0) {
        Fail(what);
    }
}

void MakeNonBlocking(int fd) {
    if (fcntl(fd, F_SETFL, O_NONBLOCK) < 0) {
        Fail("can't configure the descriptor");
    }
}

// The kernel does not end a text that fills its field.
template <size_t SIZE>
std::string Text(const char (&field)[SIZE]) {
    return std::string(field, strnlen(field, SIZE));
}

// Adds an attribute for the lines of the mask.
gpio_v2_line_attribute& AddAttribute(gpio_v2_line_config& config, uint32_t id, uint64_t mask) {
    if (config.num_attrs == GPIO_V2_LINE_NUM_ATTRS_MAX) {
        errno = E2BIG;
        Fail("too many different settings in one request");
    }
    gpio_v2_line_config_attribute& added = config.attrs[config.num_attrs++];
    added.attr.id = id;
    added.mask = mask;
    return added.attr;
}

gpio_v2_line_config Encode(const std::vector<RequestedLine>& lines) {
    gpio_v2_line_config config = {};
    std::map<uint64_t, uint64_t> masks_of_flags;
    std::map<uint32_t, uint64_t> masks_of_debounce;
    uint64_t outputs = 0;
    uint64_t active = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const uint64_t bit = uint64_t(1) << i;
        const LineSettings& settings = lines[i].settings;
        masks_of_flags[settings.flags] |= bit;
        masks_of_debounce[settings.debounce_us] |= bit;
        outputs |= (settings.flags & GPIO_V2_LINE_FLAG_OUTPUT) != 0 ? bit : 0;
        active |= lines[i].is_active ? bit : 0;
    }
    config.flags = lines.front().settings.flags;  // those of all lines without an attribute
    masks_of_flags.erase(config.flags);
    masks_of_debounce.erase(0);
    for (const auto& [flags, mask] : masks_of_flags) {
        AddAttribute(config, GPIO_V2_LINE_ATTR_ID_FLAGS, mask).flags = flags;
    }
    for (const auto& [period, mask] : masks_of_debounce) {
        AddAttribute(config, GPIO_V2_LINE_ATTR_ID_DEBOUNCE, mask).debounce_period_us = period;
    }
    if (outputs != 0) {
        AddAttribute(config, GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES, outputs).values = active;
    }
    return config;
}

}  // namespace

void LineRequest::SetValues(uint64_t mask, uint64_t active) const {
    gpio_v2_line_values values = {};
    values.mask = mask;
    values.bits = active;
    Control(Get(), GPIO_V2_LINE_SET_VALUES_IOCTL, values, "can't set lines");
}

uint64_t LineRequest::GetValues(uint64_t mask) const {
    gpio_v2_line_values values = {};
    values.mask = mask;
    Control(Get(), GPIO_V2_LINE_GET_VALUES_IOCTL, values, "can't read lines");
    return values.bits;
}

void LineRequest::Reconfigure(const std::vector<RequestedLine>& lines) const {
    gpio_v2_line_config config = Encode(lines);
    Control(Get(), GPIO_V2_LINE_SET_CONFIG_IOCTL, config, "can't configure lines");
}

void LineRequest::ReadEvents(std::vector<LineEvent>& events) const {
    gpio_v2_line_event raw[MAX_EVENTS];
    const ssize_t got = read(Get(), raw, sizeof raw);
    if (got < 0 && errno != EAGAIN && errno != EINTR) {
        Fail("can't read edges");
    }
    for (size_t i = 0; got > 0 && i < static_cast<size_t>(got) / sizeof raw[0]; ++i) {
        events.push_back({raw[i].timestamp_ns, raw[i].offset, raw[i].line_seqno,
                          raw[i].id == GPIO_V2_LINE_EVENT_RISING_EDGE});
    }
}

bool LineInfo::IsUsed() const {
    return (flags & GPIO_V2_LINE_FLAG_USED) != 0;
}

GpioChip::GpioChip(const std::string& path)
    : m_path(path), m_descriptor(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK)) {
    if (!m_descriptor.IsOpen()) {
        Fail("can't open");
    }
}

ChipInfo GpioChip::Describe() const {
    gpiochip_info info = {};
    Control(Get(), GPIO_GET_CHIPINFO_IOCTL, info, "not a GPIO chip");
    ChipInfo chip;
    chip.path = m_path;
    chip.name = Text(info.name);
    chip.label = Text(info.label);
    for (unsigned int offset = 0; offset < info.lines; ++offset) {
        chip.lines.push_back(DescribeLine(offset));
    }
    return chip;
}

LineInfo GpioChip::DescribeLine(unsigned int offset) const {
    gpio_v2_line_info info = {};
    info.offset = offset;
    Control(Get(), GPIO_V2_GET_LINEINFO_IOCTL, info, "can't describe a line");
    return {Text(info.name), Text(info.consumer), info.flags};
}

void GpioChip::WatchLine(unsigned int offset) const {
    gpio_v2_line_info info = {};
    info.offset = offset;
    if (ioctl(Get(), GPIO_V2_GET_LINEINFO_WATCH_IOCTL, &info) < 0 && errno != EBUSY) {
        Fail("can't watch a line");
    }
}

void GpioChip::ReadChanges() const {
    gpio_v2_line_info_changed changes[8];
    while (read(Get(), changes, sizeof changes) > 0) {
    }
}

LineRequest GpioChip::Request(const std::vector<RequestedLine>& lines, const char* consumer) const {
    gpio_v2_line_request request = {};
    request.config = Encode(lines);
    request.num_lines = static_cast<uint32_t>(lines.size());
    // As many as the kernel permits: a burst waits there while this program does something else.
    request.event_buffer_size = GPIO_V2_LINES_MAX * 16;
    strncpy(request.consumer, consumer, sizeof request.consumer - 1);
    for (size_t i = 0; i < lines.size(); ++i) {
        request.offsets[i] = lines[i].offset;
    }
    Control(Get(), GPIO_V2_GET_LINE_IOCTL, request, "can't request lines");
    LineRequest made{Descriptor(request.fd)};
    MakeNonBlocking(made.Get());
    return made;
}

std::vector<ChipInfo> FindChips() {
    glob_t found = {};
    std::vector<std::string> paths;
    if (glob((std::string(DEVICE_FOLDER) + "/gpiochip*").c_str(), GLOB_NOSORT, nullptr, &found) ==
        0) {
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    globfree(&found);
    std::sort(paths.begin(), paths.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    std::vector<ChipInfo> chips;
    for (const std::string& path : paths) {
        try {
            chips.push_back(GpioChip(path).Describe());
        } catch (const std::system_error& error) {
            ChipInfo chip;
            chip.path = path;
            chip.problem = error.what();
            chips.push_back(chip);
        }
    }
    return chips;
}
