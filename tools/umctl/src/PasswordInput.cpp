#include "PasswordInput.h"

#include <signal.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <cstddef>
#include <iostream>
#include <stdexcept>

#include "Command.h"

namespace umctl {

namespace {

// The library refuses longer passwords; reserving this much up front keeps getline from
// reallocating, which would leave copies of the password in freed memory.
constexpr std::size_t kLongestPassword = 256;

// The signals that end the process by default and come from the keyboard, a hang-up or a
// kill.  Stop signals are left alone: a shell with job control puts its own terminal settings
// back when a job stops.
constexpr int kEndingSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};
constexpr std::size_t kSignalCount = sizeof kEndingSignals / sizeof kEndingSignals[0];

// What the handler puts back.  One prompt is open at a time, so one copy will do.
volatile sig_atomic_t g_quietFd = -1;
termios g_saved{};

// Echo back on, then the signal's default action: the process ends as it would have without
// the prompt, and the shell it returns to can see its own typing again.  The handler is
// installed with SA_RESETHAND, so the signal raised here is no longer caught.
extern "C" void restoreEchoAndEnd(int signal) {
    if (g_quietFd >= 0) tcsetattr(g_quietFd, TCSANOW, &g_saved);
    raise(signal);
}

// Echo off on the terminal `fd` for the object's lifetime; left by a return, an exception or
// one of kEndingSignals, the terminal gets its settings back.
class NoEcho {
public:
    explicit NoEcho(int fd) : m_fd(fd) {
        if (tcgetattr(fd, &g_saved) != 0) return;
        // The settings to restore are in place before a handler can run.
        g_quietFd = fd;
        struct sigaction handler {};
        handler.sa_handler = restoreEchoAndEnd;
        sigemptyset(&handler.sa_mask);
        handler.sa_flags = SA_RESETHAND;
        for (std::size_t i = 0; i < kSignalCount; ++i) {
            sigaction(kEndingSignals[i], nullptr, &m_previous[i]);
            // A signal the caller ignores (nohup) stays ignored.
            if (m_previous[i].sa_handler != SIG_IGN) sigaction(kEndingSignals[i], &handler, nullptr);
        }
        termios quiet = g_saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        // TCSAFLUSH: what was typed before the prompt appeared is not taken for the password.
        tcsetattr(fd, TCSAFLUSH, &quiet);
        m_active = true;
    }
    ~NoEcho() {
        if (!m_active) return;
        tcsetattr(m_fd, TCSANOW, &g_saved);
        for (std::size_t i = 0; i < kSignalCount; ++i) sigaction(kEndingSignals[i], &m_previous[i], nullptr);
        g_quietFd = -1;
    }
    NoEcho(const NoEcho&) = delete;
    NoEcho& operator=(const NoEcho&) = delete;

private:
    int m_fd;
    bool m_active = false;
    struct sigaction m_previous[kSignalCount] {};
};

}  // namespace

Secret::~Secret() {
    // The whole buffer, not just size(): a shorter text read over a longer one leaves the longer
    // one's tail behind it.  Growing within the capacity keeps the buffer where it is.
    m_text.resize(m_text.capacity());
    explicit_bzero(m_text.data(), m_text.size());
}

PasswordInput::PasswordInput(bool forceStdin) : m_prompt(!forceStdin && isatty(STDIN_FILENO)) {}

void PasswordInput::read(const char* prompt, Secret& password) const {
    std::string& text = password.text();
    text.reserve(kLongestPassword);
    bool got = false;
    if (m_prompt) {
        std::cerr << prompt << std::flush;
        {
            const NoEcho quiet(STDIN_FILENO);
            got = static_cast<bool>(std::getline(std::cin, text));
        }
        // The newline the user typed was not echoed either.
        std::cerr << "\n";
    } else {
        got = static_cast<bool>(std::getline(std::cin, text));
    }
    if (!got) throw UsageError("no password on standard input");
}

void PasswordInput::readNew(const char* prompt, Secret& password) const {
    read(prompt, password);
    if (!m_prompt) return;
    Secret again;
    read("Retype it: ", again);
    if (again.text() != password.text()) throw Failure(Situation::PasswordsDiffer, "");
}

}  // namespace umctl
