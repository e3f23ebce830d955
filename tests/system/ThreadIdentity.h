// Helpers for tests that put single threads into other identities.  A thread's ids are read
// from /proc/self/task/<tid>/status (the kernel's view, not the code under test's) and set with
// the library's own raw calls (system/IdSyscalls.h), which change the calling thread only.
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

#include "system/IdSyscalls.h"

namespace tvc::test {

namespace ids = usermanagement::detail::ids;

inline pid_t threadId() { return static_cast<pid_t>(::syscall(SYS_gettid)); }

// Real, effective, saved and filesystem ids, and the supplementary groups (sorted by the kernel).
struct ThreadIds {
    std::vector<unsigned int> uid, gid, groups;
    bool operator==(const ThreadIds& o) const { return uid == o.uid && gid == o.gid && groups == o.groups; }
};

inline ThreadIds idsOf(pid_t tid) {
    ThreadIds ids;
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    for (std::string line; std::getline(status, line);) {
        std::vector<unsigned int>* field = line.rfind("Uid:", 0) == 0      ? &ids.uid
                                           : line.rfind("Gid:", 0) == 0    ? &ids.gid
                                           : line.rfind("Groups:", 0) == 0 ? &ids.groups
                                                                           : nullptr;
        std::istringstream in(line.substr(line.find(':') + 1));
        for (unsigned long value = 0; field != nullptr && in >> value;) field->push_back(static_cast<unsigned int>(value));
    }
    return ids;
}

inline ThreadIds myIds() { return idsOf(threadId()); }

inline std::vector<unsigned int> triple(unsigned int r, unsigned int e, unsigned int s) { return {r, e, s, e}; }

// Puts the calling thread (holding a root id) to real `r`, effective `e`, saved `s` user and
// group ids, with `groups` as supplementary groups.
inline void becomeThread(unsigned int r, unsigned int e, unsigned int s, const std::vector<unsigned int>& groups) {
    ASSERT_EQ(ids::setResUid(ids::kUnchanged, 0, ids::kUnchanged), 0);
    ASSERT_EQ(ids::setGroups(static_cast<int>(groups.size()), groups.data()), 0);
    ASSERT_EQ(ids::setResGid(r, e, s), 0);
    ASSERT_EQ(ids::setResUid(r, e, s), 0);
}

// Runs `body` in a thread of its own, so that the test's main thread stays root.
template <class Body>
void inThread(Body body) {
    std::thread(body).join();
}

// A configuration whose hasRootProfile() gives answer(), installed for the object's lifetime.
class ScopedRootProfile : public usermanagement::UserDefinition {
public:
    explicit ScopedRootProfile(bool (*answer)()) : m_answer(answer), m_saved(m_ptrDefaultUserDefinition) {
        setUserDefinition(*this);
    }
    ~ScopedRootProfile() override { m_ptrDefaultUserDefinition = m_saved; }
    bool hasRootProfile() override { return m_answer(); }

private:
    bool (*m_answer)();
    usermanagement::UserDefinition* m_saved;
};

#define TVC_REQUIRE_ROOT() \
    do {                   \
        if (geteuid() != 0) GTEST_SKIP() << "switching thread identities needs root"; \
    } while (0)

}  // namespace tvc::test
