// Member-list editing over the shared copy loop of EntryCopy.h.
#include "files/GroupMembers.h"

#include <cctype>
#include <cstddef>
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
    template <class Keep>
    char** apply(char** list, Keep&& keep) {
        m_members.clear();
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
        return m_members.data();
    }

private:
    const MemberChange& m_change;
    std::vector<char*> m_members;
};

std::string writeFailure(const FileSystemUpdate& transaction, const char* function) {
    return std::string(function) + " error in writing to " + transaction.m_tmpFilePath;
}

}  // namespace

void updateMembersInGroupFile(FileSystemUpdate& group, const MemberChange& change) {
    constexpr const char* function = "updateMembersInGroupFile";
    if (!change.to.empty()) checkUserName(change.to, function);
    ListEdit members(change);
    copyEntries<GroupFile>(
        group,
        [&](struct group& entry) {
            const std::string name = entry.gr_name;
            entry.gr_mem = members.apply(entry.gr_mem, [&](bool listed) { return change.rule(name, listed); });
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
            entry.sg_adm = administrators.apply(entry.sg_adm, [](bool listed) { return listed; });
            return EntryAction::Write;
        },
        function, writeFailure(gshadow, function));
}

}  // namespace usermanagement::detail
