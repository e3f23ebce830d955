// login_bench - the latency of a web login (POST /api/login on a running tvc-webd) next to the
// latency of the PAM transaction alone that it is built around: pam_start, pam_authenticate,
// pam_acct_mgmt and pam_end with the same service and account, in this process.  The two
// alternate, one of each per round, so both see the same machine; the order within a round
// alternates too.  Run as root on the device (the sandbox), like the server.
//
// Usage: login_bench PORT [COUNT [SERVICE USER PASSWORD]]     (PORT 0: the PAM transaction alone)
// Prints one line per kind: "NAME: count=N p50_ms=.. p99_ms=.. max_ms=..", then the ratio of the
// p99s.  Exits 1 when a login or a PAM transaction fails.
#include <security/pam_appl.h>

#include "BarePam.h"

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

bool barePam(const char* service, const char* user, const char* password) {
    return tvc::bench::barePamLogin(service, user, password) == PAM_SUCCESS;
}

struct Series {
    const char* name;
    std::vector<double> ms;

    double percentile(double p) const {
        std::vector<double> sorted = ms;
        std::sort(sorted.begin(), sorted.end());
        const auto rank = static_cast<std::size_t>(std::ceil(p / 100.0 * sorted.size()));
        return sorted[std::max<std::size_t>(rank, 1) - 1];
    }
    void print() const {
        std::printf("%s: count=%zu p50_ms=%.2f p99_ms=%.2f max_ms=%.2f\n", name, ms.size(), percentile(50),
                    percentile(99), percentile(100));
    }
};

template <typename F>
bool timed(Series& series, F&& step) {
    const auto start = Clock::now();
    const bool ok = step();
    series.ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3 && argc != 6) {
        std::fprintf(stderr, "usage: login_bench PORT [COUNT [SERVICE USER PASSWORD]]\n");
        return 2;
    }
    const int port = std::atoi(argv[1]);
    const int count = argc > 2 ? std::atoi(argv[2]) : 200;
    const char* service = argc > 3 ? argv[3] : "login";
    const char* user = argc > 3 ? argv[4] : "admin";
    const char* password = argc > 3 ? argv[5] : "Admin#2026";
    const std::string body = std::string("{\"name\":\"") + user + "\",\"password\":\"" + password + "\"}";

    httplib::Client client("127.0.0.1", port);
    client.set_keep_alive(true);
    // Request line and body go out in two writes; without this the second waits for the
    // server's delayed acknowledgement of the first.
    client.set_tcp_nodelay(true);
    const auto login = [&] {
        if (port == 0) return true;
        const auto answer = client.Post("/api/login", body, "application/json");
        return answer && answer->status == 200;
    };
    const auto pam = [&] { return barePam(service, user, password); };

    // A few rounds first: the modules loaded, the files in the cache, the connection open.
    for (int i = 0; i < 5; ++i)
        if (!login() || !pam()) {
            std::fprintf(stderr, "login_bench: the warm-up login or PAM transaction failed\n");
            return 1;
        }
    Series web{"login", {}}, bare{"bare-pam", {}};
    for (int i = 0; i < count; ++i) {
        const bool ok = i % 2 == 0 ? timed(web, login) && timed(bare, pam) : timed(bare, pam) && timed(web, login);
        if (!ok) {
            std::fprintf(stderr, "login_bench: round %d failed\n", i);
            return 1;
        }
    }
    if (port != 0) web.print();
    bare.print();
    if (port == 0) return 0;
    std::printf("ratio: login_p99/bare_pam_p99=%.2f\n", web.percentile(99) / bare.percentile(99));
    return 0;
}
