// A fixture installing a configuration of type `Definition` and the sample device's profile
// catalogue (device.conf through the configuration reader, which the binary compiles in) for
// each test; afterwards
// the previous providers come back and the next test starts from an unbuilt catalogue.
#pragma once

#include <mutex>

#include <usermanagement/ProfileDefinition.h>
#include <usermanagement/UserDefinition.h>

#include "sampledevice/SampleConfiguration.h"
#include "support/Sandbox.h"

namespace tvc::test {

// Puts back, after each test, the configuration and catalogue installed before it, and leaves
// the catalogue unbuilt for the next test.
class ProvidersRestored : public SandboxTest {
protected:
    void TearDown() override {
        using usermanagement::ProfileDefinition;
        usermanagement::UserDefinition::m_ptrDefaultUserDefinition = m_savedDefinition;
        ProfileDefinition::m_ptrDefaultProfileDefinition = m_savedCatalogue;
        std::lock_guard<std::mutex> lock(ProfileDefinition::m_mtx);
        ProfileDefinition::g_profiles.clear();
        ProfileDefinition::g_roles.clear();
        ProfileDefinition::m_init = false;
    }

private:
    usermanagement::UserDefinition* const m_savedDefinition =
        usermanagement::UserDefinition::m_ptrDefaultUserDefinition;
    usermanagement::ProfileDefinition* const m_savedCatalogue =
        usermanagement::ProfileDefinition::m_ptrDefaultProfileDefinition;
};

template <class Definition>
class DeviceTest : public ProvidersRestored {
protected:
    void SetUp() override {
        ProvidersRestored::SetUp();
        definition.setUserDefinition(definition);
        catalogue.setProfileDefinition(catalogue);
    }

    Definition definition;
    tvc::sample::SampleProfiles catalogue;
};

}  // namespace tvc::test
