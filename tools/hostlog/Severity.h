// How the library's hosts (umctl, tvc-webd) name a log severity in their lines and which syslog
// priority it gets: one mapping, so the device's security log reads the same from both.
#pragma once

#include <syslog.h>

#include <usermanagement/LogTypes.h>

namespace tvc::hostlog {

inline const char* severityName(usermanagement::LogSeverity severity) {
    switch (severity) {
        case usermanagement::LogSeverity::Warning:
            return "warning";
        case usermanagement::LogSeverity::Notice:
            return "notice";
        case usermanagement::LogSeverity::Debug:
            return "debug";
    }
    return "unknown";
}

inline int syslogPriority(usermanagement::LogSeverity severity) {
    switch (severity) {
        case usermanagement::LogSeverity::Notice:
            return LOG_NOTICE;
        case usermanagement::LogSeverity::Debug:
            return LOG_DEBUG;
        case usermanagement::LogSeverity::Warning:
            break;
    }
    return LOG_WARNING;
}

}  // namespace tvc::hostlog
