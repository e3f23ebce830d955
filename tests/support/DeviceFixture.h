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

template <class Definition>
class DeviceTest : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        definition.setUserDefinition(definition);
        catalogue.setProfileDefinition(catalogue);
    }
    void TearDown() override {
        using usermanagement::ProfileDefinition;
        usermanagement::UserDefinition::m_ptrDefaultUserDefinition = m_savedDefinition;
        ProfileDefinition::m_ptrDefaultProfileDefinition = m_savedCatalogue;
        std::lock_guard<std::mutex> lock(ProfileDefinition::m_mtx);
        ProfileDefinition::g_profiles.clear();
        ProfileDefinition::g_roles.clear();
        ProfileDefinition::m_init = false;
    }

    Definition definition;
    tvc::sample::SampleProfiles catalogue;

private:
    usermanagement::UserDefinition* const m_savedDefinition =
        usermanagement::UserDefinition::m_ptrDefaultUserDefinition;
    usermanagement::ProfileDefinition* const m_savedCatalogue =
        usermanagement::ProfileDefinition::m_ptrDefaultProfileDefinition;
};

}  // namespace tvc::test
