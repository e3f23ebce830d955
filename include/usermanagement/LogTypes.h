// Categories and severities the library passes with every message to the log sink.
#pragma once

namespace usermanagement {

enum class LogCategory : int {
    General = 1,
    UserAccount = 8,
    Session = 9,
};

enum class LogSeverity : int {
    Warning = 4,
    Notice = 5,
    Debug = 7,
};

}  // namespace usermanagement
