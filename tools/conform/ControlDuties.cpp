#include "tools/conform/Conform.h"
#include "tools/conform/ControlTrial.h"

namespace {

struct ControlDuty {
    const char* name;
    const char* text;
    Outcome (ControlTrial::*find)();
};

const ControlDuty DUTIES[] = {
    {"settings", "answers SET with its settings", &ControlTrial::Settings},
    {"configuration", "answers CFG GPO with a line for each channel", &ControlTrial::Configuration},
    {"write", "carries out GPO lines, and tells the output", &ControlTrial::Write},
    {"each-line", "takes a line for each pin, many at once", &ControlTrial::EachLine},
    {"alone", "leaves pins at x alone", &ControlTrial::Alone},
    {"pieces", "takes a line that comes in pieces", &ControlTrial::Pieces},
    {"ignores", "ignores what it can't use", &ControlTrial::Ignores},
    {"burst", "reads without delay", &ControlTrial::Burst},
    {"subscribe", "answers ADD GPI n with GPI n", &ControlTrial::Subscribe},
    {"source", "takes DEL GPI, GPO and ADD GPI, as after a change of source",
     &ControlTrial::Source},
    {"duration", "returns after a duration to the level before, and tells it",
     &ControlTrial::Duration},
    {"overlap", "returns after two durations to the level before the first",
     &ControlTrial::Overlap},
    {"override", "tells the level that was set while a duration ran", &ControlTrial::Override},
    {"again", "sends the configuration on every connection", &ControlTrial::Again},
    {"subscribe-again", "answers ADD GPI n on every connection", &ControlTrial::SubscribeAgain},
    {"kept", "keeps outputs beyond a connection", &ControlTrial::Kept},
    {"away", "ends durations without a connection, and tells it afterwards", &ControlTrial::Away},
    {"second", "serves a connection while an old one is open", &ControlTrial::Second},
    {"inputs", "tells changes of an input", &ControlTrial::Inputs},
    {"subscription", "keeps subscriptions beyond a connection", &ControlTrial::Subscription},
    {"idle", "keeps a silent connection", &ControlTrial::Idle},
    {"lines", "sends lines that the daemon takes as they are meant", &ControlTrial::Lines},
};

}  // namespace

void ExamineControl(const CSvcAddress& server, const ConformSettings& settings,
                    const TellFinding& tell) {
    ControlTrial trial(server, settings);
    bool is_first = true;
    for (const ControlDuty& duty : DUTIES) {
        // The answer to the first connection is examined as it is.
        const bool is_ready = is_first || duty.find == &ControlTrial::Configuration ||
                              duty.find == &ControlTrial::Lines || trial.Prepare();
        is_first = false;
        tell({duty.name, duty.text,
              is_ready ? (trial.*duty.find)()
                       : Outcome{Verdict::NotMet, "a connection", "that it is served",
                                 "no connection since the duty before"}});
    }
    trial.Finish();
}
