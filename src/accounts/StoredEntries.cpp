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

void StoredAccountCount::passwdEntry(const struct passwd& entry) {
    const bool hasUid = entry.pw_uid == m_uid, hasName = m_name == entry.pw_name;
    m_byUid += hasUid;
    m_byName += hasName;
    if (hasUid && hasName) m_account = {true, entry.pw_gid};
}

void StoredAccountCount::shadowEntry(const struct spwd& entry) { m_inShadow += m_name == entry.sp_namp; }

StoredAccount StoredAccountCount::whole(const char* passwd, const char* shadow) const {
    if (m_byUid > 1 || m_byName > 1 || m_inShadow > 1)
        raise<UMException>(UMError::DuplicatedAccount, m_name, " :The account (uid ", m_uid,
                           ") is stored more than once: ", m_byUid, " entries of its uid and ", m_byName,
                           " of its name in ", passwd, ", ", m_inShadow, " of its name in ", shadow,
                           "; remove the extra entries before changing it");
    // By name in both files: the passwd entry of the uid under another name is a rename since the
    // object was read, which the caller reports as such.
    const bool inPasswd = m_byName > 0;
    if (inPasswd != (m_inShadow > 0))
        raise<UMException>(UMError::HalfStoredAccount, m_name, " :The account (uid ", m_uid, ") is in ",
                           inPasswd ? passwd : shadow, " but not in ", inPasswd ? shadow : passwd,
                           "; add the missing entry or remove the other before changing it");
    return m_account;
}

StoredAccount requireWholeStoredAccount(unsigned int uid, const std::string& name) {
    UserDefinition& config = UserDefinition::GetUserDefinition();
    const char* passwd = config.getPasswordFilePath();
    const char* shadow = config.getShadowFilePath();
    StoredAccountCount count(uid, name);
    readThrough<PasswdFile>(passwd, [&](const struct passwd& entry) { count.passwdEntry(entry); });
    readThrough<ShadowFile>(shadow, [&](const struct spwd& entry) { count.shadowEntry(entry); });
    return count.whole(passwd, shadow);
}

}  // namespace usermanagement::detail
