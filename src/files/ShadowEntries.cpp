// Shadow-file entry functions over the shared copy loop of EntryCopy.h, and password hashing.
#include <usermanagement/ShadowEntries.h>

#include <crypt.h>
#include <openssl/rand.h>
#include <shadow.h>
#include <string.h>  // explicit_bzero

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <systemutilities/LinuxUserSystem.h>
#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include "access/DatabaseLookup.h"
#include "files/CryptSetting.h"
#include "files/EntryChecks.h"
#include "files/EntryCopy.h"
#include "files/ShadowDay.h"
#include "files/ObservedRemoval.h"
#include "files/ManagedRange.h"
#include "foundation/Raise.h"
#include "system/AsRoot.h"

namespace usermanagement {

namespace {

using detail::EntryAction;
using detail::raise;
using detail::ShadowFile;

constexpr char kDisabledMark[] = "!!";


// For a shadow entry already named `name` when an account is to take that name.  If the
// password database has an account of that name, the entry is its own: refused.  Otherwise
// it is stale, left by an operation that died between its two files, and dropped: its old
// password must never log in to the account that takes the name now.
detail::EntryAction dropStaleEntry(const std::string& name, const char* function) {
    const auto account = detail::userByName(name.c_str());
    if (account.status == detail::LookupStatus::Failed)
        detail::raiseErrno<UMSystemErrorException>(account.error, UMSystemError::DatabaseLookup, function,
                                                   " error, getpwnam_r ", name);
    if (account.found()) raise<UMException>(UMError::UserAlreadyExists, name, " :user already exists");
    return detail::EntryAction::Drop;
}

bool isDisabled(const char* hashField) {
    return hashField != nullptr && std::strncmp(hashField, kDisabledMark, 2) == 0;
}

// crypt's work area holds the phrase and intermediate hash state: one per call (so that
// threads do not share it), wiped on every way out before it is freed.
struct CryptWorkArea {
    std::unique_ptr<crypt_data> data = std::make_unique<crypt_data>();
    CryptWorkArea() = default;
    CryptWorkArea(const CryptWorkArea&) = delete;
    CryptWorkArea& operator=(const CryptWorkArea&) = delete;
    ~CryptWorkArea() { explicit_bzero(data.get(), sizeof *data); }
};

// A setting with a fresh random salt.
std::string freshSha512Setting() {
    unsigned char random[16] = {};
    // A failed RAND_bytes (OpenSSL could not seed itself) would leave the zeroed buffer: every
    // account would get the same salt, and equal passwords equal hashes.  No salt, no hash.
    if (RAND_bytes(random, sizeof random) != 1)
        raise<UMSystemErrorException>(UMSystemError::FileContents, "cryptPwd error, no random salt: RAND_bytes failed");
    std::string setting = detail::sha512Setting(random);
    explicit_bzero(random, sizeof random);
    return setting;
}

// Appends to `field` the password as stored: a ready-made hash as given (refused when it
// cannot stand in one field), plaintext through cryptPwd.
void appendPassword(std::string& field, const std::string& password, const PasswordType& type, const char* function) {
    if (!type.encrypted) {
        cryptPwd(password, field);
        return;
    }
    detail::checkStoredHash(password, function);
    field += password;
}

// pam_unix lets anyone in to an enabled account whose hash field is empty: the library never
// makes one.  (A field that is only "!!" is a disabled account without a hash.)
void refuseEnabledWithoutPassword(const std::string& hashField, const std::string& name, const char* function) {
    if (hashField.empty())
        raise<UMException>(UMError::PasswordError, function, " error, an enabled account needs a password: ", name);
}

}  // namespace

namespace detail {

void checkPlainForCrypt(const std::string& password) {
    if (password.size() > UserDefinition::GetUserDefinition().getDBPasswordMaxLen()) {
        // Built by hand, not with raise(): the interface reports this refusal with an empty
        // user, the only throw of the library that does not carry the context's user.
        throw UpdatePasswordException(UpdatePasswordError::NewPasswordTooLong, std::string("cryptPwd"), std::string(),
                                      true);
    }
    checkPlainPassword(password, "cryptPwd");
}

void checkPasswordToStore(const std::string& name, const std::string& password, const PasswordType& type, bool enabling,
                          const char* function) {
    if (!type.encrypted) {
        checkPlainForCrypt(password);
        return;
    }
    checkStoredHash(password, function);
    if (enabling) refuseEnabledWithoutPassword(password, name, function);
}

}  // namespace detail

void cryptPwd(const std::string& password, std::string& out) {
    detail::checkPlainForCrypt(password);
    const std::string setting = freshSha512Setting();
    CryptWorkArea work;
    errno = 0;
    const char* hash = crypt_rn(password.c_str(), setting.c_str(), work.data.get(), sizeof *work.data);
    // libxcrypt answers a failure with null (crypt_rn) or a string starting with '*' (the
    // failure token of the other forms); neither is a hash to store in an account.
    if (hash == nullptr || hash[0] == '*') {
        const int error = errno;
        raise<UMSystemErrorException>(UMSystemError::FileContents,
                                      "cryptPwd error, crypt gave no hash: ", std::strerror(error));
    }
    out += hash;
}

void addEntryInShadowFile(FileSystemUpdate& transaction, const std::string& name, const std::string& password,
                          const PasswordType& type, int maxAge, int minAge, int expirationDay, bool enabled,
                          bool mustChange) {
    constexpr const char* kFunction = "addEntryInShadowFile";
    detail::checkUserName(name, kFunction);
    std::string hashField = enabled ? "" : kDisabledMark;
    appendPassword(hashField, password, type, kFunction);
    if (enabled) refuseEnabledWithoutPassword(hashField, name, kFunction);

    detail::copyEntries<ShadowFile>(
        transaction,
        [&](const struct spwd& entry) {
            return name == entry.sp_namp ? dropStaleEntry(name, kFunction) : EntryAction::Write;
        },
        kFunction, "addEntryInShadowFile error in writing in " + transaction.m_tmpFilePath);

    struct spwd entry {};
    entry.sp_namp = const_cast<char*>(name.c_str());
    entry.sp_pwdp = const_cast<char*>(hashField.c_str());
    entry.sp_lstchg = mustChange ? 0 : detail::daysSinceEpoch();
    entry.sp_min = minAge;
    entry.sp_max = maxAge;
    entry.sp_warn = -1;
    entry.sp_inact = -1;
    entry.sp_expire = expirationDay;
    entry.sp_flag = ~0ul;
    detail::appendEntry<ShadowFile>(transaction, entry,
                                    "addEntryInShadowFile error in writing to " + transaction.m_tmpFilePath);
}

void updateEntryInShadowFile(FileSystemUpdate& transaction, const std::string& name, const std::string* newName,
                             const std::string* newPassword, const PasswordType& type, const bool* enabled,
                             const bool* mustChange, LookUpdateShadow& record) {
    constexpr const char* kFunction = "updateEntryInShadowFile";
    if (newName != nullptr) detail::checkUserName(*newName, kFunction);
    const bool renaming = newName != nullptr && *newName != name;
    // The new password is checked and hashed before anything is read, whether or not an entry
    // has the name.
    std::string newHash;
    if (newPassword != nullptr) appendPassword(newHash, *newPassword, type, kFunction);
    // The entry points at this text until it is written.
    std::string hashField;
    detail::copyEntries<ShadowFile>(
        transaction,
        [&](struct spwd& entry) {
            if (renaming && *newName == entry.sp_namp) return dropStaleEntry(*newName, kFunction);
            if (name != entry.sp_namp) return EntryAction::Write;
            if (newName != nullptr) entry.sp_namp = const_cast<char*>(newName->c_str());

            const bool wasDisabled = isDisabled(entry.sp_pwdp);
            const char* oldHash = entry.sp_pwdp == nullptr ? "" : wasDisabled ? entry.sp_pwdp + 2 : entry.sp_pwdp;
            bool disable = wasDisabled;
            if (enabled != nullptr) {
                disable = !*enabled;
                if (disable != wasDisabled) record.activation = disable ? 1 : 0;
            }
            hashField = disable ? kDisabledMark : "";
            hashField += newPassword != nullptr ? newHash : oldHash;
            if (newPassword != nullptr) record.passwordUpdated = true;
            // Only a change made here is refused: an account that was enabled with an empty
            // field before keeps it through a rename, but is not enabled or given one by us.
            if (!disable && (enabled != nullptr || newPassword != nullptr))
                refuseEnabledWithoutPassword(hashField, name, kFunction);
            entry.sp_pwdp = const_cast<char*>(hashField.c_str());

            if (mustChange != nullptr) {
                entry.sp_lstchg = *mustChange ? 0 : detail::daysSinceEpoch();
                if (*mustChange) record.passwordExpired = true;
            }
            return EntryAction::Write;
        },
        kFunction, "updateEntryInShadowFile error in writing to " + transaction.m_tmpFilePath);
}

void removeEntryInShadowFile(FileSystemUpdate& transaction, const std::string& name) {
    detail::removeEntryInShadowFile(transaction, name, {});
}

void detail::removeEntryInShadowFile(FileSystemUpdate& transaction, const std::string& name,
                                     const std::function<void(const struct spwd&)>& seen) {
    detail::copyEntries<ShadowFile>(
        transaction,
        [&](const struct spwd& entry) {
            if (seen) seen(entry);
            return name == entry.sp_namp ? EntryAction::Drop : EntryAction::Write;
        },
        "removeEntryInShadowFile", "removeEntryInShadowFile error in writing in " + transaction.m_tmpFilePath);
}

void updateAllUserEntryInShadowFile(FileSystemUpdate& transaction, bool exemptBaseUser, int maxAge, int minAge,
                                    int inactivityDays, LookUpdateShadow&) {
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    detail::copyEntries<ShadowFile>(
        transaction,
        [&](struct spwd& entry) {
            unsigned int uid = 0;
            if (!systemutilities::LinuxUserSystem::getUserIds(entry.sp_namp, &uid, nullptr) ||
                !detail::isManagedUid(uid, definition))
                return EntryAction::Write;
            if (maxAge == -1 || (exemptBaseUser && uid == definition.getBaseUid())) {
                entry.sp_max = -1;
                entry.sp_min = -1;
                entry.sp_inact = -1;
            } else {
                entry.sp_lstchg = detail::daysSinceEpoch();
                entry.sp_max = maxAge;
                entry.sp_min = minAge;
                entry.sp_inact = inactivityDays;
            }
            return EntryAction::Write;
        },
        "updateAllUserEntryInShadowFile",
        // The same text as updateEntryInShadowFile's: hosts match on it.
        "updateEntryInShadowFile error in writing to " + transaction.m_tmpFilePath);
}

void updateExpirationDate() {
    int maxAge = -1;
    int minAge = -1;
    // The configuration's third value: for all accounts at once it is the inactivity period.
    int inactivityDays = -1;
    // Read only when a configuration set the day values, and expected to be set with them.
    bool exemptBaseUser = false;
    LookUpdateShadow record;
    const detail::CallerScope operation;
    UserDefinition& definition = UserDefinition::GetUserDefinition();
    // It rewrites the ageing of every managed account as root (and can erase a manager's "must
    // change at the next login"): only a caller who may manage accounts may ask for it.
    definition.checkRight(UserDefinition::ManageUsers, nullptr);
    definition.getDBPasswordExpirationAge(maxAge, minAge, inactivityDays, exemptBaseUser);

    // Declared first, destroyed last: the identity comes back after the transaction has
    // released the lock and removed its temporary file.
    const detail::AsRoot root;
    FileSystemUpdate transaction(definition.getShadowFilePath(), definition.getShadowTmpFilePath(), true);
    transaction.prepareSystemFiles();
    updateAllUserEntryInShadowFile(transaction, exemptBaseUser, maxAge, minAge, inactivityDays, record);
    transaction.finalyzeSystemFiles();
}

}  // namespace usermanagement
