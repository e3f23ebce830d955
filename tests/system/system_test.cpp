// The system layer: identities of single threads (SystemPermission's, the launcher's child's), read
// from /proc and set with the library's own per-thread calls in worker threads (the main thread stays
// root); the launcher, shell quoting and base64.  The sample device's groups are the accounts'.
#include <fcntl.h>
#include <linux/securebits.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include <systemutilities/Base64.h>
#include <systemutilities/ScriptLauncher.h>

#include "foundation/Descriptor.h"
#include "support/AccountSupport.h"
#include "system/IdSyscalls.h"

using namespace systemutilities;
using tvc::test::outcome;
using tvc::test::threadIds;
using tvc::test::writeFile;
using usermanagement::SystemPermission;
using usermanagement::User;
using usermanagement::UserDefinition;
using usermanagement::detail::Descriptor;
namespace ids = usermanagement::detail::ids;

namespace {

constexpr uid_t kSame = ids::kUnchanged;

// threadIds() of a root thread acting as `uid`/`gid`, or of one that gave root up for them.
std::string idText(unsigned int uid, unsigned int gid, const std::string& groups, bool dropped = false) {
    const std::string u = std::to_string(uid) + " ", g = std::to_string(gid) + " ";
    const std::string ru = dropped ? u : "0 ", rg = dropped ? g : "0 ";
    return "Uid: " + ru + u + ru + u + "Gid: " + rg + g + rg + g + "Groups: " + groups + " ";
}

// operator, account 10001, with two supplementary groups: as it switched, and dropped for good.
const std::vector<gid_t> kOperatorGroups{4201, 10001};
const std::string kOperator = idText(10001, 10001, "4201 10001");
const std::string kDropped = idText(10001, 10001, "4201 10001", true);

// For a thread holding a root id: real `r`, effective `e` and saved `s` user and group ids.
void becomeThread(unsigned int r, unsigned int e, unsigned int s, const std::vector<gid_t>& groups,
                  unsigned long securebits = 0) {
    ASSERT_EQ(prctl(PR_SET_SECUREBITS, securebits, 0, 0, 0), 0);
    ASSERT_EQ(ids::setResUid(kSame, 0, kSame), 0);
    ASSERT_EQ(ids::setGroups(static_cast<int>(groups.size()), groups.data()), 0);
    ASSERT_EQ(ids::setResGid(r, e, s), 0);
    ASSERT_EQ(ids::setResUid(r, e, s), 0);
}

bool noChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// A configuration whose hasRootProfile() gives answer(), installed for the object's lifetime.
struct ScopedRootProfile : UserDefinition {
    explicit ScopedRootProfile(bool (*answer)()) : answer(answer) { setUserDefinition(*this); }
    ~ScopedRootProfile() override { m_ptrDefaultUserDefinition = saved; }
    bool hasRootProfile() override { return answer(); }
    bool (*const answer)();
    UserDefinition* const saved = m_ptrDefaultUserDefinition;
};

using IdentityTest = tvc::test::SandboxTest;

TEST_F(IdentityTest, SwitchesOnlyTheCallingThreadAndRestoresTheSnapshotAlsoThroughCopiesAndMoves) {
    const std::string mainBefore = threadIds("self");
    std::thread([&] {
        // Saved ids that are not root: after the restore they are, so the thread can switch again.
        becomeThread(0, 10001, 10002, kOperatorGroups);
        const std::string before = threadIds();
        std::optional<SystemPermission> original(std::in_place);
        {
            ScopedRootProfile noRoot([] { return false; });  // nothing is switched, but the state changes
            original->setRealPermissions();
            original->setUserPermissionDefinitely();
            EXPECT_EQ(threadIds(), before);
        }
        original->restorePermission();
        EXPECT_EQ(threadIds(), kOperator);
        original->setRealPermissions();  // a restored object switches again
        EXPECT_EQ(threadIds(), idText(0, 10001, "4201 10001"));
        {
            SystemPermission copy(*original);
            // Work done as root that changes the groups and the group id.
            ASSERT_EQ(ids::setGroups(1, std::vector<gid_t>{42}.data()), 0);
            ASSERT_EQ(ids::setResGid(kSame, 42, kSame), 0);
        }  // the copy was changed too and restores with its own array
        EXPECT_EQ(threadIds(), kOperator);
        EXPECT_EQ(threadIds("self"), mainBefore);  // process-wide calls would have taken it along
        original->restorePermission();             // its array outlived the copy's
        original->setRealPermissions();
        SystemPermission moved(std::move(*original));
        original.reset();  // a moved-from object does not undo the switch
        EXPECT_EQ(threadIds().substr(0, 15), "Uid: 0 0 0 0 Gi");
        ASSERT_EQ(ids::setGroups(0, nullptr), 0);
        moved.restorePermission();
        EXPECT_EQ(threadIds(), kOperator);  // the array was taken over
    }).join();
}

// Root given up behind the object's back, `kept` still reachable: the destructor restores what
// an unprivileged thread can, and aborts when that is not the snapshot's identity.
void loseRoot(uid_t kept) {
    becomeThread(0, 10001, 0, kOperatorGroups);
    SystemPermission permission;
    permission.setRealPermissions();
    ASSERT_EQ(ids::setResGid(kept, kept, kept), 0);
    ASSERT_EQ(ids::setResUid(kept, 10002, kept), 0);
    EXPECT_EQ(outcome([&] { permission.restorePermission(); }), "15 setUpPermission");
}

using IdentityDeathTest = IdentityTest;

TEST_F(IdentityDeathTest, DestructorWithoutRootRestoresWhatItCanOrAborts) {
    std::thread([] {
        loseRoot(10001);
        EXPECT_EQ(threadIds(), kDropped);
    }).join();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(loseRoot(10002), "cannot return to euid 10001 egid 10001");
}

// After work done as root (group id 42) the snapshot's ids become every id.  A thread that keeps
// its capabilities through the id change could climb back to root: that drop is refused.
TEST_F(IdentityTest, DropForGoodLeavesNoWayBackToRoot) {
    for (const unsigned long securebits : {0ul, static_cast<unsigned long>(SECBIT_NO_SETUID_FIXUP)})
        std::thread([securebits] {
            SCOPED_TRACE(securebits);
            becomeThread(0, 10001, 0, kOperatorGroups, securebits);
            SystemPermission permission;
            ASSERT_EQ(ids::setResUid(kSame, 0, kSame), 0);
            ASSERT_EQ(ids::setResGid(kSame, 42, kSame), 0);
            EXPECT_EQ(outcome([&] { permission.setUserPermissionDefinitely(); }),
                      securebits == 0 ? "ok" : "15 setUserPermission sys_setresuid");
            EXPECT_EQ(threadIds(), kDropped);
            EXPECT_EQ(ids::setResUid(kSame, 0, kSame), securebits == 0 ? -1 : 0);
        }).join();
}

constexpr const char* kDir = "/tmp/download";
constexpr const char* kTrace = "/tmp/download/sessionP.txt";
constexpr const char* kOther = "/tmp/download/other";

// print() as root with something planted at the trace path, on a /tmp of the test's own.
TEST_F(IdentityTest, TraceWritesOnlyARegularFileOfItsOwnWithOneName) {
    ASSERT_TRUE(mount("tvc-trace", "/tmp", "tmpfs", 0, "mode=1777") == 0 && mkdir(kDir, 0755) == 0);
    const SystemPermission snapshot;
    testing::internal::CaptureStdout();
    snapshot.print();
    std::string trace = testing::internal::GetCapturedStdout();
    trace.pop_back();  // the file gets no blank line
    Descriptor reader;
    const struct {
        const char* what;
        std::function<bool()> plant;
        std::string expected;  // read through the trace path afterwards
        mode_t mode;           // of what is at the trace path afterwards, 0: nothing
    } cases[] = {
        {"nothing", [] { return true; }, trace, S_IFREG | 0600},
        {"an earlier trace", [] { return writeFile(kTrace, "earlier\n"), true; }, "earlier\n" + trace, S_IFREG | 0644},
        {"a symbolic link", [] { return writeFile(kOther, "o"), symlink(kOther, kTrace) == 0; }, "o", S_IFLNK | 0777},
        {"a hard link", [] { return writeFile(kOther, "o"), link(kOther, kTrace) == 0; }, "o", S_IFREG | 0644},
        {"another user's file", [] { return writeFile(kTrace, "o"), chown(kTrace, 10001, 10001) == 0; }, "o",
         S_IFREG | 0644},
        {"a FIFO nobody reads", [] { return mkfifo(kTrace, 0600) == 0; }, "", S_IFIFO | 0600},
        {"a FIFO with a reader",
         [&] { return mkfifo(kTrace, 0600) == 0 && (reader.reset(open(kTrace, O_RDONLY | O_NONBLOCK)), reader); }, "",
         S_IFIFO | 0600},
        // Last: the directory moves to /tmp/elsewhere.
        {"a link in place of the directory",
         [] { return rmdir(kDir) == 0 && mkdir("/tmp/elsewhere", 0755) == 0 && symlink("elsewhere", kDir) == 0; }, "",
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::remove(kTrace);
        std::remove(kOther);
        reader.reset();
        ASSERT_TRUE(c.plant());
        // In a fresh process, where SIGALRM ends a print() that blocks.
        EXPECT_EXIT((alarm(3), std::freopen("/dev/null", "w", stdout), snapshot.print(), _exit(0)),
                    testing::ExitedWithCode(0), "");
        const Descriptor watched(open(kTrace, O_RDONLY | O_NONBLOCK));
        char text[4096];
        const ssize_t length = watched ? read(watched.get(), text, sizeof text) : 0;
        EXPECT_EQ(std::string(text, static_cast<size_t>(std::max<ssize_t>(length, 0))), c.expected);
        struct stat status {};
        lstat(kTrace, &status);
        EXPECT_EQ(status.st_mode, c.mode);
    }
    umount2("/tmp", MNT_DETACH);
}

// operator in `count` more groups from gid `first` on; their ids.  100 more overflow the first
// guess of room for a group list; more than a thread may have are refused by setgroups.
std::string addOperatorGroups(long first, long count) {
    std::string lines, gids;
    for (long gid = first; gid < first + count; ++gid) {
        lines += "g" + std::to_string(gid) + ":x:" + std::to_string(gid) + ":operator\n";
        gids += std::to_string(gid) + " ";
    }
    tvc::test::addLines("/etc/group", lines);
    return gids;
}

// Every account of the device, acted as alone from a root thread with groups of its own (shadow's
// among them) by name and by object and back, then by many threads at once: each sees exactly its
// account's identity and context, never another thread's, and cannot change the account files but
// through the library's own switch to root.
TEST_F(IdentityTest, ActingAsAnAccountTakesExactlyItsIdentityAlsoWithManyThreadsAtOnce) {
    const std::string gids = addOperatorGroups(5000, 100);
    const std::map<std::string, std::string> known{
        {"operator", idText(10001, 10001, "4102 4103 4104 4200 4201 " + gids + "10001")},
        {"plainuser", idText(2002, 10002, "4101 10002")},  // the profile group, not "users", is its group id
        {"root", idText(0, 0, "0")},
    };
    std::vector<std::string> names, alone;
    for (const std::string& line : tvc::test::lines("/etc/passwd")) names.push_back(tvc::test::fields(line)[0]);
    for (const std::string& name : names)
        std::thread([&] {
            SCOPED_TRACE(name);
            becomeThread(0, 0, 0, {0, 42});
            const std::string before = threadIds();
            {
                SystemPermission permission;
                permission.setUserPermission(name);
                alone.push_back(threadIds());
                EXPECT_EQ(alone.back(), known.count(name) != 0 ? known.at(name) : alone.back());
                User& account = umlog::Ctx::getCtx().getUser();
                EXPECT_EQ(account.getUserName(), name);
                permission.setUserPermission("admin");  // switched already: nothing happens
                EXPECT_EQ(threadIds(), alone.back());
                permission.restorePermission();
                EXPECT_EQ(threadIds(), before);
                account.updateState();  // active now, unlike a freshly looked-up account
                permission.setUserPermission(User(name));
                EXPECT_EQ(threadIds(), alone.back());
                EXPECT_TRUE(umlog::Ctx::getCtx().getUser().isActive());  // an equal account is kept
            }
            EXPECT_EQ(threadIds(), before);
        }).join();
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4 * names.size(); ++t)
        threads.emplace_back([&, i = t % names.size()] {
            const std::string before = threadIds();
            for (int round = 0; round < 20; ++round) {
                SystemPermission permission;
                permission.setUserPermission(names[i]);
                ASSERT_EQ(threadIds(), alone[i]) << names[i];
                ASSERT_EQ(umlog::Ctx::getCtx().getUser().getUserName(), names[i]);
                if (names[i] == "root" || round > 0) continue;
                for (const char* file : {"/etc/shadow", "/etc/passwd", "/etc/.pwd.lock"})
                    EXPECT_EQ(Descriptor(open(file, O_WRONLY | O_CLOEXEC)).get(), -1) << names[i] << " " << file;
                {
                    SystemPermission root;  // the library's own switch, from the acting thread
                    root.setRealPermissions();
                    EXPECT_NE(Descriptor(open("/etc/shadow", O_WRONLY | O_CLOEXEC)).get(), -1);
                }
                EXPECT_EQ(threadIds(), alone[i]);
            }
            EXPECT_EQ(threadIds(), before);
        });
    for (std::thread& thread : threads) thread.join();
}

TEST_F(IdentityTest, CommandRunsWithTheThreadsEffectiveIdsAndTheAccountsGroupsOnly) {
    // Asked in the child, this configuration would let the command keep its root ids.
    static const pid_t parent = getpid();
    ScopedRootProfile parentOnly([] { return getpid() == parent; });
    const std::string gids = addOperatorGroups(5000, 100);
    const struct {
        unsigned int real, effective, saved;
        std::vector<gid_t> groups;
        std::string ids;  // of the command; "": the launch is refused
        unsigned long securebits = 0;
    } cases[] = {
        // Whatever groups the thread carries, the command gets exactly its account's.
        {0, 10001, 0, {4201, 10001}, idText(10001, 10001, "4102 4103 4104 4200 4201 " + gids + "10001", true)},
        {0, 10002, 0, {0, 4200}, idText(10002, 10002, "4102 4104 4201 10002", true)},
        {0, 3000, 0, {0, 4200}, idText(3000, 3000, "3000", true)},   // no account: its group id alone
        {0, 0, 0, {4200, 10001}, idText(0, 0, "4200 10001", true)},  // root keeps its groups
        {10001, 10001, 10001, {4201}, ""},                           // no root id left to give up
        // Capabilities that survive the id change would let the command climb back to root.
        {0, 10001, 0, {4201}, "", SECBIT_NO_SETUID_FIXUP},
    };
    for (const auto& c : cases)
        std::thread([&c] {
            SCOPED_TRACE(c.effective);
            becomeThread(c.real, c.effective, c.saved, c.groups, c.securebits);
            const std::string before = threadIds();
            if (!c.ids.empty()) {
                EXPECT_EQ(tvc::test::idsIn(std::istringstream(ScriptLauncher::exec("cat /proc/self/status", true))),
                          c.ids);
            } else {
                errno = 0;
                EXPECT_EQ(ScriptLauncher::Popen("echo must-not-run", "r"), nullptr);
                EXPECT_EQ(errno, EPERM);
                EXPECT_TRUE(noChildren());  // reaped
                try {
                    ScriptLauncher::exec("echo must-not-run", true);
                    ADD_FAILURE() << "ran";
                } catch (const LaunchError& e) {
                    EXPECT_EQ(std::string(e.what()) + " | " + e.getErrorDescription(),
                              "popen() failed! | Operation not permitted (uid " + std::to_string(c.effective) +
                                  " gid " + std::to_string(getegid()) + ")");
                }
                EXPECT_EQ(ScriptLauncher::exec("echo ran", false), "ran");  // no identity step, no refusal
            }
            EXPECT_EQ(threadIds(), before);  // the calling thread keeps its ids, and its way back to root
        }).join();
}

using ActingFailureTest = tvc::test::DeviceTest<tvc::test::QuickDefinition>;

// A thread acting as viewer asks a second object to act as an account, which fails before or after
// the switch began: the thread goes on as viewer, with its context's account object (read state
// included), and a right viewer lacks stays refused.
TEST_F(ActingFailureTest, AFailedActAsLeavesTheThreadAndItsContextAsTheyWere) {
    catalogue.getProfiles(true);  // replaces the library's own an earlier test built: viewer's rights
    const struct {
        const char* what;
        void (*prepare)();  // as root, before the thread acts as viewer
        std::function<void(SystemPermission&)> act;
        std::string failure;  // described()
    } cases[] = {
        {"no such account", [] {}, [](SystemPermission& p) { p.setUserPermission("nosuch"); },
         "16 setUserPermission no user | no account of that name in the account database (wanted uid 4294967295 "
         "gid 4294967295; thread has uid 0/10002/0 gid 0/10002/0)"},
        {"a group list setgroups refuses, through an account object",
         [] { addOperatorGroups(100000, sysconf(_SC_NGROUPS_MAX)); },
         [](SystemPermission& p) { p.setUserPermission(User("operator")); },
         "15 setUserPermission sys_setgroups | Invalid argument (wanted uid 10001 gid 10001; thread has uid "
         "0/10001/0 gid 0/10001/0)"},
        // Not stored: no user id (-1, which setresuid reads as "unchanged"), a real group id.
        {"an account object without a user id", [] {},
         [](SystemPermission& p) { p.setUserPermission(User("newcomer", 2, true)); },
         "15 setUserPermission sys_setresuid | the ids did not read back (wanted uid 4294967295 gid 10002; thread "
         "has uid 0/0/0 gid 0/10002/0)"},
        // The switch succeeds, but passwd only viewers may read: the context's account, built as
        // operator, is a failed lookup, not a missing account.
        {"an account the context cannot build",
         [] { ASSERT_TRUE(chown("/etc/passwd", 0, 10002) == 0 && chmod("/etc/passwd", 0640) == 0); },
         [](SystemPermission& p) { p.setUserPermission("operator"); },
         "12 getpwuid_r :The account database could not be read | Permission denied"},
    };
    for (const auto& c : cases) {
        c.prepare();
        std::thread([&c] {
            SCOPED_TRACE(c.what);
            SystemPermission viewer;
            viewer.setUserPermission("viewer");
            User& account = umlog::Ctx::getCtx().getUser();
            account.updateState();  // a fresh object of the account would not be active
            const auto unchanged = [&] {
                EXPECT_EQ(threadIds(), idText(10002, 10002, "4102 4104 4201 10002"));
                EXPECT_EQ(&umlog::Ctx::getCtx().getUser(), &account) << "the context holds another account object";
                EXPECT_TRUE(account.isActive() && account.getUserName() == "viewer");
                EXPECT_EQ(outcome([] {
                              UserDefinition::GetUserDefinition().checkRight(UserDefinition::UpdateUser, nullptr);
                          }),
                          "302 Not authorized");
            };
            unchanged();  // as it was before the request
            {
                SystemPermission other;
                EXPECT_EQ(tvc::test::described([&] { c.act(other); }), c.failure);
                unchanged();
            }  // and the object has nothing to restore
            unchanged();
        }).join();
        ASSERT_NO_THROW(tvc::test::restoreSampleDevice());
    }
}

TEST(ScriptLauncher, ExecReturnsTheOutputWithoutItsLastNewlineAndQuotedNamesAsOneUnchangedWord) {
    std::vector<std::pair<std::string, std::string>> cases = {
        {"printf 'a\\nb\\n'", "a\nb"},
        {"printf 'a\\nb'", "ab"},
        {"printf 'a\\n\\n'", "a\n"},
        {"true", ""},
        {"echo out; exit 3", "out"},  // the status is not looked at
        {"head -c 1000 /dev/zero | tr '\\0' x; echo; echo z", std::string(1000, 'x') + "\nz"},  // long lines
    };
    for (const std::string name : {"two  spaces\tand tab", "single'quote", "''", "a'b\"c\\d$e`f;g", "new\nline",
                                   "$(id)", "-n", "", "*", "~root", "trailing\\"})
        cases.emplace_back("set -- " + shellQuote(name) + "; printf '%s %s\\n' $# \"$1\"", "1 " + name);
    for (size_t i = 0; i < cases.size(); ++i)
        EXPECT_EQ(ScriptLauncher::exec(cases[i].first, i % 2 == 0), cases[i].second) << cases[i].first;
    EXPECT_TRUE(noChildren());
    EXPECT_THROW(shellQuote(std::string("a\0b", 3)), std::invalid_argument);
}

// A host's signal handler installed without SA_RESTART interrupts the reads of the output: the
// whole output still arrives, NUL bytes included, and the command is not cut off by SIGPIPE.
TEST(ScriptLauncher, ExecReadsOnThroughInterruptingSignals) {
    struct sigaction tick {}, before {};
    tick.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &tick, &before), 0);  // no SA_RESTART
    itimerval every{{0, 2000}, {0, 2000}}, stop{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
    const std::string out = ScriptLauncher::exec("sleep 0.2; printf 'a\\0b'; sleep 0.2; echo done", false);
    setitimer(ITIMER_REAL, &stop, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(out, std::string("a\0bdone", 7));
}

TEST(ScriptLauncher, StreamsReportTheirOwnStatusAndNoOtherChildHoldsThem) {
    FILE* writing = ScriptLauncher::PopenWithoutPerm("[ \"$(cat)\" = 'to the child' ] && exit 3", "w");
    // Had this child inherited the first one's write end, cat would wait until sleep ended.
    FILE* other = ScriptLauncher::PopenWithoutPerm("exec sleep 5", "w");
    ASSERT_TRUE(writing != nullptr && other != nullptr);
    std::fputs("to the child\n", writing);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WEXITSTATUS(ScriptLauncher::Pclose(writing)), 3);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    kill(ScriptLauncher::m_pids[fileno(other)], SIGKILL);
    ScriptLauncher::Pclose(other);

    FILE* foreign = std::fopen("/dev/null", "w");  // likely on a descriptor number a launched stream had
    const int foreignFd = fileno(foreign);
    EXPECT_EQ(ScriptLauncher::Pclose(foreign), -1);
    EXPECT_NE(fcntl(foreignFd, F_GETFD), -1);  // still open
    EXPECT_EQ(std::fclose(foreign), 0);
    EXPECT_EQ(ScriptLauncher::Popen("echo x", "x"), nullptr);  // fdopen refuses the mode
    EXPECT_TRUE(noChildren());
}

// In a fresh process (the exit code names the failed check): launches with the descriptor table
// sized under a lowered limit, with standard input and output closed (the pipe's child end then
// already has its number in the child), and with the table full.
int launchAtTheEdgesOfTheTable() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 128) return 2;
    const rlimit lowered{64, limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &lowered) != 0) return 3;
    ScriptLauncher::exec("true", false);  // sizes the table: 64 entries
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 4;
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    if (ScriptLauncher::exec("echo x", false) != "x") return 5;
    for (int fd = 0; fd != -1 && fd < 63;) fd = open("/dev/null", O_RDWR);  // every number below 64
    if (ScriptLauncher::PopenWithoutPerm("echo x", "r") != nullptr) return 6;
    if (ScriptLauncher::Pclose(fdopen(fcntl(0, F_DUPFD, 100), "r")) != -1) return 7;  // beyond the table
    return noChildren() ? 0 : 8;
}

// A signal that reaches a child before it runs the command finds the default action, never the
// host's handler (in a child that may still hold root and shares the host's buffers): SIGWINCH's
// handler reports a run in a child.  The command gets the caller's mask, which the caller keeps.
int g_hostPid = 0;
int g_strayRuns[2];

int launchUnderSignals() {
    if (setpgid(0, 0) != 0 || pipe2(g_strayRuns, O_NONBLOCK) != 0) return 2;  // signals stay in this group
    g_hostPid = getpid();
    struct sigaction host {};
    host.sa_handler = [](int) {  // no SA_RESTART: the launcher's waits see EINTR and must retry
        if (getpid() != g_hostPid) (void)!write(g_strayRuns[1], "x", 1);
    };
    sigaction(SIGWINCH, &host, nullptr);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR1);  // bit 10 of SigBlk
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    if (ScriptLauncher::exec("grep SigBlk /proc/self/status | cut -f2", true) != "0000000000000200") return 4;
    std::atomic<bool> done{false};
    std::thread sender([&done] {
        while (!done) kill(0, SIGWINCH);
    });
    for (int i = 0; i < 300; ++i) ScriptLauncher::exec("true", i % 2 == 0);
    done = true;
    sender.join();
    char stray;
    if (read(g_strayRuns[0], &stray, 1) == 1) return 1;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    if (!sigismember(&mask, SIGUSR1) || sigismember(&mask, SIGTERM)) return 5;
    return noChildren() ? 0 : 3;  // an interrupted wait that gave up leaves a child unreaped
}

TEST(ScriptLauncherDeathTest, InFreshProcesses) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(launchAtTheEdgesOfTheTable()), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(_exit(launchUnderSignals()), testing::ExitedWithCode(0), "");
}

std::string decode(const std::string& s) { return base64_decode(s.data(), static_cast<unsigned int>(s.size())); }

TEST(Base64, BothWays) {
    // RFC 4648's vectors, from prefixes of one buffer: the encoder reads no further than told.
    const unsigned char* foobar = reinterpret_cast<const unsigned char*>("foobar");
    const char* coded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (unsigned int length = 0; length <= 6; ++length) {
        EXPECT_EQ(base64_encode(foobar, length), coded[length]);
        EXPECT_EQ(decode(coded[length]), std::string("foobar", length));
        base64_cleanup();  // the next decode builds the table again
    }
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    EXPECT_EQ(decode(base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()), 256)), bytes);
    for (const char* broken : {"Zm9vY", "Zg", "Zm9vYmF"}) EXPECT_EQ(decode(broken), "") << broken;
}

}  // namespace
