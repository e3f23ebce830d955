// The account object: construction, value semantics, lookups and state.
//
// Lookups of an unknown name or id pause for the configured delay before they fail, so that
// probing for account names is slow.  The constructors that look an account up run the rights
// check last: a refused caller never gets the object.
#include <usermanagement/User.h>

#include <grp.h>
#include <shadow.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <thread>
#include <utility>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>
#include <usermanagement/Utilities.h>

#include "access/Caller.h"
#include "access/DatabaseLookup.h"
#include "accounts/AccountState.h"
#include "files/PasswordFileLock.h"
#include "foundation/Raise.h"
#include "system/AsRoot.h"

namespace usermanagement {

namespace {

using detail::raise;
using systemutilities::LinuxUserSystem;

constexpr unsigned int kUnknownId = 4294967295u;
constexpr const char* kDisabledMark = "!!";

// The profile an object holds until its lookup has found the real one.
UmProfile placeholderProfile() { return UmProfile("nogroup", -4); }

void checkReadRight() { UserDefinition::GetUserDefinition().checkRight(UserDefinition::ReadUser, nullptr); }

// Pauses for the configured delay, then throws UMException 5: an unknown name or id answers
// slowly, whatever the caller does next.
template <class... Parts>
[[noreturn]] void pauseThenNotFound(Parts&&... parts) {
    std::this_thread::sleep_for(std::chrono::seconds(UserDefinition::GetUserDefinition().getDBDelayWrongCredential()));
    raise<UMException>(UMError::UserNotFound, std::forward<Parts>(parts)...);
}

bool isDisabled(const char* field) { return field != nullptr && std::strncmp(field, kDisabledMark, 2) == 0; }

}  // namespace

namespace detail {

ShadowState shadowStateOf(const spwd& entry, long today) {
    ShadowState state;
    state.active = entry.sp_pwdp != nullptr && !isDisabled(entry.sp_pwdp);
    state.accountExpired = entry.sp_expire >= 0 && entry.sp_expire < today;
    if (entry.sp_lstchg == 0) state.passwordExpired = true;
    // An empty last-change field (-1) turns ageing off; so does an empty maximum age.
    if (entry.sp_lstchg != -1 && entry.sp_max != -1) {
        const long elapsed = today - entry.sp_lstchg;
        if (entry.sp_max < elapsed) {
            state.passwordExpired = true;
            // The inactivity period (sp_inact) runs from the end of the maximum age.
            if (entry.sp_inact != -1 && elapsed - entry.sp_max - entry.sp_inact > 0) state.inactive = true;
        }
    }
    return state;
}

int failedLoginLimit() {
    try {
        int limit = -1;
        UserDefinition::GetUserDefinition().getDBLockCount(limit);
        return limit;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return -1;
    }
}

}  // namespace detail

User::User(unsigned int uid, std::string name)
    : m_uid(uid),
      m_gid(kUnknownId),
      m_userName(std::move(name)),
      m_isActive(false),
      m_isPasswordExpired(true),
      m_isLocked(true),
      m_isAccountExpired(true),
      m_profile(placeholderProfile()),
      m_nbGroups(0),
      m_groups(nullptr) {}

User::User() : User(SystemPermission().getEuid(), "nobody") {
    retrieveUserName();
    retrieveProfile();
}

User::User(const std::string& name) : User(kUnknownId, name) {
    const detail::CallerScope operation;
    retrieveUID();
    retrieveProfile();
    checkReadRight();
}

User::User(unsigned int uid) : User(uid, "nobody") {
    const detail::CallerScope operation;
    retrieveUserName();
    retrieveProfile();
    checkReadRight();
}

User::User(std::string name, int profileId, bool active)
    : m_uid(kUnknownId),
      m_gid(kUnknownId),
      m_userName(std::move(name)),
      m_isActive(active),
      m_isPasswordExpired(true),
      m_isLocked(false),
      m_isAccountExpired(false),
      m_profile(ProfileDefinition::GetProfileDefinition().getProfile(profileId)),
      m_nbGroups(0),
      m_groups(nullptr) {
    m_gid = m_profile.getGid();
}

User::User(const User& other) : User(kUnknownId, std::string()) { *this = other; }

User::User(User&& other) noexcept
    : m_uid(other.m_uid),
      m_gid(other.m_gid),
      m_userName(std::move(other.m_userName)),
      m_isActive(other.m_isActive),
      m_isPasswordExpired(other.m_isPasswordExpired),
      m_isLocked(other.m_isLocked),
      m_isAccountExpired(other.m_isAccountExpired),
      m_profile(std::move(other.m_profile)),
      m_nbGroups(std::exchange(other.m_nbGroups, 0)),
      m_groups(std::exchange(other.m_groups, nullptr)) {}

User& User::operator=(const User& other) {
    if (this == &other) return *this;
    m_uid = other.m_uid;
    m_gid = other.m_gid;
    m_userName = other.m_userName;
    m_profile = other.m_profile;
    m_isActive = other.m_isActive;
    m_isPasswordExpired = other.m_isPasswordExpired;
    m_isLocked = other.m_isLocked;
    m_isAccountExpired = other.m_isAccountExpired;
    std::free(std::exchange(m_groups, nullptr));
    m_nbGroups = 0;
    if (other.m_groups != nullptr && other.m_nbGroups > 0) {
        const std::size_t bytes = sizeof(gid_t) * static_cast<std::size_t>(other.m_nbGroups);
        // Without memory the target simply has no cache; it is computed again when asked for.
        m_groups = static_cast<gid_t*>(std::malloc(bytes));
        if (m_groups != nullptr) {
            std::memcpy(m_groups, other.m_groups, bytes);
            m_nbGroups = other.m_nbGroups;
        }
    }
    return *this;
}

User& User::operator=(User&& other) noexcept {
    if (this == &other) return *this;
    User moved(std::move(other));
    swap(moved);
    return *this;
}

User::~User() { std::free(m_groups); }

void User::swap(User& other) noexcept {
    std::swap(m_uid, other.m_uid);
    std::swap(m_gid, other.m_gid);
    m_userName.swap(other.m_userName);
    std::swap(m_isActive, other.m_isActive);
    std::swap(m_isPasswordExpired, other.m_isPasswordExpired);
    std::swap(m_isLocked, other.m_isLocked);
    std::swap(m_isAccountExpired, other.m_isAccountExpired);
    UmProfile profile(std::move(m_profile));
    m_profile = std::move(other.m_profile);
    other.m_profile = std::move(profile);
    std::swap(m_nbGroups, other.m_nbGroups);
    std::swap(m_groups, other.m_groups);
}

bool User::operator==(const User& other) const {
    return m_uid == other.m_uid && m_gid == other.m_gid && m_userName == other.m_userName;
}

bool User::operator!=(const User& other) const { return !(*this == other); }

std::string User::getUserName() const { return m_userName; }

void User::setUserName(const std::string& name) { m_userName = name; }

bool User::isHimSelf() const { return m_uid == SystemPermission().getEuid(); }

unsigned int User::retrieveUID() {
    if (!LinuxUserSystem::getUserIds(m_userName.c_str(), &m_uid, &m_gid))
        pauseThenNotFound("User uid not found in the system (retrieveUID from username):", m_userName);
    return m_uid;
}

void User::retrieveUserName() {
    if (m_userName != "nobody" && m_gid != kUnknownId) return;
    if (!LinuxUserSystem::getUserName(m_uid, m_userName, m_gid))
        pauseThenNotFound("User uid not found in the system (retrieveUserName from uid):", m_uid);
}

unsigned int User::retrieveGUID(const char* groupName) {
    unsigned int gid = kUnknownId;
    if (!LinuxUserSystem::getGroupGid(groupName, gid))
        raise<UMSystemErrorException>(UMSystemError::FileTransaction,
                                      "Group not found in the system: ", groupName == nullptr ? "" : groupName);
    return gid;
}

void User::retrieveProfile() {
    std::string groupName;
    if (!LinuxUserSystem::getGroupName(m_gid, groupName)) {
        // The account's profile group is gone (a software update dropped it): the account has
        // no profile, the placeholder the catalogue answers for one it does not know, which
        // grants nothing.  It can still be found and given a profile; as a caller it is refused
        // by the rights check like any account without rights.
        m_profile = UmProfile("nogroup", -4);
        return;
    }
    m_profile = ProfileDefinition::GetProfileDefinition().getProfile(groupName);
}

void User::retrieveLockState(LookLockUpdate& look) {
    m_isLocked = false;
    try {
        UserDefinition& definition = UserDefinition::GetUserDefinition();
        const int count = utilities::getLockCount(m_uid, definition.getTallyFilePath());
        const int limit = detail::failedLoginLimit();
        if (detail::lockedByFailures(count, limit)) {
            m_isLocked = true;
            look.locked = true;
            if (limit == count) look.justLocked = true;
        }
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        // No configuration or no tally: the account counts as not locked.
        m_isLocked = false;
    }
}

void User::updateState() {
    const detail::CallerScope operation;
    checkReadRight();
    const detail::AsRoot root;
    m_isLocked = false;
    LookLockUpdate ignored;
    retrieveLockState(ignored);

    const detail::PasswordFileLock lock("updateState:password files locked");
    m_isActive = m_isPasswordExpired = m_isAccountExpired = false;
    const auto shadow = detail::shadowByName(m_userName.c_str());
    if (!detail::foundOrRaise(shadow, m_userName.c_str()))
        raise<UMException>(UMError::UserNotFound, m_userName, " :User not found");
    const detail::ShadowState state = detail::shadowStateOf(shadow.entry, detail::daysSinceEpoch());
    m_isActive = state.active;
    m_isPasswordExpired = state.passwordExpired;
    m_isAccountExpired = state.accountExpired;
    if (state.inactive) m_isLocked = true;
}

std::string User::getEncryptedPassword() const {
    // A stored hash is what an offline guesser needs: reading one takes the right to manage
    // accounts (root or the user manager), not only the right to look accounts up, which
    // every account holder has.
    const detail::CallerScope operation;
    UserDefinition::GetUserDefinition().checkRight(UserDefinition::ManageUsers, nullptr);
    const detail::AsRoot root;
    const detail::PasswordFileLock lock("updateState:password files locked");
    const auto shadow = detail::shadowByName(m_userName.c_str());
    if (!detail::foundOrRaise(shadow, m_userName.c_str()) || shadow.entry.sp_pwdp == nullptr) return std::string();
    const char* field = shadow.entry.sp_pwdp;
    return isDisabled(field) ? std::string(field + 2) : std::string(field);
}

gid_t* User::getUserGroupsIds(int& count) const {
    if (m_groups == nullptr) {
        m_nbGroups = 64;
        m_groups = static_cast<gid_t*>(std::malloc(sizeof(gid_t) * 64));
        if (m_groups != nullptr && getgrouplist(m_userName.c_str(), m_gid, m_groups, &m_nbGroups) < 0) {
            // m_nbGroups now holds the number the account needs.
            auto* larger = static_cast<gid_t*>(std::realloc(m_groups, sizeof(gid_t) * static_cast<size_t>(m_nbGroups)));
            if (larger == nullptr) {
                std::free(std::exchange(m_groups, nullptr));
                m_nbGroups = 0;
                raise<PMException>(PMError::UpdatePrivilegeFailed, "Memory realloc failed");
            }
            m_groups = larger;
            getgrouplist(m_userName.c_str(), m_gid, m_groups, &m_nbGroups);
        }
    }
    count = m_nbGroups;
    return m_groups;
}

bool User::isBelongingToRole(const std::string& roleName) const { return m_profile.isBelongingToRole(roleName); }
bool User::isBelongingToRole(int roleId) const { return m_profile.isBelongingToRole(roleId); }
bool User::isBelongingToGroup(const std::string& groupName) const { return m_profile.isBelongingToGroup(groupName); }
bool User::isBelongingToGroup(unsigned int gid) const { return m_profile.isBelongingToGroup(gid); }

bool User::isPresentInListeName(char** list, const std::string* replacement, int& count) {
    count = 0;
    bool found = false;
    for (char** entry = list; entry != nullptr && *entry != nullptr; ++entry, ++count) {
        if (std::strcmp(*entry, m_userName.c_str()) != 0) continue;
        found = true;
        if (replacement != nullptr) *entry = const_cast<char*>(replacement->c_str());
    }
    return found;
}

std::ostream& operator<<(std::ostream& out, User& user) {
    out << "User Name:[" << user.getUserName() << "] uid:[" << user.getUid() << "]" << std::endl;
    return out << user.getProfile();
}

}  // namespace usermanagement
