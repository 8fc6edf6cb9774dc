// Requests about walls.
#pragma once

#include <string>

#include "tools/board/Access.h"
#include "tools/board/Board.h"
#include "tools/board/EventStream.h"
#include "tools/board/Http.h"
#include "tools/board/Walls.h"

// Who may read some pins may read walls, which tell no levels. Viewers are told of each change.
class WallApi {
public:
    // All must outlive it.
    WallApi(Walls& walls, Board& board, EventStream& stream, Access& access)
        : m_walls(walls), m_board(board), m_stream(stream), m_access(access) {}

    static bool IsFor(const std::string& path);
    // Throws std::invalid_argument.
    HttpResponse Handle(const HttpRequest& request);

private:
    HttpResponse List(const HttpRequest& request) const;
    HttpResponse Read(const std::string& name) const;
    HttpResponse Change(const std::string& name, const HttpRequest& request);

    Walls& m_walls;
    Board& m_board;
    EventStream& m_stream;
    Access& m_access;
};
