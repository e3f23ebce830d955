#include <usermanagement/Logger.h>

#include <usermanagement/UMException.h>

namespace usermanagement {

namespace {
// The built-in sink: discards everything.  Not reachable from outside the library.
Logger g_discardingLogger;
}  // namespace

// Constant-initialised, so the sink is in place before any host code runs.
Logger* Logger::m_ptrDefaultSLogger = &g_discardingLogger;

void Logger::logMessage(LogCategory, int, int, const LogSeverity&, std::string, int, std::string) {}

Logger::~Logger() = default;

void Logger::setLogger(Logger& logger) { m_ptrDefaultSLogger = &logger; }

Logger& Logger::GetLogger() {
    if (m_ptrDefaultSLogger == nullptr) throw UMException(UMError::NothingInstalled, "No umlog Database", "No umlog Database", true);
    return *m_ptrDefaultSLogger;
}

}  // namespace usermanagement
