// Shell commands with captured output: popen/pclose replacements whose child can give up root
// for good before it runs the command, and exec(), which returns the whole output.
//
//     std::string out = ScriptLauncher::exec("pam_tally2 --user " + shellQuote(name), true);
//
// A stream handed out by Popen/PopenWithoutPerm must be closed with Pclose (not fclose) so
// that its child is reaped.  All operations are static and may be called from several
// threads.  Commands run through "/bin/sh -c": anything that comes from outside (account
// names, paths) goes into a command through shellQuote().
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include <usermanagement/Export.h>

namespace systemutilities {

// What exec() throws when a command cannot be launched.  what() is "popen() failed!", the text
// hosts know; getErrorDescription() says why (the errno text of the failed step) and with which
// ids the child was to run, e.g. "Operation not permitted (uid 10002 gid 10002)".
class TVC_UM_EXPORT LaunchError : public std::runtime_error {
public:
    explicit LaunchError(std::string description);
    ~LaunchError() override;
    const std::string& getErrorDescription() const noexcept;

private:
    std::string m_description;
};

class TVC_UM_EXPORT ScriptLauncher {
public:
    ScriptLauncher() = delete;

    // Runs `command` in a child whose real, effective and saved user and group ids all become
    // the calling thread's effective ids first (SystemPermission::setUserPermissionDefinitely),
    // so the command cannot regain root.  Unless the effective user id is 0, the child's
    // supplementary groups become those of that account (the groups listing its name, plus the
    // effective group id; the effective group id alone for an id without an account), not
    // the ones the thread happens to carry.  `mode` as for popen: "r" reads the command's
    // standard output, "w" writes to its standard input.  Null with errno set on failure, the
    // command then did not run: also when the child could not take that identity (the thread
    // has no root id left to regain, groups refused) or start the shell; that child has been
    // reaped.  Raises nothing but std::bad_alloc when memory runs out.
    static FILE* Popen(const char* command, const char* mode);
    // Popen without the identity step: the command keeps the thread's real, effective and
    // saved ids.  From a thread that switched to an account but kept a root id, the command can
    // become root again (/bin/sh itself returns to the real id when the two differ).
    static FILE* PopenWithoutPerm(const char* command, const char* mode);
    // Closes a stream of Popen/PopenWithoutPerm and waits for its child: the raw wait status,
    // or -1 when waiting failed.  -1 for a stream it did not hand out, which stays open.
    static int Pclose(FILE* stream);
    // The whole standard output of `command` (through Popen when `withPermission`, else
    // PopenWithoutPerm) with its last newline removed; the exit status is not looked at.
    // LaunchError (a std::runtime_error "popen() failed!") when the command cannot be launched.
    static std::string exec(const std::string& command, bool withPermission);

    // Child process id per descriptor number of the streams handed out (0: none); one entry per
    // descriptor getdtablesize() allowed when the first command was launched.  Allocated once,
    // never freed.  Owned by the launcher: read it, never write it.
    static pid_t* m_pids;
};

// `text` as one shell word: in single quotes, each embedded ' written as '\''.  Inside single
// quotes the shell gives no character a meaning ($, `, \, ", ;, blank, newline...), so the
// command receives `text` unchanged as one argument.  Quoting does not stop a command from
// reading an argument that begins with "-" as an option: put such words after "--" or after
// the option they are the value of.  std::invalid_argument when `text` holds a NUL byte,
// which a command line cannot carry.
TVC_UM_EXPORT std::string shellQuote(const std::string& text);

}  // namespace systemutilities
