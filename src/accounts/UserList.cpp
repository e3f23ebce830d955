#include <usermanagement/Utilities.h>

#include <fcntl.h>
#include <pwd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "access/Caller.h"
#include "access/DatabaseLookup.h"
#include "files/InputStream.h"
#include "files/ManagedRange.h"
#include "foundation/Raise.h"

namespace usermanagement::utilities {

namespace {

struct Account {
    unsigned int uid;
    unsigned int gid;
    std::string name;
};

struct Closer {
    void operator()(FILE* stream) const { std::fclose(stream); }
};

[[noreturn]] void unreadable(int error, const char* path) {
    detail::raiseErrno<UMSystemErrorException>(error, UMSystemError::DatabaseLookup, "getUserList:", path,
                                               " :The account database could not be read");
}

// The managed accounts of the password file, in its order, read in one pass on a stream of the
// listing's own.  Not getpwent: its stream is the process's, and another thread's setpwent or
// endpwent (a host enumerating at the same time) would make the listing start over or stop
// half way, listing accounts twice or not at all.  The open file is the one installed when the
// listing began (a change installs a new file by rename), so every entry comes from the same
// state of the file.  Lines the reader cannot parse are skipped, as getpwent skips them.
std::vector<Account> managedAccounts(UserDefinition& definition) {
    const char* path = definition.getPasswordFilePath();
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const std::unique_ptr<FILE, Closer> file(fd < 0 ? nullptr : detail::openInputStream(fd));
    if (!file) unreadable(errno, path);
    std::vector<Account> accounts;
    std::vector<char> buffer(1024);
    for (;;) {
        struct passwd entry {};
        struct passwd* result = nullptr;
        const int status = fgetpwent_r(file.get(), &entry, buffer.data(), buffer.size(), &result);
        if (status == ERANGE && buffer.size() < detail::kMaxLookupBuffer) {
            // The line does not fit; the reader has gone back to its start.
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (status == ENOENT || (status == 0 && result == nullptr)) break;
        if (status != 0) unreadable(status, path);
        if (detail::isManagedUid(entry.pw_uid, definition))
            accounts.push_back({entry.pw_uid, entry.pw_gid, entry.pw_name});
    }
    return accounts;
}

}  // namespace

std::vector<User> getUserList() {
    // One operation: every account's read check is decided on the caller recorded here.
    const detail::CallerScope operation;
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    std::vector<User> users;
    for (Account& account : managedAccounts(definition)) {
        // Built from the entry as read: looking the name up again could find the account
        // renamed or removed since (an unknown name even fails after the configured pause).
        User user(account.uid, std::move(account.name));
        user.m_gid = account.gid;
        user.retrieveProfile();
        definition.checkRight(UserDefinition::ReadUser, nullptr);
        users.push_back(std::move(user));
    }
    return users;
}

}  // namespace usermanagement::utilities
