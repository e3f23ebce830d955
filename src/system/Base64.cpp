#include <systemutilities/Base64.h>

#include <array>
#include <memory>
#include <mutex>

namespace systemutilities {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int kPadding[] = {0, 2, 1};

using DecodeTable = std::array<unsigned char, 256>;

std::mutex g_tableMutex;
std::unique_ptr<DecodeTable> g_decodeTable;

// The shared decoding table, built on first use.  Characters outside the alphabet map to 0.
const DecodeTable& decodeTable() {
    std::lock_guard<std::mutex> guard(g_tableMutex);
    if (!g_decodeTable) {
        auto table = std::make_unique<DecodeTable>();
        table->fill(0);
        for (unsigned char i = 0; i < 64; ++i) (*table)[static_cast<unsigned char>(kAlphabet[i])] = i;
        g_decodeTable = std::move(table);
    }
    return *g_decodeTable;
}

}  // namespace

std::string base64_encode(const unsigned char* data, unsigned int length) {
    std::string out;
    out.reserve((static_cast<size_t>(length) + 2) / 3 * 4);
    for (unsigned int i = 0; i < length; i += 3) {
        unsigned long value = static_cast<unsigned long>(data[i]) << 16;
        if (i + 1 < length) value |= static_cast<unsigned long>(data[i + 1]) << 8;
        if (i + 2 < length) value |= data[i + 2];
        for (int shift = 18; shift >= 0; shift -= 6) out += kAlphabet[(value >> shift) & 0x3F];
    }
    for (int i = 0; i < kPadding[length % 3]; ++i) out[out.size() - 1 - i] = '=';
    return out;
}

std::string base64_decode(const char* text, unsigned int length) {
    const DecodeTable& table = decodeTable();
    if (length % 4 != 0 || length == 0) return std::string();
    size_t outLength = length / 4 * 3;
    if (text[length - 1] == '=') --outLength;
    if (text[length - 2] == '=') --outLength;
    std::string out;
    out.reserve(outLength);
    for (unsigned int i = 0; i < length; i += 4) {
        unsigned long value = 0;
        for (unsigned int j = 0; j < 4; ++j) {
            unsigned char c = static_cast<unsigned char>(text[i + j]);
            value = (value << 6) | (c == '=' ? 0 : table[c]);
        }
        for (int shift = 16; shift >= 0 && out.size() < outLength; shift -= 8)
            out += static_cast<char>((value >> shift) & 0xFF);
    }
    return out;
}

void base64_cleanup() {
    std::lock_guard<std::mutex> guard(g_tableMutex);
    g_decodeTable.reset();
}

}  // namespace systemutilities
