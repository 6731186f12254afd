#include "tests/support/servers/nginx_harness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

namespace tq::test {
namespace {

int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

bool Accepts(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

std::string ReadTail(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  std::string all = text.str();
  return all.size() > 2000 ? all.substr(all.size() - 2000) : all;
}

}  // namespace

bool NginxHarness::Installed() { return access(kBinary, X_OK) == 0; }

NginxHarness::NginxHarness() : NginxHarness(Options{}) {}

NginxHarness::NginxHarness(const Options& options) {
  if (!Installed()) {
    error_ = std::string(kBinary) + " is not installed";
    return;
  }
  std::filesystem::create_directories(root());
  // The port is free when chosen but may be taken before nginx binds it: try a few.
  for (int attempt = 0; attempt < 5 && pid_ <= 0; ++attempt) {
    const int port = FreePort();
    if (port > 0 && Start(options, port)) port_ = port;
  }
}

NginxHarness::~NginxHarness() { Stop(); }

std::string NginxHarness::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::filesystem::path NginxHarness::WriteFile(std::string_view relative,
                                              std::string_view contents) const {
  return dir_.WriteFile(std::string("www/") + std::string(relative), contents);
}

bool NginxHarness::Start(const Options& options, int port) {
  const std::string dir = dir_.path().string();
  std::ostringstream conf;
  conf << "daemon off;\n"
       << "master_process " << (options.master_process ? "on" : "off") << ";\n"
       << (geteuid() == 0 ? "user root;\n" : "")
       << "worker_processes 1;\n"
       << "error_log " << dir << "/error.log warn;\n"
       << "pid " << dir << "/nginx.pid;\n"
       << "events { worker_connections 256; }\n"
       << "http {\n"
       << "  access_log off;\n"
       << "  client_body_temp_path " << dir << "/client_body;\n"
       << "  proxy_temp_path " << dir << "/proxy;\n"
       << "  fastcgi_temp_path " << dir << "/fastcgi;\n"
       << "  uwsgi_temp_path " << dir << "/uwsgi;\n"
       << "  scgi_temp_path " << dir << "/scgi;\n"
       << "  types { text/plain txt; text/html html; application/octet-stream bin; }\n"
       << "  default_type application/octet-stream;\n"
       << "  sendfile on;\n"
       << "  keepalive_requests 100000;\n"
       << "  keepalive_timeout 60s;\n"
       << "  server {\n"
       << "    listen 127.0.0.1:" << port << ";\n"
       << "    server_name localhost;\n"
       << "    root " << dir << "/www;\n"
       << "    location / { }\n"
       << "    " << options.server_directives << "\n"
       << "  }\n"
       << "}\n";
  dir_.WriteFile("nginx.conf", conf.str());
  std::filesystem::remove(dir_.path() / "error.log");

  const std::string conf_path = dir + "/nginx.conf";
  const std::string error_log = dir + "/error.log";
  const pid_t pid = fork();
  if (pid < 0) {
    error_ = "fork failed";
    return false;
  }
  if (pid == 0) {
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
  kill(pid_, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  pid_ = -1;
}

}  // namespace tq::test
