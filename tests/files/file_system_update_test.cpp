// The transaction itself: the lock, the temporary file's life, owner and mode of the installed
// file, the two ways of installing it, and the first of two installs undone.
#include <cstdio>
#include <ctime>
#include <tuple>

#include "FilesTestSupport.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

constexpr const char* kShadow = "/etc/shadow";
constexpr const char* kTmp = "/etc/tmpshadow";
const std::type_info& kSystem = typeid(UMSystemErrorException);

struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

bool isLink(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

using Transaction = FilesTest;

TEST_F(Transaction, LockIsTakenOnceAndStaleTemporaryFilesGo) {
    writeFile(kTmp, "left over by a crash\n");
    {
        FileSystemUpdate holder(kShadow, kTmp, true);
        expectFailure([] { FileSystemUpdate second("/etc/passwd", "/etc/tmppassd", true); }, kSystem,
                      UMSystemError::FilesLocked, "FileSystemUpdate:password files locked (/etc/passwd)");
        // A lock-free transaction must not release the holder's lock.
        { FileSystemUpdate follower("/etc/passwd", "/etc/tmppassd", false); }
        EXPECT_FALSE(lockIsFree());
    }
    EXPECT_FALSE(exists(kTmp)) << "an unprepared transaction removes a stale temporary file";
    EXPECT_TRUE(lockIsFree());
}

// A two-file transaction as the account layer runs it.  As root a rename installs each file,
// which gets the live file's owner and mode (root:shadow 0640 for shadow); otherwise the update
// command installs it from a temporary file that is 0600 whatever the creation mask.  The
// password file goes first and is put back when the shadow file's install fails.  The
// temporary name is never trusted: what a crash or an attacker left there goes (/etc/victim
// stands for any file a link could aim at), and a name that leads to the live file or the
// reference copy is refused.  The failing commands here fail for the shadow file and, in the
// last row, for the kept password file too.
TEST_F(Transaction, TwoFilesAreInstalledOrLeftAsTheyWere) {
    definition.count = 6;
    ASSERT_EQ(run("mkdir -p /etc/data && cp -p /etc/passwd /etc/data/ && ln -sfn /etc/data/passwd /etc/linked").status,
              0);
    writeFile("/etc/victim", "precious\n");
    writeFile("/etc/passwd.orig", "ref:copy\n");
    const Snapshot snapshot(
        {"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/data/passwd", "/etc/victim", "/etc/passwd.orig"},
        {"/etc/tmppassd", "/etc/tmppassd.old", kTmp, "/etc/data/tmppassd", "/etc/data/tmppassd.old"});
    const struct stat shadowBefore = statOf(kShadow);
    ASSERT_EQ(shadowBefore.st_gid, 42u);
    const std::string failsShadow = "sh -c 'case $1 in */tmpshadow) exit 3;; esac; cat \"$1\" >\"$2\"' sh ";
    const std::string failsBoth = "sh -c 'case $1 in */tmpshadow|*.old) exit 3;; esac; cat \"$1\" >\"$2\"' sh ";
    const std::string renameFailed = "rename error of:/etc/tmpshadow to /etc/shadow 2No such file or directory";
    const std::string scriptFailed = "Script update error 768 of:/etc/tmpshadow to /etc/shadow ";
    const std::string notPutBack = "FileSystemUpdate:/etc/passwd could not be put back (Script update error 768 of:";
    const std::string liveFile = "FileSystemUpdate:temporary file is the live file (";
    // The longest name, with bytes above ASCII: the limits themselves pass.
    const std::string name = std::string(25, 'l') + "j\xc3\xbcrgen";
    const struct {
        const char* plant;  // shell command run first
        const char* live;   // of the password file
        const char* tmp;
        bool vanishes;       // the shadow file's temporary file is gone before the install
        std::string script;  // empty: root
        std::string failure;
    } cases[] = {
        {"true", "/etc/passwd", "/etc/tmppassd", false, "", ""},
        {"true", "/etc/passwd", "/etc/tmppassd", false, "cp ", ""},
        {"ln -s /etc/victim /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", false, "", ""},
        {"ln -s /etc/passwd /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", false, "", ""},
        {"ln /etc/victim /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", false, "", ""},
        {"ln /etc/passwd /etc/tmppassd", "/etc/passwd", "/etc/tmppassd", false, "", ""},
        {"true", "/etc/linked", "/etc/data/tmppassd", false, "", ""},
        {"true", "/etc/passwd", "/etc/passwd", false, "", liveFile + "/etc/passwd)"},
        {"true", "/etc/passwd", "/etc/../etc/passwd", false, "", liveFile + "/etc/../etc/passwd)"},
        {"true", "/etc/passwd", "/etc/passwd.orig", false, "", liveFile + "/etc/passwd.orig)"},
        {"true", "/etc/linked", "/etc/data/passwd", false, "", liveFile + "/etc/data/passwd)"},
        {"true", "/etc/passwd", "/etc/tmppassd", true, "", renameFailed},
        {"true", "/etc/linked", "/etc/data/tmppassd", true, "", renameFailed},  // behind the link
        {"true", "/etc/passwd", "/etc/tmppassd", false, failsShadow, scriptFailed},
        {"true", "/etc/passwd", "/etc/tmppassd", false, failsBoth, notPutBack},
    };
    const mode_t mask = umask(0);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.plant) + " / " + c.live + " / " + c.tmp + " / " + c.script + " / " + c.failure);
        for (const auto& [path, text] : snapshot.files) writeFile(path, text);
        definition.root = c.script.empty();
        definition.script = c.script;
        ASSERT_EQ(run(c.plant).status, 0);
        const auto body = [&] {
            FileSystemUpdate passwd(c.live, c.tmp, "/etc/passwd.orig", true);
            FileSystemUpdate shadow(kShadow, kTmp, false);
            passwd.prepareSystemFiles();
            shadow.prepareSystemFiles();
            EXPECT_EQ(statOf(kTmp).st_mode & 07777, c.script.empty() ? 0640u : 0600u);
            char line[32] = {};
            EXPECT_STREQ(std::fgets(line, sizeof line, passwd.m_origFile), "ref:copy\n");
            EXPECT_EQ(addEntryInPasswordFile(passwd, name, 10003), 10005u);
            addEntryInShadowFile(shadow, name, "$6$s$h", {true}, -1, -1, -1, true, false);
            if (c.vanishes) {
                ASSERT_EQ(unlink(kTmp), 0);
            }
            finalyzeSystemFilesTogether(passwd, shadow);
        };
        // What the files hold afterwards: the new entries where both files were installed, the
        // new password file where it could not be put back.
        Snapshot expected = snapshot;
        const std::string target = c.live == std::string("/etc/linked") ? "/etc/data/passwd" : "/etc/passwd";
        if (c.failure.empty() || c.failure == notPutBack)
            expected.files[target] += name + ":x:10005:10003:UI User:/home/admin:/bin/maintenance\n";
        if (c.failure.empty()) {
            expected.files[kShadow] += name + ":$6$s$h:" + std::to_string(std::time(nullptr) / 86400) + "::::::\n";
            body();
        } else {
            expectFailure(body, kSystem, UMSystemError::FileTransaction, c.failure, Match::Start);
        }
        expected.expectUnchanged();
        const struct stat shadowAfter = statOf(kShadow);
        EXPECT_EQ(std::tie(shadowAfter.st_uid, shadowAfter.st_gid, shadowAfter.st_mode),
                  std::tie(shadowBefore.st_uid, shadowBefore.st_gid, shadowBefore.st_mode));
        EXPECT_TRUE(isLink("/etc/linked")) << "the link was replaced";
    }
    umask(mask);
}

}  // namespace
