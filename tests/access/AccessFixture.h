// Shared by the access tests: a sandbox fixture that puts the process-wide access state back
// around every test, and helpers for printed forms, group-file edits and UMExceptions.
#pragma once

#include <mutex>
#include <sstream>
#include <string>

#include <umlog/Ctx.h>
#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UmGroup.h>

#include "support/Sandbox.h"

namespace tvc::test {

template <class T>
std::string printed(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

// Drops the line of group `name` from /etc/group.
inline void removeGroup(const std::string& name) {
    const std::string text = readFile("/etc/group");
    const std::size_t at = ("\n" + text).find("\n" + name + ":");
    ASSERT_NE(at, std::string::npos) << name;
    writeFile("/etc/group", text.substr(0, at) + text.substr(text.find('\n', at) + 1));
}

// Expects `action` to throw UMException `code` with message `what`, raised for `user`.
template <class Action>
void expectUmException(Action action, int code, const std::string& what, const std::string& user) {
    try {
        action();
        ADD_FAILURE() << "no UMException " << code << " \"" << what << "\"";
    } catch (const usermanagement::UMException& e) {
        EXPECT_EQ(e.getErrorId(), code);
        EXPECT_EQ(e.what(), what);
        EXPECT_EQ(e.getUser(), user);
    }
}

// Restores exception mode, the installed catalogue and the log-context user after every test,
// and empties the catalogue tables, so that every test starts from an unbuilt catalogue.
class AccessTest : public SandboxTest {
protected:
    using ProfileDefinition = usermanagement::ProfileDefinition;

    void TearDown() override {
        usermanagement::UmGroup::m_exceptionMode = savedMode_;
        ProfileDefinition::m_ptrDefaultProfileDefinition = savedCatalogue_;
        resetTables();
        umlog::Ctx::getCtx().setUsername("");
    }
    static ProfileDefinition& catalogue() { return ProfileDefinition::GetProfileDefinition(); }

private:
    static void resetTables() {
        std::lock_guard<std::mutex> lock(ProfileDefinition::m_mtx);
        ProfileDefinition::g_profiles.clear();
        ProfileDefinition::g_roles.clear();
        ProfileDefinition::m_init = false;
    }

    bool savedMode_ = usermanagement::UmGroup::m_exceptionMode;
    ProfileDefinition* savedCatalogue_ = ProfileDefinition::m_ptrDefaultProfileDefinition;
};

}  // namespace tvc::test
