// The board's answers to requests.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "tools/board/Access.h"
#include "tools/board/Board.h"
#include "tools/board/EventStream.h"
#include "tools/board/History.h"
#include "tools/board/Http.h"
#include "tools/board/Login.h"
#include "tools/board/Metrics.h"
#include "tools/board/Reports.h"
#include "tools/board/WallApi.h"

class Api {
public:
    // All must outlive the interface.
    Api(Board& board, History& history, EventStream& stream, Access& access, Login& login,
        Metrics& metrics, Walls& walls);

    HttpResponse Handle(HttpRequest& request);

private:
    Access::Verdict MayRead(const HttpRequest& request) const;
    HttpResponse Pins(const HttpRequest& request) const;
    HttpResponse Devices(const HttpRequest& request) const;
    HttpResponse Channels(const HttpRequest& request) const;
    HttpResponse FindHistory(const HttpRequest& request);
    HttpResponse Follow(const HttpRequest& request) const;
    HttpResponse InOrOut(const HttpRequest& request);
    HttpResponse Set(const HttpRequest& request);
    HttpResponse Refused(const HttpRequest& request, const Access::Verdict& verdict);
    HttpResponse ShowMetrics(const HttpRequest& request) const;
    HttpResponse Health(const HttpRequest& request) const;

    Board& m_board;
    History& m_history;
    EventStream& m_stream;
    Access& m_access;
    Login& m_login;
    Metrics& m_metrics;
    Reports m_reports;
    WallApi m_walls;
    const std::map<std::string, std::function<HttpResponse(const HttpRequest&)>> m_reads;
};
