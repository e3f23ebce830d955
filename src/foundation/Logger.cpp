#include <usermanagement/Logger.h>

#include "foundation/Provider.h"

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

Logger& Logger::GetLogger() { return detail::installedProvider(m_ptrDefaultSLogger, "No umlog Database"); }

}  // namespace usermanagement
