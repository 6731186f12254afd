#include "tests/support/servers/nginx_harness.h"

#if defined(_WIN32)
#include <cstdlib>
#else
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "tests/support/servers/sockets.h"
#if !defined(_WIN32)
#include "tests/support/servers/tls_files.h"
#endif

namespace tq::test {

std::string NginxHarness::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + prefix_ + path;
}

std::string NginxHarness::HttpsUrl(const std::string& path) const {
  return "https://localhost:" + std::to_string(tls_port_) + prefix_ + path;
}

std::filesystem::path NginxHarness::WriteFile(std::string_view relative,
                                              std::string_view contents) const {
  return WriteFileUnder(root_, relative, contents);
}

NginxHarness::~NginxHarness() { Stop(); }

#if defined(_WIN32)

namespace {

// The directory of the nginx CTest started, when there is one.
std::filesystem::path FixtureDirectory() {
  const wchar_t* dir = _wgetenv(L"TQ_NGINX_DIR");
  if (dir == nullptr || *dir == L'\0') return {};
  std::error_code ec;
  return std::filesystem::exists(std::filesystem::path(dir) / "port", ec) ? dir : L"";
}

}  // namespace

bool NginxHarness::Installed() { return !FixtureDirectory().empty(); }

NginxHarness::NginxHarness(std::string server_directives, Schemes schemes) {
  const std::filesystem::path dir = FixtureDirectory();
  if (dir.empty()) {
    error_ = "no nginx: TQ_NGINX_DIR does not name the directory of CTest's nginx fixture";
    return;
  }
  if (!server_directives.empty()) {
    error_ = "server directives need an nginx of the caller's own, which Windows cannot start";
    return;
  }
  int port = -1;
  std::ifstream(dir / "port") >> port;
  if (port <= 0) {
    error_ = "no port in " + (dir / "port").string();
    return;
  }
  if (schemes == Schemes::kHttpAndHttps) {
    std::ifstream(dir / "tls_port") >> tls_port_;
    cert_ = dir / "cert.pem";
    if (tls_port_ <= 0) {
      error_ = "no port in " + (dir / "tls_port").string();
      return;
    }
  }
  try {
    root_ = MakeNewDirectory(dir / "www", "h");
  } catch (const std::exception& e) {
    error_ = e.what();
    return;
  }
  prefix_ = "/" + root_.filename().string();
  port_ = port;
}

void NginxHarness::Stop() {
  if (root_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

#else

namespace {

std::string ReadTail(const std::filesystem::path& file) {
  std::ifstream in(file);
  const std::string all(std::istreambuf_iterator<char>(in), {});
  return all.size() > 2000 ? all.substr(all.size() - 2000) : all;
}

int FreePort() {
  int port = -1;
  const sockets::Handle s = sockets::ListenOnLoopback(1, &port);
  if (s == sockets::kNone) return -1;
  sockets::Close(s);
  return port;
}

bool Accepts(int port) {
  const sockets::Handle s = sockets::ConnectToLoopback(port);
  if (s == sockets::kNone) return false;
  sockets::Close(s);
  return true;
}

}  // namespace

bool NginxHarness::Installed() { return access(kBinary, X_OK) == 0; }

NginxHarness::NginxHarness(std::string server_directives, Schemes schemes)
    : dir_(std::make_unique<TempDir>()) {
  root_ = dir_->path() / "www";
  if (!Installed()) {
    error_ = std::string(kBinary) + " is not installed";
    return;
  }
  std::filesystem::create_directories(root_);
  const bool https = schemes == Schemes::kHttpAndHttps;
  TlsFiles tls;
  if (https && !MakeSelfSignedCert(dir_->path(), "localhost", &tls)) {
    error_ = "openssl could not make a certificate";
    return;
  }
  cert_ = tls.cert;
  // The ports are free when chosen but may be taken before nginx binds them: try a few.
  for (int attempt = 0; attempt < 5 && pid_ <= 0; ++attempt) {
    const int port = FreePort();
    const int tls_port = https ? FreePort() : -1;  // should it be the same, nginx refuses it
    if (port > 0 && (!https || tls_port > 0) && Start(port, tls_port, server_directives)) {
      port_ = port;
      tls_port_ = tls_port;
    }
  }
}

bool NginxHarness::Start(int port, int tls_port, const std::string& server_directives) {
  const std::string dir = dir_->path().string();
  std::ostringstream conf;
  conf << "daemon off;\nmaster_process off;\n" << (geteuid() == 0 ? "user root;\n" : "")
       << "worker_processes 1;\nerror_log " << dir << "/error.log warn;\n"
       << "pid " << dir << "/nginx.pid;\nevents { worker_connections 256; }\nhttp {\n";
  for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    conf << "  " << temp << "_temp_path " << dir << "/" << temp << ";\n";
  }
  conf << "  types { text/plain txt; text/html html; application/octet-stream bin; }\n"
       << "  default_type application/octet-stream;\n  access_log off;\n  sendfile on;\n"
       << "  keepalive_requests 100000;\n  keepalive_timeout 60s;\n"
       << "  server {\n    listen 127.0.0.1:" << port << ";\n    server_name localhost;\n";
  if (tls_port > 0) {
    conf << "    listen 127.0.0.1:" << tls_port << " ssl;\n    ssl_certificate " << cert_.string()
         << ";\n    ssl_certificate_key " << (dir_->path() / "key.pem").string() << ";\n";
  }
  conf
       << "    root " << dir << "/www;\n    location / { }\n    " << server_directives
       << "\n  }\n}\n";
  dir_->WriteFile("nginx.conf", conf.str());
  std::filesystem::remove(dir_->path() / "error.log");

  const std::string conf_path = dir + "/nginx.conf";
  const std::string error_log = dir + "/error.log";
  const pid_t pid = fork();
  if (pid < 0) {
    error_ = "fork failed";
    return false;
  }
  if (pid == 0) {
    // Nothing of the test's but the standard streams: an accepted connection that nginx kept a
    // copy of would never be seen closed by its client when the test server closes it.
    if (::close_range(3, ~0U, 0) != 0) {
      for (int fd = 3; fd < 4096; ++fd) ::close(fd);
    }
    execl(kBinary, kBinary, "-p", dir.c_str(), "-c", conf_path.c_str(), "-e", error_log.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  // Bounded wait until it accepts, or until it exits (a port taken, a bad configuration).
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      error_ = "nginx exited at start: " + ReadTail(error_log);
      return false;
    }
    if (Accepts(port)) {
      pid_ = pid;
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  error_ = "nginx did not accept connections within 10 s: " + ReadTail(error_log);
  return false;
}

void NginxHarness::Stop() {
  if (pid_ <= 0) return;
  kill(static_cast<pid_t>(pid_), SIGKILL);  // it keeps nothing worth a graceful end
  waitpid(static_cast<pid_t>(pid_), nullptr, 0);
  pid_ = -1;
}

#endif

}  // namespace tq::test
