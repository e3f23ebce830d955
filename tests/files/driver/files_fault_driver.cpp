// One two-file account operation in a process of its own, to inject failures into, kill or race.
//     files_fault_driver [--hold] add NAME [PASSWORD] | rename OLD NEW | remove NAME
// --hold stops between the installs of passwd and shadow, prints "held <pid>" and waits to be
// killed.  Otherwise prints "ok" or "error <id> <message>" (exit 1), then "umask <octal>".
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <tarvicexception/TvcException.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UserDefinition.h>

using namespace usermanagement;

namespace {

// New accounts get uids 20000-20999 and, without a PASSWORD, a ready-made hash (no time for crypt).
struct DriverDefinition : UserDefinition {
    unsigned int getMaxUser() override { return 1000; }
    unsigned int getBaseUid() override { return 20000; }
} definition;

void run(bool hold, const std::string& operation, const std::string& name, const std::string* extra) {
    const struct passwd* account = getpwnam(name.c_str());
    const unsigned int uid = account ? account->pw_uid : 0, gid = account ? account->pw_gid : 100;
    FileSystemUpdate passwd("/etc/passwd", "/etc/tmppassd", true);
    FileSystemUpdate shadow("/etc/shadow", "/etc/tmpshadow", false);
    passwd.prepareSystemFiles();
    shadow.prepareSystemFiles();
    if (operation == "add") {
        addEntryInPasswordFile(passwd, name, 100);
        addEntryInShadowFile(shadow, name, extra ? *extra : "$6$driver$hash", PasswordType{extra == nullptr}, -1, -1,
                             -1, true, false);
    } else if (operation == "rename") {
        LookUpdatePasswd passwdRecord;
        LookUpdateShadow shadowRecord;
        updateEntryInPasswordFile(passwd, uid, gid, extra, passwdRecord);
        updateEntryInShadowFile(shadow, name, extra, nullptr, {}, nullptr, nullptr, shadowRecord);
    } else {
        removeEntryInPasswordFile(passwd, uid);
        removeEntryInShadowFile(shadow, name);
    }
    if (hold) {
        passwd.finalyzeSystemFiles();
        std::printf("held %d\n", static_cast<int>(getpid()));
        std::fflush(stdout);
        for (;;) pause();
    }
    finalyzeSystemFilesTogether(passwd, shadow);
    std::printf("ok\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    const bool hold = !args.empty() && args[0] == "--hold";
    if (hold) args.erase(args.begin());
    if (args.size() < 2 || (args[0] != "add" && args[0] != "rename" && args[0] != "remove")) {
        std::fprintf(stderr, "usage: files_fault_driver [--hold] add NAME [PASSWORD] | rename OLD NEW | remove NAME\n");
        return 2;
    }
    definition.setUserDefinition(definition);
    int status = 0;
    try {
        run(hold, args[0], args[1], args.size() > 2 ? &args[2] : nullptr);
    } catch (tarvicexception::TvcException& e) {
        std::printf("error %d %s\n", e.getErrorId(), e.what());
        status = 1;
    }
    std::printf("umask %03o\n", static_cast<unsigned int>(umask(0)));
    return status;
}
