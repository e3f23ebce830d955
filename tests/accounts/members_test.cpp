// What an account change does to the group files beyond the account's own memberships: lines
// it has no business with stay byte for byte, an administrator seat follows the membership,
// and a member list never grows past what the files' reader accepts.
#include "support/AccountSupport.h"

using namespace usermanagement;
using namespace tvc::test;

namespace {

using MembersTest = AccountsTest;
const bool kSkip = true;

TEST_F(MembersTest, ChangesLeaveOtherLinesAndSeatsAsTheyMayBe) {
    // Lines the C library's writer would change: NIS references lose their gid, numbers their zeros.
    const std::string odd = "+nisgrp:x:4321:\n-other:x:77:\nzeros:x:0010: a ,b\n";
    addLines("/etc/group", odd);
    std::string gshadow = readFile("/etc/gshadow");
    gshadow.replace(gshadow.find("net-admin:!::"), 13, "net-admin:!:admin,operator:");
    writeFile("/etc/gshadow", gshadow);
    ASSERT_EQ(outcome([] { User::createUserWithEncryptedPassword("probe", "$6$s$h", 2, true, false, &kSkip); }), "ok");
    EXPECT_NE(readFile("/etc/group").find(odd), std::string::npos);

    // Demoted to viewers, operator keeps no seat from which to let itself back into net-admin.
    const int viewers = 2;
    ASSERT_EQ(outcome([&] { User("operator").updateUser(nullptr, &viewers, nullptr, nullptr, nullptr, nullptr); }),
              "ok");
    EXPECT_EQ(lineOf("/etc/gshadow", "net-admin"), "net-admin:!:admin:admin");

    // A list one rename short of the reader's 1 MiB limit: the rename is refused, nothing moves.
    std::string big = "bigteam:x:5000:probe,y";
    big.resize((1u << 20) - 8, 'y');
    addLines("/etc/group", big + "\n");
    const std::string before = readFile("/etc/group"), longer = "probe_renamed_to_a_longer_name";
    EXPECT_EQ(outcome([&] { User("probe").updateUser(&longer, nullptr, nullptr, nullptr, nullptr, nullptr); }),
              "10 updateMembersInGroupFile error, the member list of group bigteam would be longer than 1048576 "
              "bytes; the file is not rewritten");
    EXPECT_TRUE(readFile("/etc/group") == before);

    // An account another tool named outside the name rules can still be removed.
    addLines("/etc/passwd", "a b:x:10008:10002::/:/bin/sh\n");
    addLines("/etc/shadow", "a b:!!:20454:0:99999:7:::\n");
    EXPECT_EQ(outcome([] { User("a b").removeUser(); }), "ok");
}

}  // namespace
