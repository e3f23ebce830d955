// The profile catalogue of the sample device, written the way a device host writes its own: a
// ProfileDefinition whose buildProfiles fills the tables from the device's groups, installed at
// start-up with setProfileDefinition.  Its profiles and roles are those of sample-device.txt
// (read through SampleDevice.h); the role ids come from the gids, as the library derives them.
#pragma once

#include <usermanagement/ProfileDefinition.h>

namespace tvc::sample {

class SampleCatalogue : public usermanagement::ProfileDefinition {
public:
    void buildProfiles() override;
};

}  // namespace tvc::sample
