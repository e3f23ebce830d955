// Test fixture and helpers for tests that work on the device's account files.
//
// Test binaries run inside tools/sandbox/tvc-sandbox (SandboxMain.cpp arranges it), so /etc is
// a throw-away overlay holding the sample device, put back before every SandboxTest.  Outside a
// sandbox those tests are skipped, or fail when CI=true: a CI machine must build the sandbox.
// A derived fixture with its own SetUp calls SandboxTest::SetUp() first and returns when
// IsSkipped() or HasFatalFailure().
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace tvc::test {

bool sandboxActive();
// Why there is no sandbox (TVC_SANDBOX_ERROR), or "" inside one.
std::string sandboxError();
// Directory with the untouched sample passwd, group, shadow and gshadow.
std::string pristineDir();
// Path of tools/sandbox/tvc-sandbox, for tests of the sandbox itself.
const char* sandboxScript();

// The file helpers throw std::system_error when the file cannot be read or written.
std::string readFile(const std::string& path);
// Keeps the owner and mode of an existing file; a new one gets 0644.
void writeFile(const std::string& path, const std::string& text);
// Adds whole lines behind the file's lines or in front of them.
void addLines(const std::string& path, const std::string& text, bool inFront = false);
// Drops the line of entry `name` (the text before its first ':'); a test failure when there is none.
void removeEntry(const std::string& path, const std::string& name);
// Puts the sample /etc/passwd, group, shadow and gshadow back: contents, owner and mode.
void restoreSampleDevice();

class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override;
};

}  // namespace tvc::test
