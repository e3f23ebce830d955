// A log sink for tests: installed while it exists, it keeps every message the library hands
// to it, and puts the previous sink back when destroyed so nothing logs into a dead object.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <usermanagement/Logger.h>

namespace tvc::test {

struct LoggedMessage {
    usermanagement::LogCategory category{};
    int messageId = 0, third = 0;  // third: the first unnamed integer
    usermanagement::LogSeverity severity{};
    std::string ip;
    int sixth = 0;  // the second unnamed integer
    std::string text;
};

class RecordingLogger : public usermanagement::Logger {
public:
    RecordingLogger() { setLogger(*this); }
    ~RecordingLogger() override { m_ptrDefaultSLogger = m_previous; }

    void logMessage(usermanagement::LogCategory category, int messageId, int third,
                    const usermanagement::LogSeverity& severity, std::string ip, int sixth, std::string text) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        messages.push_back({category, messageId, third, severity, std::move(ip), sixth, std::move(text)});
    }

    std::vector<LoggedMessage> messages;

private:
    usermanagement::Logger* const m_previous = m_ptrDefaultSLogger;
    std::mutex m_mutex;  // the library may log from several threads
};

}  // namespace tvc::test
