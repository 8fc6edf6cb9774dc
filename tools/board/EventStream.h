// Events for viewers, as they happen.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

// Whom an event is for: those who may read the pin, or without one, those who may read everything;
// or everyone.
struct Audience {
    static Audience Everyone() { return {true, std::nullopt}; }
    static Audience OfPin(uint32_t tag) { return {false, tag}; }
    static Audience OfWhole() { return {false, std::nullopt}; }

    bool everyone = false;
    std::optional<uint32_t> pin;
};

// The last events in the form of server-sent events, stored once for all viewers: each viewer is a
// number that says what it has received. A viewer that falls behind the stored events has lost
// some.
class EventStream {
public:
    static constexpr size_t MAX_BYTES = 4 << 20;

    // The epoch distinguishes the events of this run of the program from those of another.
    explicit EventStream(std::string epoch) : m_epoch(std::move(epoch)) {}

    // data is one line.
    void Append(const std::string& name, const std::string& data,
                const Audience& audience = Audience::OfWhole());

    // The number of the next event.
    uint64_t Next() const { return m_first + m_frames.size(); }

    // "EPOCH-NUMBER" of the last event before that one, as viewers know it.
    std::string IdBefore(uint64_t number) const;

    // The number after an identifier. False: some of its successors are no longer stored.
    bool Resume(const std::string& id, uint64_t& number) const;

    bool IsKept(uint64_t number) const { return number >= m_first; }

    // Appends those events from `number` on that the viewer takes (null: all), up to about max
    // bytes, and moves the number past them.
    using Takes = std::function<bool(const Audience&)>;
    void Copy(uint64_t& number, size_t max, const Takes& takes, std::string& out) const;

    // Is called after every Append().
    std::function<void()> on_append;

private:
    struct Frame {
        std::string text;
        Audience audience;
    };

    const std::string m_epoch;
    std::deque<Frame> m_frames;
    uint64_t m_first = 1;
    size_t m_bytes = 0;
};
