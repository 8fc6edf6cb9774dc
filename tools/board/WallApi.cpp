#include "tools/board/WallApi.h"

#include <algorithm>

#include "tools/board/Answers.h"
#include "tools/board/Visit.h"

namespace {

const std::string PATH = "/api/v1/walls";

}  // namespace

bool WallApi::IsFor(const std::string& path) {
    return path.compare(0, PATH.size(), PATH) == 0 &&
           (path.size() == PATH.size() || path[PATH.size()] == '/');
}

HttpResponse WallApi::Handle(const HttpRequest& request) {
    const std::string name = request.path.substr(std::min(PATH.size() + 1, request.path.size()));
    if (request.method == "GET") {
        const Access::Verdict right = m_access.MayReadAny(request);
        return !right.reason.empty() ? Fail(right.status, right.reason)
               : name.empty()        ? List(request)
                                     : Read(name);
    }
    return request.method == "PUT" || request.method == "DELETE"
               ? Change(name, request)
               : Fail(405, "GET reads walls, PUT and DELETE change one");
}

HttpResponse WallApi::List(const HttpRequest& request) const {
    return Answer(Dump({{"now", NowMs()},
                        {"allow_edit", m_access.OffersEdit(request)},
                        {"kept", m_walls.IsInMemory() ? "memory" : "file"},
                        {"problem", m_walls.Problem()},
                        {"walls", m_walls.List()}}) +
                  "\n");
}

HttpResponse WallApi::Read(const std::string& name) const {
    const Json* const wall = m_walls.Find(name);
    return wall == nullptr ? Fail(404, "there is no wall of this name")
                           : Answer(Dump(*wall) + "\n");
}

HttpResponse WallApi::Change(const std::string& name, const HttpRequest& request) {
    const Access::Verdict right = m_access.MayEditWalls(request, Now());
    const std::string& visitor = request.visit->name;
    const std::string who = visitor.empty() ? request.peer : visitor + " (" + request.peer + ")";
    if (!right.reason.empty()) {
        m_board.NoteRefusal(who, right.status == 429 ? "" : right.reason);
        return Fail(right.status, right.reason);
    }
    const Walls::Verdict verdict =
        request.method == "DELETE" ? m_walls.Remove(name)
                                   : m_walls.Save(name, Json::parse(request.body, nullptr, false),
                                                  m_board.GetNames(), who, NowMs());
    if (!verdict.reason.empty()) {
        return Fail(verdict.status, verdict.reason);
    }
    m_stream.Append("wall", Dump({{"name", name}}), Audience::Everyone());
    return request.method == "DELETE" ? Answer(Dump({{"removed", name}}) + "\n") : Read(name);
}
