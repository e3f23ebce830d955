#include "accounts/AccountGuards.h"

#include <authnz/AuthNZException.h>
#include <systemutilities/LinuxUserSystem.h>
#include <umlog/Ctx.h>
#include <usermanagement/ErrorCodes.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "access/Caller.h"
#include "access/DatabaseLookup.h"
#include "accounts/StoredEntries.h"
#include "foundation/Raise.h"

namespace usermanagement::detail {

bool callerIsProcessRoot() {
    // The operation's caller, not the thread's identity now: inside the library's own root
    // scope that would always be root.
    const CallerScope operation;
    return operation.uid() == 0;
}

void requireReachable(unsigned int uid, const std::string& name) {
    UserDefinition& config = UserDefinition::GetUserDefinition();
    const unsigned int base = config.getBaseUid();
    // Unsigned: a range that would run past the last id ends there.
    const unsigned int count = config.getMaxUser();
    const bool managed = uid >= base && uid - base < count;
    if (managed || callerIsProcessRoot()) return;
    throw authnz::AuthorizationException(authnz::AuthorizationError::SystemAccount, "Not authorized",
                                         concat("System account out of reach: ", name, " (uid ", uid, ")"),
                                         umlog::Ctx::getCtx().getUsername(), true);
}

void confirmStoredAccount(unsigned int uid, const std::string& name, unsigned int gid) {
    // First the files themselves: the lookups below see only the first entry of a uid or name.
    requireWholeStoredAccount(uid, name);
    const auto byId = userById(uid);
    const auto shadow = shadowByName(name.c_str());
    foundOrRaise(byId, name.c_str());
    foundOrRaise(shadow, name.c_str());
    // The ids of the name as an object looks them up: the group is the account's profile group.
    unsigned int storedUid = 4294967295u, storedGid = 4294967295u;
    const bool named = systemutilities::LinuxUserSystem::getUserIds(name.c_str(), &storedUid, &storedGid);
    const bool same = byId.found() && shadow.found() && named && byId.entry.pw_name != nullptr &&
                      name == byId.entry.pw_name && storedUid == uid && storedGid == gid;
    if (!same)
        raise<UMException>(UMError::StaleAccount, name, " :The account changed since it was looked up (uid ", uid,
                           "); look it up again");
}

}  // namespace usermanagement::detail
