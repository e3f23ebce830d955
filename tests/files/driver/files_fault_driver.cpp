// files_fault_driver: one two-file account operation (passwd + shadow) in a process of its own,
// for tests that inject failures, kill a writer half-way or run several at once.
//     files_fault_driver [--hold-filled | --hold-between] add NAME [PASSWORD] | rename OLD NEW | remove NAME
// --hold-filled stops once both temporary files hold the change, --hold-between once the password
// file is installed and the shadow file is not (what a kill inside finalyzeSystemFilesTogether
// leaves); both print "<state> <pid>" and wait to be killed.  Otherwise prints "ok" or "error
// <id> <message>" (exit 1), then "umask <octal>".  New accounts get uids 20000-20999; without a
// PASSWORD they get a ready-made hash, so that no time goes into crypt.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <tarvicexception/TvcException.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UserDefinition.h>

using namespace usermanagement;

namespace {

struct DriverDefinition : UserDefinition {
    unsigned int getMaxUser() override { return 1000; }
    unsigned int getBaseUid() override { return 20000; }
} definition;

[[noreturn]] void holdHere(const char* state) {
    std::printf("%s %d\n", state, static_cast<int>(getpid()));
    std::fflush(stdout);
    for (;;) pause();
}

void run(const std::string& hold, const std::string& operation, const std::string& name, const std::string* extra) {
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
    if (hold == "--hold-filled") {
        std::fflush(passwd.m_tmpFile);
        std::fflush(shadow.m_tmpFile);
        holdHere("filled");
    }
    if (hold == "--hold-between") {
        passwd.finalyzeSystemFiles();
        holdHere("between");
    }
    finalyzeSystemFilesTogether(passwd, shadow);
    std::printf("ok\n");
}

}  // namespace

int main(int argc, char** argv) {
    const int first = argc > 1 && std::string(argv[1]).rfind("--hold-", 0) == 0 ? 2 : 1;
    const std::string operation = argc > first + 1 ? argv[first] : "";
    if (operation != "add" && operation != "rename" && operation != "remove") {
        std::fprintf(stderr,
                     "usage: files_fault_driver [--hold-filled|--hold-between] add NAME [PASSWORD] | "
                     "rename OLD NEW | remove NAME\n");
        return 2;
    }
    definition.setUserDefinition(definition);
    const std::string extra = argc > first + 2 ? argv[first + 2] : "";
    int status = 0;
    try {
        run(first == 2 ? argv[1] : "", operation, argv[first + 1], argc > first + 2 ? &extra : nullptr);
    } catch (tarvicexception::TvcException& e) {
        std::printf("error %d %s\n", e.getErrorId(), e.what());
        status = 1;
    }
    const mode_t mask = umask(0);
    std::printf("umask %03o\n", static_cast<unsigned int>(mask));
    return status;
}
