// The one way the library's text reaches the log sink.  Names and messages in a log line come
// from anywhere (a login name typed into a web form, a file another tool wrote, a PAM module's
// message), and a sink that writes lines would let a newline in one of them add a forged line:
// the text is made one line first.
#pragma once

#include <string>

#include <usermanagement/LogTypes.h>

namespace usermanagement::detail {

// `text` with every control character written out: a newline as \n, a tab as \t, a carriage
// return as \r, every other byte 0x00-0x1f and 0x7f as \xHH (lower-case hex), and a backslash
// as \\, so that the text reads back unambiguously (a name holding the four characters "\x1b"
// and a name holding ESC give two different lines).  Everything else stays as it is, so an
// ordinary line is unchanged.
std::string oneLogLine(const std::string& text);

// Hands oneLogLine(text) to the installed sink (Logger::GetLogger()).
void logToSink(LogCategory category, int messageId, LogSeverity severity, const std::string& ip,
               const std::string& text);

}  // namespace usermanagement::detail
