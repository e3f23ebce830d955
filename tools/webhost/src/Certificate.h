// The HTTPS certificate when the device maker gives none: a self-signed one made with OpenSSL's
// API on first start (EC P-256 key, X.509 v3, CN = the host name, valid ten years), kept under
// the state directory (mode 0700; the key file 0600) and reused afterwards.  Both files are
// written to a temporary name, synced and renamed, so a crash never leaves half a key.
#pragma once

#include <string>

namespace webhost {

// Makes `stateDir`/tvc-webd.crt and .key unless both exist; returns their paths.
// std::runtime_error when they cannot be made.
void ensureCertificate(const std::string& stateDir, std::string& certPath, std::string& keyPath);

}  // namespace webhost
