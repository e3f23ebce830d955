// Base64: decoding any bytes never reads or writes outside its buffers, and encoding any
// bytes then decoding the text gives the same bytes back.
#include <systemutilities/Base64.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Exactly `size` bytes, no terminator: an overread past the input is the sanitizer's.
    const std::string decoded = systemutilities::base64_decode(reinterpret_cast<const char*>(data),
                                                               static_cast<unsigned int>(size));
    if (decoded.size() > size) std::abort();

    const std::string encoded = systemutilities::base64_encode(data, static_cast<unsigned int>(size));
    if (encoded.size() != (size + 2) / 3 * 4) std::abort();
    for (std::size_t i = 0; i < encoded.size(); ++i)
        if (encoded[i] == '=' && i + 2 < encoded.size()) std::abort();  // padding only at the end
    const std::string back = systemutilities::base64_decode(encoded.data(), static_cast<unsigned int>(encoded.size()));
    if (back != std::string(reinterpret_cast<const char*>(data), size)) std::abort();
    return 0;
}
