// The status callback through which whole-file downloads report progress to the host.
#pragma once

#include <exception>

#include "net/host/platform.h"
#include "net/host/tqutil.h"

namespace qv::net {

// Lives on the caller's stack for one download and is told about it by the URL Moniker on the
// calling thread. Does no reference counting and never cancels: every notification returns S_OK
// (GetPriority alone answers E_NOTIMPL).
// Reports 0.0 when the download starts, the received fraction as it goes, and 1.0 when it ends,
// whether it succeeded or not; a download refused before it starts (a malformed URL, say)
// reports nothing. A null progress object is allowed: nothing is reported.
// An exception from the progress object must not unwind through the URL Moniker (the binding
// would never be released, and on Windows the system's own frames would be unwound): the first
// one is kept, the callback returns S_OK as always, and the caller rethrows it once the download
// has returned (RethrowProgressError).
class MyBindStatusCallback : public IBindStatusCallback {
 public:
  explicit MyBindStatusCallback(TqUProgress* progress) : m_progress(progress) {}
  // Releases a binding the download never ended with OnStopBinding.
  virtual ~MyBindStatusCallback();
  MyBindStatusCallback(const MyBindStatusCallback&) = delete;
  MyBindStatusCallback& operator=(const MyBindStatusCallback&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE OnStartBinding(DWORD reserved, IBinding* binding) override;
  HRESULT STDMETHODCALLTYPE GetPriority(LONG* priority) override;
  HRESULT STDMETHODCALLTYPE OnLowResource(DWORD reserved) override;
  HRESULT STDMETHODCALLTYPE OnProgress(ULONG progress, ULONG progress_max, ULONG status_code,
                                       LPCWSTR status_text) override;
  HRESULT STDMETHODCALLTYPE OnStopBinding(HRESULT result, LPCWSTR error) override;
  HRESULT STDMETHODCALLTYPE GetBindInfo(DWORD* bind_flags, BINDINFO* bind_info) override;
  HRESULT STDMETHODCALLTYPE OnDataAvailable(DWORD flags, DWORD size, FORMATETC* format,
                                            STGMEDIUM* medium) override;
  HRESULT STDMETHODCALLTYPE OnObjectAvailable(REFIID riid, IUnknown* object) override;

  // Throws what the progress object threw, if it did.
  void RethrowProgressError() const;
  // True when the download's end was reported with fewer bytes than the length it announced:
  // the server cut the body short, whatever result the download ends with.
  bool EndedShort() const { return m_end_max != 0 && m_end_progress < m_end_max; }

 private:
  void Report(double fraction);
  void ReleaseBinding();

  IBinding* m_binding = nullptr;  // from OnStartBinding to OnStopBinding, with a reference held
  TqUProgress* m_progress;
  std::exception_ptr m_progress_error;
  ULONG m_end_progress = 0;  // as reported with BINDSTATUS_ENDDOWNLOADDATA
  ULONG m_end_max = 0;
};

}  // namespace qv::net
