// The process-wide log sink.  The library writes no log of its own: audit events and the
// failures a host asks to log are handed to the installed sink.  The built-in sink discards;
// a host derives from Logger, overrides logMessage and installs its object with setLogger.
// The text the library passes is always one line: names and messages in it may hold anything,
// so every control character is written out (\n, \t, \r, or \xHH for the other bytes
// 0x00-0x1f and 0x7f) and a backslash is written \\, which makes the escaping reversible; other
// bytes, invalid UTF-8 included, are passed as they are.  The ip is the host's own (the log context's, or the address a login came from).
#pragma once

#include <string>

#include <usermanagement/Export.h>
#include <usermanagement/LogTypes.h>

namespace usermanagement {

class TVC_UM_EXPORT Logger {
public:
    Logger() = default;
    Logger(const Logger&) = default;
    Logger& operator=(const Logger&) = default;

    // The two unnamed integers are always passed as 0 by the library.
    virtual void logMessage(LogCategory category, int messageId, int, const LogSeverity& severity,
                            std::string ip, int, std::string text);
    virtual ~Logger();

    // Installs `logger` (the object this is called on plays no other part).  Only the address
    // is kept: the host keeps the object alive while the library may log.
    void setLogger(Logger& logger);
    // The installed sink; UMException 40 "No umlog Database" when none is installed.
    static Logger& GetLogger();

    static Logger* m_ptrDefaultSLogger;
};

}  // namespace usermanagement
