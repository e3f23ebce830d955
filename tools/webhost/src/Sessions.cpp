#include "Sessions.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <stdexcept>

namespace webhost {

namespace {

std::string hex(const unsigned char* bytes, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

}  // namespace

std::string randomHex() {
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) throw std::runtime_error("no random bytes for a session");
    return hex(bytes, sizeof bytes);
}

std::string sha256Hex(const std::string& data) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest);
    return hex(digest, sizeof digest);
}

bool Sessions::expired(const Session& session, std::chrono::steady_clock::time_point now) const {
    return now - session.lastSeen > m_idle;
}

Session Sessions::create(unsigned int uid, unsigned int gid, const std::string& name, bool mustChange,
                         const std::string& passwordPrint) {
    Session session{randomHex(), randomHex(), uid,           gid,
                    name,        mustChange,  passwordPrint, std::chrono::steady_clock::now()};
    const std::lock_guard<std::mutex> lock(m_mutex);
    // Idle sessions go whenever one is made, so the store never grows with abandoned ones.
    std::size_t held = 0;
    auto oldest = m_byDigest.end();
    for (auto it = m_byDigest.begin(); it != m_byDigest.end();) {
        if (expired(it->second, session.lastSeen)) {
            it = m_byDigest.erase(it);
            continue;
        }
        if (it->second.uid == uid) {
            ++held;
            if (oldest == m_byDigest.end() || it->second.lastSeen < oldest->second.lastSeen) oldest = it;
        }
        ++it;
    }
    if (held >= kSessionsPerAccount) m_byDigest.erase(oldest);
    m_byDigest[sha256Hex(session.token)] = session;
    return session;
}

std::optional<Session> Sessions::find(const std::string& token) {
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_byDigest.find(sha256Hex(token));
    if (it == m_byDigest.end()) return std::nullopt;
    if (expired(it->second, now)) {
        m_byDigest.erase(it);
        return std::nullopt;
    }
    it->second.lastSeen = now;
    return it->second;
}

std::optional<Session> Sessions::renew(const std::string& token, bool mustChange) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_byDigest.find(sha256Hex(token));
    if (it == m_byDigest.end()) return std::nullopt;
    Session session = it->second;
    m_byDigest.erase(it);
    session.token = randomHex();
    session.csrf = randomHex();
    session.mustChange = mustChange;
    session.lastSeen = std::chrono::steady_clock::now();
    m_byDigest[sha256Hex(session.token)] = session;
    return session;
}

void Sessions::setPasswordPrint(const std::string& token, const std::string& print) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_byDigest.find(sha256Hex(token));
    if (it != m_byDigest.end()) it->second.passwordPrint = print;
}

void Sessions::end(const std::string& token) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_byDigest.erase(sha256Hex(token));
}

std::size_t Sessions::endAllOf(unsigned int uid, const std::string& keepToken) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::size_t before = m_byDigest.size();
    for (auto it = m_byDigest.begin(); it != m_byDigest.end();)
        it = it->second.uid == uid && it->second.token != keepToken ? m_byDigest.erase(it) : std::next(it);
    return before - m_byDigest.size();
}

bool Sessions::csrfMatches(const Session& session, const std::string& presented) {
    // Both are compared whole whatever their first differing byte: no timing tells how much
    // of a guess was right.  The length is no secret (always 64).
    return presented.size() == session.csrf.size() &&
           CRYPTO_memcmp(presented.data(), session.csrf.data(), presented.size()) == 0;
}

}  // namespace webhost
