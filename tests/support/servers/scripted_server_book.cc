// The part of ScriptedServer both backends share: routes, the request log, and the count of
// requests being answered at once.
#include "tests/support/servers/scripted_server_book.h"

#include <algorithm>
#include <cctype>

namespace tq::test {

std::optional<std::string> RecordedRequest::Header(const std::string& name) const {
  const auto same_name = [&name](const std::string& key) {
    return key.size() == name.size() &&
           std::equal(key.begin(), key.end(), name.begin(), [](char x, char y) {
             return std::tolower(static_cast<unsigned char>(x)) ==
                    std::tolower(static_cast<unsigned char>(y));
           });
  };
  for (const auto& [key, value] : headers) {
    if (same_name(key)) return value;
  }
  return std::nullopt;
}

ScriptedResponse ScriptedServer::Book::Answer(const RecordedRequest& record) {
  ScriptedHandler handler;
  {
    std::lock_guard lock(mutex);
    requests.push_back(record);
    max_in_flight = std::max(max_in_flight, ++in_flight);
    const auto it = routes.find(record.path);
    if (it != routes.end()) handler = it->second;
  }
  ScriptedResponse answer;
  if (handler) {
    answer = handler(record);
  } else {
    answer.status = 404;
    answer.body = "no route";
    answer.content_type = "text/plain";
  }
  if (answer.hold != nullptr) answer.hold->Wait();
  std::lock_guard lock(mutex);
  --in_flight;
  return answer;
}

void ScriptedServer::Route(const std::string& path, ScriptedResponse response) {
  Route(path, [response](const RecordedRequest&) { return response; });
}

void ScriptedServer::Route(const std::string& path, ScriptedHandler handler) {
  std::lock_guard lock(book().mutex);
  book().routes[path] = std::move(handler);
}

std::size_t ScriptedServer::request_count() const {
  std::lock_guard lock(book().mutex);
  return book().requests.size();
}

std::size_t ScriptedServer::connection_count() const { return book().accepted.load(); }

std::size_t ScriptedServer::max_concurrent_requests() const {
  std::lock_guard lock(book().mutex);
  return book().max_in_flight;
}

std::vector<RecordedRequest> ScriptedServer::requests() const {
  std::lock_guard lock(book().mutex);
  return book().requests;
}

}  // namespace tq::test
