// Root of every exception the library throws.
//
// An exception carries an error code, a message, an optional description and the user on whose
// behalf the failed operation ran.  It renders itself three ways: what()/accessors for programs,
// buildLogMessage()/logCdsMessage() for the audit log sink, and getJsonAnswer() for the web
// client.  Subclasses change the renderings by replacing the virtual operations; the base
// operations always reach the replaced ones through the virtual slots.
//
// The order of the virtual operations and of the data members is part of the binary interface.
#pragma once

#include <exception>
#include <string>

#include <usermanagement/Export.h>
#include <usermanagement/LogTypes.h>

namespace tarvicexception {

class TVC_UM_EXPORT TvcException : public std::exception {
public:
    TvcException(int errorId, const std::string& message, std::string user, bool log);
    TvcException(int errorId, const char* message, const std::string& description, std::string user,
                 bool log);
    TvcException(int errorId, const char* message, std::string user, bool log);
    TvcException(int errorId, const std::string& user, bool log);

    TvcException(const TvcException&) = default;
    TvcException(TvcException&&) = default;
    TvcException& operator=(const TvcException&) = default;
    TvcException& operator=(TvcException&&) = default;

    ~TvcException() override;
    const char* what() const noexcept override;
    virtual void logCdsMessage();
    virtual void buildLogMessage(std::string& text, usermanagement::LogCategory& category,
                                 int& messageId, usermanagement::LogSeverity& severity);
    virtual const char* getError() const;
    virtual const char* getErrorDescription() const;
    virtual int getErrorId() const;
    virtual int getRangeClass() const;
    virtual const char* getJsonAnswer();
    virtual std::string getUser() const;

protected:
    // What logCdsMessage does, once for every class: builds the line (virtual buildLogMessage),
    // ends a severity-7 line with `detailsPrefix` and the details, and hands it to the sink with
    // the thread's client address.  Nothing when logging is disabled.
    void logWithDetails(const std::string& detailsPrefix);
    // Appends ",(" code ")" what() "," description: the details every severity-7 log line ends with.
    void appendDetails(std::string& text) const;

    int m_errorId;
    std::string m_message;
    std::string m_description;
    std::string m_user;
    bool m_logEnabled;
    std::string m_jsonAnswer;
};

}  // namespace tarvicexception
