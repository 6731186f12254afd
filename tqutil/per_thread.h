// One object per thread, made on first use and destroyed when its thread ends: what a
// `thread_local` object with a destructor is elsewhere. MinGW cannot be trusted with those: its
// emulated thread-local storage is freed before their destructors run, which then read freed
// memory. On Windows the object lives in a fiber-local storage slot, whose callback the system
// runs as the thread ends; the module that holds the callback stays loaded to the process's end.
//
//   struct Pending { std::string text; };       // a type of the caller's own: one object
//   qv::PerThread<Pending>().text += "...";     // per thread and type
#pragma once

#include <memory>

#include "tqutil/export.h"

namespace qv {

#if defined(_WIN32)
namespace detail {
/// A fiber-local storage slot whose value is passed to `destroy` when its thread ends. Throws
/// std::system_error when the process has no slot left.
TQUTIL_API unsigned long AllocateThreadSlot(void (*destroy)(void*));
TQUTIL_API void* GetThreadSlot(unsigned long slot);
TQUTIL_API void SetThreadSlot(unsigned long slot, void* value);
}  // namespace detail
#endif

template <typename T>
T& PerThread() {
#if defined(_WIN32)
  // Never freed: threads may still end while the process exits.
  static const unsigned long slot =
      detail::AllocateThreadSlot([](void* object) { delete static_cast<T*>(object); });
  if (void* object = detail::GetThreadSlot(slot)) return *static_cast<T*>(object);
  auto object = std::make_unique<T>();
  detail::SetThreadSlot(slot, object.get());
  return *object.release();
#else
  thread_local T object;
  return object;
#endif
}

}  // namespace qv
