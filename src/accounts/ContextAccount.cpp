// The thread's account object in its log context: the members of umlog::Ctx that build,
// replace and delete a User.
#include <umlog/Ctx.h>

#include <memory>
#include <utility>

#include <usermanagement/User.h>

namespace umlog {

Ctx::~Ctx() { delete m_account; }

namespace {

// Puts `fresh` in the place of the account object `held`.  The new object is built by the
// caller before anything is dropped: a build that fails leaves the context with the account
// it had, which an identity switch that failed relies on to leave the thread's context as it
// was.
void replaceAccount(usermanagement::User*& held, std::unique_ptr<usermanagement::User> fresh) noexcept {
    delete std::exchange(held, fresh.release());
}

}  // namespace

// The field is a raw owning pointer because its place in the object is fixed; the objects are
// built and deleted here only.
void Ctx::setUser() { replaceAccount(m_account, std::make_unique<usermanagement::User>()); }

void Ctx::setUser(const usermanagement::User& user) {
    if (m_account != nullptr && !(*m_account != user)) return;
    replaceAccount(m_account, std::make_unique<usermanagement::User>(user));
}

usermanagement::User& Ctx::getUser() {
    if (m_account == nullptr) setUser();
    return *m_account;
}

}  // namespace umlog
