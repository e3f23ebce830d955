#include <umlog/Ctx.h>

namespace umlog {

thread_local Ctx ctx;

Ctx::Ctx() : m_account(nullptr), m_protocol(Unknown) {}

// The destructor and the account object's members are with the account type, in
// src/accounts/ContextAccount.cpp.

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

}  // namespace umlog
