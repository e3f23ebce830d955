#include <gtest/gtest.h>

#include <string>

#include <systemutilities/Base64.h>

using namespace systemutilities;

namespace {

std::string decode(const std::string& s) { return base64_decode(s.data(), static_cast<unsigned int>(s.size())); }

TEST(Base64, BothWays) {
    // RFC 4648's vectors, encoded from prefixes of one buffer: the encoder must not read past
    // the length it is given.
    const unsigned char* foobar = reinterpret_cast<const unsigned char*>("foobar");
    const char* coded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (unsigned int length = 0; length <= 6; ++length) {
        EXPECT_EQ(base64_encode(foobar, length), coded[length]);
        EXPECT_EQ(decode(coded[length]), std::string("foobar", length));
        base64_cleanup();  // the next decode builds the table again
    }
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    EXPECT_EQ(decode(base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()), 256)), bytes);
    for (const char* broken : {"Zm9vY", "Zg", "Zm9vYmF"}) EXPECT_EQ(decode(broken), "") << broken;
}

}  // namespace
