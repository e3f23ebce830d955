// files_fault_driver: account creations (passwd + shadow transaction) in a process of their own,
// for tests that inject failures, kill a writer half-way or run several at once.
//     files_fault_driver add NAME | addloop PREFIX N (PREFIX0..) | hold NAME
// "hold" fills both temporary files, prints "filled <pid>" and waits to be killed.  Prints "ok
// <uid>" per account or "error <id> <message>" (exit 1), then "umask <octal>".  Uids 20000-20999.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

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

void addAccount(const std::string& name, bool hold) {
    FileSystemUpdate passwd("/etc/passwd", "/etc/tmppassd", true);
    FileSystemUpdate shadow("/etc/shadow", "/etc/tmpshadow", false);
    passwd.prepareSystemFiles();
    shadow.prepareSystemFiles();
    const unsigned int uid = addEntryInPasswordFile(passwd, name, 100);
    // A ready-made hash: no time spent in crypt.
    addEntryInShadowFile(shadow, name, "$6$driver$hash", PasswordType{true}, -1, -1, -1, true, false);
    if (hold) {
        std::fflush(passwd.m_tmpFile);
        std::fflush(shadow.m_tmpFile);
        std::printf("filled %d\n", static_cast<int>(getpid()));
        std::fflush(stdout);
        for (;;) pause();
    }
    passwd.finalyzeSystemFiles();
    shadow.finalyzeSystemFiles();
    std::printf("ok %u\n", uid);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 2 ? argv[1] : "";
    if (command != "add" && command != "hold" && !(command == "addloop" && argc > 3)) {
        std::fprintf(stderr, "usage: files_fault_driver add NAME | addloop PREFIX N | hold NAME\n");
        return 2;
    }
    definition.setUserDefinition(definition);
    int status = 0;
    try {
        const int count = command == "addloop" ? std::atoi(argv[3]) : 1;
        for (int i = 0; i < count; ++i)
            addAccount(command == "addloop" ? argv[2] + std::to_string(i) : argv[2], command == "hold");
    } catch (tarvicexception::TvcException& e) {
        std::printf("error %d %s\n", e.getErrorId(), e.what());
        status = 1;
    }
    const mode_t mask = umask(0);
    std::printf("umask %03o\n", static_cast<unsigned int>(mask));
    return status;
}
