// Passwords for umctl's commands.  They never come from the command line, where any process of
// the system can read them: from a prompt without echo when standard input is a terminal, else
// one line each from standard input (a script's pipe, a web server's request body).
#pragma once

#include <string>

namespace umctl {

// A password in memory, overwritten before its memory is given back.
class Secret {
public:
    Secret() = default;
    ~Secret();
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    std::string& text() { return m_text; }

private:
    std::string m_text;
};

// Where a command's passwords come from.  `forceStdin` (--password-stdin) reads lines even from
// a terminal, without prompts.
class PasswordInput {
public:
    explicit PasswordInput(bool forceStdin);

    // One password: the prompt `prompt` (e.g. "Password: ") on a terminal, else the next line.
    // UsageError when standard input ends before the line.
    void read(const char* prompt, Secret& password) const;
    // A password to be stored: on a terminal typed twice, and refused when the two differ,
    // since nothing shows a typing error until the next login fails.  One line otherwise.
    void readNew(const char* prompt, Secret& password) const;

private:
    bool m_prompt;
};

}  // namespace umctl
