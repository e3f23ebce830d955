// Acting as an account given as an object: SystemPermission's form that needs the account type.
// The switch itself is the one of the other form (system/ActAs.h).
#include <usermanagement/SystemPermission.h>

#include <umlog/Ctx.h>
#include <usermanagement/UMException.h>
#include <usermanagement/User.h>

#include "foundation/Raise.h"
#include "system/ActAs.h"

namespace usermanagement {

void SystemPermission::setUserPermission(const User& user) {
    if (m_permissionChanged) return;
    int count = 0;
    const gid_t* groups = user.getUserGroupsIds(count);
    if (groups == nullptr) detail::raise<PMException>(PMError::UpdatePrivilegeFailed, "Memory malloc failed");
    detail::actAsOrRollBack(
        detail::Snapshot{m_ruid, m_euid, m_saveuid, m_rgid, m_egid, m_savegid, m_groups, m_nbreGroup}, user.getUid(),
        user.getGid(), groups, count, [&user] { umlog::Ctx::getCtx().setUser(user); });
    m_permissionChanged = true;
}

}  // namespace usermanagement
