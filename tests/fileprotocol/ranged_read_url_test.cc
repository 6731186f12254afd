// The request a ranged read hands to the pre-request handlers carries the URL as the caller gave
// it, whether or not the protocol resolved the file to another URL, while the bytes come from
// the resolved one.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/request_handler.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/scripted_server.h"

namespace tq::test {
namespace {

// Sends every file to one other URL.
class ResolvingProtocol : public qv::net::HttpFileProtocol {
 public:
  explicit ResolvingProtocol(std::wstring target) : target_(std::move(target)) {}
  bool SetupOpenFile(const wchar_t*, TqUWideStringBuffer* resolved, OpenMode) override {
    resolved->SetString(target_.c_str());
    return true;
  }

 private:
  std::wstring target_;
};

struct SeenUrls : qv::net::HttpRequestHandler {
  void HandlePreRequest(qv::net::HttpRequest& request) override {
    urls.emplace_back(request.GetRawUrl());
  }
  std::vector<std::wstring> urls;
};

class RangedReadUrlTest : public ProtocolTest {};

TEST_F(RangedReadUrlTest, HandlersSeeTheUrlAsGivenAndTheBytesComeFromTheResolvedOne) {
  ScriptedServer server;
  server.Route("/asked", ScriptedResponse(200, "asked"));
  server.Route("/resolved", ScriptedResponse(200, "resolved"));
  ResolvingProtocol resolving(W(server.Url("/resolved")));
  const struct {
    qv::net::HttpFileProtocol* protocol;
    std::string read;
  } cases[] = {{protocol_, "asked"}, {&resolving, "resolved"}};
  for (const auto& c : cases) {
    SeenUrls seen;
    const std::wstring url = W(server.Url("/asked"));
    TqUFileHandle* file = c.protocol->OpenFile(url.c_str(), TqUFileProtocol::OpenRead);
    ASSERT_NE(file, nullptr);
    TqUThreadHandle* thread = c.protocol->CreateThreadHandle(file);
    TqUFileRequestHandle* request = c.protocol->SetupReadFile(file, 0, 3);
    std::string got(3, '\0');
    qv::net::HttpRequestHandlerManager::RegisterHandler(&seen);
    for (int i = 0; i < 2; ++i) {  // the second read as the first: nothing kept from it
      EXPECT_EQ(c.protocol->ReadFileToSize(file, thread, request, 0, 3,
                                           reinterpret_cast<unsigned char*>(got.data()), nullptr),
                3);
      EXPECT_EQ(got, c.read.substr(0, 3));
    }
    qv::net::HttpRequestHandlerManager::UnregisterHandler(&seen);
    EXPECT_EQ(seen.urls, std::vector<std::wstring>(2, url));
    c.protocol->ReleaseRequestHandle(request);
    c.protocol->ReleaseThreadHandle(thread);
    c.protocol->CloseFile(file);
  }
}

}  // namespace
}  // namespace tq::test
