#include "tqutil/option.h"

#include <map>
#include <mutex>
#include <string>

namespace {

struct Options {
  std::mutex mutex;
  std::map<std::string, std::int32_t, std::less<>> values;
};

Options& TheOptions() {
  static Options* const options = new Options();
  return *options;
}

std::int32_t DefaultOf(std::string_view key) {
  if (key == "general.localcache.max_size") return 1024;
  return 0;
}

}  // namespace

std::int32_t TqUOption::GetInt32(const char* key) {
  if (!key) return 0;
  Options& o = TheOptions();
  std::lock_guard lock(o.mutex);
  const auto it = o.values.find(std::string_view(key));
  return it != o.values.end() ? it->second : DefaultOf(key);
}

void TqUOption::SetInt32(const char* key, std::int32_t value) {
  if (!key) return;
  Options& o = TheOptions();
  std::lock_guard lock(o.mutex);
  o.values[key] = value;
}

void TqUOption::Unset(const char* key) {
  if (!key) return;
  Options& o = TheOptions();
  std::lock_guard lock(o.mutex);
  o.values.erase(std::string(key));
}
