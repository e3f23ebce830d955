// What the account-operation tests and their driver program share.
#pragma once

#include <string>

#include <tarvicexception/TvcException.h>
#include <usermanagement/SystemPermission.h>
#include <usermanagement/User.h>

#include "sampledevice/SampleCatalogue.h"

namespace tvc::test {

// The sample device with room for 200 managed accounts and no pause after an unknown name.
struct RoomyDefinition : tvc::sample::SampleDefinition {
    unsigned int getMaxUser() override { return 200; }
    unsigned int getDBDelayWrongCredential() override { return 0; }
};

// A finished SHA-512 crypt hash: storing it needs neither crypt() nor the password rules.
constexpr const char* kReadyHash =
    "$6$tvcready$hEi8dXaaRXf56PUuuXS8Gu29gbhXkd4isSjTFxukMfTFAUnQYWduwxGwcusqFQ6BIPvkikZX/9T5G.mpQ44Ii1";
constexpr int kViewers = 2;

inline std::string describe(const tarvicexception::TvcException& e) {
    return "error " + std::to_string(e.getErrorId()) + " " + e.what();
}

// As the user manager "admin": creates viewers PREFIX0 .. PREFIX<count - 1>, removing each even
// one once the next exists, so that the odd ones stay.  "ok", or the first failure.
inline std::string churn(const std::string& prefix, int count) {
    const bool skipCheck = true;
    try {
        usermanagement::SystemPermission manager;
        manager.setUserPermission("admin");
        for (int i = 0; i < count; ++i) {
            usermanagement::User::createUserWithEncryptedPassword(prefix + std::to_string(i), kReadyHash, kViewers,
                                                                  true, false, &skipCheck);
            if (i % 2 == 1) usermanagement::User(prefix + std::to_string(i - 1)).removeUser();
        }
    } catch (const tarvicexception::TvcException& e) {
        return describe(e);
    }
    return "ok";
}

}  // namespace tvc::test
