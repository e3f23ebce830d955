// Fixture and file helpers for tests of the device's account files.  Test binaries run inside
// tools/sandbox/tvc-sandbox (main() in Sandbox.cpp), whose throw-away /etc holds the sample device;
// SandboxTest puts its account files back before every test, and outside a sandbox skips the test
// (fails it when CI=true).  A derived SetUp returns after it on IsSkipped() or HasFatalFailure().
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace tvc::test {

// Directory with the untouched sample passwd, group, shadow and gshadow; the sandbox script.
std::string pristineDir();
const char* sandboxScript();

// The file helpers throw std::system_error when a file cannot be read or written.  writeFile
// keeps the owner and mode of an existing file, a new one gets 0644; addLines adds whole lines
// behind the file's lines or in front of them; removeEntry drops the line of entry `name`, a
// test failure when there is none.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
void addLines(const std::string& path, const std::string& text, bool inFront = false);
void removeEntry(const std::string& path, const std::string& name);
// The lines of a file without their newlines; the line whose first field is `name`, or "";
// the colon-separated fields of a line, empty ones kept.
std::vector<std::string> lines(const std::string& path);
std::string lineOf(const std::string& path, const std::string& name);
std::vector<std::string> fields(const std::string& line);
// A shell command's exit status (128 + signal when killed) and output: of one started with
// popen() (`finish` closes it), or of `command` run through popen().
struct Result {
    int status = -1;
    std::string output;
};
Result finish(std::FILE* command);
Result run(const std::string& command);
// Puts the sample /etc/passwd, group, shadow and gshadow back: contents, owner and mode.
void restoreSampleDevice();

class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override;
};

}  // namespace tvc::test
