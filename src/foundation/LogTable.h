// Every exception class renders its log line from a table keyed by error code: the class's
// defaults apply first, and a listed code overrides them and appends its text.
#pragma once

#include <cstddef>
#include <string>

#include <usermanagement/LogTypes.h>

namespace usermanagement::detail {

struct LogDefaults {
    LogCategory category;
    int messageId;
    LogSeverity severity;
};

struct LogEntry {
    int code;
    const char* keyword;  // what getError() answers; "" when there is none
    const char* text;     // appended to the log line
    LogCategory category;
    int messageId;
    LogSeverity severity;
};

template <std::size_t N>
const LogEntry* findLogEntry(const LogEntry (&table)[N], int code) {
    for (const LogEntry& entry : table)
        if (entry.code == code) return &entry;
    return nullptr;
}

template <std::size_t N>
const char* keywordOf(const LogEntry (&table)[N], int code) {
    const LogEntry* entry = findLogEntry(table, code);
    return entry ? entry->keyword : "";
}

// Writes the defaults into the out-parameters, then what the table lists for `code`.
template <std::size_t N>
void applyLogEntry(const LogEntry (&table)[N], int code, const LogDefaults& defaults, std::string& text,
                   LogCategory& category, int& messageId, LogSeverity& severity) {
    category = defaults.category;
    messageId = defaults.messageId;
    severity = defaults.severity;
    if (const LogEntry* entry = findLogEntry(table, code)) {
        category = entry->category;
        messageId = entry->messageId;
        severity = entry->severity;
        text += entry->text;
    }
}

}  // namespace usermanagement::detail
