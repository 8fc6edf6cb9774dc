#include "tests/world/Writer.h"

#include "msg/Message.h"
#include "net/SvcAddress.h"

// The client is constructed while the writer is the one running, since it asks for the time.
Writer::Writer(World& world, uint32_t ip) : Peer(ip), m_World(world), m_Stack(524288) {
    m_World.running = this;
    // cppcheck-suppress useInitializationList
    m_Client = std::make_unique<CRUdpLayer3Client>(static_cast<unsigned short>(0), 1000UL);
    m_Client->Open(nullptr, nullptr);
    getcontext(&m_Here);
    m_Here.uc_stack.ss_sp = m_Stack.data();
    m_Here.uc_stack.ss_size = m_Stack.size();
    m_Here.uc_link = nullptr;
    makecontext(&m_Here, Run, 0);
    s_Starting = this;
    Resume();
}

Writer::~Writer() {
    m_World.running = this;
    m_Client.reset();
    m_World.running = nullptr;
}

void Writer::Give(const std::string& message, const Endpoint& to) {
    if (m_Message.empty()) {
        m_World.Event("reliable message");
        m_Message = message;
        m_To = to;
        Resume();
    }
}

void Writer::Sends(const std::string& packet) {
    const bool is_first = m_Attempts.empty();
    const std::string head = packet.substr(0, 8);
    if (is_first ? head == m_Packet.substr(0, 8) || head.substr(0, 4) != std::string("\3M\2\7")
                 : packet != m_Packet) {
        m_World.Differ("one packet for all attempts, of a number of its own", "another");
    }
    m_Packet = packet;
    m_Attempts.push_back(m_World.Now());
}

void Writer::Arrived(const Endpoint& from, const std::string& bytes) {
    if (m_Message.empty()) {
        return;
    }
    if (m_Answered < 0 && IsAnswer(from, bytes)) {
        m_Answered = m_World.Now();
        m_IsRefused = bytes[1] == 'N';
    }
    m_World.After(0, [this, wait = m_Waits] {
        if (wait == m_Waits && !m_Message.empty()) {
            Resume();
        }
    });
}

bool Writer::IsAnswer(const Endpoint& from, const std::string& bytes) const {
    return (m_To.ip == GROUP ? from.port == m_To.port : from == m_To) && bytes.size() >= 8 &&
           bytes[3] == 7 && (bytes[1] == 'A' || bytes[1] == 'N') &&
           bytes.substr(4, 4) == m_Packet.substr(4, 4);
}

bool Writer::Wait(int fd, Micros limit) {
    if (!m_World.IsReadable(fd) && limit != 0) {
        m_World.After(limit, [this, wait = ++m_Waits] {
            if (wait == m_Waits) {
                Resume();
            }
        });
        Pause();
        ++m_Waits;
    }
    return m_World.IsReadable(fd);
}

void Writer::Run() {
    for (Writer* const self = s_Starting;;) {
        self->Pause();
        self->SendOne();
    }
}

void Writer::Resume() {
    m_World.running = this;
    swapcontext(&m_There, &m_Here);
    m_World.running = nullptr;
}

void Writer::SendOne() {
    CMessage message(16, 16);
    message.SetData(m_Message.data(), m_Message.size());
    m_Attempts.clear();
    m_Answered = -1;
    const bool is_sent =
        m_Client->SendMsg({m_To.ip, m_To.port}, &message, CRUdpLayer3Client::MESSAGE);
    Count(is_sent);
    Check(is_sent);
    CheckTimes();
    m_Message.clear();
}

void Writer::Count(bool is_sent) const {
    m_World.Count("owed: reliable messages");
    m_World.Count(is_sent           ? "kept: reliable messages acknowledged"
                  : m_Answered >= 0 ? "kept: reliable messages refused"
                                    : "lost: reliable message, no answer in time");
}

// The first answer decides, at once.
void Writer::Check(bool is_sent) const {
    const bool is_answered = m_Answered >= 0;
    if (is_sent != (is_answered && !m_IsRefused) || (is_answered && m_Answered != m_World.Now())) {
        m_World.Differ(!is_answered  ? "no success without an answer"
                       : m_IsRefused ? "no success, as soon as a refusal arrives"
                                     : "success, as soon as an acknowledgement arrives",
                       is_sent ? "success" : "no success");
    }
}

// Attempts are 62, 124 and 248 ms apart, to the millisecond, until an answer arrives or until
// 566 ms after the last.
void Writer::CheckTimes() const {
    const Micros TIMES[] = {62 * MS, 124 * MS, 248 * MS, 566 * MS};
    const bool is_answered = m_Answered >= 0;
    if (m_Attempts.size() > 4 || (!is_answered && m_Attempts.size() != 4)) {
        m_World.Differ("4 attempts", std::to_string(m_Attempts.size()));
    }
    for (size_t i = 0; i < m_Attempts.size(); ++i) {
        const bool is_last = i + 1 == m_Attempts.size();
        const Micros time = (is_last ? m_World.Now() : m_Attempts[i + 1]) - m_Attempts[i];
        if (time >= TIMES[i] + MS || (time < TIMES[i] && !(is_last && is_answered))) {
            m_World.Differ(words("an attempt for", TIMES[i], "us"), words(time, "us"));
        }
    }
}
