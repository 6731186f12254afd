// Debian's nginx (/usr/sbin/nginx) as a child process serving a temporary directory on
// 127.0.0.1 with an ephemeral port: the real-world peer (ETag, 304, Range and 206, HEAD,
// keep-alive), over HTTPS too when asked. Everything it writes (configuration, logs, pid, temporary files) stays in its own
// temporary directory; it is stopped on destruction.
// On Windows a test cannot start nginx: CTest starts one for the whole run
// (tests/support/servers/nginx-fixture.sh) and names its directory in TQ_NGINX_DIR; a harness
// then serves a directory of its own there, under a path prefix of its own.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "tests/support/servers/temp_dir.h"

namespace tq::test {

class NginxHarness {
 public:
  static constexpr const char* kBinary = "/usr/sbin/nginx";
  static bool Installed();

  // kHttpAndHttps: the same files over HTTPS too, on a port of its own, with a self-signed
  // certificate for "localhost" (cert()).
  enum class Schemes { kHttp, kHttpAndHttps };

  // Starts nginx and waits (bounded) until it accepts connections. `server_directives` go
  // inside the server block (a benchmark's access log, say); a Windows harness, which serves
  // CTest's nginx, refuses them.
  explicit NginxHarness(std::string server_directives = {}, Schemes schemes = Schemes::kHttp);
  ~NginxHarness();
  NginxHarness(const NginxHarness&) = delete;
  NginxHarness& operator=(const NginxHarness&) = delete;

  bool ok() const { return port_ > 0; }
  // Why it did not start (with the tail of nginx's error log).
  const std::string& error() const { return error_; }
  int port() const { return port_; }
  std::string Url(const std::string& path = "/") const;
  // The same file over HTTPS (kHttpAndHttps), named by "localhost": a certificate names a host.
  std::string HttpsUrl(const std::string& path = "/") const;
  // The certificate the HTTPS port presents (PEM); trusting it trusts the server.
  const std::filesystem::path& cert() const { return cert_; }
  // The document root; files written there are served at once.
  std::filesystem::path root() const { return root_; }
  std::filesystem::path WriteFile(std::string_view relative, std::string_view contents) const;

 private:
  bool Start(int port, int tls_port, const std::string& server_directives);
  void Stop();

  std::unique_ptr<TempDir> dir_;  // configuration, logs and root (not on Windows)
  std::filesystem::path root_;
  std::filesystem::path cert_;
  std::string prefix_;  // of every URL path (Windows: the harness's own directory)
  long long pid_ = -1;
  int port_ = -1;
  int tls_port_ = -1;
  std::string error_;
};

}  // namespace tq::test
