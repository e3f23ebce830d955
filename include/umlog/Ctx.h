// The per-thread log context.  The host fills it for the request a thread serves: the user
// name goes into every exception the library throws on that thread, the client address into
// every message it logs.  The library never clears it.
#pragma once

#include <map>
#include <string>

#include <usermanagement/Export.h>

namespace usermanagement {
class User;
}

namespace umlog {

class TVC_UM_EXPORT Ctx {
public:
    // Access protocol of the request; stored for the host, never interpreted by the library.
    enum Protocol : int {
        Unknown = 0,
        Http = 1,
        Https = 2,
        Cli = 3,
    };

    Ctx();
    ~Ctx();
    Ctx(const Ctx&) = delete;
    Ctx& operator=(const Ctx&) = delete;

    // The calling thread's context, constructed on first use and destroyed with the thread.
    static Ctx& getCtx();

    std::string getIp();
    void setIP(const std::string& ip);
    std::string getUsername();
    void setUsername(const std::string& name);
    Protocol getProtocol();
    void setProtocol(Protocol protocol);
    // The value stored under `key`, or "" (the map is not changed).
    std::string getAttribut(const std::string& key);
    // Stores `value` under `key`, replacing an earlier value.
    void addAttribut(const std::string& key, const std::string& value);

    // The account the thread acts as.  setUser() replaces it by the account of the thread's
    // effective user id; setUser(user) by a copy of `user`, unless the one held compares equal.
    // The new object is built before the old one is dropped: when building fails (the
    // exception propagates), the context keeps the account object it held.
    void setUser();
    void setUser(const usermanagement::User& user);
    // The account object, built by setUser() on first use.
    usermanagement::User& getUser();

private:
    // The account object of the thread, owned; kept first.  Null until first needed.
    usermanagement::User* m_account;
    std::string m_username;
    std::string m_ip;
    std::map<std::string, std::string> m_attributes;
    Protocol m_protocol;
};

// The one instance per thread; reach it through Ctx::getCtx().
extern TVC_UM_EXPORT thread_local Ctx ctx;

}  // namespace umlog
