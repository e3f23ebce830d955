// The whole library under threads as a web server drives it: sixteen threads, each acting as its
// own account, log in, list, show, check rights, change their password and create and remove
// accounts, while shadow-utils changes the same files from another process.  Each call gives the
// answer it gives alone, each listing holds the stable accounts once, the files end sound.
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
const bool kSkip = true;  // no password rules for created accounts
// The threads' own accounts beside the sample device's twelve, with their profiles.
const std::pair<const char*, int> kScratch[] = {{"soak-t0", 1}, {"soak-t1", 2}, {"soak-t2", 3}, {"soak-t3", 1}};

struct Caller {
    std::string name, password;
    int index = 0, round = 0;
};

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
    call("list", [&] {  // every stable account once, no name or uid twice
        std::set<std::string> names, uids;
        for (const User& user : utilities::getUserList())
            if (!names.insert(user.getUserName()).second || !uids.insert(std::to_string(user.getUid())).second)
                fault = "listed twice: " + user.getUserName();
        for (const std::string& name : stable)
            if (!names.count(name)) fault = "not listed: " + name;
    });
    call("show", [&] { User("viewer").updateState(); });
    call("read", [] { UserDefinition::GetUserDefinition().checkRight(UserDefinition::ReadUser, nullptr); });
    const std::string name = "s" + std::to_string(caller.index) + "-" + std::to_string(caller.round++);
    call("create+remove", [&] { User::createUser(name, "Scratch#2026", 2, true, false, &kSkip).removeUser(); });
    std::string next = "Kq7!" + std::to_string(caller.index) + "w" + std::to_string(caller.round) + "Zr";
    call("passwd", [&] { User(caller.name).updatePassword(caller.password, next, "192.0.2.9"); });
    if (answers.rfind("passwd=ok") != std::string::npos) caller.password = next;
    return answers;
}

TEST_F(Soak, ThreadsAndShadowUtilsOnTheSameFilesEachGetTheirAnswersAndLoseNothing) {
    SoakDefinition wide;
    wide.setUserDefinition(wide);
    std::vector<Caller> callers;
    std::set<std::string> stable;  // the managed accounts
    for (const auto& account : tvc::sample::sampleDevice().accounts) {
        callers.push_back({account.name, account.password.empty() ? "Nope#2026" : account.password, 0, 0});
        if (account.uid >= 10000 && account.uid < 10000 + wide.getMaxUser()) stable.insert(account.name);
    }
    for (const auto& [name, profile] : kScratch) {
        User::createUser(name, "Scratch#2026", profile, true, false, &kSkip);
        callers.push_back({name, "Scratch#2026", 0, 0});
        stable.insert(name);
    }
    ASSERT_EQ(callers.size(), 16u);
    std::map<std::string, std::string> uids;  // every account before, by name
    for (const std::string& line : lines("/etc/passwd")) uids[fields(line)[0]] = fields(line)[2];

    // Each account's answers alone first, then all of them at once.
    const auto acting = [](const Caller& caller, const std::function<void()>& body) {
        caller.name == "root" ? actingAs(nullptr, body) : as(caller.name, body);
    };
    std::vector<std::string> alone(callers.size()), faults(callers.size());
    for (std::size_t i = 0; i < callers.size(); ++i) {
        callers[i].index = static_cast<int>(i);
        acting(callers[i], [&] { alone[i] = serve(callers[i], stable, faults[i]); });
        EXPECT_EQ(faults[i], "") << callers[i].name;
        EXPECT_EQ(alone[i].find('!'), std::string::npos) << callers[i].name << " changed identity:" << alone[i];
    }
    const int seconds = std::getenv("SOAK_S") != nullptr ? std::atoi(std::getenv("SOAK_S")) : 20;
    const std::string hash = crypt("Other#2026", "$6$tvcsoak$");
    // Accounts of its own outside the managed range: added, given passwords through PAM and as
    // a hash, every second one removed again.  It prints how many it added.
    const std::string script = "end=$(($(date +%s) + " + std::to_string(seconds) + ")); i=0; "
                               "while [ $(date +%s) -lt $end ]; do "
                               "useradd -M -N -g users -d /home/admin -u $((30000 + i)) ua$i && "
                               "echo ua$i:Other#2026x$i | chpasswd && usermod -p '" + hash + "' ua$i && "
                               "if [ $((i % 2)) -eq 0 ]; then userdel ua$i; fi || exit 1; i=$((i + 1)); done; echo $i";
    FILE* shadowUtils = popen(script.c_str(), "re");
    const auto start = std::chrono::steady_clock::now(), end = start + std::chrono::seconds(seconds);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < callers.size(); ++i)
        threads.emplace_back([&, i] {
            acting(callers[i], [&] {
                while (std::chrono::steady_clock::now() < end && faults[i].empty())
                    if (const std::string answers = serve(callers[i], stable, faults[i]); answers != alone[i])
                        faults[i] = "answers" + answers + " alone" + alone[i];
            });
        });
    for (std::thread& thread : threads) thread.join();
    const Result tools = finish(shadowUtils);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(seconds + 60)) << "a call hung";
    for (std::size_t i = 0; i < callers.size(); ++i)
        EXPECT_EQ(faults[i], "") << callers[i].name << " in round " << callers[i].round;
    ASSERT_EQ(tools.status, 0) << tools.output;

    // Sound files: every account once with its uid (shadow-utils' odd ones kept), nothing else.
    const Result checks = run("/usr/sbin/pwck -r 2>&1 && /usr/sbin/grpck -r 2>&1");
    EXPECT_EQ(checks.status, 0) << checks.output;
    for (int i = 1, added = std::atoi(tools.output.c_str()); i < added; i += 2)
        uids["ua" + std::to_string(i)] = std::to_string(30000 + i);
    std::map<std::string, std::string> now;
    for (const std::string& line : lines("/etc/passwd")) now[fields(line)[0]] = fields(line)[2];
    EXPECT_EQ(now, uids);
    EXPECT_EQ(lines("/etc/passwd").size(), uids.size()) << "a name twice";
    for (const std::string& line : lines("/etc/shadow")) EXPECT_EQ(now.erase(fields(line)[0]), 1u) << line;
    EXPECT_TRUE(now.empty()) << "an account without a shadow entry";
}

}  // namespace
