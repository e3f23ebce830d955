#include <umlog/Ctx.h>

#include <utility>

#include <usermanagement/User.h>

namespace umlog {

thread_local Ctx ctx;

Ctx::Ctx() : m_account(nullptr), m_protocol(Unknown) {}

Ctx::~Ctx() { delete m_account; }

Ctx& Ctx::getCtx() { return ctx; }

std::string Ctx::getIp() { return m_ip; }

void Ctx::setIP(const std::string& ip) { m_ip = ip; }

std::string Ctx::getUsername() { return m_username; }

void Ctx::setUsername(const std::string& name) { m_username = name; }

Ctx::Protocol Ctx::getProtocol() { return m_protocol; }

void Ctx::setProtocol(Protocol protocol) { m_protocol = protocol; }

std::string Ctx::getAttribut(const std::string& key) {
    auto it = m_attributes.find(key);
    return it == m_attributes.end() ? std::string() : it->second;
}

void Ctx::addAttribut(const std::string& key, const std::string& value) { m_attributes[key] = value; }

// The field is a raw owning pointer because its place in the object is fixed; the objects are
// built and deleted here only.
void Ctx::setUser() {
    delete std::exchange(m_account, nullptr);
    m_account = new usermanagement::User();
}

void Ctx::setUser(const usermanagement::User& user) {
    if (m_account != nullptr && !(*m_account != user)) return;
    delete std::exchange(m_account, nullptr);
    m_account = new usermanagement::User(user);
}

usermanagement::User& Ctx::getUser() {
    if (m_account == nullptr) setUser();
    return *m_account;
}

}  // namespace umlog
