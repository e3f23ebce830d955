// Shadow-file entries and password hashing on the sample device's /etc/shadow.  Its entries
// all have last change 20454, minimum 0, maximum 99999 and warning 7.
#include <crypt.h>
#include <gtest/gtest.h>
#include <shadow.h>

#include <ctime>
#include <string>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/ShadowEntries.h>
#include <usermanagement/UMException.h>

#include "FilesTestSupport.h"
#include "files/CryptSetting.h"

using namespace tvc::test;
using namespace usermanagement;

namespace {

constexpr const char* kShadow = "/etc/shadow";
constexpr const char* kTmp = "/etc/tmpshadow";
const std::string kAdminHash =
    "$6$tvcadmin2026$hEi8dXaaRXf56PUuuXS8Gu29gbhXkd4isSjTFxukMfTFAUnQYWduwxGwcusqFQ6BIPvkikZX/9T5G.mpQ44Ii1";

// "$6$", 16 salt characters, "$", 86 hash characters, all from the crypt alphabet.
bool isSha512Hash(const std::string& text) {
    const std::string alphabet = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    if (text.size() != 3 + 16 + 1 + 86 || text.compare(0, 3, "$6$") != 0 || text[19] != '$') return false;
    return text.find_first_not_of(alphabet, 3) == 19 && text.find_first_not_of(alphabet, 20) == std::string::npos;
}

using ShadowEntries = FilesTest;

std::string today() { return std::to_string(std::time(nullptr) / 86400); }

void inShadow(const std::function<void(FileSystemUpdate&)>& body) { rewrite(kShadow, kTmp, true, body); }

// Field n (0-based) of `name`'s shadow line.
std::string field(const std::string& name, std::size_t n) {
    const std::vector<std::string> f = fields(lineOf(kShadow, name));
    return n < f.size() ? f[n] : "<missing>";
}

// Fields 2 to 8 (last change to flag) of `name`'s shadow line.
std::string ageing(const std::string& name) {
    const std::string line = lineOf(kShadow, name);
    const std::string::size_type second = line.find(':', line.find(':') + 1);
    return second == std::string::npos ? "<missing>" : line.substr(second + 1);
}

bool verifies(const std::string& password, const std::string& hash) {
    const char* again = crypt(password.c_str(), hash.c_str());
    return again != nullptr && hash == again;
}

void update(const std::string& name, const std::string* newName, const std::string* password, bool encrypted,
            const bool* enabled, const bool* mustChange, LookUpdateShadow& record) {
    inShadow([&](FileSystemUpdate& t) {
        updateEntryInShadowFile(t, name, newName, password, PasswordType{encrypted}, enabled, mustChange, record);
    });
}

TEST(CryptPwd, Sha512HashWithAFreshSaltThatVerifies) {
    std::string first = "!!";
    cryptPwd("Secret#1", first);
    ASSERT_EQ(first.compare(0, 2, "!!"), 0) << "the caller's prefix must stay";
    first.erase(0, 2);
    EXPECT_TRUE(isSha512Hash(first)) << first;
    EXPECT_TRUE(verifies("Secret#1", first));
    EXPECT_FALSE(verifies("Secret#2", first));
    std::string second;
    cryptPwd("Secret#1", second);
    EXPECT_NE(first.substr(0, 20), second.substr(0, 20)) << "same salt twice";
}

TEST(CryptPwd, SaltTakesSixBitsPerCharacterFromLittleEndianWords) {
    const unsigned char counting[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    const unsigned char mixed[16] = {0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0,
                                     0x0f, 0xed, 0xcb, 0xa9, 0x87, 0x65, 0x43, 0x21};
    const unsigned char ones[16] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(detail::sha512Setting(counting), "$6$.2U.12IU/56YU09A");
    EXPECT_EQ(detail::sha512Setting(mixed), "$6$GEXJsOmfrkDoymd5");
    EXPECT_EQ(detail::sha512Setting(ones), "$6$zzzzzzzzzzzzzzzz");
}

TEST(CryptPwd, LengthLimitIsTheConfiguredOne) {
    std::string out;
    cryptPwd(std::string(255, 'p'), out);
    EXPECT_TRUE(verifies(std::string(255, 'p'), out));
    std::string refused = "kept";
    try {
        cryptPwd(std::string(256, 'p'), refused);
        ADD_FAILURE() << "a 256-byte password was hashed";
    } catch (UpdatePasswordException& e) {
        EXPECT_EQ(e.getErrorId(), 19);
        EXPECT_STREQ(e.what(), "cryptPwd");
        EXPECT_EQ(e.getUser(), "");
    }
    EXPECT_EQ(refused, "kept");
}

TEST_F(ShadowEntries, NewEntriesCarryHashStateAndAgeingWhereTheyBelong) {
    const std::string before = readFile(kShadow);
    inShadow([](FileSystemUpdate& t) {
        addEntryInShadowFile(t, "fresh", "Fresh#2026", PasswordType{false}, -1, -1, -1, true, false);
    });
    const std::string added = readFile(kShadow);
    ASSERT_EQ(added.compare(0, before.size(), before), 0) << "existing entries changed";
    const std::vector<std::string> f = fields(lineOf(kShadow, "fresh"));
    ASSERT_EQ(f.size(), 9u);
    EXPECT_TRUE(isSha512Hash(f[1]));
    EXPECT_EQ(f[2], today());
    for (std::size_t i = 3; i < 9; ++i) EXPECT_EQ(f[i], "") << "field " << i;
    // The system sees what the library wrote.
    const struct spwd* entry = getspnam("fresh");
    ASSERT_NE(entry, nullptr);
    EXPECT_TRUE(verifies("Fresh#2026", entry->sp_pwdp));

    // Disabled, must change, ageing triple (maximum 90, minimum 1, expiration day 21000).
    inShadow([](FileSystemUpdate& t) {
        addEntryInShadowFile(t, "later", "Later#2026", PasswordType{false}, 90, 1, 21000, false, true);
    });
    EXPECT_EQ(lines(kShadow).back().rfind("later:!!$6$", 0), 0u);
    EXPECT_EQ(ageing("later"), "0:1:90:::21000:");
    EXPECT_TRUE(verifies("Later#2026", field("later", 1).substr(2)));

    inShadow([](FileSystemUpdate& t) {
        addEntryInShadowFile(t, "copied", kAdminHash, PasswordType{true}, -1, -1, -1, true, true);
    });
    EXPECT_EQ(lineOf(kShadow, "copied"), "copied:" + kAdminHash + ":0::::::");
}

TEST_F(ShadowEntries, RefusedAdditionsAppendNothing) {
    const Snapshot snapshot = Snapshot::take({kShadow}, {kTmp});
    expectThrow<UMException>(
        [] {
            inShadow([](FileSystemUpdate& t) { addEntryInShadowFile(t, "guest", "x", {}, -1, -1, -1, true, false); });
        },
        0, "guest :user already exists");
    expectThrow<UpdatePasswordException>(
        [] {
            inShadow([](FileSystemUpdate& t) {
                addEntryInShadowFile(t, "longpw", std::string(256, 'p'), {}, -1, -1, -1, true, false);
            });
        },
        19, "cryptPwd");
    expectThrow<UMSystemErrorException>(
        [] { inShadow([](FileSystemUpdate& t) { addEntryInShadowFile(t, "a:b", "x", {}, -1, -1, -1, true, false); }); },
        10, "addEntryInShadowFile error in writing to /etc/tmpshadow");
    snapshot.expectUnchanged();
}

TEST_F(ShadowEntries, EnablingAndDisablingKeepTheHashAndReportTheChange) {
    const bool no = false, yes = true;
    LookUpdateShadow disabled;
    update("admin", nullptr, nullptr, false, &no, nullptr, disabled);
    EXPECT_EQ(field("admin", 1), "!!" + kAdminHash);
    EXPECT_EQ(disabled.activation, 1);
    EXPECT_FALSE(disabled.passwordUpdated);
    EXPECT_EQ(field("admin", 2), "20454") << "last change must stay";

    LookUpdateShadow unchanged;
    update("admin", nullptr, nullptr, false, &no, nullptr, unchanged);
    EXPECT_EQ(unchanged.activation, 2);
    EXPECT_EQ(field("admin", 1), "!!" + kAdminHash);

    LookUpdateShadow enabled;
    update("admin", nullptr, nullptr, false, &yes, nullptr, enabled);
    EXPECT_EQ(enabled.activation, 0);
    EXPECT_EQ(field("admin", 1), kAdminHash);
}

TEST_F(ShadowEntries, ExclamationMarkEdgeCases) {
    const bool no = false, yes = true;
    // A single "!" is part of the hash: the account counts as enabled.
    LookUpdateShadow single;
    update("svc-web", nullptr, nullptr, false, &yes, nullptr, single);
    EXPECT_EQ(single.activation, 2);
    update("svc-web", nullptr, nullptr, false, &no, nullptr, single);
    EXPECT_EQ(single.activation, 1);
    EXPECT_EQ(field("svc-web", 1), "!!!");

    // Nothing but the mark: enabling leaves an empty hash field.
    writeFile(kShadow, readFile(kShadow) + "marked:!!:20454:0:99999:7:::\n");
    LookUpdateShadow marked;
    update("marked", nullptr, nullptr, false, &yes, nullptr, marked);
    EXPECT_EQ(marked.activation, 0);
    EXPECT_EQ(lineOf(kShadow, "marked"), "marked::20454:0:99999:7:::");
}

TEST_F(ShadowEntries, NewPasswordsKeepTheEnabledStateUnlessToldOtherwise) {
    const bool no = false, yes = true;
    LookUpdateShadow off;
    update("tech", nullptr, nullptr, false, &no, nullptr, off);

    LookUpdateShadow record;
    const std::string password = "Changed#2026";
    update("tech", nullptr, &password, false, nullptr, &yes, record);
    EXPECT_TRUE(record.passwordUpdated);
    EXPECT_TRUE(record.passwordExpired);
    EXPECT_EQ(record.activation, 2);
    ASSERT_EQ(field("tech", 1).rfind("!!$6$", 0), 0u) << "still disabled";
    EXPECT_TRUE(verifies(password, field("tech", 1).substr(2)));
    EXPECT_EQ(field("tech", 2), "0");

    LookUpdateShadow again;
    const std::string newName = "technician";
    update("tech", &newName, &kAdminHash, true, &yes, &no, again);
    EXPECT_EQ(lineOf(kShadow, "tech"), "");
    EXPECT_EQ(lineOf(kShadow, "technician"), "technician:" + kAdminHash + ":" + today() + ":0:99999:7:::");
    EXPECT_FALSE(again.passwordExpired);
    EXPECT_EQ(again.activation, 0);
}

TEST_F(ShadowEntries, UnknownNamesCopyTheFileUnchanged) {
    const std::string before = readFile(kShadow);
    const bool no = false;
    LookUpdateShadow record;
    update("nosuch", nullptr, &kAdminHash, true, &no, &no, record);
    inShadow([](FileSystemUpdate& t) { removeEntryInShadowFile(t, "nosuch"); });
    EXPECT_EQ(readFile(kShadow), before);
    EXPECT_EQ(record.activation, 2);
    EXPECT_FALSE(record.passwordUpdated || record.passwordExpired);

    const std::string viewerLine = lineOf(kShadow, "viewer") + "\n";
    inShadow([](FileSystemUpdate& t) { removeEntryInShadowFile(t, "viewer"); });
    std::string expected = before;
    expected.erase(expected.find(viewerLine), viewerLine.size());
    EXPECT_EQ(readFile(kShadow), expected);
}

TEST_F(ShadowEntries, AgeingAppliesToManagedAccountsOnlyAndExemptsTheBaseUser) {
    LookUpdateShadow record;
    inShadow([&](FileSystemUpdate& t) { updateAllUserEntryInShadowFile(t, true, 90, 1, 14, record); });
    EXPECT_EQ(record.activation, 2);
    // The third value is the inactivity period here; warning and expiration stay.
    EXPECT_EQ(lineOf(kShadow, "admin"), "admin:" + kAdminHash + ":20454:::7:::");
    for (const char* name : {"operator", "viewer", "tech", "guest"}) {
        EXPECT_EQ(ageing(name), today() + ":1:90:7:14::") << name;
    }
    // System and service accounts keep their lines byte for byte.
    const std::vector<std::string> old = lines(pristineDir() + "/shadow");
    for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(lines(kShadow)[i], old[i]);
    EXPECT_EQ(lines(kShadow).back(), old.back());  // nobody
}

TEST_F(ShadowEntries, AgeingSwitchedOffEmptiesTheFieldsAndKeepsLastChange) {
    // The complete operation with the built-in policy (nothing configured: -1 -1 -1).
    updateExpirationDate();
    for (const char* name : {"admin", "operator", "guest"}) {
        EXPECT_EQ(ageing(name), "20454:::7:::") << name;
    }
    EXPECT_EQ(lineOf(kShadow, "root"), lines(pristineDir() + "/shadow")[0]);
    EXPECT_FALSE(exists(kTmp));
    EXPECT_TRUE(lockIsFree());

    definition.ageing = true;
    definition.maxAge = 60;
    definition.minAge = 2;
    definition.thirdAge = 5;
    definition.exemptBase = false;
    updateExpirationDate();
    EXPECT_EQ(fields(lineOf(kShadow, "admin"))[4], "60") << "no exemption configured";
    EXPECT_EQ(fields(lineOf(kShadow, "admin"))[6], "5");
}

}  // namespace
