// HINTERNET values and the objects behind them. A handle is an opaque number looked up in a
// table, never a pointer that is dereferenced: a wrong, stale or closed handle is refused with
// ERROR_INVALID_HANDLE instead of crashing. Objects are shared: a call in progress keeps its
// object alive even when another thread closes the handle meanwhile.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/wininet.h"

namespace tqplatform {

enum class HandleKind { kSession, kConnection, kRequest };

class InternetObject {
 public:
  explicit InternetObject(HandleKind kind) : kind_(kind) {}
  virtual ~InternetObject() = default;
  InternetObject(const InternetObject&) = delete;
  InternetObject& operator=(const InternetObject&) = delete;

  HandleKind kind() const { return kind_; }
  HINTERNET handle() const { return handle_; }

  // Records a child handle (a connection of a session, a request of a connection), closed along
  // with this one as WinINet does. Fails when this handle is already closed.
  bool AddChild(const std::shared_ptr<InternetObject>& child);
  // The children still open.
  std::vector<std::shared_ptr<InternetObject>> Children();
  // Lets go of the records of children that are gone. A child that calls this as it is destroyed
  // frees its memory at once (its record would hold it until the next AddChild), so that the
  // next child made is given the same, still cached memory.
  void ForgetGoneChildren();

 protected:
  // Called once, when the handle is closed by its owner or through its parent: stops work in
  // progress on other threads. The object itself lives on until the last call using it returns.
  virtual void OnClose() {}

 private:
  friend HINTERNET RegisterHandle(const std::shared_ptr<InternetObject>& object);
  friend bool CloseHandleTree(HINTERNET handle);

  const HandleKind kind_;
  HINTERNET handle_ = nullptr;
  std::mutex children_mutex_;
  bool closed_ = false;
  std::vector<std::weak_ptr<InternetObject>> children_;
};

// An entry point's refusal in one statement: sets the calling thread's last error and gives the
// failure value, FALSE or a null handle.
inline BOOL Fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}
inline std::nullptr_t FailNull(DWORD error) {
  SetLastError(error);
  return nullptr;
}

// The error for the exception being handled, for code that must not let it out to callers
// that expect FALSE or NULL (or through libcurl's C frames): an allocation that failed is
// ERROR_NOT_ENOUGH_MEMORY, anything else an internal error.
DWORD ErrorOfCurrentException() noexcept;

// Runs an entry point's body; an exception it throws fails the call with its error.
template <class Result, class Body>
Result Guarded(Result failure, const Body& body) noexcept {
  try {
    return body();
  } catch (...) {
    SetLastError(ErrorOfCurrentException());
    return failure;
  }
}

// Gives the object a new handle value (never reused in the process's life).
HINTERNET RegisterHandle(const std::shared_ptr<InternetObject>& object);

// Registers `child` as a child of `parent`: its handle, or null with ERROR_INVALID_HANDLE when
// the parent was closed meanwhile. Nothing stays registered when it fails or throws.
HINTERNET RegisterChild(InternetObject& parent, const std::shared_ptr<InternetObject>& child);

// The object of a handle, or null with the last error set: ERROR_INVALID_HANDLE for a null,
// unknown or closed handle, ERROR_INTERNET_INCORRECT_HANDLE_TYPE for a handle of another kind.
std::shared_ptr<InternetObject> LookupHandle(HINTERNET handle, HandleKind kind);

template <class T>
std::shared_ptr<T> Lookup(HINTERNET handle) {
  return std::static_pointer_cast<T>(LookupHandle(handle, T::kKind));
}

// The object of a handle of any kind, or null (no error set).
std::shared_ptr<InternetObject> LookupAnyHandle(HINTERNET handle);

// Removes the handle and, recursively, its children; false for an unknown handle.
bool CloseHandleTree(HINTERNET handle);

}  // namespace tqplatform
