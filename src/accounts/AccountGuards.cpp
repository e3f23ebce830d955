#include "accounts/AccountGuards.h"

#include <authnz/AuthNZException.h>
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

namespace {

// UMException 41 unless the files' entry holding both `uid` and `name` has profile group `gid`.
void confirmSameAccount(const StoredAccount& stored, unsigned int uid, const std::string& name, unsigned int gid) {
    // The group as an object looks it up: the account's profile group.
    const bool same = stored.stored && profileGidOf(name.c_str(), stored.primaryGid) == gid;
    if (!same)
        raise<UMException>(UMError::StaleAccount, name, " :The account changed since it was looked up (uid ", uid,
                           "); look it up again");
}

}  // namespace

void confirmStoredAccount(unsigned int uid, const std::string& name, unsigned int gid) {
    // The files themselves, read through once: with one entry at most of the uid and of the
    // name, the entry holding both is the one the name service answers for either, and its
    // name has a shadow entry (the account is whole).  Asking the name service again would
    // read the files three more times, whole for an account at their end.
    confirmSameAccount(requireWholeStoredAccount(uid, name), uid, name, gid);
}

void confirmStoredAccount(const StoredAccountCount& count, unsigned int uid, const std::string& name,
                          unsigned int gid) {
    UserDefinition& config = UserDefinition::GetUserDefinition();
    confirmSameAccount(count.whole(config.getPasswordFilePath(), config.getShadowFilePath()), uid, name, gid);
}

}  // namespace usermanagement::detail
