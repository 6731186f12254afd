// Opening, ranged reads, file information and downloads against servers that script each case
// (the fault suite drives the hostile ones) and against nginx.
#include "net/fileprotocol/http_file_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/mman.h>
#endif

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "net/fileprotocol/downloads.h"
#include "net/fileprotocol/file_handles.h"
#include "net/http/request_handler.h"
#include "platform/urlmon.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"
#if !defined(_WIN32)
#include "tests/support/allocation_failure.h"
#include "tests/support/servers/tls_files.h"
#endif
#include "tests/support/wine.h"
#include "tests/tqutil/test_files.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using qv::net::HttpCredentials;
using qv::net::HttpFileProtocol;
#if !defined(_WIN32)
using tq::test::FailingAllocation;
#endif

class HttpFileProtocolTest : public ProtocolTest {
 protected:
  bool Info(const std::string& path, TqUFileInfo* info) {
    return protocol_->GetFileInfo(W(server_.Url(path)).c_str(), info);
  }
  ScriptedServer server_;
};

// Releases the handles of the read it runs in, as another thread may: at a known point.
struct Releaser : qv::net::HttpRequestHandler {
  void HandlePreRequest(qv::net::HttpRequest&) override {
    released = protocol->ReleaseRequestHandle(request) && protocol->ReleaseThreadHandle(thread) &&
               protocol->CloseFile(file);
  }
  HttpFileProtocol* protocol = nullptr;
  TqUFileHandle* file = nullptr;
  TqUThreadHandle* thread = nullptr;
  TqUFileRequestHandle* request = nullptr;
  bool released = false;
};

// Sends every file to one other URL; without one it declines to resolve.
class ResolvingProtocol : public HttpFileProtocol {
 public:
  explicit ResolvingProtocol(std::optional<std::wstring> target) : target_(std::move(target)) {}
  bool SetupOpenFile(const wchar_t*, TqUWideStringBuffer* resolved, OpenMode) override {
    if (!target_) return false;
    resolved->SetString(target_->c_str());
    return true;
  }

 private:
  std::optional<std::wstring> target_;
};

struct SeenUrls : qv::net::HttpRequestHandler {
  void HandlePreRequest(qv::net::HttpRequest& request) override {
    urls.emplace_back(request.GetRawUrl());
  }
  std::vector<std::wstring> urls;
};

// The request a ranged read hands to the pre-request handlers carries the URL as the caller gave
// it, whether or not the protocol resolved the file to another URL, while the bytes come from
// the resolved one, or from the URL given by a protocol that declines to resolve; a second read
// on one request handle is made as the first. A user agent set before a protocol's first open
// replaces the default. An https file goes over TLS.
TEST_F(HttpFileProtocolTest, RangedReadsSendTheUrlAsGivenToHandlersAndTheUserAgentSetBeforehand) {
  server_.Route("/asked", ScriptedResponse(200, "asked"));
  server_.Route("/resolved", ScriptedResponse(200, "resolved"));
  ResolvingProtocol resolving(W(server_.Url("/resolved"))), keeping(std::nullopt);
  const std::wstring url = W(server_.Url("/asked"));
  for (HttpFileProtocol* protocol : {protocol_, static_cast<HttpFileProtocol*>(&resolving),
                                     static_cast<HttpFileProtocol*>(&keeping)}) {
    if (protocol == &resolving) resolving.SetUserAgentW(L"Host-\u00e9/2.0");
    SeenUrls seen;
    OpenedFile f(protocol, server_.Url("/asked"));
    ASSERT_TRUE(f.ok());
    TqUFileRequestHandle* request = protocol->SetupReadFile(f.file(), 0, 3);
    std::string got(3, '\0');
    qv::net::HttpRequestHandlerManager::RegisterHandler(&seen);
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(protocol->ReadFileToSize(f.file(), f.thread(), request, 0, 3,
                                         reinterpret_cast<unsigned char*>(got.data()), nullptr),
                3);
      EXPECT_EQ(got, protocol == &resolving ? "res" : "ask");
    }
    qv::net::HttpRequestHandlerManager::UnregisterHandler(&seen);
    EXPECT_EQ(seen.urls, std::vector<std::wstring>(2, url));
    protocol->ReleaseRequestHandle(request);
  }
#if defined(_WIN32)  // WinINet sends header text in the ANSI code page, the Linux layer UTF-8
  char agent[32] = {};
  WideCharToMultiByte(CP_ACP, 0, L"Host-\u00e9/2.0", -1, agent, sizeof agent, nullptr, nullptr);
#else
  const char* agent = "Host-\xc3\xa9/2.0";
#endif
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 6u);
  EXPECT_EQ(requests[0].Header("User-Agent"), "Torvik-Quillstone/23.1");
  EXPECT_EQ(requests[3].Header("User-Agent"), std::string(agent));
  // A protocol that resolves the file to no URL opens nothing.
  EXPECT_EQ(ResolvingProtocol(L"not a url").OpenFile(url.c_str(), TqUFileProtocol::OpenRead),
            nullptr);
  EXPECT_THAT(TakeLog(), IsEmpty());

#if !defined(_WIN32)  // where the platform can be told to trust a server of the test's own
  // An https URL is read and asked about over TLS.
  TempDir dir;
  TlsFiles tls;
  ASSERT_TRUE(MakeSelfSignedCert(dir.path(), "127.0.0.1", &tls));
  ScriptedServer secure({.cert_file = tls.cert.string(), .key_file = tls.key.string()});
  secure.Route("/s", ScriptedResponse(200, "sealed"));
  ASSERT_TRUE(TqPlatformSetCaFile(tls.cert.c_str()));
  {
    OpenedFile f(protocol_, secure.Url("/s"));
    std::string got(4, '\0');
    EXPECT_EQ(f.Read(2, 4, reinterpret_cast<unsigned char*>(got.data())), 4);
    EXPECT_EQ(got, "aled");
  }
  TqUFileInfo info;
  EXPECT_TRUE(protocol_->GetFileInfo(W(secure.Url("/s")).c_str(), &info));
  EXPECT_EQ(info.GetFileSize(), 6u);
  TqPlatformSetCaFile(nullptr);
  EXPECT_EQ(secure.request_count(), 2u);
  EXPECT_THAT(TakeLog(), IsEmpty());
#endif
}

// Handles are looked up among the live ones, never read: a released handle (reading it was a
// use after free) and a pointer to a copy of a live handle's bytes (which was trusted) are
// refused without a request, as are bad URLs, null handles and a range past 2^64. Handles
// released during a read live until it returns, with its bytes.
TEST_F(HttpFileProtocolTest, BadUrlsRangesAndStaleOrForeignHandlesAreRefusedWithoutARequest) {
  EXPECT_EQ(TqUFileProtocolRegistry::Get()->Lookup(L"HTTPS"), protocol_);
  TqUFileInfo info;
  for (const wchar_t* url : {L"not a url", static_cast<const wchar_t*>(nullptr)}) {
    EXPECT_EQ(protocol_->OpenFile(url, TqUFileProtocol::OpenRead), nullptr);
    EXPECT_FALSE(protocol_->GetFileInfo(url, &info));
  }
  EXPECT_EQ(protocol_->SetupReadFile(nullptr, 0, 1), nullptr);
  EXPECT_EQ(protocol_->CreateThreadHandle(nullptr), nullptr);
  EXPECT_THAT(TakeLog(), IsEmpty());

  SameAnswerServer server("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nabcd");
  std::vector<unsigned char> buffer(4);
  Releaser r;
  r.protocol = protocol_;
  r.file = protocol_->OpenFile(W(server.Url("/f")).c_str(), TqUFileProtocol::OpenRead);
  r.thread = protocol_->CreateThreadHandle(r.file);
  r.request = protocol_->SetupReadFile(r.file, 0, 4);
  ASSERT_TRUE(r.file != nullptr && r.thread != nullptr && r.request != nullptr);
  EXPECT_EQ(protocol_->ReadFileToSize(r.file, r.thread, r.request, UINT64_MAX, 2, buffer.data(),
                                      nullptr), -1);
  // Nothing asked for, nothing sent: 0 bytes (-1 when the size is wanted), a whole read.
  std::uint64_t total = 7;
  EXPECT_EQ(protocol_->ReadFileToSize(r.file, r.thread, r.request, 100, 0, buffer.data(), &total),
            -1);
  EXPECT_EQ(protocol_->ReadFileToSize(r.file, r.thread, r.request, 100, 0, buffer.data(), nullptr),
            0);
  EXPECT_TRUE(protocol_->ReadFile(r.file, r.thread, r.request, 100, 0, buffer.data()));
  EXPECT_EQ(total, 7u);
  EXPECT_THAT(TakeLog(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile invalid buffer or "
                                               "range for " + server.Url("/f")}));
  // Neither a copy of a live handle's bytes nor handles made for another file (whose connection
  // may go to another server, whose resource is the other file's) read into this file.
  alignas(std::max_align_t) unsigned char copy[sizeof(qv::net::HttpFileThreadHandle)];
  std::memcpy(copy, static_cast<const void*>(r.thread), sizeof copy);
  OpenedFile other(protocol_, server.Url("/g"));
  TqUFileRequestHandle* other_request = protocol_->SetupReadFile(other.file(), 0, 4);
  for (const auto& [thread, request] :
       {std::pair{reinterpret_cast<TqUThreadHandle*>(copy), r.request},
        std::pair{other.thread(), r.request}, std::pair{r.thread, other_request}}) {
    EXPECT_FALSE(protocol_->ReadFile(r.file, thread, request, 0, 4, buffer.data()));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  }
  protocol_->ReleaseRequestHandle(other_request);
  EXPECT_TRUE(server.heads().empty());

  qv::net::HttpRequestHandlerManager::RegisterHandler(&r);
  EXPECT_TRUE(protocol_->ReadFile(r.file, r.thread, r.request, 0, 4, buffer.data()));
  qv::net::HttpRequestHandlerManager::UnregisterHandler(&r);
  EXPECT_TRUE(r.released);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "abcd");

  EXPECT_EQ(protocol_->CreateThreadHandle(r.file), nullptr);
  EXPECT_EQ(protocol_->SetupReadFile(r.file, 0, 4), nullptr);
  EXPECT_FALSE(protocol_->ReadFile(r.file, r.thread, r.request, 0, 4, buffer.data()));
  EXPECT_FALSE(protocol_->ReleaseRequestHandle(r.request));
  EXPECT_FALSE(protocol_->ReleaseThreadHandle(r.thread));
  EXPECT_FALSE(protocol_->CloseFile(r.file));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(server.heads().size(), 1u);
  auto refused = [](const std::string& operation) {
    return Posted{1, "HttpFileProtocol::" + operation + " invalid handle"};
  };
  EXPECT_THAT(TakeLog(), ElementsAre(refused("ReadFile"), refused("ReadFile"), refused("ReadFile"),
                                     refused("CreateThreadHandle"),
                                     refused("SetupReadFile"), refused("ReadFile"),
                                     refused("ReleaseRequestHandle"),
                                     refused("ReleaseThreadHandle"), refused("CloseFile")));
}

// A read of 4 GiB or more asks for every byte (the range was once cut to 32 bits).
TEST_F(HttpFileProtocolTest, FailedOpensAndReadsArePostedTwoSendTimeOutsRetriedAnd4GiBAskedFor) {
  ASSERT_TRUE(TqPlatformInjectFault("InternetOpenW", ERROR_INTERNET_INTERNAL_ERROR, 1, 0));
  EXPECT_EQ(protocol_->OpenFile(L"http://127.0.0.1:1/f", TqUFileProtocol::OpenRead), nullptr);
  // A thread's connection is not tried again, not even after a time-out.
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_TIMEOUT, 1, 0));
  EXPECT_FALSE(OpenedFile(protocol_, "http://127.0.0.1:1/f").ok());

  SameAnswerServer server([](const std::string& head) -> std::string {
    if (head.find("Range: bytes=0-3\r\n") == std::string::npos) {
      return "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nabcd";
    }
    return "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-3/9\r\n"
           "Content-Length: 4\r\n\r\nabcd";
  });
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(4);
  ASSERT_TRUE(TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_OUT_OF_HANDLES, 1, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), 0);
  ASSERT_TRUE(TqPlatformInjectFault("HttpSendRequestW", ERROR_INTERNET_TIMEOUT, 2, 0));
  std::uint64_t total = 7;
  EXPECT_EQ(f.Read(0, 4, buffer.data(), &total), 4);
  EXPECT_EQ(server.heads().size(), 1u);
  EXPECT_EQ(total, 9u);  // the file's size from the Content-Range, not the part's length
  // The status unreadable (the query after the one that looks for a second Content-Length).
  ASSERT_TRUE(TqPlatformInjectFault("HttpQueryInfoW", ERROR_INTERNET_INTERNAL_ERROR, 1, 1));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), -1);
  EXPECT_THAT(TakeLog(),
              ElementsAre(Posted{1, "HttpFileProtocol::OpenInetHandle InternetOpen failed: 12004"},
                          Posted{1, "HttpFileProtocol::CreateThreadHandle InternetConnect for "
                                    "http://127.0.0.1:1/f failed: 12002"},
                          Posted{1, "HttpFileProtocol::ReadFile HttpOpenRequest for " +
                                        f.url_utf8() + " failed: 12001"},
                          Posted{1, "HttpFileProtocol::ReadFile HttpQueryInfo Status Code for " +
                                        f.url_utf8() + " failed: 12004"}));

  // A whole size asked of an answer that tells none (chunked, no Content-Range) fails the read;
  // without the question the bytes are read.
  server_.Route("/chunked", ScriptedResponse(200, "abcd").Chunked(2));
  OpenedFile chunked(protocol_, server_.Url("/chunked"));
  total = 7;
  EXPECT_EQ(chunked.Read(0, 4, buffer.data(), &total), -1);
  EXPECT_EQ(total, 7u);
  EXPECT_THAT(TakeLog(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpQueryInfo Can't "
                                               "find size in headers for " + chunked.url_utf8()}));
  EXPECT_EQ(chunked.Read(0, 4, buffer.data()), 4);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "abcd");
  // Any status but 200 and 206 fails the read, after the size the answer names was stored.
  server_.Route("/gone", ScriptedResponse(404, "gone!"));
  OpenedFile gone(protocol_, server_.Url("/gone"));
  EXPECT_EQ(gone.Read(0, 4, buffer.data(), &total), -1);
  EXPECT_EQ(total, 5u);
  EXPECT_THAT(TakeLog(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpQueryInfo Unhandled "
                                               "Status Code for " + gone.url_utf8() + ": 404"}));

  // Address space only: the server sends 4 bytes, so only the first page is touched.
  const std::uint64_t size = (std::uint64_t{1} << 32) + 16;
#if defined(_WIN32)
  void* memory = VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_NOACCESS);
  if (memory == nullptr) GTEST_SKIP() << "cannot reserve 4 GiB of address space";
  ASSERT_NE(VirtualAlloc(memory, 4096, MEM_COMMIT, PAGE_READWRITE), nullptr);
#else
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) GTEST_SKIP() << "cannot reserve 4 GiB of address space";
#endif
  EXPECT_EQ(f.Read(0, size, static_cast<unsigned char*>(memory)), 4);
  EXPECT_EQ(std::memcmp(memory, "abcd", 4), 0);
#if defined(_WIN32)
  VirtualFree(memory, 0, MEM_RELEASE);
#else
  munmap(memory, size);
#endif
  ASSERT_EQ(server.heads().size(), 3u);
  EXPECT_THAT(server.heads()[2], HasSubstr("\r\nRange: bytes=0-4294967311\r\n"));
}

ScriptedResponse FullAnswer() {
  return ScriptedResponse(200, std::string(900, 'x'))
      .Header("ETag", "\"abc-123\"")
      .Header("Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT");
}

TEST_F(HttpFileProtocolTest, InformationComesFromHeadOrAfter405FromGetAndSurvivesRetriedFailures) {
  // Size, tag and time from a HEAD (the nginx test reads a real server's).
  server_.Route("/f", FullAnswer());
  TqUFileInfo info;
  ASSERT_TRUE(Info("/f", &info));
  // The same URL text again is answered from the protocol's cache, without a request.
  TqUFileInfo cached;
  ASSERT_TRUE(Info("/f", &cached));
  EXPECT_EQ(cached.GetFileSize(), 900u);
  EXPECT_EQ(cached.GetFileRevisionId(), L"\"abc-123\"");
  EXPECT_EQ(cached.GetFileModificationTime(), std::int64_t{784111777});  // Last-Modified
  // Two connect time-outs are retried (a third ends the call: below); a new URL text misses the
  // cache.
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_TIMEOUT, 2, 0));
  EXPECT_TRUE(Info("/f?1", &info));
  ASSERT_EQ(server_.request_count(), 2u);

  server_.Route("/405", [](const RecordedRequest& r) {
    if (r.method == "HEAD") return ScriptedResponse(405);
    return ScriptedResponse(206, "ab").Header("Content-Range", "bytes 0-1/700");
  });
  ASSERT_TRUE(Info("/405", &info));
  EXPECT_EQ(info.GetFileSize(), 700u);
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(requests[2].method + requests[3].method, "HEADGET");
  EXPECT_EQ(requests[3].Header("Range"), "bytes=0-1");
  // Time-outs opening requests count over the whole call: two before the HEAD and one before
  // the GET end it, silently. Another error ends it with its message.
  server_.Route("/405-slow", [](const RecordedRequest& r) {
    if (r.method != "HEAD") return FullAnswer();
    TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_TIMEOUT, 1, 0);  // the GET's open
    return ScriptedResponse(405);
  });
  ASSERT_TRUE(TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_TIMEOUT, 2, 0));
  EXPECT_FALSE(Info("/405-slow", &info));
  EXPECT_EQ(server_.request_count(), 5u);
  EXPECT_THAT(TakeLog(), IsEmpty());

  // Three 502s are asked again; the request opened for the GET starts its count afresh.
  auto sends = std::make_shared<std::atomic<int>>(0);
  server_.Route("/502-405", [sends](const RecordedRequest& r) {
    const int n = ++*sends;
    if (r.method == "HEAD") return ScriptedResponse(n <= 3 ? 502 : 405);
    return n <= 7 ? ScriptedResponse(502) : FullAnswer();
  });
  EXPECT_TRUE(Info("/502-405", &info));
  EXPECT_EQ(sends->load(), 8);
  EXPECT_THAT(TakeLog(), IsEmpty());

  // Each of these ends the call: a fourth 502, a GET refused after the HEAD, a 206 whose
  // Content-Range names no length (the Content-Length is not used instead), any other status
  // (posted at severity 5), a third connect time-out, and a failed connect, open, send or status
  // query. A send that times out is not sent again.
  server_.Route("/502-always", ScriptedResponse(502));
  server_.Route("/405-always", ScriptedResponse(405));
  server_.Route("/500", ScriptedResponse(500));
  server_.Route("/405-no-length", [](const RecordedRequest& r) {
    if (r.method == "HEAD") return ScriptedResponse(405);
    return ScriptedResponse(206, "ab").Header("Content-Range", "bytes 0-1/*");
  });
  const struct {
    const char* path;
    const char* fault;  // fails `times` times with `error`, or null
    DWORD error;
    unsigned times;
    std::size_t sent;
    int severity;      // of the one line posted; 0: none
    std::string line;  // after "HttpFileProtocol::GetFileInfo "; "@" is the URL
  } failures[] = {
      {"/502-always", nullptr, 0, 0, 4, 0, ""},
      {"/405-always", nullptr, 0, 0, 2, 0, ""},
      {"/405-no-length", nullptr, 0, 0, 2, 0, ""},
      {"/500", nullptr, 0, 0, 1, 5, "HttpQueryInfo Unhandled Status Code for @: 500"},
      {"/f?t", "InternetConnectW", ERROR_INTERNET_TIMEOUT, 3, 0, 0, ""},
      {"/f?c", "InternetConnectW", ERROR_INTERNET_NAME_NOT_RESOLVED, 1, 0, 1,
       "InternetConnect for @ failed: 12007"},
      {"/f?o", "HttpOpenRequestW", ERROR_INTERNET_INTERNAL_ERROR, 1, 0, 1,
       "InternetOpen for @ failed: 12004"},
      {"/f?s", "HttpSendRequestW", ERROR_INTERNET_TIMEOUT, 1, 0, 1,
       "HttpSendRequest for @ failed: 12002"},
      {"/f?q", "HttpQueryInfoW", ERROR_INTERNET_INTERNAL_ERROR, 1, 1, 1,
       "HttpQueryInfo Status Code for @ failed: 12004"},
  };
  for (const auto& c : failures) {
    SCOPED_TRACE(c.path);
    if (c.fault != nullptr) {
      ASSERT_TRUE(TqPlatformInjectFault(c.fault, c.error, c.times, 0));
    }
    const std::size_t before = server_.request_count();
    EXPECT_FALSE(Info(c.path, &info));
    EXPECT_EQ(server_.request_count() - before, c.sent);
    std::vector<Posted> expected;
    if (c.severity != 0) {
      std::string line = "HttpFileProtocol::GetFileInfo " + c.line;
      line.replace(line.find('@'), 1, server_.Url(c.path));
      expected.push_back({c.severity, line});
    }
    EXPECT_EQ(TakeLog(), expected);
  }

  // An answer naming none of size, revision and time tells nothing, and nothing is kept; a tag
  // alone is enough, unless it is longer than a header is read (4,095 characters; Wine's
  // WinINet cuts long header lines short itself). A date that does not parse is no time (Wine's
  // WinINet faults on one: tests/WINDOWS.md).
  const std::string bad_date = IsWine() ? "" : "Last-Modified: yesterday\r\n";
  std::vector<std::pair<std::string, bool>> answers = {{"", false}, {"ETag: \"t\"\r\n", true}};
  if (!IsWine()) answers.emplace_back("ETag: \"" + std::string(4100, 't') + "\"\r\n", false);
  for (const auto& [head, found] : answers) {
    SameAnswerServer bare("HTTP/1.1 200 OK\r\n" + head + bad_date + "\r\n");
    TqUFileInfo bare_info;
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(protocol_->GetFileInfo(W(bare.Url("/b")).c_str(), &bare_info), found);
    }
    EXPECT_EQ(bare.requests(), found ? 1u : 2u) << "only what was found is kept";
    EXPECT_FALSE(bare_info.GetFileSize().has_value());
    EXPECT_FALSE(bare_info.GetFileModificationTime().has_value());
  }
  EXPECT_THAT(TakeLog(), IsEmpty());

  const std::size_t asked = server_.request_count();
  // What an answer does not name is not taken over from another URL's: neither into the
  // caller's object (`cached` holds "/f"'s three) nor into the cache (the second call).
  server_.Route("/size", ScriptedResponse(200, "abcd"));
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(Info("/size", &cached));
    EXPECT_EQ(cached.GetFileSize(), 4u);
    EXPECT_FALSE(cached.GetFileRevisionId().has_value());
    EXPECT_FALSE(cached.GetFileModificationTime().has_value());
  }

  // The cache holds 30 URL texts: after 30 others the least recently used, "/f", is asked again.
  for (int i = 0; i < 30; ++i) ASSERT_TRUE(Info("/f?" + std::to_string(100 + i), &info));
  ASSERT_TRUE(Info("/f", &info));
  EXPECT_EQ(server_.request_count(), asked + 32) << "\"/size\" asked once";
}

TEST_F(HttpFileProtocolTest, HookAnswersTheChallengeAndAnAnswerOutsideTheEnumerationEndsTheCall) {
  server_.Route("/f", [](const RecordedRequest& r) {
    return r.Header("Authorization") == "Basic YWxpY2U6czNjcmV0"
               ? FullAnswer()
               : ScriptedResponse(401).Header("WWW-Authenticate", "Basic realm=\"files\"");
  });
  // The default hook, which Initialise installs, offers only the URL's own user name and
  // password: for a URL without them the call ends after one request.
  TqUFileInfo info;
  EXPECT_FALSE(Info("/f", &info));
  EXPECT_EQ(server_.request_count(), 1u);
  const struct {
    const wchar_t* url;
    bool supplied;
  } defaults[] = {{L"http://al%40ice:p%3Aw@h/f", true}, {L"http://alice@h/f", false},
                  {L"http://alice:@h/f", false},        {L"http://:p@h/f", false},
                  {L"http://h/f", false},               {L"not a url", false}};
  for (const auto& d : defaults) {
    HttpCredentials credentials(L"kept", L"kept");
    EXPECT_EQ(HttpFileProtocol::DefaultPreHTTPAuthentication(d.url, &credentials),
              d.supplied ? HttpFileProtocol::CredentialsSupplied : HttpFileProtocol::NoCredentials)
        << qv::WideToUtf8(d.url);
    EXPECT_EQ(std::wstring(credentials.GetUsername()), d.supplied ? L"al@ice" : L"kept");
    EXPECT_EQ(std::wstring(credentials.GetPassword()), d.supplied ? L"p:w" : L"kept");
  }

  // A hook's credentials are tried once: a second challenge ends the call without asking again.
  static std::atomic<int> hook_calls{0};
  static const wchar_t* password = nullptr;
  hook_calls = 0;  // a repeated run starts the count again
  HttpFileProtocol::SetPreHTTPAuthenticationFunc([](const wchar_t*, HttpCredentials* c) {
    ++hook_calls;
    c->SetUsername(L"alice");
    c->SetPassword(password);
    return HttpFileProtocol::CredentialsSupplied;
  });
  password = L"s3cret";
  ASSERT_TRUE(Info("/f", &info));
  EXPECT_EQ(info.GetFileSize(), 900u);
  password = L"wrong";
  EXPECT_FALSE(Info("/f?wrong", &info));
  EXPECT_EQ(hook_calls.load(), 2);

  hook_calls = 0;
  HttpFileProtocol::SetPreHTTPAuthenticationFunc([](const wchar_t*, HttpCredentials*) {
    ++hook_calls;
    return static_cast<HttpFileProtocol::PreHTTPAuthenticationResult>(7);
  });
  const std::size_t before = server_.request_count();
  EXPECT_FALSE(Info("/f?again", &info));
  EXPECT_EQ(server_.request_count(), before + 1);
  EXPECT_EQ(hook_calls.load(), 1);
  EXPECT_THAT(TakeLog(), IsEmpty());

  // Initialise while the protocol is up makes nothing and keeps the hook; the matching
  // Terminate takes both schemes out and the next Initialise installs the default again. With
  // no hook at all the protocol goes ahead with the credentials as they are.
  HttpFileProtocol::Initialise();
  HttpCredentials credentials;
  EXPECT_EQ(HttpFileProtocol::PreHTTPAuthentication(L"http://u:p@h/f", &credentials), 7);
  TqUFileProtocolRegistry::Initialise();  // kept, to look into after the protocol went down
  HttpFileProtocol::Terminate();
  EXPECT_TRUE(HttpFileProtocol::IsInitialised());
  HttpFileProtocol::Terminate();
  EXPECT_EQ(TqUFileProtocolRegistry::Get()->Lookup(L"http"), nullptr);
  EXPECT_EQ(TqUFileProtocolRegistry::Get()->Lookup(L"https"), nullptr);
  TqUFileProtocolRegistry::Terminate();
  HttpFileProtocol::Initialise();
  EXPECT_EQ(HttpFileProtocol::PreHTTPAuthentication(L"http://u:p@h/f", &credentials),
            HttpFileProtocol::CredentialsSupplied);
  EXPECT_EQ(std::wstring(credentials.GetUsername()) + credentials.GetPassword(), L"up");
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(nullptr);
  HttpCredentials none;
  EXPECT_EQ(HttpFileProtocol::PreHTTPAuthentication(L"http://u:p@h/f", &none),
            HttpFileProtocol::CredentialsSupplied);
  EXPECT_EQ(std::wstring(none.GetUsername()) + none.GetPassword(), L"");
}

// Appends `C` to the resolved URL's text.
template <wchar_t C>
void Append(const TqUURL&, const TqUURL&, TqUURL& resolved) {
  resolved = TqUURL((std::wstring(resolved.GetString()) + C).c_str(), false);
}

// Each callback sees the resolved URL as the ones before it left it; one added twice runs twice,
// one removal takes every copy, and a null entry is passed over. ResolveAbsolute runs none.
TEST_F(ProtocolTest, ResolutionCallbacksRunInTheOrderAddedAndOneRemovalTakesEveryCopy) {
  TqUWideStringBuffer result;
  const auto resolve = [&](const wchar_t* relative) {
    EXPECT_TRUE(protocol_->ResolveRelative(L"http://h/a/b/c.txt", relative, &result));
    return std::wstring(result.View());
  };
  EXPECT_EQ(resolve(L"../d.txt"), L"http://h/a/d.txt");
  for (auto* callback : {&Append<L'x'>, static_cast<decltype(&Append<L'x'>)>(nullptr),
                         &Append<L'y'>, &Append<L'x'>}) {
    HttpFileProtocol::AddPostUrlResolutionCallback(callback);
  }
  EXPECT_EQ(resolve(L"../d.txt"), L"http://h/a/d.txtxyx");
  // Making a path absolute runs none of them (its cases: the file protocol's own test).
  ASSERT_TRUE(protocol_->ResolveAbsolute(L"..\\up.png", L"http://h/a/b/c.txt", nullptr, &result));
  EXPECT_EQ(std::wstring(result.View()), L"http://h/a/up.png");
  HttpFileProtocol::RemovePostUrlResolutionCallback(&Append<L'x'>);
  HttpFileProtocol::RemovePostUrlResolutionCallback(nullptr);
  EXPECT_EQ(resolve(L"e"), L"http://h/a/b/ey");
  HttpFileProtocol::RemovePostUrlResolutionCallback(&Append<L'y'>);
  HttpFileProtocol::RemovePostUrlResolutionCallback(&Append<L'y'>);  // not there: no change
  EXPECT_EQ(resolve(L"e"), L"http://h/a/b/e");

  // A one-shot callback removes itself and adds its successor while the resolution runs: that
  // resolution runs the list as it found it, the next one the list as it was left.
  struct OneShot {
    static void Run(const TqUURL& base, const TqUURL& relative, TqUURL& resolved) {
      HttpFileProtocol::RemovePostUrlResolutionCallback(&Run);
      for (int i = 0; i < 64; ++i) HttpFileProtocol::AddPostUrlResolutionCallback(&Append<L'z'>);
      Append<L's'>(base, relative, resolved);
    }
  };
  HttpFileProtocol::AddPostUrlResolutionCallback(&OneShot::Run);
  HttpFileProtocol::AddPostUrlResolutionCallback(&Append<L'y'>);
  EXPECT_EQ(resolve(L"e"), L"http://h/a/b/esy");
  EXPECT_EQ(resolve(L"e"), L"http://h/a/b/ey" + std::wstring(64, L'z'));
  HttpFileProtocol::RemovePostUrlResolutionCallback(&Append<L'y'>);
  HttpFileProtocol::RemovePostUrlResolutionCallback(&Append<L'z'>);
}

#if !defined(_WIN32)
// Out of memory at each allocation of CreateThreadHandle: every connection made is closed again
// (the closes are counted through an armed fault), and the next call gets its handle.
TEST_F(ProtocolTest, AThreadHandleThatRunsOutOfMemoryClosesItsConnection) {
  TqUFileHandle* file = protocol_->OpenFile(L"http://127.0.0.1:1/f", TqUFileProtocol::OpenRead);
  ASSERT_NE(file, nullptr);
  ASSERT_TRUE(TqPlatformInjectFault("InternetCloseHandle", ERROR_INTERNET_INTERNAL_ERROR,
                                    kTqPlatformFaultForever, 0));
  unsigned thrown = 0;
  TqUThreadHandle* thread = nullptr;
  for (long n = 0; thread == nullptr && n < 100; ++n) {
    const FailingAllocation failing(n);
    try {
      thread = protocol_->CreateThreadHandle(file);
    } catch (const std::bad_alloc&) {
      ++thrown;
    }
  }
  EXPECT_GT(thrown, 0u);
  EXPECT_EQ(TqPlatformInjectedFailures("InternetCloseHandle"), thrown);
  TqPlatformClearFaults();
  EXPECT_TRUE(protocol_->ReleaseThreadHandle(thread));
  EXPECT_TRUE(protocol_->CloseFile(file));
}
#endif

// The callbacks' order and progress: nginx's GetFile; the moniker's cut bodies: tests/faults.
// The binding aborted from another thread while the server holds its answer ends the download
// with E_ABORT (the binding's reference counting is what races there). A name the system cannot
// hold is refused.
TEST_F(HttpFileProtocolTest, DownloadFailuresAndAnAbortFromAnotherThreadLeaveNoFile) {
  struct Starter : qv::net::MyBindStatusCallback {
    Starter() : MyBindStatusCallback(nullptr) {}
    HRESULT STDMETHODCALLTYPE OnStartBinding(DWORD reserved, IBinding* binding) override {
      const HRESULT result = MyBindStatusCallback::OnStartBinding(reserved, binding);
      started.set_value(binding);
      return result;
    }
    std::promise<IBinding*> started;
  };
  TempDir dir;
  auto target = [&](const std::string& name) { return W((dir.path() / name).string()); };
  server_.Route("/a", ScriptedResponse(200, "abcd"));
  const std::wstring url = W(server_.Url("/a"));
  EXPECT_EQ(URLDownloadToFileW(nullptr, W(server_.Url("/404")).c_str(), target("b").c_str(), 0,
                               nullptr),
            INET_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(URLDownloadToFileW(nullptr, L"", target("b").c_str(), 0, nullptr), E_INVALIDARG);
  EXPECT_EQ(URLDownloadToFileW(nullptr, url.c_str(), target("no/b").c_str(), 0, nullptr),
            HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
  EXPECT_FALSE(protocol_->GetFile(url.c_str(), target("no/b").c_str(), nullptr));
  EXPECT_FALSE(protocol_->GetFile(L"not a url", target("b").c_str(), nullptr));

  Gate held;
  ScriptedServer server;  // after the gate: its threads end before the gate goes
  server.Route("/held", ScriptedResponse(200, "late").Hold(&held));
  Starter callback;
  std::thread aborter([&] { callback.started.get_future().get()->Abort(); });
  EXPECT_EQ(URLDownloadToFileW(nullptr, W(server.Url("/held")).c_str(), target("held").c_str(), 0,
                               &callback),
            E_ABORT);
  aborter.join();
  held.Open();
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
#if !defined(_WIN32)
  // Regression: a name this system cannot hold (an unpaired surrogate, a value past U+10FFFF)
  // was written under the name its replacement character spells, replacing another file there.
  constexpr DWORD kErrorInvalidName = 123;  // as the system refuses such a name
  const std::filesystem::path other = dir.WriteFile("a\xEF\xBF\xBD.bin", "another file");
  for (const wchar_t bad : {wchar_t{0xD800}, wchar_t{0xDC00}, static_cast<wchar_t>(0x110000)}) {
    const std::wstring name = dir.path().wstring() + L"/a" + bad + L".bin";
    EXPECT_EQ(URLDownloadToFileW(nullptr, url.c_str(), name.c_str(), 0, nullptr),
              HRESULT_FROM_WIN32(kErrorInvalidName));
    EXPECT_FALSE(protocol_->GetFile(url.c_str(), name.c_str(), nullptr));
  }
  EXPECT_EQ(ReadFileBytes(other), "another file");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
#endif
  EXPECT_THAT(TakeLog(), IsEmpty());
}

// A host's progress object that throws at a chosen report. Its exception must not unwind
// through the URL Moniker, which would skip OnStopBinding and so never give back the reference
// taken on the binding (and on Windows unwind the system's own frames). Every callback still
// answers S_OK and reports as before, so the download runs its course; the first exception then
// reaches the caller of GetFile or GetFileToCache. Without one, GetFileToCache gives the copy.
TEST_F(HttpFileProtocolTest, GetFileToCacheGivesTheCopyAndAProgressThatThrowsReachesTheCaller) {
  struct Cancelled {};
  struct ThrowingProgress : RecordedProgress {
    explicit ThrowingProgress(int at) : throw_at(at) {}
    bool SetProgress(double fraction) override {
      RecordedProgress::SetProgress(fraction);
      if (throw_at > 0 && static_cast<int>(values.size()) >= throw_at) throw Cancelled{};
      return true;
    }
    int throw_at;  // 0: never
  };
  // Counts the references the callback takes on the binding it is handed.
  struct CountedBinding : IBinding {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++refs); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--refs); }
    HRESULT STDMETHODCALLTYPE Abort() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Suspend() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Resume() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetPriority(LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPriority(LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetBindResult(CLSID*, DWORD*, LPOLESTR*, DWORD*) override {
      return E_NOTIMPL;
    }
    int refs = 0;
  };
  TempDir dir;
  const std::string body(256 * 1024, 'x');
  server_.Route("/big", ScriptedResponse(200, body));
  const std::wstring url = W(server_.Url("/big"));
  for (int throw_at : {1, 2}) {
    SCOPED_TRACE(throw_at);
    // The callback on its own: nothing escapes, the binding is given back.
    ThrowingProgress alone(throw_at);
    CountedBinding binding;
    {
      qv::net::MyBindStatusCallback callback(&alone);
      // It is an IUnknown and an IBindStatusCallback, nothing else.
      for (const IID* iid : {&IID_IUnknown, &IID_IBindStatusCallback, &IID_IBinding}) {
        void* object = &binding;
        const bool known = iid != &IID_IBinding;
        EXPECT_EQ(callback.QueryInterface(*iid, &object), known ? S_OK : E_NOINTERFACE);
        EXPECT_EQ(object, known ? static_cast<IBindStatusCallback*>(&callback) : nullptr);
      }
      EXPECT_EQ(callback.OnStartBinding(0, &binding), S_OK);
      // No announced length: no fraction yet.
      EXPECT_EQ(callback.OnProgress(70, 0, BINDSTATUS_DOWNLOADINGDATA, nullptr), S_OK);
      EXPECT_EQ(callback.OnProgress(50, 200, BINDSTATUS_DOWNLOADINGDATA, nullptr), S_OK);
      // More than the announced length (a length the server got wrong) is never past 100%.
      EXPECT_EQ(callback.OnProgress(300, 200, BINDSTATUS_DOWNLOADINGDATA, nullptr), S_OK);
      // A download that failed ends at 1.0 as well.
      EXPECT_EQ(callback.OnStopBinding(E_ABORT, nullptr), S_OK);
      EXPECT_THROW(callback.RethrowProgressError(), Cancelled);
    }
    EXPECT_EQ(binding.refs, 0);
    EXPECT_EQ(alone.values, (std::vector<double>{0.0, 0.0, 0.25, 1.0, 1.0}));
    // Through GetFile: the download is complete, then the exception arrives.
    ThrowingProgress progress(throw_at);
    const std::filesystem::path target = dir.path() / ("file" + std::to_string(throw_at));
    EXPECT_THROW(protocol_->GetFile(url.c_str(), W(target.string()).c_str(), &progress),
                 Cancelled);
    EXPECT_EQ(ReadFileBytes(target), body);
    EXPECT_EQ(progress.values.back(), 1.0);
  }

#if !defined(_WIN32)
  setenv("XDG_CACHE_HOME", (dir.path() / "cache").c_str(), 1);
#endif
  // URLs not fetched before, naming a file: Wine's URL Moniker caches nothing else.
  server_.Route("/dir/to-cache.bin", ScriptedResponse(200, body));
  server_.Route("/dir/report.pdf", ScriptedResponse(200, "pdf bytes"));
  ThrowingProgress throwing(1), quiet(0);
  TqUWideStringBuffer path;
  path.SetString(L"untouched");
  EXPECT_THROW(protocol_->GetFileToCache(W(server_.Url("/dir/to-cache.bin")).c_str(), &throwing,
                                         &path),
               Cancelled);
  EXPECT_EQ(std::wstring(path.View()), L"untouched");
  const bool got = protocol_->GetFileToCache(W(server_.Url("/dir/report.pdf?v=1")).c_str(),
                                             &quiet, &path);
#if !defined(_WIN32)
  unsetenv("XDG_CACHE_HOME");
#endif
  ASSERT_TRUE(got);
  const std::filesystem::path cached(std::wstring(path.View()));
#if defined(_WIN32)  // the URL Moniker's copy lives in WinINet's own cache, named after the file
  EXPECT_THAT(cached.filename().string(), HasSubstr("report"));
  EXPECT_THAT(cached.filename().string(), HasSubstr(".pdf"));
#else
  EXPECT_EQ(cached.parent_path(), dir.path() / "cache" / "tqnetwork" / "downloads");
  EXPECT_EQ(cached.filename().string().substr(16), "-report.pdf");
#endif
  EXPECT_EQ(ReadFileBytes(cached), "pdf bytes");
  EXPECT_EQ(quiet.values.back(), 1.0);
  EXPECT_THAT(TakeLog(), IsEmpty());
}

// Against nginx, the real-world peer, byte for byte: random ranges read on four threads, the
// file's information, and a download with its progress.
TEST_F(ProtocolTest, NginxRandomRangesOnFourThreadsInformationAndGetFileMatchWhatItServes) {
  if (!NginxHarness::Installed()) GTEST_SKIP() << "nginx is not installed";
  NginxHarness nginx;
  ASSERT_TRUE(nginx.ok()) << nginx.error();
  constexpr std::uint64_t kFileSize = 64ull << 20;
  std::string content(kFileSize, '\0');
  std::mt19937_64 random(42);
  std::generate(content.begin(), content.end(), [&] { return static_cast<char>(random()); });
  nginx.WriteFile("data/file.bin", content);
  const std::wstring url = W(nginx.Url("/data/file.bin"));

  constexpr int kThreads = 4;
  constexpr std::uint64_t kMaxRead = 256 * 1024;
  TqUFileHandle* file = protocol_->OpenFile(url.c_str(), TqUFileProtocol::OpenRead);
  ASSERT_NE(file, nullptr);
  std::vector<std::string> first_failure(kThreads);  // empty while every read is right
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      auto fail = [&](const std::string& what) {
        if (first_failure[t].empty()) first_failure[t] = what;
      };
      TqUThreadHandle* thread = protocol_->CreateThreadHandle(file);
      if (thread == nullptr) return fail("no thread handle");
      std::mt19937_64 random(1000 + t);
      std::vector<unsigned char> buffer(kMaxRead);
      for (int i = 0; i < 250; ++i) {
        // The first byte, the last, and a range past the end first; then random ones.
        const std::uint64_t offset = i == 0 ? 0 : i == 1 ? kFileSize - 1 : i == 2 ? kFileSize - 100
                                                                            : random() % kFileSize;
        const std::uint64_t size = i < 2 ? 1 : i == 2 ? 1000 : 1 + random() % kMaxRead;
        const std::uint64_t expected = std::min(size, kFileSize - offset);
        TqUFileRequestHandle* request = protocol_->SetupReadFile(file, offset, size);
        std::uint64_t total = 0;
        const std::int64_t n = protocol_->ReadFileToSize(file, thread, request, offset, size,
                                                         buffer.data(), &total);
        protocol_->ReleaseRequestHandle(request);
        if (n != static_cast<std::int64_t>(expected) || total != kFileSize ||
            content.compare(offset, expected, reinterpret_cast<const char*>(buffer.data()),
                            expected) != 0) {
          fail("count " + std::to_string(n) + " total " + std::to_string(total) + " at " +
               std::to_string(offset));
        }
        // The threads share the information cache: 40 spellings of the URL between them,
        // more than it keeps, so that they look up, add and evict at once.
        if (i % 25 == 0) {
          const std::wstring spelling = url + L"?" + std::to_wstring(t * 10 + i / 25);
          TqUFileInfo info;
          if (!protocol_->GetFileInfo(spelling.c_str(), &info) || info.GetFileSize() != kFileSize) {
            fail("information at " + std::to_string(i));
          }
        }
      }
      protocol_->ReleaseThreadHandle(thread);
    });
  }
  for (auto& t : threads) t.join();
  protocol_->CloseFile(file);
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(first_failure[t], "") << "thread " << t;

  // (The tag and time exactly as an answer names them: the information test's scripted HEAD.)
  TqUFileInfo info;
  ASSERT_TRUE(protocol_->GetFileInfo(url.c_str(), &info));
  EXPECT_EQ(info.GetFileSize(), kFileSize);
  EXPECT_TRUE(info.GetFileRevisionId().has_value());
  EXPECT_TRUE(info.GetFileModificationTime().has_value());

  TempDir dir;
  const auto target = dir.path() / "copy.bin";
  RecordedProgress progress;
  ASSERT_TRUE(protocol_->GetFile(url.c_str(), W(target.string()).c_str(), &progress));
  EXPECT_TRUE(ReadFileBytes(target) == content);
  const auto& p = progress.values;  // from 0 through a value between to 1, never back
  ASSERT_GE(p.size(), 3u);
  EXPECT_TRUE(p.front() == 0.0 && p.back() == 1.0 && std::is_sorted(p.begin(), p.end()));
  EXPECT_TRUE(std::any_of(p.begin(), p.end(), [](double f) { return f > 0.0 && f < 1.0; }));
  EXPECT_THAT(TakeLog(), IsEmpty());
}

}  // namespace
}  // namespace tq::test
