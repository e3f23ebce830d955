// Helpers for tests that put single threads into other identities.  A thread's ids are read
// from /proc (the kernel's view, not the code under test's) and set with the library's own raw
// calls (system/IdSyscalls.h), which change the calling thread only.  Every switch happens in a
// worker thread, so that the test's main thread stays root.
#pragma once

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <usermanagement/UserDefinition.h>

#include "support/Sandbox.h"
#include "system/IdSyscalls.h"

namespace tvc::test {

namespace ids = usermanagement::detail::ids;
constexpr uid_t kSame = ids::kUnchanged;

inline pid_t threadId() { return static_cast<pid_t>(::syscall(SYS_gettid)); }

// "Uid: R E S F Gid: R E S F Groups: ... " of a thread of this process (groups sorted by the kernel).
inline std::string idsOf(pid_t tid = threadId()) {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string ids;
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Uid:", 0) == 0 || line.rfind("Gid:", 0) == 0 || line.rfind("Groups:", 0) == 0) {
            std::istringstream words(line);
            for (std::string word; words >> word;) ids += word + " ";
        }
    return ids;
}

// Real `r`, effective `e`, saved `s` user and group ids and `groups`, for a thread holding a root id.
inline void becomeThread(unsigned int r, unsigned int e, unsigned int s, const std::vector<gid_t>& groups) {
    ASSERT_EQ(ids::setResUid(kSame, 0, kSame), 0);
    ASSERT_EQ(ids::setGroups(static_cast<int>(groups.size()), groups.data()), 0);
    ASSERT_EQ(ids::setResGid(r, e, s), 0);
    ASSERT_EQ(ids::setResUid(r, e, s), 0);
}

template <class Body>
void inThread(Body body) {
    std::thread(body).join();
}

// A configuration whose hasRootProfile() gives answer(), installed for the object's lifetime.
class ScopedRootProfile : public usermanagement::UserDefinition {
public:
    explicit ScopedRootProfile(bool (*answer)()) : m_answer(answer) { setUserDefinition(*this); }
    ~ScopedRootProfile() override { m_ptrDefaultUserDefinition = m_saved; }
    bool hasRootProfile() override { return m_answer(); }

private:
    bool (*m_answer)();
    usermanagement::UserDefinition* m_saved = m_ptrDefaultUserDefinition;
};

// Switching identities needs root, which the sandbox needs as well: without one, these skip.
// The sample device's group file gives the accounts their groups.
using IdentityTest = SandboxTest;

}  // namespace tvc::test
