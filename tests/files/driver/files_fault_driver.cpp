// files_fault_driver: two-file account operations (passwd + shadow) in a process of their own,
// for tests that inject failures, kill a writer half-way or run several at once.
//     files_fault_driver [--hold-filled | --hold-between] OPERATION ARGS...
//       add NAME [PASSWORD]   (plaintext; without it a ready-made hash)
//       addloop PREFIX N      (PREFIX0 .. PREFIXN-1)
//       rename OLD NEW
//       remove NAME
// --hold-filled stops once both temporary files hold the new entries, --hold-between once the
// password file is installed and the shadow file is not; both print "<state> <pid>" and wait
// to be killed.  Otherwise prints "ok" per operation or "error <id> <message>" (exit 1), then
// "umask <octal>".  New accounts get uids 20000-20999.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <tarvicexception/TvcException.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UserDefinition.h>

namespace {

using namespace usermanagement;

struct DriverDefinition : UserDefinition {
    unsigned int getMaxUser() override { return 1000; }
    unsigned int getBaseUid() override { return 20000; }
} definition;

enum class Hold { None, Filled, Between };

[[noreturn]] void holdHere(const char* state) {
    std::printf("%s %d\n", state, static_cast<int>(getpid()));
    std::fflush(stdout);
    for (;;) pause();
}

unsigned int uidOf(const std::string& name) {
    const struct passwd* entry = getpwnam(name.c_str());
    if (entry == nullptr) {
        std::printf("error -1 no account %s\n", name.c_str());
        std::exit(1);
    }
    return entry->pw_uid;
}

// One operation: both transactions, the entry functions, both files installed together.
void run(Hold hold, const std::vector<std::string>& args) {
    const std::string& operation = args[0];
    const unsigned int uid = operation == "add" ? 0 : uidOf(args[1]);
    FileSystemUpdate passwd("/etc/passwd", "/etc/tmppassd", true);
    FileSystemUpdate shadow("/etc/shadow", "/etc/tmpshadow", false);
    passwd.prepareSystemFiles();
    shadow.prepareSystemFiles();
    if (operation == "add") {
        addEntryInPasswordFile(passwd, args[1], 100);
        // Without a password a ready-made hash: no time spent in crypt.
        const bool plaintext = args.size() > 2;
        addEntryInShadowFile(shadow, args[1], plaintext ? args[2] : "$6$driver$hash", PasswordType{!plaintext}, -1,
                             -1, -1, true, false);
    } else if (operation == "rename") {
        LookUpdatePasswd passwdRecord;
        LookUpdateShadow shadowRecord;
        updateEntryInPasswordFile(passwd, uid, getpwuid(uid)->pw_gid, &args[2], passwdRecord);
        updateEntryInShadowFile(shadow, args[1], &args[2], nullptr, {}, nullptr, nullptr, shadowRecord);
    } else {
        removeEntryInPasswordFile(passwd, uid);
        removeEntryInShadowFile(shadow, args[1]);
    }
    if (hold == Hold::Filled) {
        std::fflush(passwd.m_tmpFile);
        std::fflush(shadow.m_tmpFile);
        holdHere("filled");
    }
    if (hold == Hold::Between) {
        // What a power cut or a kill inside finalyzeSystemFilesTogether leaves: the first file
        // installed, the second not.
        passwd.finalyzeSystemFiles();
        holdHere("between");
    }
    finalyzeSystemFilesTogether(passwd, shadow);
    std::printf("ok\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    Hold hold = Hold::None;
    if (!args.empty() && (args[0] == "--hold-filled" || args[0] == "--hold-between")) {
        hold = args[0] == "--hold-filled" ? Hold::Filled : Hold::Between;
        args.erase(args.begin());
    }
    const std::string operation = args.empty() ? "" : args[0];
    const std::size_t needed = operation == "addloop" || operation == "rename" ? 3 : 2;
    if ((operation != "add" && operation != "addloop" && operation != "rename" && operation != "remove") ||
        args.size() < needed) {
        std::fprintf(stderr, "usage: files_fault_driver [--hold-filled|--hold-between] add NAME [PASSWORD] | "
                             "addloop PREFIX N | rename OLD NEW | remove NAME\n");
        return 2;
    }
    definition.setUserDefinition(definition);
    int status = 0;
    try {
        if (operation == "addloop")
            for (int i = 0; i < std::atoi(args[2].c_str()); ++i) run(hold, {"add", args[1] + std::to_string(i)});
        else
            run(hold, args);
    } catch (tarvicexception::TvcException& e) {
        std::printf("error %d %s\n", e.getErrorId(), e.what());
        status = 1;
    }
    const mode_t mask = umask(0);
    std::printf("umask %03o\n", static_cast<unsigned int>(mask));
    return status;
}
