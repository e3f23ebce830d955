// The file side of one account operation: effective root for its span, the password and
// shadow file transactions prepared, the system password-file lock held by the first, and,
// for an operation that changes group memberships, the group file and the group shadow file.
//
//     AccountFiles files(AccountFiles::WithGroups);  // root, lock, the temporary files
//     addEntryInPasswordFile(files.passwd, ...);
//     addEntryInShadowFile(files.shadow, ...);
//     files.updateMembers(change);
//     files.install();                             // every file or none
//
// A prepared transaction must be written before it is installed (an unwritten temporary file
// is empty): the group files are prepared only when asked for, and installed only once their
// member lists were written.  Members are destroyed in
// reverse order: the group transactions, the shadow transaction, the password transaction
// (which releases the lock and removes what is left of the temporary files), then the identity
// switch, so the thread is itself again only after the lock is gone.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UserDefinition.h>

#include "files/GroupMembers.h"
#include "system/AsRoot.h"

namespace usermanagement::detail {

class AccountFiles {
public:
    enum Scope { Accounts, WithGroups };

    explicit AccountFiles(Scope scope = Accounts)
        : passwd(definition().getPasswordFilePath(), definition().getPasswordTmpFilePath(), true),
          shadow(definition().getShadowFilePath(), definition().getShadowTmpFilePath(), false) {
        passwd.prepareSystemFiles();
        shadow.prepareSystemFiles();
        if (scope == Accounts) return;
        group.emplace(definition().getGroupFilePath(), definition().getGroupTmpFilePath(), false);
        group->prepareSystemFiles();
        // Looked for under the lock, as root.
        const GshadowPaths paths = gshadowPathsOf(group->m_filePath, group->m_tmpFilePath);
        if (!paths.present) return;
        gshadow.emplace(paths.live, paths.temporary, false);
        gshadow->prepareSystemFiles();
    }
    AccountFiles(const AccountFiles&) = delete;
    AccountFiles& operator=(const AccountFiles&) = delete;

    // The member lists of both group files (WithGroups only).
    void updateMembers(const MemberChange& change) {
        updateMembersInGroupFile(*group, change);
        if (gshadow) updateMembersInGshadowFile(*gshadow, change);
        m_membersWritten = true;
    }

    // Installs the password file, the shadow file, then the group files.  When one cannot be
    // installed the files installed before it are put back: an account operation never leaves
    // the files describing different account sets, which a later install failing on its own
    // would (an account in passwd with no shadow entry, or a removed account's name still
    // holding its groups).  `installed`, when given, runs once every file is in place, while
    // they can still be put back; when it fails, so does the whole operation.
    void install(const std::function<void()>& installed = {}) {
        std::vector<FileSystemUpdate*> files = {&passwd, &shadow};
        if (m_membersWritten) {
            files.push_back(&*group);
            if (gshadow) files.push_back(&*gshadow);
        }
        finalyzeSystemFilesTogether(files, installed);
    }

private:
    static UserDefinition& definition() { return UserDefinition::GetUserDefinition(); }
    const AsRoot m_root;
    bool m_membersWritten = false;

public:
    FileSystemUpdate passwd;
    FileSystemUpdate shadow;
    std::optional<FileSystemUpdate> group;
    std::optional<FileSystemUpdate> gshadow;
};

}  // namespace usermanagement::detail
