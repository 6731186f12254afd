// One session and one connection of the WinINet layer to a local server, a GET through it, and
// the reference the small requests are compared with: what the platform benchmark and its
// profiling program both measure.
#pragma once

#include <curl/curl.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/wininet.h"

namespace tq::bench {

struct Layer {
  HINTERNET session = nullptr;
  HINTERNET connection = nullptr;
  explicit Layer(int port) {
    session = InternetOpenW(L"tq-bench", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0);
    connection = InternetConnectW(session, L"127.0.0.1", static_cast<INTERNET_PORT>(port), nullptr,
                                  nullptr, INTERNET_SERVICE_HTTP, 0, 0);
  }
  ~Layer() { InternetCloseHandle(session); }

  // GETs the path and reads it to the end; returns the bytes read, or -1.
  long long Get(const wchar_t* path, std::vector<char>& buffer) {
    const wchar_t* accept[] = {L"*/*", nullptr};
    HINTERNET request = HttpOpenRequestW(connection, L"GET", path, nullptr, nullptr, accept,
                                         INTERNET_FLAG_KEEP_CONNECTION, 0);
    if (request == nullptr || !HttpSendRequestW(request, nullptr, 0, nullptr, 0)) {
      std::fprintf(stderr, "request failed: %u\n", GetLastError());
      InternetCloseHandle(request);
      return -1;
    }
    long long total = 0;
    for (;;) {
      DWORD got = 0;
      if (!InternetReadFile(request, buffer.data(), static_cast<DWORD>(buffer.size()), &got)) {
        std::fprintf(stderr, "read failed: %u\n", GetLastError());
        total = -1;
        break;
      }
      if (got == 0) break;
      total += got;
    }
    InternetCloseHandle(request);
    return total;
  }
};

// The reference for small requests: one libcurl easy handle for `url`, reused by every
// perform, its body dropped. The caller cleans it up.
inline CURL* ReusedCurlHandle(const std::string& url) {
  CURL* easy = curl_easy_init();
  if (easy == nullptr) return nullptr;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION,
                   +[](char*, size_t size, size_t count, void*) { return size * count; });
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_PROXY, "");
  return easy;
}

}  // namespace tq::bench
