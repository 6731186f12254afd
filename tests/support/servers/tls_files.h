// A self-signed certificate and its key for HTTPS test servers, made with the openssl tool.
#pragma once

#include <arpa/inet.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace tq::test {

struct TlsFiles {
  std::filesystem::path cert;  // PEM; also usable as the CA file that trusts it
  std::filesystem::path key;   // PEM, unencrypted
};

// Writes cert.pem and key.pem into `dir` for the name `host` (also as subjectAltName; an IP
// address gets an IP entry). Returns false when the openssl tool fails.
inline bool MakeSelfSignedCert(const std::filesystem::path& dir, const std::string& host,
                               TlsFiles* files) {
  in_addr ip{};
  const bool is_ip = inet_pton(AF_INET, host.c_str(), &ip) == 1;
  files->cert = dir / "cert.pem";
  files->key = dir / "key.pem";
  // An EC key is made in milliseconds, unlike RSA.
  const std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
      " -subj '/CN=" + host + "' -addext 'subjectAltName=" + (is_ip ? "IP:" : "DNS:") + host +
      "' -keyout '" + files->key.string() + "' -out '" + files->cert.string() +
      "' >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

}  // namespace tq::test
