// Why the bus can't be used.
#pragma once

#include <stdexcept>
#include <string>

// The text is a complete reason for people: "not sent: Network is unreachable".
class BusError : public std::runtime_error {
public:
    enum class Kind { Failed, NoAcknowledgement };

    explicit BusError(const std::string& reason, Kind kind = Kind::Failed)
        : std::runtime_error(reason), m_kind(kind) {}

    Kind GetKind() const { return m_kind; }

private:
    Kind m_kind;
};
