// A soak of the whole library under threads, as a web server drives it: sixteen threads, each
// acting as its own account, log in, list, show, ask the rights check, change their password and
// create and remove accounts of their own, while shadow-utils adds, changes and removes accounts
// in the same files from another process.  Every call must give the thread the answer it got
// alone, every listing must hold the stable accounts once each, and the files must end sound.
// SOAK_S sets the duration in seconds (20 by default).
#include <crypt.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>

#include <authnz/WebPam.h>
#include <usermanagement/Utilities.h>

#include "sampledevice/SampleDevice.h"
#include "support/AccountSupport.h"

using namespace usermanagement;
using namespace tvc::test;

namespace {

// The sample configuration with room for the threads' own accounts and their creations.
struct SoakDefinition : QuickDefinition {
    unsigned int getMaxUser() override { return 40; }
};

using Soak = AccountsTest;

const std::vector<std::string> kScratch = {"soak-t0", "soak-t1", "soak-t2", "soak-t3"};
const int kScratchProfiles[] = {1, 2, 3, 1};  // profile 0 (administrators) cannot be given

struct Caller {
    std::string name, password;
    int index = 0, round = 0;
};

// Whether the listing holds every stable account once and no name or uid twice.
std::string listingFault(const std::vector<User>& users, const std::set<std::string>& stable) {
    std::map<std::string, int> names;
    std::set<unsigned int> uids;
    for (const User& user : users)
        if (names[user.getUserName()]++ || !uids.insert(user.getUid()).second) return "twice: " + user.getUserName();
    for (const std::string& name : stable)
        if (!names.count(name)) return "missing: " + name;
    return "";
}

// One round of calls as the calling thread's account: the outcome code of each, "!" marking a
// call after which the thread's ids or groups were not those it had before.
std::string serve(Caller& caller, const std::set<std::string>& stable, std::string& fault) {
    std::string answers;
    const std::string ids = threadIds();
    const auto call = [&](const char* what, const std::function<void()>& body) {
        answers += std::string(" ") + what + "=" + outcomeCode(body) + (threadIds() == ids ? "" : "!");
    };
    call("login", [&] {
        std::unique_ptr<authnz::WebPam> pam(authnz::WebPam::GetPAM(caller.name, "192.0.2.9", authnz::WebPam::WebLogin));
        pam->pamAuthentication(caller.password.c_str());
    });
    call("list", [&] {
        const std::string problem = listingFault(utilities::getUserList(), stable);
        if (!problem.empty() && fault.empty()) fault = "listing " + problem;
    });
    call("show", [&] { User("viewer").updateState(); });
    call("read", [] { UserDefinition::GetUserDefinition().checkRight(UserDefinition::ReadUser, nullptr); });
    call("manage", [] { UserDefinition::GetUserDefinition().checkRight(UserDefinition::CreateUser, nullptr); });
    const std::string name = "s" + std::to_string(caller.index) + "-" + std::to_string(caller.round++);
    std::unique_ptr<User> created;
    const bool skip = true;
    call("create", [&] {
        created = std::make_unique<User>(User::createUser(name, "Scratch#2026", 2, true, false, &skip));
    });
    if (created) call("remove", [&] { created->removeUser(); });
    std::string next = "Kq7!" + std::to_string(caller.index) + "w" + std::to_string(caller.round) + "Zr";
    call("passwd", [&] { User(caller.name).updatePassword(caller.password, next, "192.0.2.9"); });
    if (answers.rfind("passwd=ok") != std::string::npos) caller.password = next;
    return answers;
}

TEST_F(Soak, ThreadsAndShadowUtilsOnTheSameFilesEachGetTheirAnswersAndLoseNothing) {
    SoakDefinition wide;
    wide.setUserDefinition(wide);
    const bool skip = true;
    for (std::size_t i = 0; i < kScratch.size(); ++i)
        User::createUser(kScratch[i], "Scratch#2026", kScratchProfiles[i], true, false, &skip);
    std::vector<Caller> callers;
    std::set<std::string> stable(kScratch.begin(), kScratch.end());
    std::map<std::string, std::string> uids;  // every account of the files before, by name
    for (const std::string& line : lines("/etc/passwd")) uids[fields(line)[0]] = fields(line)[2];
    for (const auto& account : tvc::sample::sampleDevice().accounts) {
        callers.push_back({account.name, account.password.empty() ? "Nope#2026" : account.password, 0, 0});
        if (account.uid >= 10000 && account.uid < 10000 + wide.getMaxUser()) stable.insert(account.name);
    }
    for (const std::string& name : kScratch) callers.push_back({name, "Scratch#2026", 0, 0});
    ASSERT_EQ(callers.size(), 16u);

    // Each account's answers alone first, then all of them at once.
    const auto acting = [](const Caller& caller, const std::function<void()>& body) {
        caller.name == "root" ? actingAs(nullptr, body) : as(caller.name, body);
    };
    std::vector<std::string> alone(callers.size()), faults(callers.size());
    for (std::size_t i = 0; i < callers.size(); ++i) {
        callers[i].index = static_cast<int>(i);
        acting(callers[i], [&] { alone[i] = serve(callers[i], stable, faults[i]); });
        EXPECT_EQ(faults[i], "") << callers[i].name;
    }
    const char* soak = std::getenv("SOAK_S");
    const int seconds = soak != nullptr ? std::atoi(soak) : 20;
    const std::string hash = crypt("Other#2026", "$6$tvcsoak$");
    // Accounts of its own outside the managed range: added, given passwords through PAM and as
    // a hash, every second one removed again.  It prints how many it added.
    FILE* shadowUtils = popen(("end=$(($(date +%s) + " + std::to_string(seconds) + ")); i=0; "
                               "while [ $(date +%s) -lt $end ]; do "
                               "useradd -M -N -g users -d /home/admin -s /bin/sh -u $((30000 + i)) ua$i && "
                               "echo ua$i:Other#2026x$i | chpasswd && usermod -p '" + hash + "' ua$i && "
                               "if [ $((i % 2)) -eq 0 ]; then userdel ua$i; fi || exit 1; i=$((i + 1)); "
                               "done; echo $i")
                                  .c_str(),
                              "re");
    const auto start = std::chrono::steady_clock::now(), end = start + std::chrono::seconds(seconds);
    std::vector<std::thread> threads;
    std::vector<int> rounds(callers.size());
    for (std::size_t i = 0; i < callers.size(); ++i)
        threads.emplace_back([&, i] {
            acting(callers[i], [&] {
                for (; std::chrono::steady_clock::now() < end && faults[i].empty(); ++rounds[i]) {
                    const std::string answers = serve(callers[i], stable, faults[i]);
                    if (answers != alone[i]) faults[i] = "answers" + answers + " alone" + alone[i];
                }
            });
        });
    for (std::thread& thread : threads) thread.join();
    const Result tools = finish(shadowUtils);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(seconds + 60)) << "a call hung";
    for (std::size_t i = 0; i < callers.size(); ++i)
        EXPECT_EQ(faults[i], "") << callers[i].name << " in round " << rounds[i] << " of " << callers[i].round;
    ASSERT_EQ(tools.status, 0) << tools.output;

    // Sound files: every account once with its uid, shadow-utils' odd ones kept, nothing else.
    const Result checks = run("/usr/sbin/pwck -r 2>&1 && /usr/sbin/grpck -r 2>&1");
    EXPECT_EQ(checks.status, 0) << checks.output;
    for (int i = 0, added = std::atoi(tools.output.c_str()); i < added; ++i)
        if (i % 2) uids["ua" + std::to_string(i)] = std::to_string(30000 + i);
    std::map<std::string, std::string> now;
    std::set<std::string> taken, shadowNames;
    for (const std::string& line : lines("/etc/passwd")) {
        EXPECT_TRUE(now.emplace(fields(line)[0], fields(line)[2]).second) << "twice: " << line;
        EXPECT_TRUE(taken.insert(fields(line)[2]).second) << "uid shared: " << line;
    }
    EXPECT_EQ(now, uids);
    for (const std::string& line : lines("/etc/shadow")) EXPECT_TRUE(shadowNames.insert(fields(line)[0]).second);
    EXPECT_EQ(shadowNames.size(), now.size());
}

}  // namespace
