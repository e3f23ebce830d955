// The throw convention of the library in one place: every exception carries the user name of
// the calling thread's log context and has logging enabled.  Throw sites write
//     raise<UMSystemErrorException>(UMSystemError::FileTransaction, "fopen ", path, " prepareSystemFiles");
// and the message parts are concatenated without separators.
#pragma once

#include <cstring>
#include <locale>
#include <sstream>
#include <string>
#include <utility>

#include <umlog/Ctx.h>

namespace usermanagement::detail {

template <class... Parts>
std::string concat(Parts&&... parts) {
    std::ostringstream out;
    // Messages are matched by hosts and tests: numbers never take a host locale's grouping.
    out.imbue(std::locale::classic());
    (out << ... << std::forward<Parts>(parts));
    return out.str();
}

// Throws E(code, message, context user, true).
template <class E, class... Parts>
[[noreturn]] void raise(int code, Parts&&... messageParts) {
    throw E(code, concat(std::forward<Parts>(messageParts)...), umlog::Ctx::getCtx().getUsername(), true);
}

// Throws E(code, message, strerror(error), context user, true): a failed system call keeps its
// reason beside a message whose wording hosts match on.  `error` 0 gives no description.
template <class E, class... Parts>
[[noreturn]] void raiseErrno(int error, int code, Parts&&... messageParts) {
    const std::string reason = error == 0 ? std::string() : std::string(std::strerror(error));
    throw E(code, concat(std::forward<Parts>(messageParts)...).c_str(), reason, umlog::Ctx::getCtx().getUsername(),
            true);
}

}  // namespace usermanagement::detail
