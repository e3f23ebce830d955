// Who a worker thread is while it serves a request.
//
// Every request runs to its end on one worker thread of the server's pool.  RequestContext
// names the client in the thread's log context (umlog::Ctx: address, protocol, user) for the
// request's span; ActingAs makes the thread act as the session's account through the library's
// switch (SystemPermission::setUserPermission), so that every rights check the library makes
// judges that account, and puts the server's identity back when it ends, exceptions included.
// Nothing process-wide changes: the switch acts on the calling thread only.
//
// IdentityGuard records the server's ids when it starts; after every request the worker's ids
// are compared with them.  A thread that kept an account's identity would serve the next client
// as that account, so a mismatch stops the server (the host decides how: tvc-webd exits 70).
#pragma once

#include <sys/types.h>
#include <umlog/Ctx.h>
#include <usermanagement/SystemPermission.h>

#include <string>
#include <vector>

namespace webhost {

class RequestContext {
public:
    RequestContext(const std::string& ip, umlog::Ctx::Protocol protocol);
    ~RequestContext();
    RequestContext(const RequestContext&) = delete;
    RequestContext& operator=(const RequestContext&) = delete;
};

class ActingAs {
public:
    // HostError 401 when the name no longer leads to `uid`.
    ActingAs(const std::string& accountName, unsigned int uid);
    ~ActingAs();
    ActingAs(const ActingAs&) = delete;
    ActingAs& operator=(const ActingAs&) = delete;

private:
    usermanagement::SystemPermission m_permission;
};

struct Identity {
    uid_t ruid = 0, euid = 0, suid = 0;
    gid_t rgid = 0, egid = 0, sgid = 0;
    std::vector<gid_t> groups;  // sorted
    bool operator==(const Identity& other) const;
    std::string describe() const;
};
// The calling thread's ids.
Identity currentIdentity();

class IdentityGuard {
public:
    IdentityGuard() : m_server(currentIdentity()) {}
    // Whether the calling thread has the ids the server had when the guard was made.
    bool holds() const { return currentIdentity() == m_server; }
    const Identity& server() const { return m_server; }

private:
    const Identity m_server;
};

// The name the server's own identity logs under ("root" on the device).
const std::string& serverAccountName();

}  // namespace webhost
