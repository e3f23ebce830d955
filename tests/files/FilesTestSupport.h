// Shared pieces of the account-file tests.
#pragma once

#include <fcntl.h>
#include <shadow.h>
#include <sys/stat.h>

#include <functional>
#include <map>
#include <string>
#include <typeinfo>
#include <vector>

#include <tarvicexception/TvcException.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UMException.h>

#include "foundation/Descriptor.h"
#include "support/DeviceFixture.h"

namespace tvc::test {

// The sample device's settings with what the tests change, and a shell of its own for gid 10003.
struct FilesDefinition : usermanagement::UserDefinition {
    unsigned int count = 5;
    bool root = true;
    std::string script = "false ";
    std::vector<int> ageing;  // maximum, minimum, inactivity, exempt; nothing is written while empty

    unsigned int getMaxUser() override { return count; }
    const char* getUserShell(unsigned int gid) override { return gid == 10003 ? "/bin/maintenance" : "/bin/sh"; }
    void getDBPasswordExpirationAge(int& max, int& min, int& inactivity, bool& exempt) override {
        if (ageing.size() != 4) return;
        max = ageing[0], min = ageing[1], inactivity = ageing[2], exempt = ageing[3] != 0;
    }
    bool hasRootProfile() override { return root; }
    const char* getUpdateFileScript() override { return script.c_str(); }
};
using FilesTest = DeviceTest<FilesDefinition>;

inline bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

// True when nobody holds the password-file lock: no lock of this or another process (the library's
// own lock would make lckpwdf here wait, not fail).
inline bool lockIsFree() {
    const usermanagement::detail::Descriptor file(open("/etc/.pwd.lock", O_RDONLY | O_CLOEXEC));
    struct flock probe {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    return !file || (fcntl(file.get(), F_OFD_GETLK, &probe) == 0 && probe.l_type == F_UNLCK);
}

// What a failed transaction must leave: live files byte for byte as before, no temporary, the lock free.
struct Snapshot {
    std::map<std::string, std::string> files;
    std::vector<std::string> temporaries;

    explicit Snapshot(const std::vector<std::string>& live = {"/etc/passwd", "/etc/shadow", "/etc/group",
                                                              "/etc/gshadow"},
                      std::vector<std::string> tmp = {"/etc/tmppassd", "/etc/tmpshadow", "/etc/tmpgroup",
                                                      "/etc/tmpgshadow", "/etc/tmppassd.old", "/etc/tmpshadow.old",
                                                      "/etc/tmpgroup.old"})
        : temporaries(std::move(tmp)) {
        for (const std::string& path : live) files[path] = readFile(path);
    }
    void expectUnchanged() const {
        for (const auto& [path, text] : files) EXPECT_EQ(readFile(path), text) << path << " changed";
        for (const std::string& path : temporaries) EXPECT_FALSE(exists(path)) << path << " left behind";
        EXPECT_TRUE(lockIsFree()) << "password-file lock still held";
    }
};

// Runs `body` over a prepared transaction that takes the lock, and installs the result.
using Body = std::function<void(usermanagement::FileSystemUpdate&)>;
inline void rewrite(const std::string& live, const std::string& tmp, const Body& body) {
    usermanagement::FileSystemUpdate transaction(live, tmp, true);
    transaction.prepareSystemFiles();
    body(transaction);
    transaction.finalyzeSystemFiles();
}
inline void inPasswd(const Body& body) { rewrite("/etc/passwd", "/etc/tmppassd", body); }
inline void inShadow(const Body& body) { rewrite("/etc/shadow", "/etc/tmpshadow", body); }

// Expects `body` to throw exactly `type` with `code` and `message` (or, with `prefix`, a message
// that begins with it); returns the description, the reason of a failed system call.
inline std::string expectFailure(const std::function<void()>& body, const std::type_info& type, int code,
                                 const std::string& message, bool prefix = false) {
    try {
        body();
        ADD_FAILURE() << "no exception, expected " << code << " " << message;
    } catch (tarvicexception::TvcException& e) {
        EXPECT_TRUE(typeid(e) == type) << typeid(e).name() << " instead of " << type.name();
        EXPECT_EQ(e.getErrorId(), code) << e.what();
        const std::string what = e.what();
        EXPECT_EQ(prefix ? what.substr(0, message.size()) : what, message) << what;
        return e.getErrorDescription();
    }
    return "";
}

}  // namespace tvc::test
