#include "Routes.h"

namespace webhost {

using usermanagement::UserDefinition;

const std::vector<Route>& routes() {
    const auto S = Type::String;
    const auto I = Type::Integer;
    const auto B = Type::Boolean;
    // method, path, session, right, during a forced change, body fields {name, type, required}, handler
    // clang-format off
    static const std::vector<Route> table = {
        {"POST", "/api/login", false, std::nullopt, true, {{{"name", S, true}, {"password", S, true}}}, login},
        {"POST", "/api/logout", true, std::nullopt, true, std::nullopt, logout},
        {"GET", "/api/session", true, std::nullopt, true, std::nullopt, sessionInfo},
        {"POST", "/api/me/password", true, std::nullopt, true, {{{"current", S, true}, {"password", S, true}}},
         changeOwnPassword},
        {"GET", "/api/profiles", true, std::nullopt, false, std::nullopt, profiles},
        {"GET", "/api/accounts", true, UserDefinition::ReadUser, false, std::nullopt, listAccounts},
        {"POST", "/api/accounts", true, UserDefinition::CreateUser, false,
         {{{"name", S, true}, {"profileId", I, true}, {"password", S, true}, {"mustChange", B, false},
           {"active", B, false}}},
         createAccount},
        {"GET", "/api/accounts/([0-9]+)", true, UserDefinition::ReadUser, false, std::nullopt, showAccount},
        {"PATCH", "/api/accounts/([0-9]+)", true, UserDefinition::UpdateUser, false,
         {{{"name", S, true}, {"newName", S, false}, {"profileId", I, false}, {"active", B, false}}},
         updateAccount},
        {"POST", "/api/accounts/([0-9]+)/unlock", true, UserDefinition::UpdateUser, false, {{{"name", S, true}}},
         unlockAccount},
        {"POST", "/api/accounts/([0-9]+)/password", true, UserDefinition::UpdatePassword, false,
         {{{"name", S, true}, {"password", S, true}, {"mustChange", B, false}}}, resetPassword},
        {"DELETE", "/api/accounts/([0-9]+)", true, UserDefinition::RemoveUser, false, {{{"name", S, true}}},
         removeAccount},
        {"GET", "/api/audit", true, UserDefinition::ManageUsers, false, std::nullopt, auditEvents},
    };
    // clang-format on
    return table;
}

}  // namespace webhost
