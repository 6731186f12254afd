#include "net/fileprotocol/downloads.h"

#include <filesystem>
#include <system_error>

#include "net/fileprotocol/http_file_protocol.h"

namespace qv::net {
namespace {

// The length the URL Moniker is given for the cached file's path, in characters.
constexpr DWORD kCachePathChars = 260;

}  // namespace

MyBindStatusCallback::~MyBindStatusCallback() { ReleaseBinding(); }

HRESULT MyBindStatusCallback::QueryInterface(REFIID riid, void** object) {
  if (object == nullptr) return E_POINTER;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IBindStatusCallback)) {
    *object = static_cast<IBindStatusCallback*>(this);
    return S_OK;
  }
  *object = nullptr;
  return E_NOINTERFACE;
}

ULONG MyBindStatusCallback::AddRef() { return 0; }

ULONG MyBindStatusCallback::Release() { return 0; }

HRESULT MyBindStatusCallback::OnStartBinding(DWORD, IBinding* binding) {
  m_binding = binding;
  if (m_binding != nullptr) m_binding->AddRef();
  Report(0.0);
  return S_OK;
}

HRESULT MyBindStatusCallback::GetPriority(LONG*) { return E_NOTIMPL; }

HRESULT MyBindStatusCallback::OnLowResource(DWORD) { return S_OK; }

HRESULT MyBindStatusCallback::OnProgress(ULONG progress, ULONG progress_max, ULONG status_code,
                                         LPCWSTR) {
  if (status_code == BINDSTATUS_ENDDOWNLOADDATA) {
    m_end_progress = progress;
    m_end_max = progress_max;
  }
  // A host is told a fraction between 0 and 1: more bytes than the announced length (a wrong
  // Content-Length) count as all of it.
  Report(progress_max == 0 ? 0.0
         : progress >= progress_max
             ? 1.0
             : static_cast<double>(progress) / static_cast<double>(progress_max));
  return S_OK;
}

HRESULT MyBindStatusCallback::OnStopBinding(HRESULT, LPCWSTR) {
  ReleaseBinding();
  Report(1.0);
  return S_OK;
}

HRESULT MyBindStatusCallback::GetBindInfo(DWORD*, BINDINFO*) { return S_OK; }

HRESULT MyBindStatusCallback::OnDataAvailable(DWORD, DWORD, FORMATETC*, STGMEDIUM*) {
  return S_OK;
}

HRESULT MyBindStatusCallback::OnObjectAvailable(REFIID, IUnknown*) { return S_OK; }

void MyBindStatusCallback::Report(double fraction) {
  if (m_progress == nullptr) return;
  try {
    m_progress->SetProgress(fraction);
  } catch (...) {
    if (!m_progress_error) m_progress_error = std::current_exception();
  }
}

void MyBindStatusCallback::ReleaseBinding() {
  if (m_binding != nullptr) m_binding->Release();
  m_binding = nullptr;
}

void MyBindStatusCallback::RethrowProgressError() const {
  if (m_progress_error) std::rethrow_exception(m_progress_error);
}

namespace {

// Removes what a download that ended short left at `name`: not the file asked for, and not to be
// taken for it. A name no path holds whole names another file, which is left alone.
void RemoveTornDownload(const wchar_t* name) {
  if (name == nullptr) return;
  bool whole = false;
  const std::filesystem::path path = qv::PathOfWide(name, &whole);
  std::error_code ec;
  if (whole) TqUSysFile::RemoveFile(path, ec);
}

}  // namespace

// The system's download may end a body that the server cut short as it ends a whole one and
// report success (Wine's does): a download that ended short of its announced length fails here
// whatever the result, and what it wrote is removed.
bool HttpFileProtocol::GetFile(const wchar_t* url, const wchar_t* local_path,
                               TqUProgress* progress) {
  MyBindStatusCallback callback(progress);
  const HRESULT result = URLDownloadToFileW(nullptr, url, local_path, 0, &callback);
  const bool torn = SUCCEEDED(result) && callback.EndedShort();
  if (torn) RemoveTornDownload(local_path);
  callback.RethrowProgressError();
  return SUCCEEDED(result) && !torn;
}

bool HttpFileProtocol::GetFileToCache(const wchar_t* url, TqUProgress* progress,
                                      TqUWideStringBuffer* cache_path) {
  MyBindStatusCallback callback(progress);
  wchar_t path[kCachePathChars] = {};
  const HRESULT result = URLDownloadToCacheFileW(nullptr, url, path, kCachePathChars, 0, &callback);
  const bool torn = SUCCEEDED(result) && callback.EndedShort();
  if (torn) RemoveTornDownload(path);  // or the next download of the URL may be served from it
  callback.RethrowProgressError();
  if (FAILED(result) || torn) return false;
  if (cache_path != nullptr) cache_path->SetString(path);
  return true;
}

}  // namespace qv::net
