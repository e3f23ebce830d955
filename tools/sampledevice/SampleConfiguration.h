// The sample device's configuration (device.conf beside this header) read by the device
// configuration reader, for the tests and the benchmarks: the settings and the catalogue a host
// would install from it.  The file is found through TVC_SOURCE_DIR, compiled in, and its text is
// read without the ownership check: a checkout belongs to whoever made it.  A file that cannot
// be read throws.
#pragma once

#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "deviceconfig/DeviceConfig.h"

namespace tvc::sample {

inline std::shared_ptr<const deviceconfig::DeviceConfiguration> sampleConfiguration() {
    static const auto configuration = [] {
        const std::string path = TVC_SOURCE_DIR "/tools/sampledevice/device.conf";
        std::ifstream file(path);
        std::ostringstream text;
        if (!(text << file.rdbuf())) throw std::runtime_error("cannot read " + path);
        return std::make_shared<const deviceconfig::DeviceConfiguration>(
            deviceconfig::parseDeviceConfiguration(text.str(), path));
    }();
    return configuration;
}

// The settings and the catalogue of the sample device, constructed without arguments.
struct SampleSettings : deviceconfig::ConfiguredDefinition {
    SampleSettings() : ConfiguredDefinition(sampleConfiguration()) {}
};
struct SampleProfiles : deviceconfig::ConfiguredCatalogue {
    SampleProfiles() : ConfiguredCatalogue(sampleConfiguration()) {}
};

}  // namespace tvc::sample
