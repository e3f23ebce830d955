#include <gtest/gtest.h>

#include <string>

#include <systemutilities/Base64.h>

using systemutilities::base64_cleanup;
using systemutilities::base64_decode;
using systemutilities::base64_encode;

namespace {

std::string encode(const std::string& s) {
    return base64_encode(reinterpret_cast<const unsigned char*>(s.data()), static_cast<unsigned int>(s.size()));
}
std::string decode(const std::string& s) { return base64_decode(s.data(), static_cast<unsigned int>(s.size())); }

TEST(Base64, Rfc4648VectorsBothWays) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},         {"f", "Zg=="},        {"fo", "Zm8="},         {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, coded] : vectors) {
        EXPECT_EQ(encode(plain), coded);
        EXPECT_EQ(decode(coded), plain);
    }
}

TEST(Base64, BinaryDataWithZeroBytesRoundTrips) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    EXPECT_EQ(decode(encode(bytes)), bytes);
    EXPECT_EQ(decode("AAA="), std::string(2, '\0'));
}

TEST(Base64, LengthsThatAreNotAMultipleOfFourDecodeToNothing) {
    EXPECT_EQ(decode("Zm9vY"), "");
    EXPECT_EQ(decode("Zg"), "");  // padding stripped
    EXPECT_EQ(decode(""), "");
}

TEST(Base64, CleanupThenDecodeRebuildsTheTable) {
    EXPECT_EQ(decode("Zm9v"), "foo");
    base64_cleanup();
    EXPECT_EQ(decode("Zm9vYmFy"), "foobar");
    base64_cleanup();
    base64_cleanup();  // twice is harmless
}

}  // namespace
