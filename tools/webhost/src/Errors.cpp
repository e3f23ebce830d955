#include "Errors.h"

#include <authnz/AuthNZException.h>
#include <usermanagement/ErrorCodes.h>
#include <usermanagement/UMException.h>

namespace webhost {

using namespace usermanagement;

int statusOf(tarvicexception::TvcException& e) {
    const int code = e.getErrorId();
    if (dynamic_cast<authnz::AuthenticationException*>(&e)) return 401;
    if (dynamic_cast<authnz::AuthorizationException*>(&e)) return 403;
    if (dynamic_cast<authnz::AuthNZException*>(&e)) return 500;
    if (dynamic_cast<UpdatePasswordException*>(&e)) {
        if (code == UpdatePasswordError::InvalidCredentials) return 403;
        return code >= UpdatePasswordError::NewPasswordTooLong && code <= UpdatePasswordError::LastQualityRule ? 400
                                                                                                               : 500;
    }
    if (dynamic_cast<PMException*>(&e)) return 500;
    if (dynamic_cast<UMSystemErrorException*>(&e)) return code == UMSystemError::FilesLocked ? 503 : 500;
    if (dynamic_cast<UMException*>(&e)) {
        switch (code) {
            case UMError::UserNotFound:
                return 404;
            case UMError::UserAlreadyExists:
            case UMError::StaleAccount:
            case UMError::DuplicatedAccount:
            case UMError::HalfStoredAccount:
            case UMError::MainAccountUnremovable:
            case UMError::MainAccountUndisable:
            case UMError::RemoveUserForbidden:
            case UMError::MaxUsersReached:
                return 409;
            case UMError::PasswordError:
            case UMError::RoleError:
            case UMError::BadUserName:
            case UMError::MissingParameter:
                return 400;
        }
    }
    return 500;
}

Json libraryAnswer(tarvicexception::TvcException& e) {
    const Json parsed = Json::parse(e.getJsonAnswer(), nullptr, false);
    if (parsed.is_object()) return parsed;
    return {{"classCode", e.getRangeClass()}, {"errorCode", e.getErrorId()}};
}

std::string dump(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

void answer(httplib::Response& res, int status, const Json& body) {
    res.status = status;
    res.set_content(dump(body), "application/json");
}

void answerHostError(httplib::Response& res, int status, const std::string& text) {
    answer(res, status, {{"error", text}});
}

void answerCurrentException(httplib::Response& res) {
    try {
        throw;
    } catch (const HostError& e) {
        answer(res, e.status, e.body);
    } catch (tarvicexception::TvcException& e) {
        e.logCdsMessage();
        answer(res, statusOf(e), libraryAnswer(e));
    } catch (...) {
        // Nothing of an unexpected failure reaches the client.
        answerHostError(res, 500, "internal error");
    }
}

}  // namespace webhost
