// The session store of tvc-webd: who is logged in, under which cookie, with which CSRF token.
// Thread-safe: every operation takes the store's mutex, and callers get copies.
//
// A token and a CSRF token are 32 random bytes each (RAND_bytes), written as 64 hex digits.
// The store keys its map by the SHA-256 of the token, so that looking a cookie up compares
// digests, never the secret itself, and the time a lookup takes tells nothing about the token.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace webhost {

struct Session {
    std::string token;
    std::string csrf;
    unsigned int uid = 0;
    unsigned int gid = 0;
    std::string name;
    // The account must change its password: only the session, password and logout routes.
    bool mustChange = false;
    // SHA-256 of the stored password hash at login: a password changed anywhere ends the session.
    std::string passwordPrint;
    std::chrono::steady_clock::time_point lastSeen;
};

// Sessions one account may hold at once; its next login ends the one least recently used.
// Without a bound, any account holder could fill the server's memory by logging in in a loop.
constexpr std::size_t kSessionsPerAccount = 16;

class Sessions {
public:
    explicit Sessions(std::chrono::seconds idleTimeout) : m_idle(idleTimeout) {}

    Session create(unsigned int uid, unsigned int gid, const std::string& name, bool mustChange,
                   const std::string& passwordPrint);
    // The live session of `token`, its idle clock restarted; none when unknown or idle too long.
    std::optional<Session> find(const std::string& token);
    // A new token and CSRF token for the session of `token` (the old token stops working).
    std::optional<Session> renew(const std::string& token, bool mustChange);
    void setPasswordPrint(const std::string& token, const std::string& print);
    void end(const std::string& token);
    // Ends every session of account `uid` except the one of `keepToken`; how many it ended.
    std::size_t endAllOf(unsigned int uid, const std::string& keepToken = "");

    // Whether `presented` is the session's CSRF token, compared in constant time.
    static bool csrfMatches(const Session& session, const std::string& presented);

private:
    bool expired(const Session& session, std::chrono::steady_clock::time_point now) const;

    const std::chrono::seconds m_idle;
    std::mutex m_mutex;
    std::map<std::string, Session> m_byDigest;
};

// 32 random bytes as 64 hex digits; SHA-256 as 64 hex digits.
std::string randomHex();
std::string sha256Hex(const std::string& data);

}  // namespace webhost
