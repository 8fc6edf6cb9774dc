// An open file descriptor with an owner.
#pragma once

#include <unistd.h>

#include <utility>

// Closes the descriptor in its destructor. Moved, not copied.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() { Close(); }
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }

    void Close() {
        if (IsOpen()) {
            close(std::exchange(m_fd, -1));
        }
    }

private:
    int m_fd;
};
