#include "tqutil/url.h"

#include <optional>
#include <string_view>

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

#include "tqutil/decimal.h"

namespace urls = boost::urls;

namespace {

// Wide text as URI text: UTF-8, with every non-ASCII byte percent-encoded.
std::string ToUriText(const wchar_t* text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  const std::string utf8 = qv::WideToUtf8(text ? text : L"");
  std::string out;
  out.reserve(utf8.size());
  for (char ch : utf8) {
    const auto b = static_cast<unsigned char>(ch);
    if (b < 0x80) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kHex[b >> 4]);
      out.push_back(kHex[b & 0xF]);
    }
  }
  return out;
}

std::wstring AsciiToWide(std::string_view s) { return std::wstring(s.begin(), s.end()); }

std::wstring Lower(std::wstring s) {
  for (auto& c : s) {
    if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
  }
  return s;
}

std::uint16_t DefaultPort(std::wstring_view scheme) {
  if (scheme == L"http") return 80;
  if (scheme == L"https") return 443;
  if (scheme == L"ftp") return 21;
  return 0;
}

// RFC 3986 remove_dot_segments drops ".." segments that would climb above the root
// ("http://a/../g" is "http://a/g"); this parser keeps them, so they are dropped here.
// Boost.URL 1.81's normalize() and resolve() can leave their count of path segments out of step
// with the text (a "./" kept before an empty segment, as in ".//a"), and the next edit or resolve
// then reads past the end of the path. Parsing the text again makes the URL what its text says.
void Reparse(urls::url& u) {
  if (auto reparsed = urls::parse_uri_reference(u.buffer())) u = *reparsed;
}

void DropLeadingDotDots(urls::url& u) {
  std::string_view path = u.encoded_path();
  if (path.substr(0, 3) != "/.." || (path.size() > 3 && path[3] != '/')) return;
  while (path.substr(0, 3) == "/.." && (path.size() == 3 || path[3] == '/')) {
    path.remove_prefix(3);
  }
  u.set_encoded_path(path.empty() ? std::string("/") : std::string(path));
}

}  // namespace

struct TqUURL::Impl {
  std::wstring original;            // the text as given (what GetString shows when unparsed)
  std::optional<urls::url> url;     // empty when the text does not parse
  // Wide views of the parsed URL, refreshed after every change (getters hand out pointers).
  std::wstring scheme, host, resource, text;
  std::optional<std::wstring> user, password;

  void Parse(const wchar_t* input) {
    original = input ? input : L"";
    url.reset();
    try {
      const std::string uri = ToUriText(input);  // the parsed view points into it
      auto r = urls::parse_uri_reference(uri);
      // After an authority the path must be empty or start with "/"; the parser lets
      // "http://h:80x/" through as port 80 and path "x/", which is not a URL.
      if (r && !(r->has_authority() && !r->encoded_path().empty() &&
                 r->encoded_path().front() != '/')) {
        url.emplace(*r);
      }
    } catch (const std::exception&) {
      url.reset();
    }
    Refresh();
  }

  void Refresh() {
    scheme.clear();
    host.clear();
    resource.clear();
    user.reset();
    password.reset();
    if (!url) {
      text = original;
      return;
    }
    text = AsciiToWide(url->buffer());
    scheme = Lower(AsciiToWide(url->scheme()));
    host = qv::Utf8ToWide(url->host_address());
    if (url->has_userinfo()) user = qv::Utf8ToWide(url->user());
    if (url->has_password()) password = qv::Utf8ToWide(url->password());
    const std::string_view path = url->encoded_path();
    std::string target(path.empty() ? std::string_view("/") : path);
    if (url->has_query()) {
      target += '?';
      target += url->encoded_query();
    }
    resource = AsciiToWide(target);
  }

  bool PortIsValid() const {
    if (!url || !url->has_port()) return true;
    // The parser wraps values above 65535 instead of refusing them. An empty port is none.
    const std::string_view port(url->port().data(), url->port().size());
    return port.empty() || qv::ParseDecimal(port, 65535).has_value();
  }
};

TqUURL::TqUURL() : m_impl(std::make_unique<Impl>()) { m_impl->Parse(L""); }

TqUURL::TqUURL(const wchar_t* text, bool normalise) : m_impl(std::make_unique<Impl>()) {
  m_impl->Parse(text);
  if (normalise) Normalize();
}

TqUURL::TqUURL(const TqUURL& other)
    : m_impl(std::make_unique<Impl>(other.Get())) {}
TqUURL::TqUURL(TqUURL&& other) noexcept = default;
TqUURL& TqUURL::operator=(const TqUURL& other) {
  if (this != &other) m_impl = std::make_unique<Impl>(other.Get());
  return *this;
}
TqUURL& TqUURL::operator=(TqUURL&& other) noexcept = default;
TqUURL::~TqUURL() = default;

// A moved-from URL has no record; it reads as an empty relative reference.
const TqUURL::Impl& TqUURL::Get() const {
  if (m_impl) return *m_impl;
  static const Impl* const kEmpty = [] {
    auto* impl = new Impl();
    impl->Parse(L"");
    return impl;
  }();
  return *kEmpty;
}

bool TqUURL::IsValid() const {
  const Impl& impl = Get();
  if (!impl.url || !impl.url->has_scheme() || !impl.PortIsValid()) return false;
  if (impl.scheme == L"http" || impl.scheme == L"https") {
    return impl.url->has_authority() && !impl.url->encoded_host().empty();
  }
  return true;
}

bool TqUURL::Normalize() {
  if (!m_impl || !m_impl->url) return false;
  try {
    m_impl->url->normalize();
    Reparse(*m_impl->url);
    DropLeadingDotDots(*m_impl->url);
  } catch (const std::exception&) {
    return false;
  }
  m_impl->Refresh();
  return true;
}

const wchar_t* TqUURL::GetScheme() const { return Get().scheme.c_str(); }
const wchar_t* TqUURL::GetHostName() const { return Get().host.c_str(); }

std::uint16_t TqUURL::GetPort() const {
  const Impl& impl = Get();
  if (impl.url && impl.url->has_port() && !impl.url->port().empty() && impl.PortIsValid()) {
    return impl.url->port_number();
  }
  return DefaultPort(impl.scheme);
}

const wchar_t* TqUURL::GetUserNameW() const {
  const Impl& impl = Get();
  return impl.user ? impl.user->c_str() : nullptr;
}

const wchar_t* TqUURL::GetPassword() const {
  const Impl& impl = Get();
  return impl.password ? impl.password->c_str() : nullptr;
}

const wchar_t* TqUURL::GetResource() const { return Get().resource.c_str(); }
const wchar_t* TqUURL::GetString() const { return Get().text.c_str(); }

void TqUURL::GetFullURL(TqUWideStringBuffer* out) const {
  if (!out) return;
  const Impl& impl = Get();
  if (!impl.url) {
    const std::wstring& t = impl.original;
    out->SetString(std::wstring_view(t).substr(0, t.find(L'#')));
    return;
  }
  urls::url copy = *impl.url;
  copy.remove_fragment();
  out->SetString(AsciiToWide(copy.buffer()));
}

void TqUURL::SetQuery(const wchar_t* query) {
  if (!m_impl) m_impl = std::make_unique<Impl>();
  if (!m_impl->url) return;
  const std::string q = ToUriText(query);
  try {
    if (q.empty()) {
      m_impl->url->remove_query();
    } else {
      try {
        // Text as written after "?": its percent-encodings are kept.
        m_impl->url->set_encoded_query(q);
      } catch (const std::exception&) {
        // Not valid encoded text (a stray "%"): encode it as plain text instead.
        m_impl->url->set_query(q);
      }
    }
  } catch (const std::exception&) {
    // The URL is left as it was.
  }
  m_impl->Refresh();
}

bool TqUURL::ResolveRelative(const TqUURL& base, const TqUURL& relative, TqUURL& result) {
  const Impl& b = base.Get();
  const Impl& r = relative.Get();
  if (!b.url || !r.url || !b.url->has_scheme()) return false;
  try {
    urls::url dest;
    if (!urls::resolve(*b.url, *r.url, dest)) return false;
    Reparse(dest);
    DropLeadingDotDots(dest);
    auto impl = std::make_unique<Impl>();
    impl->url.emplace(std::move(dest));
    impl->original = AsciiToWide(impl->url->buffer());
    impl->Refresh();
    result.m_impl = std::move(impl);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool TqUSysURL::IsSecureProtocol(const wchar_t* scheme) {
  return scheme && Lower(scheme) == L"https";
}
