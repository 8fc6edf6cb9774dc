#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"

namespace {

void NoteWhatDiffers(const PinWrite& write, const Console& console) {
    const std::string name = PinText(write.tag);
    if (write.value.Duration() != write.duration_ms) {
        console.Note(name + ": " + std::to_string(write.duration_ms) + " ms becomes " +
                     std::to_string(write.value.Duration()) + " ms");
    }
    if (IsInput(write.tag)) {
        console.Note(name + " is an input: devices do not set it");
    }
}

}  // namespace

int RunSet(const Options& options) {
    Traffic traffic;
    traffic.message.SetId(ID_WRITE);
    traffic.message.SetRel(options.reliable);
    for (const PinWrite& write : options.writes) {
        NoteWhatDiffers(write, options.console);
        traffic.message.SetByte(write.tag, write.value.Byte());
    }
    BusLink link(options.bus);
    traffic.time = TimeOfDay();
    traffic.port = options.bus.send_port;
    link.Send(traffic.message, traffic.port, options.reliable);
    if (options.json || options.console.verbose) {
        Output("-", options.json ? Output::Form::Json : Output::Form::FullText).Write(traffic);
    }
    return STATUS_DONE;
}
