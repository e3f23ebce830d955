#include <usermanagement/Logger.h>

#include "foundation/LogLine.h"
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

namespace usermanagement::detail {

std::string oneLogLine(const std::string& text) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string line;
    line.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            line += "\\\\";
        } else if (byte >= 0x20 && byte != 0x7f) {
            line += c;
        } else if (c == '\n') {
            line += "\\n";
        } else if (c == '\t') {
            line += "\\t";
        } else if (c == '\r') {
            line += "\\r";
        } else {
            line += "\\x";
            line += kHex[byte >> 4];
            line += kHex[byte & 0xf];
        }
    }
    return line;
}

void logToSink(LogCategory category, int messageId, LogSeverity severity, const std::string& ip,
               const std::string& text) {
    Logger::GetLogger().logMessage(category, messageId, 0, severity, ip, 0, oneLogLine(text));
}

}  // namespace usermanagement::detail
