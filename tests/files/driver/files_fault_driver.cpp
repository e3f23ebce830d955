// files_fault_driver: runs account-file transactions in a process of its own, so that the
// reliability tests can inject failures into it (fiu-run), kill it half-way or run several
// of it at once.
//
//     files_fault_driver [OPTIONS] add NAME          one passwd + shadow addition
//     files_fault_driver [OPTIONS] addloop PREFIX N  N additions PREFIX0 .. PREFIX<N-1>
//     files_fault_driver [OPTIONS] hold NAME         an addition that stops before it is
//                                                    installed, prints "filled" and waits
//                                                    to be killed
// Options:
//     --dir DIR      account files DIR/passwd, DIR/shadow, temporary files DIR/tmppassd and
//                    DIR/tmpshadow (default /etc)
//     --base UID     first managed uid (default 20000)
//     --count N      number of managed uids (default 1000)
//     --no-root      hasRootProfile() false: install through the default update command
//
// Output: "ok" lines, or one line "error <errorId> <message>" and exit status 1 when the
// library throws; either way a last line "umask <octal>" shows the process's creation mask.
// Exit status 2 for a bad command line.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include <tarvicexception/TvcException.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/PasswdEntries.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UserDefinition.h>

namespace {

class DriverDefinition : public usermanagement::UserDefinition {
public:
    std::string passwd = "/etc/passwd";
    std::string passwdTmp = "/etc/tmppassd";
    std::string shadow = "/etc/shadow";
    std::string shadowTmp = "/etc/tmpshadow";
    unsigned int base = 20000;
    unsigned int count = 1000;
    bool root = true;

    unsigned int getMaxUser() override { return count; }
    unsigned int getBaseUid() override { return base; }
    const char* getPasswordFilePath() override { return passwd.c_str(); }
    const char* getPasswordTmpFilePath() override { return passwdTmp.c_str(); }
    const char* getShadowFilePath() override { return shadow.c_str(); }
    const char* getShadowTmpFilePath() override { return shadowTmp.c_str(); }
    bool hasRootProfile() override { return root; }
};

DriverDefinition definition;

// A ready-made hash: the additions store it as given and spend no time in crypt.
const char* const kHash =
    "$6$driverdriverdri$0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ./0123456789abcdef";

int usage() {
    std::cerr << "usage: files_fault_driver [--dir DIR] [--base UID] [--count N] [--no-root] "
                 "add NAME | addloop PREFIX N | hold NAME\n";
    return 2;
}

// Both transactions of an account creation, built and finalised in the library's order.
// With `hold` the entries are written and flushed, then the process announces it and waits.
unsigned int addAccount(const std::string& name, bool hold) {
    using namespace usermanagement;
    FileSystemUpdate passwd(definition.passwd, definition.passwdTmp, true);
    FileSystemUpdate shadow(definition.shadow, definition.shadowTmp, false);
    passwd.prepareSystemFiles();
    shadow.prepareSystemFiles();
    const unsigned int uid = addEntryInPasswordFile(passwd, name, 100);
    addEntryInShadowFile(shadow, name, kHash, PasswordType{true}, -1, -1, -1, true, false);
    if (hold) {
        std::fflush(passwd.m_tmpFile);
        std::fflush(shadow.m_tmpFile);
        std::cout << "filled" << std::endl;
        for (;;) pause();
    }
    passwd.finalyzeSystemFiles();
    shadow.finalyzeSystemFiles();
    return uid;
}

int run(const std::string& operation, char** args, int count) {
    if (operation == "add" && count == 1) {
        const unsigned int uid = addAccount(args[0], false);
        std::cout << "ok " << uid << "\n";
    } else if (operation == "hold" && count == 1) {
        addAccount(args[0], true);
    } else if (operation == "addloop" && count == 2) {
        const int n = std::atoi(args[1]);
        for (int i = 0; i < n; ++i) {
            const unsigned int uid = addAccount(args[0] + std::to_string(i), false);
            std::cout << "ok " << uid << "\n";
        }
    } else {
        return usage();
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int i = 1;
    for (; i < argc && std::string(argv[i]).rfind("--", 0) == 0; ++i) {
        const std::string option = argv[i];
        if (option == "--no-root") {
            definition.root = false;
        } else if (i + 1 < argc && option == "--dir") {
            const std::string dir = argv[++i];
            definition.passwd = dir + "/passwd";
            definition.passwdTmp = dir + "/tmppassd";
            definition.shadow = dir + "/shadow";
            definition.shadowTmp = dir + "/tmpshadow";
        } else if (i + 1 < argc && option == "--base") {
            definition.base = static_cast<unsigned int>(std::strtoul(argv[++i], nullptr, 10));
        } else if (i + 1 < argc && option == "--count") {
            definition.count = static_cast<unsigned int>(std::strtoul(argv[++i], nullptr, 10));
        } else {
            return usage();
        }
    }
    if (i >= argc) return usage();
    definition.setUserDefinition(definition);

    int status = 0;
    try {
        status = run(argv[i], argv + i + 1, argc - i - 1);
    } catch (tarvicexception::TvcException& e) {
        std::cout << "error " << e.getErrorId() << " " << e.what() << "\n";
        status = 1;
    }
    const mode_t mask = umask(0);
    umask(mask);
    std::printf("umask %03o\n", static_cast<unsigned int>(mask));
    return status;
}
