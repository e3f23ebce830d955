// umctl's log sink.  Every audit event and every failure the library logs becomes one line on
// standard error, in a format meant to be read by scripts as well as by people:
//
//     umctl: log: category=8 id=1 severity=notice ip="cli" user="root" text="User account - created <carol>"
//
// The fields are always present and in this order.  The numbers and the severity name are bare
// words; ip, user and text, which carry names from the command line and the account files, are
// double-quoted strings (quoted()): a backslash or a quote in them gets a backslash, a newline,
// tab or carriage return becomes \n, \t or \r, any other control character \xHH.  So one message
// is always one line, and a blank, a quote or "text=" in a name can neither split a field nor
// add one: outside the quotes a line holds exactly the six keys.  The same line without the
// "umctl: log: " prefix goes to syslog(3), facility authpriv, when the system has a log socket:
// account changes belong in the device's security log.
#include <sys/stat.h>
#include <syslog.h>

#include <iostream>
#include <sstream>
#include <string>

#include <umlog/Ctx.h>
#include <usermanagement/Logger.h>

#include "Command.h"
#include "hostlog/Severity.h"

namespace umctl {

namespace {

using usermanagement::LogCategory;
using usermanagement::LogSeverity;

constexpr const char* kLogSocket = "/dev/log";

using tvc::hostlog::severityName;
using tvc::hostlog::syslogPriority;

class AuditSink : public usermanagement::Logger {
public:
    void logMessage(LogCategory category, int messageId, int, const LogSeverity& severity, std::string ip, int,
                    std::string text) override {
        std::ostringstream line;
        line << "category=" << static_cast<int>(category) << " id=" << messageId
             << " severity=" << severityName(severity) << " ip=" << quoted(ip)
             << " user=" << quoted(umlog::Ctx::getCtx().getUsername()) << " text=" << quoted(text);
        std::cerr << "umctl: log: " << line.str() << "\n";
        if (m_syslog) syslog(syslogPriority(severity), "%s", line.str().c_str());
    }

    void open() {
        struct stat status {};
        m_syslog = stat(kLogSocket, &status) == 0 && S_ISSOCK(status.st_mode);
        if (m_syslog) openlog("umctl", LOG_PID, LOG_AUTHPRIV);
    }

private:
    bool m_syslog = false;
};

}  // namespace

void installAuditSink() {
    static AuditSink sink;
    sink.open();
    sink.setLogger(sink);
}

}  // namespace umctl
