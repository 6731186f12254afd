// The WinINet layer and URL downloads against a server that misbehaves on purpose: answers that
// drip, downloads that end short or in part, stray bytes after an answer, challenges without
// end, header text that would smuggle a line, and a request (or its connection or session)
// closed from another thread while a call waits on it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/urlmon.h"
#include "platform/urlmon_internal.h"
#include "tests/platform/bind_callback.h"
#include "tests/platform/wininet_test_util.h"
#include "tests/support/same_answer_server.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/servers/tls_files.h"

namespace {

using namespace tq::test;
using namespace std::chrono_literals;

HRESULT Download(const std::string& url, const std::filesystem::path& to) {
  return URLDownloadToFileW(nullptr, std::wstring(url.begin(), url.end()).c_str(),
                            to.wstring().c_str(), 0, nullptr);
}

TEST(HostilePlatform, HeaderTextWithABareCrOrANulIsRefusedAndNothingIsSent) {
  SameAnswerServer server("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  ASSERT_TRUE(server.ok());
  Handle session = OpenSession();
  Handle connection = Connect(session, server.port());
  const std::wstring refused[] = {
      L"X-Tag: \"a\"\rX-Injected: 1\r\n",
      L"X-Tag: \"a\"\r",
      L"X-Tag: \"a\"\r\r\nX-Injected: 1\r\n",
      std::wstring(L"X-Tag: \"a\"\0X-Injected: 1\r\n", 26),
      std::wstring(L"X-Tag: \"a\r\n\0\0X-Injected: 1", 26),
  };
  for (const std::wstring& headers : refused) {
    Handle request = OpenRequest(connection, L"/");
    EXPECT_EQ(ErrorOf([&] { return Send(request, headers); }), ERROR_INVALID_PARAMETER)
        << (&headers - refused);
  }
  // The agent is a header value too, whether given to the session or set on a request; so is a
  // user name, which a Digest answer quotes in its line.
  for (const wchar_t* text : {L"agent\r\nX-Injected: 1", L"agent\nX-Injected: 1", L"agent\r"}) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(text)));
    EXPECT_EQ(ErrorOf([&] {
                return Handle(InternetOpenW(text, INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0));
              }),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ErrorOf([&] {
                return Handle(InternetConnectW(session.get(), L"127.0.0.1", 80, text, L"pw",
                                               INTERNET_SERVICE_HTTP, 0, 0));
              }),
              ERROR_INVALID_PARAMETER);
    Handle request = OpenRequest(connection, L"/");
    for (const DWORD option : {INTERNET_OPTION_USER_AGENT, INTERNET_OPTION_USERNAME,
                               INTERNET_OPTION_PROXY_USERNAME}) {
      EXPECT_EQ(ErrorOf([&] {
                  return InternetSetOptionW(request.get(), option, const_cast<wchar_t*>(text),
                                            static_cast<DWORD>(std::wcslen(text)));
                }),
                ERROR_INVALID_PARAMETER)
          << option;
    }
  }
  EXPECT_EQ(server.connections(), 0u);

  // Lines ending in CR LF or LF go out, each as its own header; a length that counts the
  // terminator is no NUL inside the text.
  Handle request = OpenRequest(connection, L"/");
  ASSERT_TRUE(Send(request, std::wstring(L"X-One: 1\r\nX-Two: 2\nX-Three: 3\0", 30)));
  EXPECT_NE(server.heads().at(0).find("\r\nX-One: 1\r\nX-Two: 2\r\nX-Three: 3\r\n"),
            std::string::npos);
}

// A download is whole or it is nothing: a body cut short, by its length or its chunks, a part of
// the file where the whole was asked for, or a header block that never arrives in time leaves no
// file under the name; a body that its close ends (no length given) is whole.
TEST(HostilePlatform, ADownloadThatIsNotWholeLeavesNoFile) {
  const auto previous = tqplatform::SetUrlDownloadLimitsForTesting({5'000, 300});
  const std::pair<const char*, HRESULT> cases[] = {
      // Then a header line every 50 ms: each is progress, the block as a whole is late.
      {"HTTP/1.1 200 OK\r\n", INET_E_CONNECTION_TIMEOUT},
      {"HTTP/1.0 200 OK\r\n\r\nhello", S_OK},
      {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhello", INET_E_DOWNLOAD_FAILURE},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n",
       INET_E_DOWNLOAD_FAILURE},
      {"HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-4/100\r\nContent-Length: 5\r\n\r\n"
       "hello",
       INET_E_DOWNLOAD_FAILURE},
  };
  for (const auto& [answer, result] : cases) {
    SCOPED_TRACE(answer);
    Gate ended;  // outlives the server, whose shut-down fails the script's next send
    RawResponder server([answer, &ended](RawConnection& c) {
      c.ReadRequestHead();
      c.Send(answer);
      if (std::strstr(answer, "\r\n\r\n") != nullptr) return;
      for (int i = 0; i < 40; ++i) {
        if (ended.Wait(50ms) || !c.Send("X-Drip-" + std::to_string(i) + ": x\r\n")) return;
      }
      c.Send("Content-Length: 2\r\n\r\nok");
    });
    ASSERT_TRUE(server.ok());
    TempDir dir;
    const std::string url = server.Url("/file");
    EXPECT_EQ(Download(url, dir.path() / "file"), result);
    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
      std::ifstream file(entry.path());
      left.push_back(entry.path().filename().string() + ": " +
                     std::string(std::istreambuf_iterator<char>(file), {}));
    }
    EXPECT_EQ(left, result == S_OK ? std::vector<std::string>{"file: hello"}
                                   : std::vector<std::string>{});
    // A destination that is no file (a FIFO here; a device such as /dev/null alike) is not
    // replaced by a plain file.
    if (result != S_OK) continue;
    ASSERT_EQ(::mkfifo((dir.path() / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(Download(url, dir.path() / "fifo"), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(std::filesystem::is_fifo(dir.path() / "fifo"));
  }
  tqplatform::SetUrlDownloadLimitsForTesting(previous);
}

// A file asked for over https comes over https: a redirect to http, where anyone on the way may
// change the bytes, fails the download, as it fails a request; one to https is followed.
TEST(HostilePlatform, AnHttpsDownloadIsNotLedToHttp) {
  TempDir dir;
  TlsFiles tls;
  ASSERT_TRUE(MakeSelfSignedCert(dir.path(), "127.0.0.1", &tls));
  ScriptedServer plain;
  ScriptedServer secure({.cert_file = tls.cert.string(), .key_file = tls.key.string()});
  ASSERT_TRUE(plain.ok() && secure.ok());
  plain.Route("/file", ScriptedResponse(200, "changed on the way"));
  secure.Route("/file", ScriptedResponse(200, "as sent"));
  secure.Route("/moved", ScriptedResponse(302).Header("Location", "/file"));
  secure.Route("/down", ScriptedResponse(302).Header("Location", plain.Url("/file")));
  ASSERT_TRUE(TqPlatformSetCaFile(tls.cert.c_str()));
  EXPECT_EQ(Download(secure.Url("/moved"), dir.path() / "moved"), S_OK);
  EXPECT_EQ(Download(secure.Url("/down"), dir.path() / "down"), INET_E_REDIRECT_FAILED);
  TqPlatformSetCaFile(nullptr);
  std::ifstream moved(dir.path() / "moved");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(moved), {}), "as sent");
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "down"));
  EXPECT_EQ(plain.request_count(), 0u);
}

// Bytes a server sends after an answer, on a connection kept alive, are no answer to anything:
// the next request must not read them as its own, whatever the answer before them was.
TEST(HostilePlatform, BytesSentAfterAnAnswerAreNotTheNextRequestsAnswer) {
  const std::pair<const wchar_t*, const char*> cases[] = {
      {L"GET", "HTTP/1.1 204 No Content\r\n\r\n"},
      {L"GET", "HTTP/1.1 304 Not Modified\r\n\r\n"},
      // A transfer coding frames no body here: it tells what a GET would get.
      {L"GET", "HTTP/1.1 304 Not Modified\r\nTransfer-Encoding: gzip,\r\n chunked\r\n\r\n"},
      {L"HEAD", "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n"},
      {L"HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 41\r\n\r\n"},
      {L"GET", "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok"}};
  for (const auto& [verb, answer] : cases) {
    SCOPED_TRACE(answer);
    Gate answered;
    Gate stray_sent;
    RawResponder server([&](RawConnection& connection) {
      for (std::string head; !(head = connection.ReadRequestHead()).empty();) {
        if (!head.starts_with("GET /first ") && !head.starts_with("HEAD /first ")) {
          connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\ngood");
          continue;
        }
        connection.Send(answer);
        if (!answered.Wait()) return;
        connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nstray");
        stray_sent.Open();
      }
    });
    ASSERT_TRUE(server.ok());
    Handle session = OpenSession();
    Handle connection = Connect(session, server.port());
    ASSERT_NE(Fetch(connection, L"/first", verb).substr(0, 6), "error ");
    answered.Open();
    ASSERT_TRUE(stray_sent.Wait());
    EXPECT_EQ(Fetch(connection, L"/next"), "good");
    EXPECT_EQ(Fetch(connection, L"/next"), "good");
    EXPECT_EQ(server.connection_count(), 2u);
  }
}

// A server or proxy that asks for credentials again after every answer (a Digest nonce "stale"
// each time) is answered a few times, not for as long as it goes on asking; not at all when the
// request asks for no authentication.
TEST(HostilePlatform, ChallengesWithoutEndAreNotAnsweredWithoutEnd) {
  for (const bool proxy : {false, true}) {
    SCOPED_TRACE(proxy ? "proxy" : "server");
    SameAnswerServer server([proxy, asked = 0](const std::string&) mutable {
      if (++asked > 100) return std::string("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
      return std::string(proxy ? "HTTP/1.1 407 Who\r\nProxy-Authenticate"
                               : "HTTP/1.1 401 Who\r\nWWW-Authenticate") +
             ": Digest realm=\"r\", nonce=\"" + std::to_string(asked) +
             "\", stale=true\r\nContent-Length: 0\r\n\r\n";
    });
    ASSERT_TRUE(server.ok());
    const std::wstring proxy_name = L"http=127.0.0.1:" + std::to_wstring(server.port());
    Handle session(InternetOpenW(L"t", proxy ? INTERNET_OPEN_TYPE_PROXY : INTERNET_OPEN_TYPE_DIRECT,
                                 proxy ? proxy_name.c_str() : nullptr, nullptr, 0));
    Handle connection = Connect(session, server.port());
    wchar_t user[] = L"bob", password[] = L"pw";
    const HINTERNET c = connection.get();
    ASSERT_TRUE(InternetSetOptionW(
        c, proxy ? INTERNET_OPTION_PROXY_USERNAME : INTERNET_OPTION_USERNAME, user, 3));
    ASSERT_TRUE(InternetSetOptionW(
        c, proxy ? INTERNET_OPTION_PROXY_PASSWORD : INTERNET_OPTION_PASSWORD, password, 2));
    EXPECT_EQ(Fetch(connection, L"/"), "error " + std::to_string(ERROR_INTERNET_LOGIN_FAILURE));
    EXPECT_LE(server.requests(), 11u);
    // A request that asks for no authentication gets the first challenge as its answer.
    const std::size_t before = server.requests();
    Handle request = OpenRequest(connection, L"/", L"GET", INTERNET_FLAG_NO_AUTH);
    ASSERT_TRUE(Send(request)) << GetLastError();
    EXPECT_EQ(StatusCode(request), proxy ? 407u : 401u);
    EXPECT_EQ(server.requests(), before + 1);
  }
}

// URL downloads go to a temporary name beside the destination first: for a destination whose
// name is as long as a directory allows, that name must fit too, also when the cut falls inside
// a character of several bytes. A status callback that asks to stop, whatever it is told at the
// time, ends a download with E_ABORT and nothing is left in the download cache. A space or a
// character outside ASCII in the URL's path goes out percent-encoded (UTF-8), never as is.
class StoppingCallback final : public BindCallback {
 public:
  explicit StoppingCallback(ULONG stop_at) : stop_at_(stop_at) {}
  HRESULT STDMETHODCALLTYPE OnProgress(ULONG, ULONG, ULONG status, LPCWSTR) override {
    return status == stop_at_ ? E_ABORT : S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnStopBinding(HRESULT result, LPCWSTR) override {
    stops.push_back(result);
    return S_OK;
  }

  std::vector<HRESULT> stops;

 private:
  const ULONG stop_at_;
};

TEST(HostilePlatform, ADownloadTakesTheLongestNameAStopLeavesNothingAndTheCacheIsTheUsers) {
  SameAnswerServer server("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
  ASSERT_TRUE(server.ok());
  const std::string origin = server.Url("");
  const std::wstring url = std::wstring(origin.begin(), origin.end()) + L"/a file\u00e9";
  // Names of 255, 254 and 255 bytes of UTF-8, in characters of one, two and three bytes.
  const std::tuple<wchar_t, std::string, int> names[] = {
      {L'n', "n", 255}, {L'\u00e9', "\xc3\xa9", 127}, {L'\u20ac', "\xe2\x82\xac", 85}};
  for (const auto& [wide, utf8, count] : names) {
    SCOPED_TRACE(utf8);
    std::string name;
    for (int i = 0; i < count; ++i) name += utf8;
    TempDir dir;
    const std::wstring destination = dir.path().wstring() + L"/" + std::wstring(count, wide);
    EXPECT_EQ(URLDownloadToFileW(nullptr, url.c_str(), destination.c_str(), 0, nullptr), S_OK);
    std::vector<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
      left.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(left, std::vector<std::string>{name});
    std::ifstream file(dir.path() / name);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "hello");
  }

  {  // A file replaced keeps its permissions: a private file is not made readable by others.
    TempDir dir;
    const auto kept = dir.path() / "private";
    std::ofstream(kept) << "old";
    std::filesystem::permissions(kept, std::filesystem::perms::owner_read |
                                           std::filesystem::perms::owner_write);
    EXPECT_EQ(URLDownloadToFileW(nullptr, url.c_str(), kept.wstring().c_str(), 0, nullptr), S_OK);
    EXPECT_EQ(std::filesystem::status(kept).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    // Never a set-user or set-group program made of what a server sent.
    ASSERT_EQ(::chmod(kept.c_str(), 06755), 0);
    EXPECT_EQ(URLDownloadToFileW(nullptr, url.c_str(), kept.wstring().c_str(), 0, nullptr), S_OK);
    struct stat st = {};
    ASSERT_EQ(::stat(kept.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
  }

  TempDir cache;
  const char* previous = std::getenv("XDG_CACHE_HOME");
  const std::string saved = previous != nullptr ? previous : "";
  const auto cache_home = cache.path() / "home";  // made by the first download, as the user's own
  ASSERT_EQ(setenv("XDG_CACHE_HOME", cache_home.c_str(), 1), 0);
  for (const ULONG stop_at : {BINDSTATUS_CACHEFILENAMEAVAILABLE, BINDSTATUS_CONNECTING,
                              BINDSTATUS_BEGINDOWNLOADDATA, BINDSTATUS_DOWNLOADINGDATA}) {
    SCOPED_TRACE(stop_at);
    StoppingCallback callback(stop_at);
    wchar_t path[260] = L"untouched";
    EXPECT_EQ(URLDownloadToCacheFileW(nullptr, url.c_str(), path, 260, 0, &callback), E_ABORT);
    EXPECT_EQ(callback.stops, std::vector<HRESULT>{E_ABORT});
    EXPECT_EQ(std::wstring(path), L"untouched");
    EXPECT_TRUE(std::filesystem::is_empty(tqplatform::UrlDownloadCacheDirectory()));
  }
  // The copy's path is counted in characters with its terminator: a buffer one short fails
  // before anything is sent, and keeps what it held.
  wchar_t path[260] = {};
  ASSERT_EQ(URLDownloadToCacheFileW(nullptr, url.c_str(), path, 260, 0, nullptr), S_OK);
  const auto ours = cache_home / "tqnetwork";
  for (const auto& made : {cache_home, ours, ours / "downloads"}) {
    EXPECT_EQ(std::filesystem::status(made).permissions(), std::filesystem::perms::owner_all)
        << made;
  }
  const auto fits = static_cast<DWORD>(std::wcslen(path) + 1);
  const std::size_t sent = server.requests();
  wchar_t again[260] = L"untouched";
  EXPECT_EQ(URLDownloadToCacheFileW(nullptr, url.c_str(), again, fits - 1, 0, nullptr),
            E_OUTOFMEMORY);
  EXPECT_EQ(server.requests(), sent);
  EXPECT_EQ(std::wstring(again), L"untouched");
  EXPECT_EQ(URLDownloadToCacheFileW(nullptr, url.c_str(), again, fits, 0, nullptr), S_OK);
  EXPECT_EQ(std::wstring(again), path);

  // The download cache is the user's alone: a directory of it that another user owns, that
  // others may write, or a link planted in its place, would let them replace a cached file after
  // the download and before the caller reads it. Such a cache is refused before anything is
  // sent. A directory the user's own group may write (a umask of 002) is still the user's.
  const std::size_t before = server.requests();
  enum Planted { kLink, kOtherOwner, kOthersWrite, kOwnGroupWrites };
  for (const Planted planted : {kLink, kOtherOwner, kOthersWrite, kOwnGroupWrites}) {
    SCOPED_TRACE(planted);
    if (planted == kOtherOwner && ::geteuid() != 0) continue;  // only root gives a directory away
    TempDir home;
    const auto planted_ours = home.path() / "tqnetwork";
    if (planted == kLink) {  // to a directory of someone else's choosing
      std::filesystem::create_directories(home.path() / "elsewhere" / "downloads");
      std::filesystem::create_directory_symlink(home.path() / "elsewhere", planted_ours);
    } else {
      const auto downloads = planted_ours / "downloads";
      std::filesystem::create_directories(downloads);
      const int changed = planted == kOtherOwner    ? ::chown(planted_ours.c_str(), 65534, 65534)
                          : planted == kOthersWrite ? ::chmod(downloads.c_str(), 0777)
                                                    : ::chmod(downloads.c_str(), 0770);
      ASSERT_EQ(changed, 0);
    }
    ASSERT_EQ(setenv("XDG_CACHE_HOME", home.path().c_str(), 1), 0);
    wchar_t refused[260] = L"untouched";
    const HRESULT result = URLDownloadToCacheFileW(nullptr, url.c_str(), refused, 260, 0, nullptr);
    if (planted == kOwnGroupWrites) {
      EXPECT_EQ(result, S_OK);
    } else {
      EXPECT_EQ(result, HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
      EXPECT_EQ(std::wstring(refused), L"untouched");
    }
  }
  EXPECT_EQ(server.requests(), before + 1);  // the one the user's own group may write made
  if (previous != nullptr) {
    setenv("XDG_CACHE_HOME", saved.c_str(), 1);
  } else {
    unsetenv("XDG_CACHE_HOME");
  }
  ASSERT_GE(server.requests(), std::size(names));
  for (const std::string& head : server.heads()) {
    EXPECT_TRUE(head.starts_with("GET /a%20file%C3%A9 HTTP/1.1\r\n")) << head;
  }
}

// The hook tells the test that a call on the request has reached its wait: for the network, or
// (on the thread marked as querying) for the call before it. The close then surely lands while
// the call is inside.
Gate* g_waiting[2] = {};  // by t_querying
thread_local bool t_querying = false;
void OnWait(HINTERNET) {
  if (Gate* gate = g_waiting[t_querying]) gate->Open();
}

TEST(HostilePlatform, CloseFromAnotherThreadEndsABlockedSendReadOrQuery) {
  enum Blocked { kSend, kRead, kQueryBehindARead };
  // The request's own handle, or a parent's, whose close closes the request with it.
  enum Closed { kRequest, kConnection, kSession };
  const std::pair<Blocked, Closed> rows[] = {{kSend, kRequest}, {kRead, kRequest},
                                             {kQueryBehindARead, kRequest}, {kSend, kSession},
                                             {kRead, kConnection}};
  for (const auto& [blocked_call, closed] : rows) {
    SCOPED_TRACE(testing::Message() << blocked_call << " " << closed);
    const bool during_read = blocked_call != kSend;
    Gate request_seen;
    RawResponder server([&](RawConnection& c) {
      c.ReadRequestHead();
      if (during_read) c.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n");
      request_seen.Open();
      c.Stall();  // until the responder goes
    });
    ASSERT_TRUE(server.ok());
    Handle session = OpenSession();
    Handle connection = Connect(session, server.port());
    // Far beyond the test's run: only the close can end the wait.
    ASSERT_TRUE(SetDword(connection.get(), INTERNET_OPTION_RECEIVE_TIMEOUT, 60'000));
    HINTERNET request = OpenRequest(connection, L"/").release();
    ASSERT_TRUE(!during_read || HttpSendRequestW(request, nullptr, 0, nullptr, 0));

    Gate waiting[2];
    g_waiting[0] = &waiting[0];
    g_waiting[1] = &waiting[1];
    tqplatform::SetWaitHookForTesting(&OnWait);
    char buffer[100];
    DWORD got = 0, status = 0, length = sizeof status;
    auto blocked = std::async(std::launch::async, [&] {
      return ErrorOf([&] {
        return during_read ? InternetReadFile(request, buffer, sizeof buffer, &got)
                           : HttpSendRequestW(request, nullptr, 0, nullptr, 0);
      });
    });
    ASSERT_TRUE(request_seen.Wait());
    ASSERT_TRUE(waiting[0].Wait());
    // The headers are in, but a query that waited for the read the close ended must fail too.
    std::future<DWORD> query;
    if (blocked_call == kQueryBehindARead) {
      query = std::async(std::launch::async, [&] {
        t_querying = true;
        return ErrorOf([&] {
          return HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &status,
                                &length, nullptr);
        });
      });
      ASSERT_TRUE(waiting[1].Wait());
    }
    ASSERT_TRUE(InternetCloseHandle(closed == kRequest      ? request
                                    : closed == kConnection ? connection.release()
                                                            : session.release()));
    // A close that did not reach the call would leave it waiting out the 60 s time-out.
    ASSERT_EQ(blocked.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(blocked.get(), ERROR_INTERNET_OPERATION_CANCELLED);
    if (query.valid()) {
      EXPECT_EQ(query.get(), ERROR_INTERNET_OPERATION_CANCELLED);
    }
    tqplatform::SetWaitHookForTesting(nullptr);
    g_waiting[0] = g_waiting[1] = nullptr;
    // The handle is gone for every later call.
    EXPECT_EQ(ErrorOf([&] {
                return HttpQueryInfoW(request, HTTP_QUERY_STATUS_CODE, nullptr, &length, nullptr);
              }),
              ERROR_INVALID_HANDLE);
  }
}

}  // namespace
