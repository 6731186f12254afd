// Uses the exported API of an installed tqnetwork: exits 0 when everything answers as expected.
#include <cstdio>
#include <fstream>
#include <string>
#include <system_error>

#include "net/http/http_request.h"
#include "net/http/http_status.h"
#include "net/stream/open_file_or_url.h"

int main(int argc, char** argv) {
  qv::net::HttpRequest request(L"http://example.com/a?b=c", qv::net::HttpMethod::Get);
  request.AddHeader(L"Range", L"bytes=0-1");
  if (request.FormatHeaders() != L"Range: bytes=0-1") return 1;
  if (std::error_code(404, qv::net::HttpCategory()).message() != "NotFound (404)") return 2;

  // A local file through OpenFileOrUrl.
  const std::string path = argc > 1 ? argv[1] : "consumer-check.txt";
  std::ofstream(path) << "hello";
  auto stream = qv::net::OpenFileOrUrl(qv::Utf8ToWide(path), 0, {});
  if (!stream) return 3;
  char buffer[16] = {};
  if (stream->Read(buffer, sizeof buffer) != 5 || std::string(buffer) != "hello") return 4;
  std::puts("consumer: ok");
  return 0;
}
