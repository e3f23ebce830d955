// Shadow-file entries and password hashing on the sample device's /etc/shadow, whose entries
// all have last change 20454, minimum 0, maximum 99999 and warning 7.
#include <crypt.h>

#include <ctime>

#include "FilesTestSupport.h"
#include "files/CryptSetting.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

constexpr const char* kShadow = "/etc/shadow";

using ShadowEntries = FilesTest;

std::string today() { return std::to_string(std::time(nullptr) / 86400); }

// Fields 2 to 8 (last change to flag) of a shadow line.
std::string ageingOf(const std::string& line) { return line.substr(line.find(':', line.find(':') + 1) + 1); }

// "$6$", 16 salt characters, "$", 86 hash characters, all from the crypt alphabet, and crypt()
// gives the same text back for `password`.
void expectHashOf(const std::string& password, const std::string& hash) {
    const std::string alphabet = detail::kCryptAlphabet;
    EXPECT_TRUE(hash.size() == 106 && hash.rfind("$6$", 0) == 0 && hash[19] == '$' &&
                hash.find_first_not_of(alphabet, 3) == 19 && hash.find_first_not_of(alphabet, 20) == std::string::npos)
        << hash;
    const char* again = crypt(password.c_str(), hash.c_str());
    EXPECT_TRUE(again != nullptr && hash == again) << "does not verify: " << hash;
}

TEST(CryptPwd, SaltTakesSixBitsPerCharacterFromLittleEndianWords) {
    const unsigned char counting[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    const unsigned char mixed[16] = {0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0,
                                     0x0f, 0xed, 0xcb, 0xa9, 0x87, 0x65, 0x43, 0x21};
    EXPECT_EQ(detail::sha512Setting(counting), "$6$.2U.12IU/56YU09A");
    EXPECT_EQ(detail::sha512Setting(mixed), "$6$GEXJsOmfrkDoymd5");
}

// A plaintext password is hashed with a salt of its own; the two-file rows of
// file_system_update_test check a ready-made hash and the empty ageing fields.
TEST_F(ShadowEntries, NewEntriesCarryHashStateAndAgeingWhereTheyBelong) {
    const std::string longest(255, 'p');  // 256 bytes are refused (refusal_test)
    inShadow([&](FileSystemUpdate& t) { addEntryInShadowFile(t, "fresh", longest, {}, -1, -1, -1, true, false); });
    const std::string fresh = fields(lineOf(kShadow, "fresh"))[1];
    expectHashOf(longest, fresh);

    // Disabled and must change; maximum 90, minimum 1, expiration day 21000.
    inShadow([&](FileSystemUpdate& t) { addEntryInShadowFile(t, "later", longest, {}, 90, 1, 21000, false, true); });
    const std::string later = lines(kShadow).back();
    ASSERT_EQ(later.rfind("later:!!", 0), 0u) << later;
    expectHashOf(longest, fields(later)[1].substr(2));
    EXPECT_NE(fields(later)[1].substr(2), fresh) << "same salt twice";
    EXPECT_EQ(ageingOf(later), "0:1:90:::21000:");
}

TEST_F(ShadowEntries, UpdateSplitsTheDisabledMarkAndReportsWhatChanged) {
    const bool no = false, yes = true;
    const std::string fresh = "$6$new$P";
    const struct {
        const char* initial;  // hash field before
        const bool* enabled;
        const std::string* password;  // stored as given
        const bool* mustChange;
        std::string expected;  // hash field and last change after
        int activation;
    } cases[] = {
        {"H", &no, nullptr, nullptr, "!!H:20454", 1},
        {"!!H", &no, nullptr, nullptr, "!!H:20454", 2},
        {"!!H", &yes, nullptr, nullptr, "H:20454", 0},
        {"!H", &yes, nullptr, nullptr, "!H:20454", 2},  // a single "!" is part of the hash
        {"!H", &no, nullptr, nullptr, "!!!H:20454", 1},
        {"!!H", nullptr, &fresh, &yes, "!!$6$new$P:0", 2},  // a new password keeps it disabled
        {"H", nullptr, nullptr, &no, "H:" + today(), 2},
    };
    const std::string sample = readFile(kShadow);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.initial) + " -> " + c.expected);
        writeFile(kShadow, sample + "acct:" + c.initial + ":20454:0:99999:7:::\n");
        LookUpdateShadow record;
        inShadow([&](FileSystemUpdate& t) {
            updateEntryInShadowFile(t, "acct", nullptr, c.password, {true}, c.enabled, c.mustChange, record);
        });
        EXPECT_EQ(readFile(kShadow), sample + "acct:" + c.expected + ":0:99999:7:::\n");
        EXPECT_EQ(record.activation, c.activation);
        EXPECT_EQ(record.passwordUpdated, c.password != nullptr);
        EXPECT_EQ(record.passwordExpired, c.mustChange == &yes);
    }
}

TEST_F(ShadowEntries, AgeingPolicyReachesManagedAccountsOnly) {
    // uid 10005, the first id past the managed range, is not managed.
    addLines("/etc/passwd", "beyond:x:10005:10002::/:/bin/sh\n");
    addLines(kShadow, "beyond:$6$b$h:20454:0:99999:7:::\n");
    const std::vector<std::string> old = lines(kShadow);  // admin..guest (10000-10004) are lines 6 to 10
    updateExpirationDate();                               // nothing configured: ageing off, last change kept
    for (std::size_t i = 6; i <= 10; ++i) EXPECT_EQ(ageingOf(lines(kShadow)[i]), "20454:::7:::") << old[i];

    // Base account exempt; last change restarts today; inactivity period 14 days.
    definition.ageing = {90, 1, 14, 1};
    updateExpirationDate();
    const std::vector<std::string> now = lines(kShadow);
    ASSERT_EQ(now.size(), old.size());
    EXPECT_EQ(ageingOf(now[6]), "20454:::7:::");
    for (std::size_t i = 7; i <= 10; ++i) EXPECT_EQ(ageingOf(now[i]), today() + ":1:90:7:14::") << old[i];
    for (std::size_t i = 0; i < now.size(); ++i) EXPECT_EQ(fields(now[i])[1], fields(old[i])[1]) << "hash changed";
    for (std::size_t i : {0, 1, 2, 3, 4, 5, 11, 12}) EXPECT_EQ(now[i], old[i]) << "unmanaged account changed";
    EXPECT_FALSE(exists("/etc/tmpshadow"));
    EXPECT_TRUE(lockIsFree());
}

}  // namespace
