// A self-signed certificate and its key for HTTPS test servers, made with the openssl tool.
#pragma once

#include <filesystem>
#include <string>

namespace tq::test {

struct TlsFiles {
  std::filesystem::path cert;  // PEM; also usable as the CA file that trusts it
  std::filesystem::path key;   // PEM, unencrypted
};

// Writes cert.pem and key.pem into `dir` for the name `host` (also as subjectAltName; an IP
// address gets an IP entry). Returns false when the openssl tool fails.
bool MakeSelfSignedCert(const std::filesystem::path& dir, const std::string& host,
                        TlsFiles* files);

}  // namespace tq::test
