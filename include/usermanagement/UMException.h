// Exceptions of the account management: one numbering of error codes shared by three classes
// (named in ErrorCodes.h).
//   UMException               0..9   account-level failures (UMError: exists, not found...)
//   UMSystemErrorException    10..13 account files and system database failures (UMSystemError)
//   PMException               14..17 process privilege failures (PMError)
// UMError::NothingInstalled (40) reports that no log sink, catalogue or configuration is installed.
// All three answer with JSON class code 0 and log in the user-account category.
#pragma once

#include <tarvicexception/TvcException.h>
#include <usermanagement/ErrorCodes.h>

namespace usermanagement {

class TVC_UM_EXPORT UMException : public tarvicexception::TvcException {
public:
    using TvcException::TvcException;
    ~UMException() override;
    void buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                         LogSeverity& severity) override;
    int getRangeClass() const override;
};

class TVC_UM_EXPORT UMSystemErrorException : public UMException {
public:
    using UMException::UMException;
    ~UMSystemErrorException() override;
    void buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                         LogSeverity& severity) override;
};

class TVC_UM_EXPORT PMException : public UMSystemErrorException {
public:
    using UMSystemErrorException::UMSystemErrorException;
    ~PMException() override;
    void buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                         LogSeverity& severity) override;
};

// A password change refused (codes 18 and up continue the numbering above).
class TVC_UM_EXPORT UpdatePasswordException : public UMSystemErrorException {
public:
    using UMSystemErrorException::UMSystemErrorException;
    ~UpdatePasswordException() override;
    void buildLogMessage(std::string& text, LogCategory& category, int& messageId,
                         LogSeverity& severity) override;
    const char* getError() const override;
};

}  // namespace usermanagement
