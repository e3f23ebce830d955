#include <tarvicexception/TvcException.h>

#include <string>
#include <utility>

#include <umlog/Ctx.h>
#include <usermanagement/Logger.h>

#include "foundation/LogLine.h"

namespace tarvicexception {

using usermanagement::LogCategory;
using usermanagement::LogSeverity;

TvcException::TvcException(int errorId, const std::string& message, std::string user, bool log)
    : m_errorId(errorId), m_message(message), m_user(std::move(user)), m_logEnabled(log) {}

TvcException::TvcException(int errorId, const char* message, const std::string& description,
                           std::string user, bool log)
    : m_errorId(errorId),
      m_message(message ? message : ""),
      m_description(description),
      m_user(std::move(user)),
      m_logEnabled(log) {}

TvcException::TvcException(int errorId, const char* message, std::string user, bool log)
    : m_errorId(errorId), m_message(message ? message : ""), m_user(std::move(user)), m_logEnabled(log) {}

TvcException::TvcException(int errorId, const std::string& user, bool log)
    : m_errorId(errorId), m_user(user), m_logEnabled(log) {}

TvcException::~TvcException() = default;

const char* TvcException::what() const noexcept { return m_message.c_str(); }

void TvcException::appendDetails(std::string& text) const {
    text += ",(";
    text += std::to_string(m_errorId);
    text += ")";
    text += what();
    text += ",";
    text += getErrorDescription();
}

void TvcException::logWithDetails(const std::string& detailsPrefix) {
    if (!m_logEnabled) return;
    std::string text;
    LogCategory category = LogCategory::General;
    int messageId = 0;
    LogSeverity severity = LogSeverity::Debug;
    buildLogMessage(text, category, messageId, severity);
    // Only debug-severity lines carry the technical details; audit lines stay readable.
    if (severity == LogSeverity::Debug) {
        text += detailsPrefix;
        appendDetails(text);
    }
    usermanagement::detail::logToSink(category, messageId, severity, umlog::Ctx::getCtx().getIp(), text);
}

void TvcException::logCdsMessage() { logWithDetails(std::string()); }

void TvcException::buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                                   LogSeverity& severity) {
    category = LogCategory::General;
    messageId = 17;
    severity = LogSeverity::Debug;
    text += "Unknow error";
}

const char* TvcException::getError() const { return ""; }

const char* TvcException::getErrorDescription() const { return m_description.c_str(); }

int TvcException::getErrorId() const { return m_errorId; }

int TvcException::getRangeClass() const { return -1; }

const char* TvcException::getJsonAnswer() {
    m_jsonAnswer = "{\"classCode\":" + std::to_string(getRangeClass()) + ",\n \"errorCode\":" +
                   std::to_string(getErrorId()) + "\n}";
    return m_jsonAnswer.c_str();
}

std::string TvcException::getUser() const { return m_user; }

}  // namespace tarvicexception
