#include "tools/board/Api.h"

#include <set>
#include <stdexcept>

#include "protocol/numbers.h"
#include "tools/board/Answers.h"
#include "tools/board/Json.h"
#include "tools/board/Pages.h"
#include "tools/board/Visit.h"
#include "tools/bus/Escape.h"
#include "tools/bus/PinName.h"

namespace {

const size_t MAX_WHO = 64;

std::string CsvOf(const History::Answer& answer, const Names& names) {
    std::string csv = "id,time,kind,pin,name,level,duration,host,text\r\n";
    for (const Event& event : answer.events) {
        csv += std::to_string(event.id) + "," + std::to_string(event.time) + "," +
               KindText(event.kind) + "," + (event.tag ? PinText(*event.tag) : "") + "," +
               (event.tag ? CsvText(names.NameOf(*event.tag)) : "") + "," +
               (event.low ? *event.low ? "L" : "H" : "") + "," +
               (event.duration != 0 ? std::to_string(event.duration) : "") + "," +
               CsvText(event.host) + "," + CsvText(event.text) + "\r\n";
    }
    return csv;
}

// What a visitor looks for in the history; null for everything.
std::function<bool(const Event&)> FilterOf(const HttpRequest& request, const Names& names) {
    const std::string kind = request.Field("kind").value_or("");
    const std::string level = request.Field("level").value_or("");
    const std::string who = request.Field("who").value_or("");
    const std::string group = request.Field("group").value_or("");
    if (kind.empty() && level.empty() && who.empty() && group.empty()) {
        return nullptr;
    }
    return [=, &names](const Event& event) {
        const bool in_group =
            group.empty() || (event.tag && (names.GroupOf(*event.tag) == group ||
                                            AddressText(*event.tag >> 8) == group));
        return in_group && (kind.empty() || kind == KindText(event.kind)) &&
               (level.empty() || (event.low && *event.low == (level == "L"))) &&
               event.host.find(who) != std::string::npos;
    };
}

// Of what is about no pin, those who may read some pins get what tells when nothing was heard.
void KeepToReadable(const HttpRequest& request, const Access& access, History::Query& query) {
    if (access.MayReadAll(request).reason.empty()) {
        return;
    }
    if (query.tag && !access.MayRead(request, *query.tag)) {
        throw std::invalid_argument("that pin may not be read");
    }
    query.fits = [&request, &access, asked = query.fits](const Event& event) {
        const bool readable = event.tag ? access.MayRead(request, *event.tag)
                                        : event.kind == EventKind::GapBegin ||
                                              event.kind == EventKind::GapEnd ||
                                              event.kind == EventKind::ClockSetBack;
        return readable && (!asked || asked(event));
    };
}

}  // namespace

Api::Api(Board& board, History& history, EventStream& stream, Access& access, Login& login,
         Metrics& metrics, Walls& walls)
    : m_board(board),
      m_history(history),
      m_stream(stream),
      m_access(access),
      m_login(login),
      m_metrics(metrics),
      m_reports(board, history, access),
      m_walls(walls, board, stream, access),
      m_reads({{"/api/v1/pins", [this](const HttpRequest& r) { return Pins(r); }},
               {"/api/v1/devices", [this](const HttpRequest& r) { return Devices(r); }},
               {"/api/v1/channels", [this](const HttpRequest& r) { return Channels(r); }},
               {"/api/v1/history", [this](const HttpRequest& r) { return FindHistory(r); }},
               {"/api/v1/days", [this](const HttpRequest& r) { return m_reports.Days(r); }},
               {"/api/v1/spells", [this](const HttpRequest& r) { return m_reports.Spells(r); }},
               {"/api/v1/events", [this](const HttpRequest& r) { return Follow(r); }},
               {"/metrics", [this](const HttpRequest& r) { return ShowMetrics(r); }},
               {"/healthz", [this](const HttpRequest& r) { return Health(r); }}}) {}

// Those who may read some pins get what these choose for them, and nothing else.
Access::Verdict Api::MayRead(const HttpRequest& request) const {
    static const std::set<std::string> CHOOSE = {"/api/v1/pins", "/api/v1/history", "/api/v1/days",
                                                 "/api/v1/spells", "/api/v1/events"};
    return request.path == "/healthz"        ? Access::Verdict{}
           : CHOOSE.count(request.path) != 0 ? m_access.MayReadAny(request)
                                             : m_access.MayReadAll(request);
}

HttpResponse Api::Handle(HttpRequest& request) {
    request.visit = m_access.VisitOf(request);
    if (!m_access.IsKnownHost(request.Header("host"))) {
        return Fail(421, "the Host is not a name of this board (--host)");
    }
    if (request.path == "/api/v1/set") {
        return request.method == "POST" ? Set(request) : Fail(405, "only POST sets");
    }
    if (request.path == "/api/v1/login" || request.path == "/api/v1/logout") {
        return InOrOut(request);
    }
    const auto read = m_reads.find(request.path);
    if (read != m_reads.end()) {
        const Access::Verdict verdict = MayRead(request);
        if (!verdict.reason.empty()) {
            return Fail(verdict.status, verdict.reason);
        }
    }
    try {
        if (WallApi::IsFor(request.path)) {
            return m_walls.Handle(request);
        }
        if (request.method != "GET") {
            return Fail(405, "only GET reads");
        }
        return read != m_reads.end() ? read->second(request) : ServePage(request);
    } catch (const std::invalid_argument& error) {
        return Fail(400, error.what());
    }
}

HttpResponse Api::InOrOut(const HttpRequest& request) {
    if (!m_access.HasUsers()) {
        return Fail(404, "this board has no users (--users)");
    }
    if (request.method != "POST") {
        return Fail(405, "only POST logs in or out");
    }
    return request.path == "/api/v1/login" ? m_login.LogIn(request, Now())
                                           : m_login.LogOut(request);
}

HttpResponse Api::Pins(const HttpRequest& request) const {
    std::string pins;
    const bool whole = m_access.MayReadAll(request).reason.empty();
    std::set<uint32_t> addresses;  // with pins that may be read
    Json settable = Json::array();
    m_board.Pins().ForEach([&](uint32_t tag, const PinState& state) {
        if (m_access.MayRead(request, tag)) {
            pins += (pins.empty() ? "" : ",\n") + m_board.TextOf(tag, state);
            addresses.insert(tag >> 8);
            if (m_access.ListsSettable(request) &&
                m_access.MaySetPin(request, tag).reason.empty()) {
                settable.push_back(PinText(tag));
            }
        }
    });
    Json head;
    head["stream"] = m_stream.IdBefore(m_stream.Next());
    head["now"] = NowMs();
    head["board"] = m_board.StatusJson();
    head["allow_set"] = m_access.OffersSet(request);
    if (m_access.HasUsers()) {
        head["me"] = m_access.JsonOf(request);
        head["me"]["set"] = m_access.ListsSettable(request) ? settable : Json(nullptr);
    }
    head["groups"] = Json::array();
    for (const Names::Entry& entry : m_board.GetNames().All()) {
        if (!entry.pins.circuit && (whole || addresses.count(entry.pins.address) != 0)) {
            head["groups"].push_back({{"address", AddressText(entry.pins.address)},
                                      {"name", entry.name},
                                      {"title", entry.text}});
        }
    }
    std::string body = Dump(head);
    body.back() = ',';
    return Answer(body + "\"pins\":[" + pins + "]}\n");
}

HttpResponse Api::Devices(const HttpRequest&) const {
    Json devices = Json::array();
    for (const auto& one : m_board.Follower().Devices()) {
        devices.push_back(m_board.DeviceJsonOf(one.first));
    }
    Json bounds = Json::array();
    for (const double seconds : Histogram::BOUNDS) {
        bounds.push_back(seconds * 1000);
    }
    return Answer(Dump({{"now", NowMs()}, {"bounds_ms", bounds}, {"devices", devices}}) + "\n");
}

HttpResponse Api::Channels(const HttpRequest&) const {
    const ControlServer& control = m_board.Control();
    if (!control.IsFollowed()) {
        return Fail(404, "this board follows no control server (-r)");
    }
    Json channels = Json::array();
    for (int number = 1; number <= CHANNEL_COUNT; ++number) {
        channels.push_back(ChannelJson(number, control.Channel(number)));
    }
    return Answer(Dump({{"address", control.Address()},
                        {"problem", control.Problem()},
                        {"channels", channels}}) +
                  "\n");
}

HttpResponse Api::FindHistory(const HttpRequest& request) {
    History::Query query;
    query.fits = FilterOf(request, m_board.GetNames());
    const std::string pin = request.Field("pin").value_or("");
    if (!pin.empty()) {
        query.tag = m_board.GetNames().ParsePin(pin);
    }
    query.from = NumberField(request, "from", query.from);
    query.until = NumberField(request, "to", query.until);
    query.before_id = NumberField(request, "before", query.before_id);
    const int64_t limit = NumberField(request, "limit", query.limit);
    query.limit = static_cast<unsigned>(std::min<int64_t>(limit, HistorySearch::MAX_ROWS));
    KeepToReadable(request, m_access, query);
    m_history.Store(NowMs());  // the latest events are part of the answer
    const std::optional<History::Answer> found = m_history.Find(query, NowMs());
    if (!found) {
        return Unreadable(m_history);
    }
    const History::Answer& answer = *found;
    if (WantsCsv(request)) {
        return CsvAnswer(CsvOf(answer, m_board.GetNames()), "history.csv");
    }
    Json head = {{"now", NowMs()}, {"more", answer.more}, {"last", answer.last_id}};
    head["earlier"] = answer.earlier ? EventJson(*answer.earlier, m_board.GetNames()) : Json();
    head["gaps"] = Json::array();
    for (const Gap& gap : answer.gaps) {
        head["gaps"].push_back(GapJson(gap));
    }
    head["set_back"] = Json::array();
    for (const Event& event : answer.set_backs) {
        head["set_back"].push_back({{"time", event.time}, {"by", event.duration}});
    }
    std::string body = Dump(head);
    body.back() = ',';
    body += "\"events\":[";
    const char* separator = "";
    for (const Event& event : answer.events) {
        body += separator + Dump(EventJson(event, m_board.GetNames()));
        separator = ",\n";
    }
    return Answer(body + "]}\n");
}

HttpResponse Api::Follow(const HttpRequest& request) const {
    HttpResponse response;
    response.type = "text/event-stream";
    response.headers = {{"Cache-Control", "no-store"}, {"X-Accel-Buffering", "no"}};
    response.body = "retry: 1000\n\n";
    std::string last = request.Header("last-event-id");
    last = last.empty() ? request.Field("after").value_or("") : last;
    uint64_t from = m_stream.Next();
    if (!last.empty() && !m_stream.Resume(last, from)) {
        response.body += "id: " + m_stream.IdBefore(from) +
                         "\nevent: reload\ndata: {\"reason\":\"what was missed is no longer "
                         "kept\"}\n\n";
    }
    response.follow = from;
    response.takes = m_access.FilterOf(request);
    response.visit = request.visit;
    return response;
}

HttpResponse Api::Refused(const HttpRequest& request, const Access::Verdict& verdict) {
    const std::string& name = request.visit->name;
    m_board.NoteRefusal(name.empty() ? request.peer : name + " (" + request.peer + ")",
                        verdict.status == 429 ? "" : verdict.reason);
    return Fail(verdict.status, verdict.reason);
}

HttpResponse Api::Set(const HttpRequest& request) {
    const Access::Verdict verdict = m_access.MaySet(request, Now());
    if (!verdict.reason.empty()) {
        return Refused(request, verdict);
    }
    const auto body = nlohmann::json::parse(request.body, nullptr, false);
    const auto text = [&](const char* name) {
        return body.is_object() && body.contains(name) && body[name].is_string()
                   ? body[name].get<std::string>()
                   : std::string();
    };
    const std::string level = text("level");
    const bool timed = body.is_object() && body.contains("duration");
    if ((level != "L" && level != "H") || (timed && !body["duration"].is_number_unsigned()) ||
        (timed && body["duration"].get<uint64_t>() > LONGEST_PULSE_MS)) {
        return Fail(400, "a pin, a level L or H, and no duration or one of 0 to " +
                             std::to_string(LONGEST_PULSE_MS) + " ms are needed");
    }
    uint32_t tag = 0;
    try {
        tag = m_board.GetNames().ParsePin(text("pin"));
    } catch (const std::invalid_argument& error) {
        return Fail(400, error.what());
    }
    if (!IsNamedPin(tag) || IsInput(tag)) {
        return Fail(400, PinText(tag) + " is no output");
    }
    const Access::Verdict pin_verdict = m_access.MaySetPin(request, tag);
    if (!pin_verdict.reason.empty()) {
        return Refused(request, pin_verdict);
    }
    const std::string& name = request.visit->name;
    const std::string who = EscapeBytes(name.empty() ? text("who").substr(0, MAX_WHO) : name);
    const WriteValue value(level == "L" ? Level::Low : Level::High,
                           timed ? body["duration"].get<unsigned long>() : 0);
    if (!m_board.Set(tag, value, who.empty() ? request.peer : who + " (" + request.peer + ")")) {
        return Fail(503, "it could not be sent to the bus");
    }
    HttpResponse response = Answer(
        Dump({{"sent", PinText(tag)}, {"level", level}, {"duration", value.Duration()}}) + "\n");
    response.status = 202;
    return response;
}

HttpResponse Api::ShowMetrics(const HttpRequest& request) const {
    MetricsText text(MetricsText::WantsOpen(request.Header("accept")));
    m_metrics.Write(text);
    HttpResponse response = Answer(text.Text());
    response.type = text.Type();
    return response;
}

// Everyone may know whether all is well, and the reasons those who may read everything.
HttpResponse Api::Health(const HttpRequest& request) const {
    const std::vector<std::string> complaints = m_board.Complaints();
    if (!m_access.MayReadAll(request).reason.empty()) {
        HttpResponse response = Answer(Dump({{"healthy", complaints.empty()}}) + "\n");
        response.status = complaints.empty() ? 200 : 503;
        return response;
    }
    HttpResponse response =
        Answer(Dump({{"healthy", complaints.empty()},
                     {"complaints", complaints},
                     {"history", m_history.Problem().empty() ? "ok" : m_history.Problem()}}) +
               "\n");
    response.status = complaints.empty() ? 200 : 503;
    return response;
}
