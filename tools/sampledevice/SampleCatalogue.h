// The profile catalogue of the sample device (tools/sandbox/tvc-sandbox), written the way a
// device host writes its own: a ProfileDefinition whose buildProfiles fills the tables from the
// device's groups, installed at start-up with setProfileDefinition.
//
//   profile (id = gid - 10000)   roles (id = gid - 4100)
//   administrators 10000 / 0     role-user-manager, role-user-configure-self,
//                                role-network-configure, role-log-read
//   operators      10001 / 1     role-user-configure-self, role-network-configure, role-log-read
//   viewers        10002 / 2     role-user-configure-self, role-log-read
//   maintainers    10003 / 3     role-user-configure-self, role-log-read
//   root / -1, www-data / -2     no roles (system accounts, as in the built-in catalogue)
//
// role-network-configure grants net-admin, role-log-read grants log-read; the two user roles
// are rights in themselves and grant no further group.
#pragma once

#include <usermanagement/ProfileDefinition.h>

namespace tvc::sample {

class SampleCatalogue : public usermanagement::ProfileDefinition {
public:
    void buildProfiles() override;
};

}  // namespace tvc::sample
