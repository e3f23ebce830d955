// Session failures: setting a session up, authenticating the caller, authorising an action.
// All three answer with JSON class code 1; their log lines end with the user in angle brackets.
#pragma once

#include <tarvicexception/TvcException.h>
#include <usermanagement/ErrorCodes.h>

namespace authnz {

class TVC_UM_EXPORT AuthNZException : public tarvicexception::TvcException {
public:
    using TvcException::TvcException;
    ~AuthNZException() override;
    void buildLogMessage(std::string& text, usermanagement::LogCategory& category, int& messageId,
                         usermanagement::LogSeverity& severity) override;
    const char* getError() const override;
    int getRangeClass() const override;
};

class TVC_UM_EXPORT AuthenticationException : public AuthNZException {
public:
    using AuthNZException::AuthNZException;
    ~AuthenticationException() override;
    void buildLogMessage(std::string& text, usermanagement::LogCategory& category, int& messageId,
                         usermanagement::LogSeverity& severity) override;
    const char* getError() const override;
    int getRangeClass() const override;
};

class TVC_UM_EXPORT AuthorizationException : public AuthNZException {
public:
    using AuthNZException::AuthNZException;
    ~AuthorizationException() override;
    const char* what() const noexcept override;
    // Like the base, but a debug-severity line also names the user (",for user:" + user).
    void logCdsMessage() override;
    void buildLogMessage(std::string& text, usermanagement::LogCategory& category, int& messageId,
                         usermanagement::LogSeverity& severity) override;
    const char* getError() const override;
    int getErrorId() const override;
    int getRangeClass() const override;
};

}  // namespace authnz
