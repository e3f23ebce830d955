// Member-list editing over the shared copy loop of EntryCopy.h.
#include "files/GroupMembers.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include <usermanagement/FileSystemUpdate.h>
#include <usermanagement/UMException.h>

#include "files/EntryCopy.h"
#include "files/UserName.h"
#include "foundation/Raise.h"

namespace usermanagement::detail {

namespace {

// The edited copy of one list.  The entry is pointed at it until the copy loop has written the
// entry; the next edit reuses it.
class ListEdit {
public:
    explicit ListEdit(const MemberChange& change) : m_change(change) {}

    // `list` without `from` and `to`, with `to` added when the rule (here `keep`) asks for it.
    // changed() tells afterwards whether that is another list than `list`.
    template <class Keep>
    char** apply(char** list, Keep&& keep) {
        m_members.clear();
        m_changed = false;
        std::size_t place = 0;
        bool listed = false;
        for (char** member = list; member != nullptr && *member != nullptr; ++member) {
            const bool isFrom = !m_change.from.empty() && m_change.from == *member;
            if (isFrom && !listed) {
                listed = true;
                place = m_members.size();
            }
            if (isFrom || m_change.to == *member || **member == '\0') continue;
            m_members.push_back(*member);
        }
        if (!listed) place = m_members.size();
        // The copy loop only reads what the entry points at.
        if (!m_change.to.empty() && keep(listed))
            m_members.insert(m_members.begin() + static_cast<std::ptrdiff_t>(place),
                             const_cast<char*>(m_change.to.c_str()));
        m_members.push_back(nullptr);
        // Changed unless both lists hold the same names in the same order; the walk stops at the
        // end of the shorter one.
        std::size_t i = 0;
        char** member = list;
        for (; member != nullptr && *member != nullptr && m_members[i] != nullptr; ++member, ++i)
            if (std::strcmp(m_members[i], *member) != 0) m_changed = true;
        if (m_members[i] != nullptr || (member != nullptr && *member != nullptr)) m_changed = true;
        return m_members.data();
    }

    bool changed() const { return m_changed; }

    // The bytes the list takes in a line: its members and the commas between them.
    std::size_t length() const {
        std::size_t bytes = 0;
        for (const char* member : m_members)
            if (member != nullptr) bytes += std::strlen(member) + 1;
        return bytes;
    }

private:
    const MemberChange& m_change;
    std::vector<char*> m_members;
    bool m_changed = false;
};

// A rewritten line must stay readable: the entry reader refuses lines longer than
// kMaxEntryLine, so a member list grown beyond it would make every later operation on the
// files fail, this account's removal included.  Refused before anything is installed.
void refuseOverlongLine(const char* group, std::size_t bytes, const char* function) {
    if (bytes > kMaxEntryLine)
        raise<UMSystemErrorException>(UMSystemError::FileContents, function, " error, the member list of group ",
                                      group, " would be longer than ", kMaxEntryLine,
                                      " bytes; the file is not rewritten");
}

// The bytes a group line takes besides its lists: name, password, the gid and the separators.
std::size_t fieldsLength(const char* name, const char* password) {
    return std::strlen(name) + (password != nullptr ? std::strlen(password) : 0) + 16;
}

std::string writeFailure(const FileSystemUpdate& transaction, const char* function) {
    return std::string(function) + " error in writing to " + transaction.m_tmpFilePath;
}

}  // namespace

GshadowPaths gshadowPathsOf(const std::string& groupFile, const std::string& groupTemporary) {
    const auto beside = [](const std::string& path, const char* name) {
        return path.substr(0, path.rfind('/') + 1) + name;
    };
    GshadowPaths paths{beside(groupFile, "gshadow"), beside(groupTemporary, "tmpgshadow")};
    struct stat status {};
    paths.present = !(lstat(paths.live.c_str(), &status) != 0 && errno == ENOENT);
    return paths;
}

void updateMembersInGroupFile(FileSystemUpdate& group, const MemberChange& change) {
    constexpr const char* function = "updateMembersInGroupFile";
    if (!change.to.empty()) checkUserName(change.to, function);
    ListEdit members(change);
    copyEntries<GroupFile>(
        group,
        [&](struct group& entry) {
            const std::string name = entry.gr_name;
            entry.gr_mem = members.apply(entry.gr_mem, [&](bool listed) { return change.rule(name, listed); });
            if (!members.changed()) return EntryAction::Keep;
            refuseOverlongLine(entry.gr_name, fieldsLength(entry.gr_name, entry.gr_passwd) + members.length(),
                               function);
            return EntryAction::Write;
        },
        function, writeFailure(group, function));
}

void updateMembersInGshadowFile(FileSystemUpdate& gshadow, const MemberChange& change) {
    constexpr const char* function = "updateMembersInGshadowFile";
    if (!change.to.empty()) checkUserName(change.to, function);
    ListEdit members(change), administrators(change);
    copyEntries<GshadowFile>(
        gshadow,
        [&](struct sgrp& entry) {
            const std::string name = entry.sg_namp;
            entry.sg_mem = members.apply(entry.sg_mem, [&](bool listed) { return change.rule(name, listed); });
            // An administrator of a group may add members to it (gpasswd): the seat follows the
            // membership rule too, so a demoted account cannot let itself back into a group its
            // new profile does not grant.  It is never given, only kept or taken.
            entry.sg_adm = administrators.apply(entry.sg_adm,
                                                [&](bool listed) { return listed && change.rule(name, listed); });
            if (!members.changed() && !administrators.changed()) return EntryAction::Keep;
            refuseOverlongLine(entry.sg_namp,
                               fieldsLength(entry.sg_namp, entry.sg_passwd) + members.length() +
                                   administrators.length(),
                               function);
            return EntryAction::Write;
        },
        function, writeFailure(gshadow, function));
}

}  // namespace usermanagement::detail
