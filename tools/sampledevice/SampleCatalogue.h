// The profile catalogue of the sample device, written the way a device host writes its own: a
// ProfileDefinition whose buildProfiles fills the tables from the device's groups, installed at
// start-up with setProfileDefinition.  Its profiles and roles are those of sample-device.txt
// (read through SampleDevice.h); the role ids come from the gids, as the library derives them.
// A described profile whose group the live group database lacks is left out, so that a rebuild
// after the migration offers what the new version's groups allow.
#pragma once

#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UserDefinition.h>

namespace tvc::sample {

class SampleCatalogue : public usermanagement::ProfileDefinition {
public:
    void buildProfiles() override;
};

// The sample device's configuration: the library's defaults, except
//   - the failed-login limit, which must be the one its "login" PAM service enforces (the
//     tally module's deny=3), so that the login failure that locks an account is the one
//     reported as locking it;
//   - room for ten managed accounts: its five fill the default limit, and an operator must be
//     able to create one.
class SampleDefinition : public usermanagement::UserDefinition {
public:
    static constexpr int kLoginFailureLimit = 3;
    static constexpr unsigned int kManagedAccounts = 10;
    void getDBLockCount(int& count) override { count = kLoginFailureLimit; }
    unsigned int getMaxUser() override { return kManagedAccounts; }
};

}  // namespace tvc::sample
