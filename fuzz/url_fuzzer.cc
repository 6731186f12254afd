// URLs from the network or the host's users: parsing, normalising and resolving must never
// crash or throw, whatever the text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "tqutil/strings.h"
#include "tqutil/url.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::wstring wide = qv::Utf8ToWide(text);
  const std::size_t half = wide.size() / 2;
  const std::wstring first = wide.substr(0, half);
  const std::wstring second = wide.substr(half);

  for (bool normalise : {false, true}) {
    TqUURL url(wide.c_str(), normalise);
    if (url.IsValid()) {
      (void)url.GetScheme();
      (void)url.GetHostName();
      (void)url.GetPort();
      (void)url.GetUserNameW();
      (void)url.GetPassword();
      (void)url.GetResource();
      TqUWideStringBuffer full;
      url.GetFullURL(&full);
      TqUURL copy(url);
      copy.SetQuery(L"");
      copy.Normalize();
      (void)copy.GetString();
    }
    TqUURL base(first.c_str(), normalise);
    TqUURL relative(second.c_str(), normalise);
    TqUURL resolved;
    if (TqUURL::ResolveRelative(base, relative, resolved)) (void)resolved.GetString();
  }
  return 0;
}
