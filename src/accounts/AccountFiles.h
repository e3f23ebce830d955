// The file side of one account operation: effective root for its span, the password and
// shadow file transactions prepared, the system password-file lock held by the first.
//
//     AccountFiles files;                        // root, lock, both temporary files
//     addEntryInPasswordFile(files.passwd, ...);
//     addEntryInShadowFile(files.shadow, ...);
//     files.install();                           // both files or neither
//
// Members are destroyed in reverse order: the shadow transaction, the password transaction
// (which releases the lock and removes what is left of both temporary files), then the
// identity switch, so the thread is itself again only after the lock is gone.
#pragma once

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UserDefinition.h>

#include "system/AsRoot.h"

namespace usermanagement::detail {

class AccountFiles {
public:
    AccountFiles()
        : passwd(definition().getPasswordFilePath(), definition().getPasswordTmpFilePath(), true),
          shadow(definition().getShadowFilePath(), definition().getShadowTmpFilePath(), false) {
        passwd.prepareSystemFiles();
        shadow.prepareSystemFiles();
    }
    AccountFiles(const AccountFiles&) = delete;
    AccountFiles& operator=(const AccountFiles&) = delete;

    // Installs the password file, then the shadow file.  When the shadow file cannot be
    // installed the old password file is put back: an account operation never leaves the two
    // files describing different account sets, which a second install failing on its own
    // would (an account in passwd with no shadow entry, or the reverse).
    void install() { finalyzeSystemFilesTogether(passwd, shadow); }

private:
    static UserDefinition& definition() { return UserDefinition::GetUserDefinition(); }
    const AsRoot m_root;

public:
    FileSystemUpdate passwd;
    FileSystemUpdate shadow;
};

}  // namespace usermanagement::detail
