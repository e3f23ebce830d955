// The configuration the account-operation tests and their driver program share.
#pragma once

#include "sampledevice/SampleCatalogue.h"

namespace tvc::test {

// The sample device with room for 200 managed accounts and no pause after an unknown name.
struct RoomyDefinition : tvc::sample::SampleDefinition {
    unsigned int getMaxUser() override { return 200; }
    unsigned int getDBDelayWrongCredential() override { return 0; }
};

}  // namespace tvc::test
