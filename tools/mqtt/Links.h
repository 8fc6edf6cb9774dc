// Pins of other sites that set pins of this one.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/Time.h"
#include "tools/mqtt/Broker.h"
#include "tools/mqtt/Config.h"
#include "tools/mqtt/LossFile.h"
#include "tools/mqtt/Topics.h"

// Decides the levels of the outputs of the links that end at this site. The bridge of the source's
// site does not know them: it publishes its pins and a heartbeat twice a second.
//
// A source is known while somebody vouches for it: not when this bridge's own heartbeats do not
// come back, those of the source's bridge are missing, or that bridge publishes that it is offline
// or that the pin is not known. A link is lost when its sources have not told its level for that
// long. What an earlier bridge of that site has published counts for nothing.
class Links {
public:
    struct Write {
        uint32_t tag;
        Level level;
        unsigned int duration_ms;
        std::string reason;  // for the log; empty if the source changed
    };

    // With what the bridge that ran before remembered.
    Links(const MqttConfig& config, const LossFile::Times& losses);

    // The topics to subscribe to.
    std::set<std::string> Subscriptions() const;

    // Processes a message that belongs to a link. own_sign is when the last returned heartbeat of
    // this bridge was sent.
    void Take(const Broker::Message& message, TimePoint own_sign);

    // What to write now. Call it after Take(), at NextTime(), and twice a second.
    std::vector<Write> Tend(TimePoint own_sign);
    TimePoint NextTime() const;

    // The links for whose sources nobody vouches, to be remembered.
    const LossFile::Times& Losses() const { return m_losses; }

    // The connection has ended: all knowledge is outdated.
    void Forget();

    // Takes over changed links; those that did not change go on as if nothing had happened. Outputs
    // without a link from now on are written as after a loss.
    std::vector<Write> Reload(const MqttConfig& config);

    // All outputs must be written again: those of an address may have been out of reach.
    void WriteAgain();

    // A write was not carried out, because this bridge stands by.
    void NotWritten(uint32_t tag);

    // Another bridge has driven the outputs until now: nothing is taken for lost for that many
    // seconds, in which this bridge's own pins are published, and heartbeats come in their time.
    void BePatient(double seconds) { m_patience = After(seconds); }

    // While this bridge does not know who drives the outputs, somebody else has written this one:
    // it is left alone until Resume(), when this bridge knows that it does.
    void Overrule(uint32_t tag);
    void Resume();

    // A device reports that level of an output.
    void Told(uint32_t tag, Level level);

    // A device answers high for an output that was written low: it may not know, or it was not
    // ready for the write.
    void Denied(uint32_t tag);

    // Everything is written as after a loss, because the bridge ends.
    std::vector<Write> End();

    // Which pins caused the state of this one; empty if no link did.
    std::vector<std::string> ViaOf(uint32_t tag, std::optional<Level> level) const;

    // Why the link to that output gives it its level, for a person: each source, and why it is not
    // known, empty if it is; and what they make of the output, none if they do not tell it.
    struct Reason {
        std::vector<std::pair<SitePin, std::string>> sources;
        std::optional<Level> level;
    };
    Reason ReasonOf(const SitePin& output, TimePoint own_sign) const;

    // How many are lost, unknown but not for long enough to be lost, and followed.
    std::map<std::string, size_t> CountByState() const;

    // Texts for the log; the caller clears them.
    std::vector<std::string>& Notes() { return m_notes; }

private:
    struct Source {
        SitePin pin;
        std::string topic;
        TimePoint good;              // when somebody last vouched for it
        std::optional<Level> level;  // none: not known
        uint32_t bridge = 0;         // the number of who published it
        std::vector<std::string> via;
        bool loops = false;
    };
    struct Link {
        LinkConfig config;
        TimePoint good;  // when its level was last known
        std::vector<Source> sources;
        bool edge = false;           // a pulse is due
        std::optional<Level> value;  // the last one
        TimePoint value_since{};
        std::optional<Level> shown;  // what the output was last set to
        TimePoint shown_since{};
        TimePoint due = TimePoint::max();  // when it may be set to the value
        bool lost = false;
        bool is_overruled = false;
        std::optional<Level> applied;  // none: nothing, or it must be written again
        TimePoint written{};
        int doubts = 0;  // how often the level was denied and written again
        TimePoint again = TimePoint::max();
    };
    struct Site {
        bool online = false;
        bool was_seen = false;  // has ever published a status
        uint32_t bridge = 0;    // the number of who is alive
        TimePoint sign{};       // its last heartbeat
        bool is_late = false;   // what arrives after a pause may have waited somewhere
        bool is_paced = false;  // heartbeats arrive as they were sent: nothing has waited
    };

    void Build(const MqttConfig& config, const LossFile::Times& losses);
    static void Keep(const Link& before, Link& link);
    static void TakeSite(Site& site, const Topics& topics, const Broker::Message& message);
    static void TakeSign(Site& site, const Sign& sign);
    void TakeState(Link& link, Source& source, const Broker::Message& message, TimePoint own_sign);
    void TakeSource(const Link& link, Source& source, const Broker::Message& message);
    bool IsKnown(const Source& source, TimePoint own_sign) const;
    std::optional<Level> ValueOf(const Link& link, TimePoint own_sign) const;
    std::string TroubleOf(const Source& source) const;
    void Vouch(Link& link, TimePoint own_sign);
    void NoteLoss(const Link& link, TimePoint own_sign);
    void TendLink(Link& link, TimePoint own_sign, std::vector<Write>& writes);
    static bool IsDue(Link& link, Level value);
    void Apply(Link& link, Level level, const std::string& reason, std::vector<Write>& writes);

    const std::string m_prefix;
    std::vector<Link> m_links;
    std::map<std::string, Site> m_sites;
    LossFile::Times m_losses;
    TimePoint m_patience{};
    std::vector<std::string> m_notes;
};
