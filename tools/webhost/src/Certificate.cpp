#include "Certificate.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace webhost {

namespace {

template <typename T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, std::integral_constant<decltype(Free), Free>>;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("certificate: " + what); }

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Writes through `write` into a new file beside `path` with `mode`, syncs it, renames it over `path`.
template <typename Write>
void writeAtomically(const std::string& path, mode_t mode, Write write) {
    const std::string temporary = path + ".tmp";
    unlink(temporary.c_str());
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    std::FILE* file = fd < 0 ? nullptr : fdopen(fd, "w");
    if (file == nullptr) fail("cannot create " + temporary + ": " + std::strerror(errno));
    const bool written = write(file) == 1 && std::fflush(file) == 0 && fsync(fd) == 0;
    if (std::fclose(file) != 0 || !written || rename(temporary.c_str(), path.c_str()) != 0) {
        unlink(temporary.c_str());
        fail("cannot write " + path);
    }
}

void addExtension(X509* certificate, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    Owned<X509_EXTENSION, X509_EXTENSION_free> extension(
        X509V3_EXT_conf_nid(nullptr, &context, nid, const_cast<char*>(value)));
    if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) fail("extension");
}

}  // namespace

void ensureCertificate(const std::string& stateDir, std::string& certPath, std::string& keyPath) {
    certPath = stateDir + "/tvc-webd.crt";
    keyPath = stateDir + "/tvc-webd.key";
    if (exists(certPath) && exists(keyPath)) return;
    if (mkdir(stateDir.c_str(), 0700) != 0 && errno != EEXIST) fail("cannot create " + stateDir);

    Owned<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
    Owned<X509, X509_free> certificate(X509_new());
    if (!key || !certificate) fail("no key");
    char host[256] = "localhost";
    gethostname(host, sizeof host - 1);
    X509_set_version(certificate.get(), 2);  // v3
    unsigned char serial[16];
    if (RAND_bytes(serial, sizeof serial) != 1) fail("no serial");
    serial[0] &= 0x7f;
    Owned<BIGNUM, BN_free> number(BN_bin2bn(serial, sizeof serial, nullptr));
    BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate.get()));
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 10L * 365 * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(host), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_set_pubkey(certificate.get(), key.get());
    addExtension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExtension(certificate.get(), NID_subject_alt_name, ("DNS:" + std::string(host)).c_str());
    if (X509_sign(certificate.get(), key.get(), EVP_sha256()) == 0) fail("cannot sign");

    writeAtomically(keyPath, 0600, [&](std::FILE* file) {
        return PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    writeAtomically(certPath, 0644, [&](std::FILE* file) { return PEM_write_X509(file, certificate.get()); });
}

}  // namespace webhost
