#include "platform/internet_handle.h"

#include <atomic>
#include <cstdint>
#include <new>

#include "tqutil/sharded_map.h"

namespace tqplatform {
namespace {

// Every call looks its handle up: the table is split, so that threads working on their own
// handles do not wait for one another.
struct HandleTable {
  std::atomic<std::uintptr_t> next{0x10000};
  qv::ShardedMap<std::uintptr_t, std::shared_ptr<InternetObject>> objects;
};

HandleTable& Table() {
  // Never destroyed: handles may still be closed from static destructors of other modules.
  static auto* table = new HandleTable;
  return *table;
}

}  // namespace

DWORD ErrorOfCurrentException() noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return ERROR_NOT_ENOUGH_MEMORY;
  } catch (...) {
    return ERROR_INTERNET_INTERNAL_ERROR;
  }
}

bool InternetObject::AddChild(const std::shared_ptr<InternetObject>& child) {
  std::lock_guard lock(children_mutex_);
  if (closed_) return false;
  std::erase_if(children_, [](const auto& weak) { return weak.expired(); });
  children_.push_back(child);
  return true;
}

void InternetObject::ForgetGoneChildren() {
  std::lock_guard lock(children_mutex_);
  std::erase_if(children_, [](const auto& weak) { return weak.expired(); });
}

std::vector<std::shared_ptr<InternetObject>> InternetObject::Children() {
  std::vector<std::shared_ptr<InternetObject>> out;
  std::lock_guard lock(children_mutex_);
  // Room first: a child whose last owner let go meanwhile must not end here, under the lock
  // its destructor takes (ForgetGoneChildren), as it would if a push_back failed.
  out.reserve(children_.size());
  for (const auto& weak : children_) {
    if (auto child = weak.lock()) out.push_back(std::move(child));
  }
  return out;
}

HINTERNET RegisterHandle(const std::shared_ptr<InternetObject>& object) {
  HandleTable& table = Table();
  // Steps of 4 keep the values looking like aligned pointers to callers that print them.
  const std::uintptr_t value = table.next.fetch_add(4, std::memory_order_relaxed);
  object->handle_ = reinterpret_cast<HINTERNET>(value);
  table.objects.Insert(value, object);
  return object->handle_;
}

HINTERNET RegisterChild(InternetObject& parent, const std::shared_ptr<InternetObject>& child) {
  HINTERNET handle = RegisterHandle(child);
  bool added = false;
  try {
    added = parent.AddChild(child);
  } catch (...) {
    CloseHandleTree(handle);
    throw;
  }
  if (!added) {
    CloseHandleTree(handle);
    return FailNull(ERROR_INVALID_HANDLE);
  }
  return handle;
}

std::shared_ptr<InternetObject> LookupAnyHandle(HINTERNET handle) {
  if (handle == nullptr) return nullptr;
  return Table().objects.Find(reinterpret_cast<std::uintptr_t>(handle));
}

std::shared_ptr<InternetObject> LookupHandle(HINTERNET handle, HandleKind kind) {
  auto object = LookupAnyHandle(handle);
  if (object == nullptr) return FailNull(ERROR_INVALID_HANDLE);
  if (object->kind() != kind) return FailNull(ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  return object;
}

bool CloseHandleTree(HINTERNET handle) {
  const std::shared_ptr<InternetObject> object =
      Table().objects.Take(reinterpret_cast<std::uintptr_t>(handle));
  if (object == nullptr) return false;
  std::vector<std::weak_ptr<InternetObject>> children;
  // A request is given no children: none to close, and nobody asks whether it is closed.
  if (object->kind() != HandleKind::kRequest) {
    std::lock_guard lock(object->children_mutex_);
    object->closed_ = true;
    children.swap(object->children_);
  }
  // Children first, so that a request blocked on a connection being closed is woken before the
  // connection stops serving it.
  for (const auto& weak : children) {
    if (auto child = weak.lock()) CloseHandleTree(child->handle());
  }
  object->OnClose();
  return true;
}

}  // namespace tqplatform
