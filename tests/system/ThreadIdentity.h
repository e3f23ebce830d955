// Helpers for tests that put single threads into other identities.
//
// The ids of a thread are read from /proc/self/task/<tid>/status, i.e. from the kernel, not
// through the code under test.  Threads are switched with the library's own raw calls
// (system/IdSyscalls.h), which change the calling thread only.
#pragma once

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <usermanagement/UserDefinition.h>

#include "system/IdSyscalls.h"

namespace tvc::test {

inline pid_t threadId() { return static_cast<pid_t>(::syscall(SYS_gettid)); }

// Real, effective, saved (and filesystem) ids and the supplementary groups of one thread.
struct ThreadIds {
    std::vector<unsigned int> uid;  // real, effective, saved, filesystem
    std::vector<unsigned int> gid;
    std::vector<unsigned int> groups;  // as the kernel keeps them: sorted
};

inline std::vector<unsigned int> numbersAfter(const std::string& line, const std::string& label) {
    std::vector<unsigned int> numbers;
    std::istringstream in(line.substr(label.size()));
    unsigned long value = 0;
    while (in >> value) numbers.push_back(static_cast<unsigned int>(value));
    return numbers;
}

inline ThreadIds idsOf(pid_t tid) {
    ThreadIds ids;
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Uid:", 0) == 0) ids.uid = numbersAfter(line, "Uid:");
        if (line.rfind("Gid:", 0) == 0) ids.gid = numbersAfter(line, "Gid:");
        if (line.rfind("Groups:", 0) == 0) ids.groups = numbersAfter(line, "Groups:");
    }
    return ids;
}

inline ThreadIds myIds() { return idsOf(threadId()); }

// Puts the calling thread (running as root) to real `r`, effective `e`, saved `s` ids for both
// user and group, with `groups` as supplementary groups.  Fails the test when refused.
inline void becomeThread(unsigned int r, unsigned int e, unsigned int s, const std::vector<unsigned int>& groups) {
    namespace ids = usermanagement::detail::ids;
    ASSERT_EQ(ids::setGroups(static_cast<int>(groups.size()), groups.data()), 0);
    ASSERT_EQ(ids::setResGid(r, e, s), 0);
    ASSERT_EQ(ids::setResUid(r, e, s), 0);
}

inline std::vector<unsigned int> triple(unsigned int r, unsigned int e, unsigned int s) { return {r, e, s, e}; }

// Hands turns between the test's main thread and a worker: one waits until the other has
// reached a numbered step.
class Baton {
public:
    void reach(int step) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_step = step;
        m_changed.notify_all();
    }
    void waitFor(int step) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_step >= step; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_step = 0;
};

// A configuration that forbids identity switching, installed for the lifetime of the object.
class NoRootProfile : public usermanagement::UserDefinition {
public:
    NoRootProfile() : m_saved(m_ptrDefaultUserDefinition) { setUserDefinition(*this); }
    ~NoRootProfile() override { m_ptrDefaultUserDefinition = m_saved; }
    NoRootProfile(const NoRootProfile&) = delete;
    NoRootProfile& operator=(const NoRootProfile&) = delete;
    bool hasRootProfile() override { return false; }

private:
    usermanagement::UserDefinition* m_saved;
};

#define TVC_REQUIRE_ROOT()                                                          \
    do {                                                                            \
        if (geteuid() != 0) GTEST_SKIP() << "switching thread identities needs root"; \
    } while (0)

}  // namespace tvc::test
