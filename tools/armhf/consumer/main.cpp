// Prints the word size it was built for and a Base64 round trip through the library.
#include <systemutilities/Base64.h>

#include <iostream>
#include <string>

int main() {
    const std::string text = "device";
    const std::string encoded =
        systemutilities::base64_encode(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    const std::string decoded = systemutilities::base64_decode(encoded.data(), encoded.size());
    std::cout << sizeof(void*) * 8 << "-bit " << encoded << ' ' << decoded << '\n';
    return decoded == text ? 0 : 1;
}
