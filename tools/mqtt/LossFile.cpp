#include "tools/mqtt/LossFile.h"

#include <fstream>
#include <sstream>

#include "tools/base/ReplaceFile.h"

namespace {

const double SAVE_EVERY = 1;  // seconds

using Milliseconds = std::chrono::milliseconds;

}  // namespace

LossFile::LossFile(std::string file) : m_file(std::move(file)) {
    std::ifstream in(m_file);
    long long ms = 0;
    for (std::string link; in >> ms && std::getline(in >> std::ws, link);) {
        const TimePoint time{Milliseconds(ms)};
        m_saved[link] = time > Now() ? TimePoint() : time;
    }
}

std::string LossFile::Save(const Times& times) {
    if (m_file.empty() || times == m_saved || Now() < m_next) {
        return {};
    }
    m_next = After(SAVE_EVERY);
    m_saved = times;
    return Write();
}

std::string LossFile::Write() const {
    std::ostringstream out;
    for (const auto& [link, time] : m_saved) {
        const auto since = std::chrono::duration_cast<Milliseconds>(time.time_since_epoch());
        out << since.count() << ' ' << link << '\n';
    }
    return ReplaceFile(m_file, out.str(), Lasts::Briefly);
}
