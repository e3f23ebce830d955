// Shared pieces of the account-file tests: a configuration with adjustable paths and ranges,
// the checks made after every failed transaction, and child processes.
#pragma once

#include <gtest/gtest.h>
#include <shadow.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <tarvicexception/TvcException.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UserDefinition.h>

#include "support/Sandbox.h"

namespace tvc::test {

// The sample device's settings, with the fields a test wants to change.
class FilesDefinition : public usermanagement::UserDefinition {
public:
    std::string passwd = "/etc/passwd";
    std::string passwdTmp = "/etc/tmppassd";
    std::string shadow = "/etc/shadow";
    std::string shadowTmp = "/etc/tmpshadow";
    unsigned int base = 10000;
    unsigned int count = 5;
    bool root = true;
    std::string script = "false ";
    std::map<unsigned int, std::string> shells;  // getUserShell per gid; "/bin/sh" otherwise
    unsigned int maxPasswordLength = 255;
    // getDBPasswordExpirationAge; nothing is written while `ageing` is false.
    bool ageing = false;
    int maxAge = -1, minAge = -1, thirdAge = -1;
    bool exemptBase = false;

    unsigned int getMaxUser() override { return count; }
    unsigned int getBaseUid() override { return base; }
    const char* getUserShell(unsigned int gid) override {
        auto found = shells.find(gid);
        return found == shells.end() ? "/bin/sh" : found->second.c_str();
    }
    unsigned int getDBPasswordMaxLen() override { return maxPasswordLength; }
    void getDBPasswordExpirationAge(int& max, int& min, int& third, bool& exempt) override {
        if (!ageing) return;
        max = maxAge;
        min = minAge;
        third = thirdAge;
        exempt = exemptBase;
    }
    const char* getPasswordFilePath() override { return passwd.c_str(); }
    const char* getPasswordTmpFilePath() override { return passwdTmp.c_str(); }
    const char* getShadowFilePath() override { return shadow.c_str(); }
    const char* getShadowTmpFilePath() override { return shadowTmp.c_str(); }
    bool hasRootProfile() override { return root; }
    const char* getUpdateFileScript() override { return script.c_str(); }
};

// Sandbox fixture with a FilesDefinition installed for the test and the built-in one back after.
class FilesTest : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        m_saved = usermanagement::UserDefinition::m_ptrDefaultUserDefinition;
        definition.setUserDefinition(definition);
    }
    void TearDown() override { usermanagement::UserDefinition::m_ptrDefaultUserDefinition = m_saved; }

    FilesDefinition definition;

private:
    usermanagement::UserDefinition* m_saved = nullptr;
};

inline bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

// True when this process can take the password-file lock at once (it releases it again).
bool lockIsFree();

// The state every failed transaction must leave: live files as they were, no temporary files,
// the lock free.
struct Snapshot {
    std::map<std::string, std::string> files;  // live path -> contents
    std::vector<std::string> temporaries;

    static Snapshot take(const std::vector<std::string>& live, const std::vector<std::string>& temporaries);
    void expectUnchanged() const;
};

// Runs `body` over a prepared transaction and installs the result.
void rewrite(const std::string& live, const std::string& tmp, bool lock,
             const std::function<void(usermanagement::FileSystemUpdate&)>& body);

// Expects `body` to throw E with `code` and (when given) exactly `message`.
template <class E>
void expectThrow(const std::function<void()>& body, int code, const std::string& message = std::string()) {
    try {
        body();
        ADD_FAILURE() << "no exception, expected code " << code;
    } catch (E& e) {
        EXPECT_EQ(e.getErrorId(), code) << e.what();
        if (!message.empty()) {
            EXPECT_EQ(std::string(e.what()), message);
        }
    } catch (tarvicexception::TvcException& e) {
        ADD_FAILURE() << "other exception class, code " << e.getErrorId() << ": " << e.what();
    }
}

// The lines of a file.
std::vector<std::string> lines(const std::string& path);
// The line of `path` whose first field is `name`, or "".
std::string lineOf(const std::string& path, const std::string& name);
// The colon-separated fields of a line (empty fields kept).
std::vector<std::string> fields(const std::string& line);

// A child process run to completion.
struct ProcessResult {
    int status = -1;  // wait status
    std::string output;  // stdout
};
// `extraEnv` ("NAME=value") is added to the environment, replacing variables of the same name.
ProcessResult runProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {});

// A child process still running, its stdout readable from `out`.  Finish it with finish().
struct RunningProcess {
    pid_t pid = -1;
    int out = -1;
};
RunningProcess startProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {});
// Reads the rest of the child's output and waits for it.
ProcessResult finish(RunningProcess& child);

}  // namespace tvc::test
