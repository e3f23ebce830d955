#include "Acting.h"

#include "Errors.h"

#include <systemutilities/LinuxUserSystem.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

namespace webhost {

// Looked up once, by the first caller: the server, before it serves (and before any worker acts
// as an account, when geteuid() would name the account instead).
const std::string& serverAccountName() {
    static const std::string name = [] {
        std::string found;
        unsigned int gid = 0;
        if (systemutilities::LinuxUserSystem::getUserName(geteuid(), found, gid)) return found;
        return std::to_string(geteuid());
    }();
    return name;
}

RequestContext::RequestContext(const std::string& ip, umlog::Ctx::Protocol protocol) {
    umlog::Ctx& context = umlog::Ctx::getCtx();
    context.setIP(ip);
    context.setProtocol(protocol);
    context.setUsername(serverAccountName());
}

// The library never clears the context; a worker serves many clients, so the next request
// must not find this one's address or user in it.
RequestContext::~RequestContext() {
    umlog::Ctx& context = umlog::Ctx::getCtx();
    context.setIP("");
    context.setProtocol(umlog::Ctx::Unknown);
    context.setUsername(serverAccountName());
}

ActingAs::ActingAs(const std::string& accountName, unsigned int uid) {
    m_permission.setUserPermission(accountName);
    // The switch finds the account by name; a rename between the session's check (by uid) and
    // this lookup could give the name to another account.  Serving under the uid the session
    // was opened for, or not at all.  (The member's destructor switches back.)
    if (geteuid() != uid) throw HostError(401, "no session");
    umlog::Ctx::getCtx().setUsername(accountName);
}

// The member's destructor then switches back (or aborts the process when it cannot).
ActingAs::~ActingAs() { umlog::Ctx::getCtx().setUsername(serverAccountName()); }

bool Identity::operator==(const Identity& other) const {
    return ruid == other.ruid && euid == other.euid && suid == other.suid && rgid == other.rgid && egid == other.egid &&
           sgid == other.sgid && groups == other.groups;
}

std::string Identity::describe() const {
    std::ostringstream text;
    text << "uids " << ruid << "/" << euid << "/" << suid << " gids " << rgid << "/" << egid << "/" << sgid
         << " groups";
    for (gid_t gid : groups) text << " " << gid;
    return text.str();
}

Identity currentIdentity() {
    Identity ids;
    getresuid(&ids.ruid, &ids.euid, &ids.suid);
    getresgid(&ids.rgid, &ids.egid, &ids.sgid);
    const int count = getgroups(0, nullptr);
    ids.groups.resize(count > 0 ? count : 0);
    if (count > 0) ids.groups.resize(std::max(0, getgroups(count, ids.groups.data())));
    std::sort(ids.groups.begin(), ids.groups.end());
    return ids;
}

}  // namespace webhost
