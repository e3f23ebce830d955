// pam_tally2 - shows and resets an account's failed-login count in the tally file that
// pam_tvc_tally.so keeps (TallyFile.h).  The library unlocks an account by running
// `pam_tally2 -f FILE -r -u NAME`.
//
//     pam_tally2 [-f|--file FILE] -u|--user NAME [-r|--reset]
//
// Prints a header and the account's line (name, count, time and origin of the latest failure);
// with --reset, the line as it was, and then zeroes the account's whole record.  Exits 0, or 1
// with a message on standard error for an unknown account or a file it cannot use; 2 for a bad
// command line.  A missing file holds no failures and is not created.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "TallyFile.h"

namespace {

using tvc::pam::TallyFile;
using tvc::pam::TallyRecord;

int usage() {
    std::fprintf(stderr, "usage: pam_tally2 [-f|--file FILE] -u|--user NAME [-r|--reset]\n");
    return 2;
}

int fail(const std::string& what) {
    std::fprintf(stderr, "pam_tally2: %s\n", what.c_str());
    return 1;
}

// "MM/DD/YY hh:mm:ss" local time, "" for no failure.
std::string when(std::int64_t seconds) {
    const std::time_t time = static_cast<std::time_t>(seconds);
    struct tm local {};
    char text[32] = "";
    if (seconds != 0 && localtime_r(&time, &local) != nullptr) std::strftime(text, sizeof text, "%D %H:%M:%S", &local);
    return text;
}

std::string padded(std::string text, std::size_t width) {
    if (text.size() < width) text.append(width - text.size(), ' ');
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    static const option longOptions[] = {{"file", required_argument, nullptr, 'f'},
                                         {"user", required_argument, nullptr, 'u'},
                                         {"reset", no_argument, nullptr, 'r'},
                                         {nullptr, 0, nullptr, 0}};
    std::string path = "/var/log/tallylog", user;
    bool reset = false;
    for (int c; (c = getopt_long(argc, argv, "f:u:r", longOptions, nullptr)) != -1;) {
        switch (c) {
            case 'f':
                path = optarg;
                break;
            case 'u':
                user = optarg;
                break;
            case 'r':
                reset = true;
                break;
            default:
                return usage();
        }
    }
    if (optind != argc || user.empty() || path.empty()) return usage();

    uid_t uid = 0;
    switch (tvc::pam::lookUpUid(user.c_str(), uid)) {
        case tvc::pam::Lookup::Found:
            break;
        case tvc::pam::Lookup::Unknown:
            return fail("no such user: " + user);
        case tvc::pam::Lookup::Failed:
            return fail("cannot look up " + user + ": " + std::strerror(errno));
    }

    TallyFile file;
    TallyRecord record{};
    const bool present = file.open(path, false);
    if (!present && errno != ENOENT) return fail(path + ": " + std::strerror(errno));
    // Locked while reading too, so that a reset never takes back a failure counted meanwhile.
    if (present && (!file.lockRecord(uid) || !file.read(uid, record))) return fail(path + ": " + std::strerror(errno));

    const std::string from(record.from, strnlen(record.from, sizeof record.from));
    std::printf("Login           Failures Latest failure     From\n");
    char count[16];
    std::snprintf(count, sizeof count, "%8u", unsigned{record.failures});
    std::string line = padded(user, 15) + " " + count + " " + padded(when(record.lastFailure), 18) + " " + from;
    line.erase(line.find_last_not_of(' ') + 1);
    std::printf("%s\n", line.c_str());
    if (std::fflush(stdout) != 0) return fail("cannot write the report");

    if (reset && present && !file.write(uid, TallyRecord{})) return fail(path + ": " + std::strerror(errno));
    return 0;
}
