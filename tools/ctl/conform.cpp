// conform: which of its duties somebody's server or peer meets.

#include <nlohmann/json.hpp>

#include "tools/base/LineBuffer.h"
#include "tools/bus/Interface.h"
#include "tools/conform/Conform.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"

namespace {

const double PEER_SECONDS = 10;

struct VerdictName {
    const char* json;
    const char* text;
    const char* tap;
};

// In the order of Verdict.
const VerdictName VERDICTS[] = {
    {"met", "met", "ok"}, {"not met", "NOT MET", "not ok"}, {"not tried", "not tried", "ok"}};

// Prints findings as they come, and counts them.
class Report {
public:
    Report(const Options& options, Output& output) : m_options(options), m_output(output) {}

    void Take(const DutyFinding& finding) {
        const auto verdict = static_cast<size_t>(finding.outcome.verdict);
        ++m_counts[verdict];
        if (m_options.json) {
            PrintJson(finding, VERDICTS[verdict]);
        } else if (m_options.tap) {
            PrintTap(finding, VERDICTS[verdict]);
        } else if (!m_options.console.quiet || finding.outcome.verdict == Verdict::NotMet) {
            PrintText(finding, VERDICTS[verdict]);
        }
    }

    int Finish() {
        if (m_options.tap && !m_options.json) {
            m_output.Write("1.." + std::to_string(m_counts[0] + m_counts[1] + m_counts[2]) + "\n");
        }
        m_options.console.Note("duties met: " + std::to_string(m_counts[0]) +
                               ", not met: " + std::to_string(m_counts[1]) +
                               ", not tried: " + std::to_string(m_counts[2]));
        return m_counts[1] > 0 ? STATUS_FAILED : m_counts[0] > 0 ? STATUS_DONE : STATUS_NO_ANSWER;
    }

private:
    void PrintJson(const DutyFinding& finding, const VerdictName& name) {
        const Outcome& outcome = finding.outcome;
        const nlohmann::ordered_json json = {
            {"duty", finding.duty}, {"text", finding.text},         {"verdict", name.json},
            {"sent", outcome.sent}, {"expected", outcome.expected}, {"seen", outcome.seen}};
        m_output.Write(json.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace) + "\n");
    }

    void PrintTap(const DutyFinding& finding, const VerdictName& name) {
        const Outcome& outcome = finding.outcome;
        std::string text = std::string(name.tap) + " - " + finding.duty + ": " + finding.text;
        if (outcome.verdict == Verdict::NotTried) {
            text += " # SKIP " + Printable(outcome.seen);
        }
        m_output.Write(text + "\n");
        PrintDetails(outcome, "# ");
    }

    void PrintText(const DutyFinding& finding, const VerdictName& name) {
        std::string heading = name.text;
        heading.resize(11, ' ');
        heading += finding.duty;
        heading.resize(28, ' ');
        const Outcome& outcome = finding.outcome;
        m_output.WriteLine(
            heading + finding.text +
                (outcome.verdict == Verdict::NotTried ? " (" + Printable(outcome.seen) + ")" : ""),
            heading.size());
        PrintDetails(outcome, "");
    }

    void PrintDetails(const Outcome& outcome, const std::string& mark) {
        if (outcome.verdict != Verdict::NotMet) {
            return;
        }
        const std::pair<const char*, const std::string&> parts[] = {
            {"sent:     ", outcome.sent},
            {"expected: ", outcome.expected},
            {"seen:     ", outcome.seen}};
        for (const auto& [heading, text] : parts) {
            if (!text.empty()) {
                m_output.WriteLine(mark + "           " + heading + Printable(text),
                                   mark.size() + 21);
            }
        }
    }

    const Options& m_options;
    Output& m_output;
    int m_counts[3] = {};
};

void Examine(const Options& options, const TellFinding& tell) {
    const ConformSettings settings = {options.bus.wait, options.seconds.value_or(0)};
    if (options.role == "control") {
        ExamineControl(options.tqrd, settings, tell);
    } else if (options.role == "remote") {
        ExamineRemote(options.tqrd, options.input, settings, tell);
    } else {
        ExaminePeer(options.bus, {settings.wait, options.seconds.value_or(PEER_SECONDS)}, tell);
    }
}

}  // namespace

int RunConform(const Options& options) {
    Output output(options);
    Report report(options, output);
    try {
        Examine(options, [&](const DutyFinding& finding) { report.Take(finding); });
    } catch (const NobodyThere& nobody) {
        const bool is_peer = options.role == "peer";
        const CSvcAddress& server = options.tqrd;
        throw Failure(is_peer || nobody.error == ETIMEDOUT ? STATUS_NO_ANSWER : STATUS_FAILED,
                      is_peer ? nobody.what()
                              : "can't connect to " +
                                    HostText(static_cast<uint32_t>(server.GetHost())) + ":" +
                                    std::to_string(server.GetPort()) + ": " + nobody.what());
    }
    return report.Finish();
}
