#include <algorithm>

#include "tools/bus/Question.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"

namespace {

void PrintLevels(const Options& options, const Question& question, Output& output) {
    std::vector<uint32_t> tags;
    size_t width = 0;
    for (const PinRef& pins : options.pins) {
        for (const uint32_t tag : pins.Tags()) {
            tags.push_back(tag);
            width = std::max(width, PinText(tag).size());
        }
    }
    for (const uint32_t tag : tags) {
        const auto answer = question.AnswerOf(tag);
        if (answer) {
            std::string name = PinText(tag);
            name.resize(width, ' ');
            output.Write(name + "  " + LevelLetter(answer->level) + "\n");
        }
    }
}

}  // namespace

int RunGet(const Options& options) {
    Output output("-", Output::Form::Json);
    BusLink link(options.bus);
    link.Listen(BusLink::Hear::Reports);
    Question question(link, options.pins);
    Traffic traffic;
    while (!question.IsOver()) {
        question.AskWhenDue();
        if (link.Wait(traffic, question.NextTime()) == BusLink::Event::Heard &&
            question.Take(traffic.message)) {
            options.console.Detail("answer from " + traffic.host);
            if (options.json) {
                output.Write(traffic);
            }
        }
    }
    if (!options.json) {
        PrintLevels(options, question, output);
    }
    const std::string missing = question.Missing();
    if (missing.empty()) {
        return STATUS_DONE;
    }
    options.console.Note("no answer for " + missing);
    return STATUS_NO_ANSWER;
}
