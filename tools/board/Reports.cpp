#include "tools/board/Reports.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <stdexcept>

#include "tools/board/Answers.h"
#include "tools/bus/PinName.h"
#include "tools/bus/StateJson.h"

namespace {

const int64_t MINUTE = 60000;
const int64_t LONGEST_DAY = MINUTE * 60 * 26;  // when clocks are put back
const int64_t LAST_TIME = 253402300800000;     // the end of the year 9999
const int64_t FARTHEST_ZONE = 840;             // minutes: 14 hours
const size_t PIN_COST = 200;                   // of the searches for one pin, in rows

int64_t Number(std::string_view text, const char* what) {
    int64_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) {
        throw std::invalid_argument(std::string(what) + " is not a number");
    }
    return number;
}

// "1795561200000,1795647600000": where the first day begins, and where each ends.
std::vector<int64_t> DaysField(const HttpRequest& request) {
    const std::string text = request.Field("days").value_or("");
    std::vector<int64_t> bounds;
    for (std::string_view rest = text; !rest.empty() && bounds.size() <= Reports::MAX_DAYS + 1;) {
        const std::string_view one = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(rest.size(), one.size() + 1));
        const int64_t time = Number(one, "days");
        const bool is_time = time >= 0 && time < LAST_TIME;
        if (!is_time ||
            (!bounds.empty() && (time <= bounds.back() || time - bounds.back() > LONGEST_DAY))) {
            throw std::invalid_argument("days is no list of times, a day apart");
        }
        bounds.push_back(time);
    }
    if (bounds.size() < 2 || bounds.size() > Reports::MAX_DAYS + 1) {
        throw std::invalid_argument("days has no two times, or more than " +
                                    std::to_string(Reports::MAX_DAYS + 1));
    }
    return bounds;
}

// The date of a day in a zone that many minutes east of Greenwich. Its noon is taken, because in
// summer the zone is another one.
std::string DateOf(int64_t from, int64_t until, int64_t offset) {
    const time_t noon = (from + (until - from) / 2 + offset * MINUTE) / 1000;
    tm parts = {};
    char text[32] = {};
    gmtime_r(&noon, &parts);
    strftime(text, sizeof text, "%F", &parts);
    return text;
}

std::string Seconds(int64_t ms) {
    char text[32];
    snprintf(text, sizeof text, "%lld.%03lld", static_cast<long long>(ms / 1000),
             static_cast<long long>(ms % 1000));
    return text;
}

const char* YesNo(bool is) {
    return is ? "yes" : "no";
}

Json PinJson(uint32_t tag, const Names& names) {
    Json json = {{"pin", PinText(tag)}};
    PutBoardNames(json, tag, names);
    return json;
}

std::string PinColumns(uint32_t tag, const Names& names) {
    return PinText(tag) + "," + CsvText(names.NameOf(tag));
}

HttpResponse TableOf(std::string table, const std::string& file, const std::string& next) {
    HttpResponse response = CsvAnswer(std::move(table), file);
    if (!next.empty()) {
        response.headers.emplace_back("X-Orvex-Next", next);
    }
    return response;
}

struct Spell {
    uint32_t tag = 0;
    Stretch time;
    bool from_known = false;  // the change to the level was seen
    bool to_known = false;    // and that from it
};

void AddSpells(uint32_t tag, const std::vector<Stretch>& all, bool low,
               std::vector<Spell>& spells) {
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].low == low) {
            spells.push_back({tag, all[i], i > 0 && all[i - 1].low.has_value(),
                              i + 1 < all.size() && all[i + 1].low.has_value()});
        }
    }
}

Json DayJson(const std::string& date, const LevelTimes& sum) {
    return {{"day", date},
            {"low_ms", sum.low_ms},
            {"high_ms", sum.high_ms},
            {"unknown_ms", sum.unknown_ms},
            {"became_low", sum.became_low},
            {"became_high", sum.became_high}};
}

std::string DayColumns(const LevelTimes& sum) {
    return Seconds(sum.low_ms) + "," + Seconds(sum.high_ms) + "," + Seconds(sum.unknown_ms) + "," +
           std::to_string(sum.became_low) + "," + std::to_string(sum.became_high);
}

Json SpellJson(const Spell& spell, const std::string& level, const Names& names) {
    Json json = PinJson(spell.tag, names);
    json.update({{"level", level},
                 {"from", spell.time.from},
                 {"to", spell.time.until},
                 {"from_known", spell.from_known},
                 {"to_known", spell.to_known},
                 {"who", spell.time.who}});
    return json;
}

std::string SpellColumns(const Spell& spell) {
    const Stretch& time = spell.time;
    return std::to_string(time.from) + "," + std::to_string(time.until) + "," +
           Seconds(time.until - time.from) + "," + YesNo(spell.from_known) + "," +
           YesNo(spell.to_known) + "," + CsvText(time.who);
}

}  // namespace

// ---- searching ----

// Those after the pin `after`, in the order of their tags.
std::vector<uint32_t> Reports::TagsOf(const HttpRequest& request) const {
    const Names& names = m_board.GetNames();
    const std::string pin = request.Field("pin").value_or("");
    if (!pin.empty()) {
        const uint32_t tag = names.ParsePin(pin);
        return m_access.MayRead(request, tag) ? std::vector{tag} : std::vector<uint32_t>();
    }
    const std::string group = request.Field("group").value_or("");
    const std::string after = request.Field("after").value_or("");
    int64_t begin = 0;
    if (!after.empty()) {
        begin = int64_t{names.ParsePin(after)} + 1;
    }
    std::vector<uint32_t> tags;
    m_board.Pins().ForEach([&](uint32_t tag, const PinState&) {
        const bool is_in =
            group.empty() || names.GroupOf(tag) == group || AddressText(tag >> 8) == group;
        if (tag >= begin && is_in && m_access.MayRead(request, tag)) {
            tags.push_back(tag);
        }
    });
    std::sort(tags.begin(), tags.end());
    return tags;
}

std::optional<Reports::Found> Reports::Find(const HttpRequest& request, int64_t from,
                                            int64_t until) {
    const int64_t now = NowMs();
    Found found;
    HistorySearch::Query query;
    query.from = from;
    query.until = std::max(from, std::min(until, now));
    query.limit = HistorySearch::MAX_ROWS;
    m_history.Store(now);  // the latest events are part of the answer
    size_t cost = 0;
    for (const uint32_t tag : TagsOf(request)) {
        if (cost >= MAX_COST) {
            found.next = PinText(found.pins.back().tag);
            break;
        }
        query.tag = tag;
        const std::optional<History::Answer> answer = m_history.Find(query, now);
        if (!answer) {
            return std::nullopt;
        }
        found.pins.push_back({tag, !answer->more, StretchesOf(*answer, from, query.until)});
        found.gaps = answer->gaps;
        cost += PIN_COST + answer->events.size() + answer->gaps.size() + answer->set_backs.size();
    }
    return found;
}

Json Reports::HeadOf(const Found& found) const {
    Json head = {{"now", NowMs()}, {"next", found.next.empty() ? Json() : Json(found.next)}};
    head["gaps"] = Json::array();
    for (const Gap& gap : found.gaps) {
        head["gaps"].push_back(GapJson(gap));
    }
    return head;
}

// ---- answers ----

HttpResponse Reports::Days(const HttpRequest& request) {
    const std::vector<int64_t> bounds = DaysField(request);
    const int64_t offset = Number(request.Field("offset").value_or("0"), "offset");
    if (offset < -FARTHEST_ZONE || offset > FARTHEST_ZONE) {
        throw std::invalid_argument("offset is no time zone");
    }
    const std::optional<Found> found = Find(request, bounds.front(), bounds.back());
    if (!found) {
        return Unreadable(m_history);
    }
    Json json = HeadOf(*found);
    json["pins"] = Json::array();
    std::string csv = "day,pin,name,low_s,high_s,unknown_s,became_low,became_high,complete\r\n";
    for (const Pin& pin : found->pins) {
        Json one = PinJson(pin.tag, m_board.GetNames());
        one["complete"] = pin.is_complete;
        one["days"] = Json::array();
        for (size_t i = 0; i + 1 < bounds.size(); ++i) {
            const LevelTimes sum = SumOf(pin.stretches, bounds[i], bounds[i + 1]);
            const std::string date = DateOf(bounds[i], bounds[i + 1], offset);
            one["days"].push_back(DayJson(date, sum));
            csv += date + "," + PinColumns(pin.tag, m_board.GetNames()) + "," + DayColumns(sum) +
                   "," + YesNo(pin.is_complete) + "\r\n";
        }
        json["pins"].push_back(std::move(one));
    }
    return WantsCsv(request) ? TableOf(std::move(csv), "days.csv", found->next)
                             : Answer(Dump(json) + "\n");
}

HttpResponse Reports::Spells(const HttpRequest& request) {
    const std::string level = request.Field("level").value_or("L");
    const int64_t from = NumberField(request, "from", 0);
    const int64_t until = NumberField(request, "to", NowMs());
    if ((level != "L" && level != "H") || until <= from) {
        throw std::invalid_argument("level is neither L nor H, or to is not after from");
    }
    const std::optional<Found> found = Find(request, from, until);
    if (!found) {
        return Unreadable(m_history);
    }
    std::vector<Spell> spells;
    for (const Pin& pin : found->pins) {
        AddSpells(pin.tag, pin.stretches, level == "L", spells);
    }
    std::stable_sort(spells.begin(), spells.end(),
                     [](const Spell& a, const Spell& b) { return a.time.from < b.time.from; });
    Json json = HeadOf(*found);
    json["complete"] = std::all_of(found->pins.begin(), found->pins.end(),
                                   [](const Pin& pin) { return pin.is_complete; });
    json["spells"] = Json::array();
    std::string csv = "pin,name,level,from,to,duration_s,from_known,to_known,who\r\n";
    for (const Spell& spell : spells) {
        json["spells"].push_back(SpellJson(spell, level, m_board.GetNames()));
        csv += PinColumns(spell.tag, m_board.GetNames()) + "," + level + "," + SpellColumns(spell) +
               "\r\n";
    }
    return WantsCsv(request) ? TableOf(std::move(csv), "spells.csv", found->next)
                             : Answer(Dump(json) + "\n");
}
