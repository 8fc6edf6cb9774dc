// What a bridge remembers about lost links when it is started again.
#pragma once

#include <map>
#include <string>

#include "tools/base/Time.h"

// When the sources of links were last vouched for, by the text of the link. Only of those for which
// nobody vouches now: so a bridge that is killed again and again still knows when a link is lost,
// and writes nothing while all is well.
//
// The times are of a clock that begins with the system. After a restart of the system they seem to
// be of the future: such a link was lost.
class LossFile {
public:
    using Times = std::map<std::string, TimePoint>;

    // A file that does not exist or is malformed contains nothing. Without a name, nothing is kept.
    explicit LossFile(std::string file);

    const Times& Saved() const { return m_saved; }

    // Replaces the file if the times differ from the saved ones, at most once a second. Returns the
    // reason if that fails; then it is not tried again until the times differ.
    std::string Save(const Times& times);

private:
    std::string Write() const;

    const std::string m_file;
    Times m_saved;
    TimePoint m_next{};
};
