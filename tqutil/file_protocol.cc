#include "tqutil/file_protocol.h"

#include "tqutil/file_url.h"
#include "tqutil/percent_encoding.h"
#include "tqutil/url.h"

namespace {

bool IsAbsoluteLocalPath(std::wstring_view p) {
  if (p.empty()) return false;
  if (p[0] == L'/' || p[0] == L'\\') return true;  // POSIX root, "\\server\share", "\x"
  const bool drive = p.size() >= 3 && ((p[0] >= L'a' && p[0] <= L'z') ||
                                       (p[0] >= L'A' && p[0] <= L'Z')) && p[1] == L':';
  return drive && (p[2] == L'/' || p[2] == L'\\');
}

// Joins a directory and a relative path with the directory's own separator style.
std::wstring Join(std::wstring_view directory, std::wstring_view path) {
  std::wstring out(directory);
  if (out.empty()) return std::wstring(path);
  if (out.back() != L'/' && out.back() != L'\\') {
    out += out.find(L'\\') != std::wstring::npos && out.find(L'/') == std::wstring::npos ? L'\\'
                                                                                         : L'/';
  }
  out += path;
  return out;
}

// A relative file name as a reference against a URL: "/" for "\\", and the ASCII characters a
// URL cannot hold percent-encoded (a space, controls, "%" that starts no escape, and the
// delimiters no path may contain), so that "my file.txt" resolves as the file it names.
// Characters outside ASCII are left to the URL's own encoding; "?" and "#" keep their meaning.
std::wstring AsRelativeReference(std::wstring_view name) {
  using qv::percent::HexValue;
  std::wstring out;
  out.reserve(name.size());
  for (std::size_t i = 0; i < name.size(); ++i) {
    const wchar_t c = name[i];
    const auto code = static_cast<std::uint32_t>(c);
    const bool stray_percent =
        c == L'%' &&
        !(i + 2 < name.size() && HexValue(name[i + 1]) >= 0 && HexValue(name[i + 2]) >= 0);
    if (c == L'\\') {
      out += L'/';
    } else if (code < 0x80 &&
               (code <= 0x20 || code == 0x7F || stray_percent ||
                std::wstring_view(L"\"<>^`{|}[]").find(c) != std::wstring_view::npos)) {
      qv::percent::AppendEscape(out, static_cast<unsigned char>(code));
    } else {
      out += c;
    }
  }
  // A ":" in the first segment would make the name a scheme ("a:b.txt") or no reference at all
  // ("10:30.txt"); "./" keeps it a file name. Windows' drive-relative "C:x" stays a local path.
  const std::size_t first_end = out.find_first_of(L"/?#");
  const std::size_t colon = out.find(L':');
  bool drive = false;
#if defined(_WIN32)
  drive = colon == 1 && ((out[0] >= L'a' && out[0] <= L'z') || (out[0] >= L'A' && out[0] <= L'Z'));
#endif
  if (colon != std::wstring::npos && colon < first_end && !drive) out.insert(0, L"./");
  return out;
}

std::wstring DirectoryOf(std::wstring_view file) {
  const std::size_t slash = file.find_last_of(L"/\\");
  return slash == std::wstring_view::npos ? std::wstring() : std::wstring(file.substr(0, slash + 1));
}

std::wstring LowerAscii(const wchar_t* text) {
  std::wstring s(text);
  for (auto& c : s) {
    if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
  }
  return s;
}

}  // namespace

// ---- TqUFileInfoCache ----

TqUFileInfoCache::TqUFileInfoCache(std::size_t capacity) : m_capacity(capacity) {}

bool TqUFileInfoCache::Lookup(const wchar_t* name, TqUFileInfo* info) {
  if (!name) return false;
  std::lock_guard lock(m_mutex);
  const auto it = m_index.find(name);
  if (it == m_index.end()) return false;
  m_lru.splice(m_lru.begin(), m_lru, it->second);
  if (info) *info = it->second->second;
  return true;
}

void TqUFileInfoCache::Add(const wchar_t* name, const TqUFileInfo& info) {
  if (!name || m_capacity == 0) return;
  std::lock_guard lock(m_mutex);
  const auto it = m_index.find(name);
  if (it != m_index.end()) {
    it->second->second = info;
    m_lru.splice(m_lru.begin(), m_lru, it->second);
    return;
  }
  m_lru.emplace_front(name, info);
  try {
    m_index.emplace(m_lru.front().first, m_lru.begin());
  } catch (...) {
    m_lru.pop_front();
    throw;
  }
  while (m_lru.size() > m_capacity) {
    m_index.erase(m_lru.back().first);
    m_lru.pop_back();
  }
}

// ---- TqUProgress ----

TqUProgress::~TqUProgress() = default;

// ---- TqUFileProtocol: the behaviour of a protocol that supports nothing ----

TqUFileProtocol::~TqUFileProtocol() = default;
bool TqUFileProtocol::SupportsDirectOpen() { return false; }
bool TqUFileProtocol::SupportsGetPut() { return false; }
bool TqUFileProtocol::SupportsOwnCache() { return false; }
bool TqUFileProtocol::IsRemote(const wchar_t*) { return IsRemote(); }
bool TqUFileProtocol::IsRemote() { return false; }
bool TqUFileProtocol::GetFileInfo(const wchar_t*, TqUFileInfo*) { return false; }
bool TqUFileProtocol::GetFile(const wchar_t*, const wchar_t*, TqUProgress*) { return false; }
bool TqUFileProtocol::GetFileToCache(const wchar_t*, TqUProgress*, TqUWideStringBuffer*) {
  return false;
}
bool TqUFileProtocol::PutFile(const wchar_t*, const wchar_t*, TqUProgress*) { return false; }
TqUFileHandle* TqUFileProtocol::OpenFile(const wchar_t*, OpenMode) { return nullptr; }
bool TqUFileProtocol::ReadFile(TqUFileHandle*, TqUThreadHandle*, TqUFileRequestHandle*,
                               std::uint64_t, std::uint64_t, unsigned char*) {
  return false;
}
bool TqUFileProtocol::WriteFile(TqUFileHandle*, std::uint64_t, std::uint64_t, unsigned char*) {
  return false;
}
bool TqUFileProtocol::CloseFile(TqUFileHandle*) { return true; }
void TqUFileProtocol::ExtendBlockDownload(TqUFileHandle*, unsigned int, unsigned int&,
                                          unsigned int&) {}
bool TqUFileProtocol::SupportsReadFileToSize() { return false; }
std::int64_t TqUFileProtocol::ReadFileToSize(TqUFileHandle*, TqUThreadHandle*,
                                             TqUFileRequestHandle*, std::uint64_t,
                                             std::uint64_t, unsigned char*, std::uint64_t*) {
  return -1;
}
TqUThreadHandle* TqUFileProtocol::CreateThreadHandle(TqUFileHandle*) { return nullptr; }
bool TqUFileProtocol::ReleaseThreadHandle(TqUThreadHandle*) { return true; }
TqUFileRequestHandle* TqUFileProtocol::SetupReadFile(TqUFileHandle*, std::uint64_t,
                                                     std::uint64_t) {
  return nullptr;
}
bool TqUFileProtocol::ReleaseRequestHandle(TqUFileRequestHandle*) { return true; }
bool TqUFileProtocol::ResolveAbsolute(const wchar_t* path, const wchar_t* base,
                                      const wchar_t* directory, TqUWideStringBuffer* result) {
  return ResolveAbsoluteFileOrURL(path, base, directory, result);
}
bool TqUFileProtocol::ResolveRelative(const wchar_t*, const wchar_t*, TqUWideStringBuffer*) {
  return false;
}
void TqUFileProtocol::GetDisplayName(const wchar_t* path, TqUWideStringBuffer* result) {
  if (result) result->SetString(path);
}
void TqUFileProtocol::GetVerboseDisplayName(const wchar_t* path, TqUWideStringBuffer* result) {
  if (result) result->SetString(path);
}
void TqUFileProtocol::GetPhysicalPath(const wchar_t* path, TqUWideStringBuffer* result) {
  if (result) result->SetString(path);
}
void TqUFileProtocol::GetMRUPath(const wchar_t* path, TqUWideStringBuffer* result) {
  if (result) result->SetString(path);
}
bool TqUFileProtocol::SetupOpenFile(const wchar_t* url, TqUWideStringBuffer* resolved, OpenMode) {
  if (resolved) resolved->SetString(url);
  return false;
}

bool TqUFileProtocol::ResolveAbsoluteFileOrURL(const wchar_t* path, const wchar_t* base,
                                               const wchar_t* directory,
                                               TqUWideStringBuffer* result) {
  if (!path || !result) return false;
  const std::wstring_view p(path);
  if (TqUFileURL::GetURLType(path) != 0 || IsAbsoluteLocalPath(p)) {
    result->SetString(p);
    return true;
  }
  const std::wstring_view dir(directory ? directory : L"");
  if (base && *base) {
    if (TqUFileURL::GetURLType(base) != 0) {
      const std::wstring relative = AsRelativeReference(p);
      const TqUURL base_url(base, false);
      const TqUURL relative_url(relative.c_str(), false);
      TqUURL resolved;
      if (!TqUURL::ResolveRelative(base_url, relative_url, resolved)) return false;
      result->SetString(resolved.GetString());
      return true;
    }
    std::wstring base_file(base);
    if (!IsAbsoluteLocalPath(base_file)) {
      if (dir.empty()) return false;
      base_file = Join(dir, base_file);
    }
    result->SetString(Join(DirectoryOf(base_file), p));
    return true;
  }
  if (dir.empty()) return false;
  result->SetString(Join(dir, p));
  return true;
}

// ---- TqUFileProtocolRegistry ----

namespace {

struct RegistryHolder {
  std::mutex mutex;
  unsigned count = 0;
  TqUFileProtocolRegistry* registry = nullptr;
};

RegistryHolder& Holder() {
  static RegistryHolder* const holder = new RegistryHolder();
  return *holder;
}

}  // namespace

void TqUFileProtocolRegistry::Initialise() {
  RegistryHolder& h = Holder();
  std::lock_guard lock(h.mutex);
  if (h.count++ == 0) h.registry = new TqUFileProtocolRegistry();
}

void TqUFileProtocolRegistry::Terminate() {
  RegistryHolder& h = Holder();
  std::lock_guard lock(h.mutex);
  if (h.count == 0) return;
  if (--h.count == 0) {
    delete h.registry;
    h.registry = nullptr;
  }
}

TqUFileProtocolRegistry* TqUFileProtocolRegistry::Get() {
  RegistryHolder& h = Holder();
  std::lock_guard lock(h.mutex);
  return h.registry;
}

bool TqUFileProtocolRegistry::Register(const wchar_t* scheme, TqUFileProtocol* protocol) {
  if (!scheme || !*scheme || !protocol) return false;
  std::lock_guard lock(m_mutex);
  return m_protocols.emplace(LowerAscii(scheme), protocol).second;
}

TqUFileProtocol* TqUFileProtocolRegistry::Unregister(const wchar_t* scheme) {
  if (!scheme) return nullptr;
  std::lock_guard lock(m_mutex);
  const auto it = m_protocols.find(LowerAscii(scheme));
  if (it == m_protocols.end()) return nullptr;
  TqUFileProtocol* protocol = it->second;
  m_protocols.erase(it);
  return protocol;
}

TqUFileProtocol* TqUFileProtocolRegistry::Lookup(const wchar_t* scheme) const {
  if (!scheme) return nullptr;
  std::lock_guard lock(m_mutex);
  const auto it = m_protocols.find(LowerAscii(scheme));
  return it == m_protocols.end() ? nullptr : it->second;
}
