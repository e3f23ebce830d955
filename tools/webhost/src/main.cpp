// tvc-webd: the reference web host of libtvc_usermanagement.
//
//     tvc-webd [--listen ADDR] [--port N] [--http] [--cert FILE --key FILE] [--state-dir DIR]
//              [--static DIR] [--idle-timeout S] [--threads N] [--login-pause S] [--port-file FILE]
//              [--config FILE]
//
// The device's configuration comes from FILE, by default /etc/tvc-usermanagement/device.conf
// (no file there: the library's defaults); one it cannot use ends tvc-webd with status 2.
// Serves the device's account pages and their JSON API over HTTPS (a self-signed certificate
// is made under --state-dir when none is given), or over plain HTTP on a loopback address.
// Runs as root: each request's worker thread acts as the logged-in account.  SIGTERM and SIGINT
// stop it (exit 0); a worker found with another identity than the server's after a request
// ends it at once (exit 70).
#include <signal.h>
#include <syslog.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include "Server.h"

namespace {

constexpr int kUsage = 2;
constexpr int kIdentityLost = 70;

int usage(const std::string& why) {
    std::cerr << "tvc-webd: " << why
              << "\nusage: tvc-webd [--listen ADDR] [--port N] [--http] [--cert FILE --key FILE] [--state-dir DIR]"
                 " [--static DIR] [--idle-timeout S] [--threads N] [--login-pause S] [--port-file FILE]"
                 " [--config FILE]\n";
    return kUsage;
}

bool number(const std::string& text, int low, int high, int& value) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    value = std::stoi(text);
    return value >= low && value <= high;
}

}  // namespace

int main(int argc, char** argv) {
    webhost::Settings settings;
    std::string portFile;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--http") {
            settings.http = true;
            continue;
        }
        if (option == "-h" || option == "--help") return usage("the account pages of the device");
        if (i + 1 == argc) return usage("unknown option or missing value: " + option);
        const std::string value = argv[++i];
        int n = 0;
        if (option == "--listen")
            settings.listen = value;
        else if (option == "--port" && number(value, 0, 65535, n))
            settings.port = n;
        else if (option == "--cert")
            settings.cert = value;
        else if (option == "--key")
            settings.key = value;
        else if (option == "--state-dir")
            settings.stateDir = value;
        else if (option == "--static")
            settings.staticDir = value;
        else if (option == "--idle-timeout" && number(value, 1, 86400 * 7, n))
            settings.idleTimeout = std::chrono::seconds(n);
        else if (option == "--threads" && number(value, 1, 1024, n))
            settings.threads = n;
        else if (option == "--login-pause" && number(value, 0, 60, n))
            settings.loginPauseSeconds = n;
        else if (option == "--port-file")
            portFile = value;
        else if (option == "--config")
            settings.configFile = value, settings.configRequired = true;
        else
            return usage("bad option: " + option + " " + value);
    }

    try {
        webhost::installDevice(settings.configFile, settings.configRequired);
    } catch (const tvc::deviceconfig::ConfigError& e) {
        std::cerr << "tvc-webd: " << e.what() << "\n";
        return kUsage;
    }

    // A peer that hangs up must not kill the server through a write; SIGTERM and SIGINT are
    // taken by one thread with sigwait (blocked here, before any thread starts, so every
    // thread inherits the mask): no handler ever runs inside a request.
    signal(SIGPIPE, SIG_IGN);
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    try {
        webhost::Server server(settings);
        // The thread that kept an account's identity would take the next connection as that
        // account: nothing more is served, the process ends here.
        server.onIdentityMismatch = [](const webhost::Identity& found) {
            std::cerr << "tvc-webd: a worker thread kept another identity (" << found.describe() << "); stopping\n";
            syslog(LOG_CRIT, "a worker thread kept another identity (%s); stopping", found.describe().c_str());
            std::_Exit(kIdentityLost);
        };
        const int port = server.bind();
        if (!portFile.empty()) std::ofstream(portFile) << port << "\n";
        std::cerr << "tvc-webd: serving " << (settings.http ? "http" : "https") << "://" << settings.listen << ":"
                  << port << "/\n";
        std::thread stopper([&server, stopSignals] {
            int received = 0;
            sigwait(&stopSignals, &received);
            server.stop();
        });
        const bool served = server.run();
        // The stopper is done with the server before it goes: when serving ended otherwise, a
        // signal of its own wakes it.
        pthread_kill(stopper.native_handle(), SIGTERM);
        stopper.join();
        return served ? 0 : 1;
    } catch (const std::exception& e) {
        std::cerr << "tvc-webd: " << e.what() << "\n";
        return 1;
    }
}
