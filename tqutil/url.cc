#include "tqutil/url.h"

#include <optional>
#include <string>
#include <string_view>

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>

#include "tqutil/decimal.h"
#include "tqutil/dot_segments.h"
#include "tqutil/percent_encoding.h"

namespace urls = boost::urls;

namespace {

// Wide text as URI text: UTF-8, with every non-ASCII byte percent-encoded.
std::string ToUriText(const wchar_t* text) {
  const std::string utf8 = qv::WideToUtf8(text ? text : L"");
  std::string out;
  out.reserve(utf8.size());
  for (char ch : utf8) {
    const auto b = static_cast<unsigned char>(ch);
    if (b < 0x80) {
      out.push_back(ch);
    } else {
      qv::percent::AppendEscape(out, b);
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

bool IsUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

// Decodes the percent-encodings of unreserved characters and writes the others in upper case.
// Only these are the same URL either way: an encoded "/", "&", "=" or "?" is data, and decoding
// it would name another resource ("a%2Fb" is one segment, "a/b" two). Boost.URL 1.81's
// normalize() decodes every character its component allows, so it is not used for this.
std::string NormalizePercentEncodings(std::string_view text) {
  using qv::percent::HexValue;
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int hi = text[i] == '%' && i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
    const int lo = hi >= 0 ? HexValue(text[i + 2]) : -1;
    if (lo < 0) {
      out.push_back(text[i]);
      continue;
    }
    const auto byte = static_cast<unsigned char>(hi * 16 + lo);
    if (IsUnreserved(byte)) {
      out.push_back(static_cast<char>(byte));
    } else {
      qv::percent::AppendEscape(out, byte);
    }
    i += 2;
  }
  return out;
}

}  // namespace

namespace qv::url_path {
namespace {

// A segment written with encoded dots ("%2e%2E") is the dot segment it decodes to.
std::string DecodeDotSegments(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  while (true) {
    const std::size_t end = path.find('/');
    const std::string_view segment = path.substr(0, end);
    std::string dots;
    for (std::size_t i = 0; i < segment.size() && dots.size() <= 2; ++i) {
      if (segment[i] == '.') {
        dots.push_back('.');
      } else if (segment.substr(i, 3) == "%2e" || segment.substr(i, 3) == "%2E") {
        dots.push_back('.');
        i += 2;
      } else {
        dots = "...";  // not a dot segment
      }
    }
    out.append(!dots.empty() && dots.size() <= 2 ? std::string_view(dots) : segment);
    if (end == std::string_view::npos) return out;
    out.push_back('/');
    path.remove_prefix(end + 1);
  }
}

}  // namespace

// By hand: Boost.URL 1.81 reads an encoded "/" as a separator here as well.
std::string RemoveDotSegments(std::string_view path) {
  const std::string decoded = DecodeDotSegments(path);
  std::string_view in = decoded;
  std::string out;
  auto drop_last_segment = [&out] {
    const std::size_t slash = out.rfind('/');
    out.erase(slash == std::string::npos ? 0 : slash);
  };
  while (!in.empty()) {
    if (in.substr(0, 3) == "../") {
      in.remove_prefix(3);
    } else if (in.substr(0, 2) == "./") {
      in.remove_prefix(2);
    } else if (in.substr(0, 3) == "/./") {
      in.remove_prefix(2);
    } else if (in == "/.") {
      in = "/";
    } else if (in.substr(0, 4) == "/../") {
      in.remove_prefix(3);
      drop_last_segment();
    } else if (in == "/..") {
      in = "/";
      drop_last_segment();
    } else if (in == "." || in == "..") {
      in = {};
    } else {
      const std::size_t end = in.find('/', in.front() == '/' ? 1 : 0);
      const std::size_t length = end == std::string_view::npos ? in.size() : end;
      out.append(in.substr(0, length));
      in.remove_prefix(length);
    }
  }
  return out;
}

}  // namespace qv::url_path

namespace {

using qv::url_path::RemoveDotSegments;

// The parts of a URL reference, as encoded text.
struct Parts {
  std::optional<std::string> scheme, authority, query, fragment;
  std::string path;
};

Parts PartsOf(const urls::url_view_base& u) {
  Parts p;
  if (u.has_scheme()) p.scheme = std::string(u.scheme());
  if (u.has_authority()) p.authority = std::string(u.encoded_authority());
  p.path = std::string(u.encoded_path());
  if (u.has_query()) p.query = std::string(u.encoded_query());
  if (u.has_fragment()) p.fragment = std::string(u.encoded_fragment());
  return p;
}

// RFC 3986 recomposition, parsed again. Without an authority a path may not start with "//"
// (it would be read as one): "/." keeps it a path, as the URL library itself writes it.
std::optional<urls::url> Compose(const Parts& p) {
  std::string text;
  if (p.scheme) text += *p.scheme + ":";
  if (p.authority) {
    text += "//" + *p.authority;
  } else if (p.path.substr(0, 2) == "//") {
    text += "/.";
  }
  text += p.path;
  if (p.query) text += "?" + *p.query;
  if (p.fragment) text += "#" + *p.fragment;
  auto parsed = urls::parse_uri_reference(text);
  if (!parsed) return std::nullopt;
  return urls::url(*parsed);
}

// RFC 3986 section 5.2.2, on the encoded parts; `base` has a scheme.
Parts Resolve(const Parts& base, const Parts& r) {
  Parts t;
  if (r.scheme) {
    t = r;
    t.path = RemoveDotSegments(r.path);
    return t;
  }
  if (r.authority) {
    t.authority = r.authority;
    t.path = RemoveDotSegments(r.path);
    t.query = r.query;
  } else {
    if (r.path.empty()) {
      t.path = base.path;
      t.query = r.query ? r.query : base.query;
    } else {
      if (r.path.front() == '/') {
        t.path = RemoveDotSegments(r.path);
      } else if (base.authority && base.path.empty()) {
        t.path = RemoveDotSegments("/" + r.path);
      } else {
        const std::size_t slash = base.path.rfind('/');
        const std::string merged =
            (slash == std::string::npos ? std::string() : base.path.substr(0, slash + 1)) + r.path;
        t.path = RemoveDotSegments(merged);
      }
      t.query = r.query;
    }
    t.authority = base.authority;
  }
  t.scheme = base.scheme;
  t.fragment = r.fragment;
  return t;
}

// A host name decoded to a character that a URL's authority cannot hold as it stands: the name
// is written into a URL again to connect, where a "#", "@", "/" or ":" ends the host early.
bool PlainHostName(std::string_view name) {
  constexpr std::string_view kSubDelims = "!$&'()*+,;=";
  for (const char ch : name) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x80 && !IsUnreserved(c) && kSubDelims.find(ch) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

// What the getters hand out must be what the text names. The parser wraps ports above 65535
// (and a connection to port 0 goes to the scheme's default port), a host or user name decoded
// to text with a NUL in it ends there as a C string ("evil%00.example" would be "evil"), a host
// decoded to a delimiter ends there as a URL ("evil.example%23.h" would be "evil.example"), and
// an IP literal of a future version ("[v1.example]") would be looked up as the name inside its
// brackets: such a URL would reach another server than the one it names, so it does not parse.
bool Connectable(const urls::url_view& u) {
  if (u.host_type() == urls::host_type::ipvfuture) return false;
  if (u.host_type() == urls::host_type::name && !PlainHostName(u.host_name())) return false;
  const std::string_view port(u.port().data(), u.port().size());
  if (u.has_port() && !port.empty() && qv::ParseDecimal(port, 65535).value_or(0) == 0) {
    return false;
  }
  const auto holds_nul = [](std::string_view text) {
    return text.find('\0') != std::string_view::npos;
  };
  return !holds_nul(u.host_address()) && !(u.has_userinfo() && holds_nul(u.user())) &&
         !(u.has_password() && holds_nul(u.password()));
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
                 r->encoded_path().front() != '/') &&
          Connectable(*r)) {
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
  if (!impl.url || !impl.url->has_scheme()) return false;
  if (impl.scheme == L"http" || impl.scheme == L"https") {
    return impl.url->has_authority() && !impl.url->encoded_host().empty();
  }
  return true;
}

bool TqUURL::Normalize() {
  if (!m_impl || !m_impl->url) return false;
  try {
    urls::url& u = *m_impl->url;
    u.normalize_scheme();
    u.normalize_authority();
    // "http://h:80/" and "http://h:/" are "http://h/", and ":08080" is ":8080": one resource,
    // one text.
    const std::uint16_t own_port = DefaultPort(AsciiToWide(u.scheme()));
    if (u.has_port() && (u.port().empty() || (own_port != 0 && u.port_number() == own_port))) {
      u.remove_port();
    } else if (u.has_port() && u.port().front() == '0') {
      u.set_port_number(u.port_number());
    }
    Parts parts = PartsOf(u);
    parts.path = NormalizePercentEncodings(parts.path);
    // Dot segments are resolved in URLs only: a relative reference keeps them for its resolution.
    if (parts.scheme) parts.path = RemoveDotSegments(parts.path);
    if (parts.query) parts.query = NormalizePercentEncodings(*parts.query);
    if (parts.fragment) parts.fragment = NormalizePercentEncodings(*parts.fragment);
    std::optional<urls::url> normalised = Compose(parts);
    if (!normalised) return false;
    u = std::move(*normalised);
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
  if (impl.url && impl.url->has_port() && !impl.url->port().empty()) {
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
  // Text as written after "?": its percent-encodings are kept, and a "%" that starts none is a
  // "%" of the text. Encoding the whole text again instead would encode its encodings too.
  using qv::percent::HexValue;
  const std::string text = ToUriText(query);
  std::string q;
  for (std::size_t i = 0; i < text.size(); ++i) {
    q.push_back(text[i]);
    const bool escape =
        i + 2 < text.size() && HexValue(text[i + 1]) >= 0 && HexValue(text[i + 2]) >= 0;
    if (text[i] == '%' && !escape) q += "25";
  }
  try {
    if (q.empty()) {
      m_impl->url->remove_query();
    } else {
      m_impl->url->set_encoded_query(q);
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
    std::optional<urls::url> dest = Compose(Resolve(PartsOf(*b.url), PartsOf(*r.url)));
    if (!dest) return false;
    auto impl = std::make_unique<Impl>();
    impl->url.emplace(std::move(*dest));
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
