// The HTTP(S) server of tvc-webd: cpp-httplib with a pool of worker threads (each request runs
// to its end on one of them), the API dispatched through the route table (Routes.h), the pages
// from the static directory, the security headers, the 64 KiB body limit, JSON answers for
// every error, and the identity check after every request.
#pragma once

#include <httplib.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Acting.h"
#include "Routes.h"
#include "deviceconfig/DeviceConfig.h"
#include "Sessions.h"

namespace webhost {

struct Settings {
    std::string listen = "0.0.0.0";
    int port = -1;  // -1: 443 over HTTPS, 8080 over HTTP
    bool http = false;
    std::string cert, key;
    std::string stateDir = "/etc/tvc-webd";
    std::string staticDir;  // "": the built-in default (defaultStaticDir())
    std::chrono::seconds idleTimeout{900};
    int threads = 16;
    // How long every refused login takes, from its start; -1: the configured pause for an unknown
    // name (UserDefinition::getDBDelayWrongCredential).
    int loginPauseSeconds = -1;
    // The device configuration file; without configRequired a missing file means the
    // library's defaults.
    std::string configFile = tvc::deviceconfig::kDefaultPath;
    bool configRequired = false;
};

constexpr std::size_t kBodyLimit = 64 * 1024;
constexpr int kListenBacklog = 128;

std::string defaultStaticDir();
// Whether `address` is a loopback address (127.0.0.0/8, ::1, localhost).
bool isLoopback(const std::string& address);
// Installs tvc-webd's log sink and the device configuration file (catalogue and settings); once:
// later calls change nothing, whatever file they name.  Throws tvc::deviceconfig::ConfigError,
// and then a later call tries again.
void installDevice(const std::string& configFile = tvc::deviceconfig::kDefaultPath, bool required = false);

// A place among the logins in progress, held for its lifetime; none is needed (always taken)
// without a counter.
class LoginSlot {
public:
    LoginSlot(std::atomic<int>* counter, int limit) : m_counter(counter) {
        if (m_counter && ++*m_counter > limit) {
            --*m_counter;
            m_counter = nullptr;
            m_refused = true;
        }
    }
    ~LoginSlot() {
        if (m_counter) --*m_counter;
    }
    LoginSlot(const LoginSlot&) = delete;
    LoginSlot& operator=(const LoginSlot&) = delete;
    bool taken() const { return !m_refused; }

private:
    std::atomic<int>* m_counter;
    bool m_refused = false;
};

class Server {
public:
    // std::runtime_error for settings it refuses: plain HTTP on an address other than loopback,
    // a certificate that cannot be made or loaded.
    explicit Server(Settings settings);
    // Binds the listening socket and returns the port (the kernel's pick for port 0).
    int bind();
    // Serves until stop(); returns false when serving failed.
    bool run();
    // From any thread but a worker's; returns when run() has returned (or will return at once).
    void stop();

    // Called on the worker thread whose ids differ from the server's after a request.  The
    // default stops the server; tvc-webd exits at once instead.
    std::function<void(const Identity& found)> onIdentityMismatch;
    bool identityMismatched() const { return m_mismatched; }

private:
    void dispatch(const httplib::Request& req, httplib::Response& res);
    void serve(const Route& route, Call& call);
    std::optional<Session> checkedSession(const httplib::Request& req);
    void checkIdentity();

    Settings m_settings;
    std::unique_ptr<httplib::Server> m_http;
    Sessions m_sessions;
    const IdentityGuard m_guard;
    // At most a quarter of the workers (at least one) run a login at a time.
    int loginLimit() const { return m_settings.threads > 3 ? m_settings.threads / 4 : 1; }
    std::atomic<int> m_loginsInFlight{0};
    int m_listening = -1;  // the listening socket, once bound (owned by httplib)
    std::atomic<bool> m_mismatched{false};
    std::atomic<bool> m_stopRequested{false}, m_running{false}, m_finished{false};
};

}  // namespace webhost
