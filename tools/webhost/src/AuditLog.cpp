#include "AuditLog.h"

#include <sys/stat.h>
#include <syslog.h>
#include <umlog/Ctx.h>

#include "hostlog/Severity.h"

namespace webhost {

using usermanagement::LogCategory;
using usermanagement::LogSeverity;

namespace {

using tvc::hostlog::severityName;
using tvc::hostlog::syslogPriority;

// Message ids of the host's events, above the library's.
constexpr int kSessionEvent = 900;

// One line for syslog: the fields a reader needs, control characters replaced so that one
// event stays one line whatever bytes a name holds.
std::string oneLine(std::string text) {
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return text;
}

}  // namespace

void AuditLog::logMessage(LogCategory category, int messageId, int, const LogSeverity& severity, std::string ip, int,
                          std::string text) {
    Event event{std::time(nullptr), static_cast<int>(category),         messageId,      severityName(severity),
                std::move(ip),      umlog::Ctx::getCtx().getUsername(), std::move(text)};
    if (m_syslog)
        syslog(syslogPriority(severity), "category=%d id=%d ip=%s user=%s text=%s", event.category, event.id,
               oneLine(event.ip).c_str(), oneLine(event.user).c_str(), oneLine(event.text).c_str());
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_ring.push_back(std::move(event));
    if (m_ring.size() > kEvents) m_ring.pop_front();
}

nlohmann::json AuditLog::events() {
    nlohmann::json list = nlohmann::json::array();
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_ring.rbegin(); it != m_ring.rend(); ++it)
        list.push_back({{"time", it->time},
                        {"category", it->category},
                        {"id", it->id},
                        {"severity", it->severity},
                        {"ip", it->ip},
                        {"user", it->user},
                        {"text", it->text}});
    return list;
}

AuditLog& AuditLog::installed() {
    static AuditLog* sink = [] {
        static AuditLog log;
        struct stat status {};
        log.m_syslog = stat("/dev/log", &status) == 0 && S_ISSOCK(status.st_mode);
        // Connected now, as root: a worker acting as an account logs through the open socket.
        if (log.m_syslog) openlog("tvc-webd", LOG_PID | LOG_NDELAY, LOG_AUTHPRIV);
        log.setLogger(log);
        return &log;
    }();
    return *sink;
}

void logSessionEvent(const std::string& text) {
    usermanagement::Logger::GetLogger().logMessage(LogCategory::Session, kSessionEvent, 0, LogSeverity::Notice,
                                                   umlog::Ctx::getCtx().getIp(), 0, text);
}

}  // namespace webhost
