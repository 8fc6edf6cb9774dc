// Walls: lamps that people have chosen and arranged for a screen.
#pragma once

#include <map>
#include <string>

#include "tools/board/Json.h"
#include "tools/bus/Names.h"

// Each has a name, under which it is kept in a file. What is given is checked; the file and each
// wall are bounded. If the file can't be read, there are no walls and none is kept, so that the
// file stays as it is.
class Walls {
public:
    static constexpr size_t MAX_WALLS = 64;
    static constexpr size_t MAX_LAMPS = 200;
    static constexpr size_t MAX_TEXT = 120;  // bytes

    // Without a file, they are gone with the program.
    explicit Walls(std::string file);

    bool IsInMemory() const { return m_file.empty(); }
    // What is wrong with the file; empty if nothing is.
    const std::string& Problem() const { return m_problem; }

    // What all are called, and who changed them when.
    Json List() const;
    // Null if there is none of that name.
    const Json* Find(const std::string& name) const;

    struct Verdict {
        unsigned status = 200;
        std::string reason;  // empty: it is kept
    };
    // Keeps a wall as it was sent: {"title", "size", "version", "lamps": [{"pin", "label",
    // "color", "level", "on", "off"}]}, size being the lamps in a row. Its version must be that of
    // the wall it replaces, or 0: who has seen an older one is refused.
    Verdict Save(const std::string& name, const Json& sent, const Names& names,
                 const std::string& who, int64_t now);
    Verdict Remove(const std::string& name);

private:
    void Load();
    Verdict Keep(std::map<std::string, Json> walls);

    const std::string m_file;
    std::string m_problem;
    std::map<std::string, Json> m_walls;
};
