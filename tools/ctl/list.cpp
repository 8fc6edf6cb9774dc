#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include "tools/base/Signals.h"
#include "tools/bus/Question.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/MessageText.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"

namespace {

const uint8_t ASKED_CIRCUIT = FIRST_INPUT_CIRCUIT;  // one pin shows that the address is in use
const uint32_t ADDRESSES_AT_ONCE = 1300;            // a message of 8 KB
const double PAUSE = 0.01;       // seconds between two: a receive buffer holds 20 of them
const int SWEEPS = 2;            // a message may get lost
const double SHOW_PROGRESS = 1;  // seconds
const int BAR_WIDTH = 40;

// What was found at an address.
using Hosts = std::set<uint32_t>;

class List {
public:
    explicit List(const Options& options)
        : m_options(options), m_output(options), m_link(options.bus), m_id(NewRequestId()) {
        m_link.Listen(BusLink::Hear::Reports);
    }

    int Run();

private:
    void Sweep(int number);
    void ListenUntil(TimePoint end);
    void Take(const Traffic& traffic);
    void ShowProgress(double done);
    std::vector<PinFact> AskPins();
    void PrintJson(const std::vector<PinFact>& facts);
    void Print(const std::vector<PinFact>& facts);
    std::string StateText(const std::vector<PinFact>& facts, size_t first) const;
    void NoteRange() const;

    const Options& m_options;
    Output m_output;
    BusLink m_link;
    Signals m_signals;
    const uint32_t m_id;
    const TimePoint m_start = Now();
    bool m_stopped = false;
    bool m_bar = false;
    std::map<uint32_t, Hosts> m_found;  // by address
    Answerers m_answerers;
};

int List::Run() {
    for (int i = 0; i < SWEEPS && !m_stopped; ++i) {
        Sweep(i);
    }
    ListenUntil(After(m_options.bus.wait));
    if (m_bar) {
        fprintf(stderr, "\r%*s\r", BAR_WIDTH + 10, "");
    }
    Print(AskPins());
    NoteShared(m_answerers.Shared(Now()), m_options);
    NoteRange();
    if (m_stopped) {
        m_options.console.Note("stopped by a signal before everything was read");
        return STATUS_FAILED;
    }
    if (m_found.empty()) {
        m_options.console.Note("no device answered");
    }
    return m_found.empty() ? STATUS_NO_ANSWER : STATUS_DONE;
}

// Reads the whole range, and listens between the messages.
void List::Sweep(int number) {
    const AddressRange& range = m_options.range;
    for (uint32_t begin = range.first; begin <= range.last && !m_stopped;
         begin += ADDRESSES_AT_ONCE) {
        const uint32_t end = std::min(range.last, begin + ADDRESSES_AT_ONCE - 1);
        CMessage message(16, ADDRESSES_AT_ONCE);
        message.SetId(ID_READ);
        message.SetDword(TAG_REQUEST_ID, m_id);
        for (uint32_t address = begin; address <= end; ++address) {
            message.SetByte(address << 8 | ASKED_CIRCUIT, 0);
        }
        m_link.Send(message, m_options.bus.send_port, false);
        ListenUntil(After(PAUSE));
        const double part =
            static_cast<double>(end - range.first + 1) / (range.last - range.first + 1);
        ShowProgress((number + part) / SWEEPS);
    }
}

void List::ListenUntil(TimePoint end) {
    Traffic traffic;
    while (!m_stopped) {
        switch (m_link.Wait(traffic, end, m_signals.Get())) {
            case BusLink::Event::Heard:
                Take(traffic);
                break;
            case BusLink::Event::Changed:
                m_options.console.Note(m_link.LastChange().text);
                break;
            case BusLink::Event::Other:
                m_stopped = true;
                break;
            default:
                return;
        }
    }
}

// Answers to others are useful too, if they are in the range.
void List::Take(const Traffic& traffic) {
    if (traffic.message.GetId() != ID_REPORT) {
        return;
    }
    m_answerers.Take(traffic.message, Now());
    for (unsigned int i = 0; i < traffic.message.GetItemCount(); ++i) {
        const CMsg2::Node& item = *traffic.message.GetItem(i);
        const uint32_t address = item.m_nTag >> 8;
        if (item.m_nType == CMsg2::ITEM_BYTE && IsNamedPin(item.m_nTag) &&
            address >= m_options.range.first && address <= m_options.range.last) {
            m_found[address].insert(static_cast<uint32_t>(traffic.message.GetHost()));
        }
    }
}

void List::ShowProgress(double done) {
    if (isatty(STDERR_FILENO) == 0 || m_options.console.quiet ||
        Now() < Later(m_start, SHOW_PROGRESS)) {
        return;
    }
    m_bar = true;
    const int filled = static_cast<int>(done * BAR_WIDTH);
    fprintf(stderr, "\r[%s%s] %3d %%", std::string(static_cast<size_t>(filled), '#').c_str(),
            std::string(static_cast<size_t>(BAR_WIDTH - filled), ' ').c_str(),
            static_cast<int>(done * 100));
}

// The ten pins of each address found.
std::vector<PinFact> List::AskPins() {
    std::vector<PinRef> pins;
    for (const auto& [address, hosts] : m_found) {
        pins.push_back({address, std::nullopt});
    }
    Question question(m_link, pins);
    Traffic traffic;
    while (!question.IsOver()) {
        question.AskWhenDue();
        if (m_link.Wait(traffic, question.NextTime()) == BusLink::Event::Heard) {
            Take(traffic);
            question.Take(traffic.message);
        }
    }
    return question.Facts();
}

// Five pins as in control lines; '?' means not answered.
std::string List::StateText(const std::vector<PinFact>& facts, size_t first) const {
    std::string text;
    for (size_t i = first; i < first + PIN_COUNT; ++i) {
        text += LevelText(facts[i].level);
    }
    return text;
}

// The pins, each with the hosts of its address.
void List::PrintJson(const std::vector<PinFact>& facts) {
    for (const PinFact& fact : facts) {
        m_output.Write(ToJson(fact, m_found[fact.tag >> 8], m_options.names) + "\n");
    }
}

void List::Print(const std::vector<PinFact>& facts) {
    if (m_output.IsJson()) {
        PrintJson(facts);
        return;
    }
    size_t place = 0;
    for (const auto& [address, hosts] : m_found) {
        std::string text;
        for (const uint32_t host : hosts) {
            text += (text.empty() ? "" : ",") + HostText(host);
        }
        const Names::Entry* const entry = m_options.names.OfAddress(address);
        m_output.Write(Padded(AddressText(address), 9) + "  " + Padded(text, 15) + "  in " +
                       StateText(facts, place) + "  out " + StateText(facts, place + PIN_COUNT) +
                       (entry != nullptr ? "  " + entry->name : "") + "\n");
        place += size_t{2} * PIN_COUNT;
    }
}

void List::NoteRange() const {
    const AddressRange& range = m_options.range;
    if (range.is_default) {
        m_options.console.Note("read " + AddressText(range.first) + " to " +
                               AddressText(range.last) +
                               " only; list 0-0xFFFFFF reads all addresses");
    }
}

}  // namespace

int RunList(const Options& options) {
    return List(options).Run();
}
