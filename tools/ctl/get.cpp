#include "tools/bus/Question.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"

int RunGet(const Options& options) {
    Output output(options);
    BusLink link(options.bus);
    link.Listen(BusLink::Hear::Reports);
    Question question(link, options.pins);
    Traffic traffic;
    while (!question.IsOver()) {
        question.AskWhenDue();
        if (link.Wait(traffic, question.NextTime()) == BusLink::Event::Heard &&
            question.Take(traffic.message)) {
            options.console.Detail("answer from " + traffic.host);
        }
    }
    output.Write(question.Facts());
    NoteShared(question.GetAnswerers().Shared(Now()), options);
    const std::string missing = question.Missing(options.names);
    if (missing.empty()) {
        return STATUS_DONE;
    }
    options.console.Note("no answer for " + missing);
    return STATUS_NO_ANSWER;
}
