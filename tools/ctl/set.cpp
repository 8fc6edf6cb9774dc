#include <algorithm>

#include "tools/bus/Question.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"

namespace {

const double LINGER = 0.02;    // seconds after the last answer, for a second device
const double ASK_EVERY = 0.1;  // seconds; short enough to see a pulse of 310 ms

const char* const NO_SUCH_PIN = ": devices have circuits 4 to 13 only, in1 to in5 and out1 to out5";

void NoteWhatDiffers(const PinWrite& write, const Options& options) {
    const Console& console = options.console;
    const std::string name = options.names.Label(write.tag);
    if (write.value.Duration() != write.duration_ms) {
        console.Note(name + ": " + std::to_string(write.duration_ms) + " ms becomes " +
                     std::to_string(write.value.Duration()) + " ms");
    }
    if (IsInput(write.tag)) {
        console.Note(name + " is an input: devices do not set it");
    } else if (!IsNamedPin(write.tag)) {
        console.Note(name + NO_SUCH_PIN);
    }
}

void MakeMessage(const Options& options, Traffic& traffic) {
    traffic.message.SetId(ID_WRITE);
    traffic.message.SetRel(options.reliable);
    for (const PinWrite& write : options.writes) {
        NoteWhatDiffers(write, options);
        traffic.message.SetByte(write.tag, write.value.Byte());
    }
    traffic.port = options.bus.send_port;
}

void Send(const Options& options, BusLink& link, Traffic& traffic) {
    traffic.time = TimeOfDay();
    link.Send(traffic.message, traffic.port, options.reliable);
}

// Reads pins back after a write, until each has the level that was written.
class Check {
public:
    explicit Check(const Options& options)
        : m_options(options), m_output(options), m_link(options.bus), m_id(NewRequestId()) {
        m_link.Listen(BusLink::Hear::Reports);
        MakeMessage(options, m_message);
    }

    int Run();

private:
    // What was heard of a pin since it was written.
    struct Pin {
        const PinWrite* write;
        std::optional<PinFact> answer;  // the last one
        bool IsDone() const { return answer && answer->level == write->value.GetLevel(); }
    };

    void Ask();
    void Take(const Traffic& traffic);
    std::string Reason(const Pin& pin) const;
    bool IsDone() const {
        return std::all_of(m_pins.begin(), m_pins.end(),
                           [](const Pin& pin) { return pin.IsDone(); });
    }

    const Options& m_options;
    Output m_output;
    BusLink m_link;
    const uint32_t m_id;
    Traffic m_message;
    std::vector<Pin> m_pins;
    Answerers m_answerers;
};

int Check::Run() {
    for (const PinWrite& write : m_options.writes) {
        m_pins.push_back({&write, std::nullopt});
    }
    Send(m_options, m_link, m_message);
    const TimePoint end = After(m_options.bus.wait);
    Traffic traffic;
    TimePoint ask = Now();
    TimePoint over = end;
    while (Now() < over) {
        if (Now() >= ask) {
            Ask();
            ask = After(ASK_EVERY);
        }
        if (m_link.Wait(traffic, std::min(ask, over)) == BusLink::Event::Heard) {
            Take(traffic);
        }
        if (IsDone()) {
            over = std::min(over, After(LINGER));
        }
    }
    std::vector<PinFact> facts;
    for (const Pin& pin : m_pins) {
        facts.push_back(pin.answer.value_or(PinFact{pin.write->tag, std::nullopt, TimeOfDay(), 0}));
        if (!pin.IsDone()) {
            m_options.console.Error(Reason(pin));
        }
    }
    m_output.Write(facts);
    NoteShared(m_answerers.Shared(Now()), m_options);
    return IsDone() ? STATUS_DONE : STATUS_NO_ANSWER;
}

void Check::Ask() {
    std::vector<uint32_t> open;
    for (const Pin& pin : m_pins) {
        if (!pin.IsDone()) {
            open.push_back(pin.write->tag);
        }
    }
    AskForPins(m_link, open, m_id);
}

// Only answers to reads of this run count: others may be older than the write.
void Check::Take(const Traffic& traffic) {
    const CMsg2::Node* const refers = FindItem(traffic.message, TAG_REFERS_TO, CMsg2::ITEM_DWORD);
    if (traffic.GetKind() != Kind::Reply || refers == nullptr || refers->m_Value.m_nDword != m_id) {
        return;
    }
    m_answerers.Take(traffic.message, Now());
    for (Pin& pin : m_pins) {
        const CMsg2::Node* const item = FindItem(traffic.message, pin.write->tag, CMsg2::ITEM_BYTE);
        if (item != nullptr && !pin.IsDone()) {
            pin.answer = PinFact{pin.write->tag, PinValueOf(Kind::Reply, *item).level, traffic.time,
                                 static_cast<uint32_t>(traffic.message.GetHost())};
        }
    }
}

std::string Check::Reason(const Pin& pin) const {
    const std::string name = m_options.names.Label(pin.write->tag);
    if (IsInput(pin.write->tag)) {
        return name + " is an input: devices do not set it";
    }
    if (!IsNamedPin(pin.write->tag)) {
        return name + NO_SUCH_PIN;
    }
    if (!pin.answer) {
        return name + ": nobody answers: no device on the bus has " +
               AddressText(pin.write->tag >> 8) + ", or its control server is away";
    }
    if (*pin.answer->level == Level::Low) {
        return name + " is still L";
    }
    const unsigned int duration = pin.write->value.Duration();
    return name + " is answered H: its control server did not carry the write out" +
           (duration > 0 ? ", the " + std::to_string(duration) + " ms were over" : "") +
           ", or it is an output of channels 9 to 32, which is always answered H";
}

}  // namespace

int RunSet(const Options& options) {
    if (options.check) {
        return Check(options).Run();
    }
    Traffic traffic;
    MakeMessage(options, traffic);
    Output output(options);
    BusLink link(options.bus);
    Send(options, link, traffic);
    if (options.json || options.console.verbose) {
        output.Write(traffic);
    } else if (!options.console.quiet) {
        output.Write(options.reliable ? "sent, and acknowledged by a receiver\n" : "sent\n");
    }
    return STATUS_DONE;
}
