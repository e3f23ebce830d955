// Test fixture and helpers for tests that work on the device's account files.
//
// Test binaries run inside tools/sandbox/tvc-sandbox (SandboxMain.cpp arranges it), so /etc
// is a throw-away overlay holding the sample device.  SandboxTest puts the sample account
// files back before every test.  Outside a sandbox its tests are skipped, or fail when the
// environment says CI=true: a CI machine must be able to build the sandbox.
//
// A fixture deriving from SandboxTest that has its own SetUp calls SandboxTest::SetUp() first
// and returns when IsSkipped() or HasFatalFailure().
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace tvc::test {

// True when this process runs inside the device sandbox.
bool sandboxActive();
// Why there is no sandbox (TVC_SANDBOX_ERROR), or "" inside one.
std::string sandboxError();
// Directory with the untouched sample passwd, group, shadow and gshadow.
std::string pristineDir();
// Path of tools/sandbox/tvc-sandbox, for tests of the sandbox itself.
const char* sandboxScript();

// Whole file; throws std::system_error when it cannot be read.
std::string readFile(const std::string& path);
// Replaces the contents of `path`, keeping the owner and mode of an existing file (a new one
// gets 0644); throws std::system_error on failure.
void writeFile(const std::string& path, const std::string& text);
// Adds `text` (whole lines) to the file at `path`, behind its lines or in front of them.
void addLines(const std::string& path, const std::string& text, bool inFront = false);
// Drops the line of entry `name` (the text before its first ':') from the file at `path`;
// a test failure when there is none.
void removeEntry(const std::string& path, const std::string& name);
// Puts the sample /etc/passwd, group, shadow and gshadow back: contents, owner and mode.
void restoreSampleDevice();

class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override;
};

}  // namespace tvc::test
