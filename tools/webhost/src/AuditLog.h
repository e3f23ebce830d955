// tvc-webd's log sink: every audit event and every failure the library or the host logs is
// kept in a ring of the last 500 events (GET /api/audit shows them) and goes to syslog(3),
// facility authpriv, when the system has a log socket.  Thread-safe: the ring has its mutex,
// and syslog is safe to call from any thread.
#pragma once

#include <usermanagement/Logger.h>

#include <ctime>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

namespace webhost {

class AuditLog : public usermanagement::Logger {
public:
    static constexpr std::size_t kEvents = 500;

    void logMessage(usermanagement::LogCategory category, int messageId, int,
                    const usermanagement::LogSeverity& severity, std::string ip, int, std::string text) override;
    // The events newest first: {time (seconds since 1970), category, id, severity, ip, user, text}.
    nlohmann::json events();

    // The sink of the process; installs it with setLogger on first use.
    static AuditLog& installed();

private:
    struct Event {
        std::time_t time;
        int category;
        int id;
        std::string severity;
        std::string ip;
        std::string user;
        std::string text;
    };
    std::mutex m_mutex;
    std::deque<Event> m_ring;
    bool m_syslog = false;
};

// The host's own events (logins, logouts, sessions ended), in the session category.
void logSessionEvent(const std::string& text);

}  // namespace webhost
