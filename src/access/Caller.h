// The caller of an operation: the account its rights questions are decided on.
//
// The library takes effective root for its own steps (AsRoot, system/AsRoot.h): the account
// files, the tally tool, PAM.  The thread's identity at the moment a question is asked is
// therefore no measure of who asked: a question asked inside such a step would be answered for
// root and always pass.  So the caller is recorded once, when an operation starts, and every
// question of that operation is decided on the record; nothing in between reads the thread's
// identity again.
//
// The record lives in a scope object on the calling thread (CallerScope).  Every public
// operation that asks rights questions opens one first, and so does every root scope of the
// library.  The scope opened first on a thread records the thread's effective user id; scopes
// opened while it is active (an operation that calls another public member, a root scope inside
// an operation, a host's log sink called from inside an operation) record nothing and answer
// with the first one's caller.  So a public member called from inside the library's root scope
// is judged on the caller of the operation around it, and a root scope opened outside any
// operation records the identity the thread had before it took root.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace usermanagement::detail {

// Who the caller is: its ids, its name, and its profile with the names of its roles.  An
// immutable value, built from the account database and the profile catalogue.
class Caller {
public:
    // The account of user id `uid`: name and profile group from the account database (one
    // lookup), the profile the catalogue's table lists for that group (the first in ascending
    // id order, as ProfileDefinition::getProfile(unsigned int) answers), or none (id -4, no
    // roles) when it lists none.  An id without an account fails as looking it up through User
    // does: UMException 5 after the configured pause.
    static Caller of(unsigned int uid);

    unsigned int uid() const { return m_uid; }
    unsigned int gid() const { return m_gid; }
    const std::string& name() const { return m_name; }
    int profileId() const { return m_profileId; }
    bool isRoot() const { return m_uid == 0; }
    bool hasRole(const std::string& role) const;

private:
    Caller() = default;

    unsigned int m_uid = 0;
    unsigned int m_gid = 0;
    std::string m_name;
    int m_profileId = -4;
    std::vector<std::string> m_roles;
};

// The operation running on the calling thread; see the top of the file.  An object belongs to
// the thread that made it and lives in a block of that thread (scopes nest strictly).
class CallerScope {
public:
    CallerScope() noexcept;
    ~CallerScope();
    CallerScope(const CallerScope&) = delete;
    CallerScope& operator=(const CallerScope&) = delete;

    // The effective user id the operation started with (no lookup).
    unsigned int uid() const;
    // The operation's caller, built on the first question and kept until the operation ends:
    // every question of one operation is decided on the same account and profile.
    const Caller& caller() const;

private:
    CallerScope* m_operation;  // the scope that recorded the caller: this one or an outer one
    unsigned int m_uid;
    mutable std::optional<Caller> m_caller;
};

}  // namespace usermanagement::detail
