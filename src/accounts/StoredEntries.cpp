#include "accounts/StoredEntries.h"

#include <usermanagement/UMException.h>
#include <usermanagement/UserDefinition.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "files/EntryCopy.h"
#include "foundation/Raise.h"

namespace usermanagement::detail {

namespace {

constexpr const char* kFunction = "confirmStoredAccount";

struct Closer {
    void operator()(FILE* stream) const { std::fclose(stream); }
};

// Calls `count` with every entry of the file at `path`.
template <class File, class Count>
void readThrough(const char* path, Count&& count) {
    const std::unique_ptr<FILE, Closer> file(std::fopen(path, "re"));
    if (!file)
        raiseErrno<UMSystemErrorException>(errno, UMSystemError::FileContents, kFunction, " error in reading ", path);
    EntryReader<File> reader(file.get(), path, kFunction);
    while (const typename File::Entry* entry = reader.next()) count(*entry);
}

}  // namespace

StoredAccount requireWholeStoredAccount(unsigned int uid, const std::string& name) {
    UserDefinition& config = UserDefinition::GetUserDefinition();
    const char* passwd = config.getPasswordFilePath();
    const char* shadow = config.getShadowFilePath();
    unsigned int byUid = 0, byName = 0, inShadow = 0;
    StoredAccount account;
    readThrough<PasswdFile>(passwd, [&](const struct passwd& entry) {
        const bool hasUid = entry.pw_uid == uid, hasName = name == entry.pw_name;
        byUid += hasUid;
        byName += hasName;
        if (hasUid && hasName) account = {true, entry.pw_gid};
    });
    readThrough<ShadowFile>(shadow, [&](const struct spwd& entry) { inShadow += name == entry.sp_namp; });
    if (byUid > 1 || byName > 1 || inShadow > 1)
        raise<UMException>(UMError::DuplicatedAccount, name, " :The account (uid ", uid,
                           ") is stored more than once: ", byUid, " entries of its uid and ", byName,
                           " of its name in ", passwd, ", ", inShadow, " of its name in ", shadow,
                           "; remove the extra entries before changing it");
    // By name in both files: the passwd entry of the uid under another name is a rename since the
    // object was read, which the caller reports as such.
    const bool inPasswd = byName > 0;
    if (inPasswd != (inShadow > 0))
        raise<UMException>(UMError::HalfStoredAccount, name, " :The account (uid ", uid, ") is in ",
                           inPasswd ? passwd : shadow, " but not in ", inPasswd ? shadow : passwd,
                           "; add the missing entry or remove the other before changing it");
    return account;
}

}  // namespace usermanagement::detail
