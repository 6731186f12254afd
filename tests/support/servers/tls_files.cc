#include "tests/support/servers/tls_files.h"

#include <arpa/inet.h>

#include <cstdlib>

namespace tq::test {

bool MakeSelfSignedCert(const std::filesystem::path& dir, const std::string& host,
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
