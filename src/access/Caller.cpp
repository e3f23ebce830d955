#include "access/Caller.h"

#include <unistd.h>

#include <chrono>
#include <thread>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "foundation/Raise.h"

namespace usermanagement::detail {

namespace {

// The outermost scope of the calling thread, or null outside any operation.
thread_local CallerScope* t_operation = nullptr;

}  // namespace

// One account lookup, and the catalogue's table searched for the profile group's id.  This runs
// once per operation, and a rights check outside an operation is an operation of its own, so
// it is what a check costs.
Caller Caller::of(unsigned int uid) {
    Caller caller;
    caller.m_uid = uid;
    if (!systemutilities::LinuxUserSystem::getUserName(uid, caller.m_name, caller.m_gid)) {
        // As User(uid) answers for an unknown id: slowly, whatever the caller does next.
        std::this_thread::sleep_for(
            std::chrono::seconds(UserDefinition::GetUserDefinition().getDBDelayWrongCredential()));
        raise<UMException>(UMError::UserNotFound, "User uid not found in the system (retrieveUserName from uid):", uid);
    }
    // The catalogue's content is its shared table (ProfileDefinition.h): built by the installed
    // catalogue on first use as for every lookup, then read in place.  The lookups would copy
    // the whole table, and build a placeholder profile (a group lookup) before searching it.
    ProfileDefinition& catalogue = ProfileDefinition::GetProfileDefinition();
    if (!ProfileDefinition::m_init) (void)catalogue.getProfiles(false);
    for (const auto& [id, profile] : ProfileDefinition::g_profiles) {
        if (profile.getGid() != caller.m_gid) continue;
        caller.m_profileId = profile.getId();
        for (const UmRole& role : profile.getRoles()) caller.m_roles.push_back(role.getName());
        break;
    }
    return caller;
}

bool Caller::hasRole(const std::string& role) const {
    for (const std::string& held : m_roles)
        if (held == role) return true;
    return false;
}

// Nested scopes are not refused but ignored: the library's own operations call each other
// (an update refreshes the account with updateState, the migration updates accounts), and the
// caller they answer for is the one the outermost operation started with.
CallerScope::CallerScope() noexcept : m_operation(t_operation), m_uid(0) {
    if (m_operation != nullptr) return;
    m_uid = geteuid();
    m_operation = t_operation = this;
}

CallerScope::~CallerScope() {
    if (m_operation == this) t_operation = nullptr;
}

unsigned int CallerScope::uid() const { return m_operation->m_uid; }

const Caller& CallerScope::caller() const {
    std::optional<Caller>& recorded = m_operation->m_caller;
    if (!recorded) recorded.emplace(Caller::of(m_operation->m_uid));
    return *recorded;
}

}  // namespace usermanagement::detail
