#include "platform/internet_handle.h"

#include <cstdint>
#include <unordered_map>

namespace tqplatform {
namespace {

struct HandleTable {
  std::mutex mutex;
  std::uintptr_t next = 0x10000;
  std::unordered_map<std::uintptr_t, std::shared_ptr<InternetObject>> objects;
};

HandleTable& Table() {
  // Never destroyed: handles may still be closed from static destructors of other modules.
  static auto* table = new HandleTable;
  return *table;
}

}  // namespace

bool InternetObject::AddChild(const std::shared_ptr<InternetObject>& child) {
  std::lock_guard lock(children_mutex_);
  if (closed_) return false;
  std::erase_if(children_, [](const auto& weak) { return weak.expired(); });
  children_.push_back(child);
  return true;
}

HINTERNET RegisterHandle(const std::shared_ptr<InternetObject>& object) {
  HandleTable& table = Table();
  std::lock_guard lock(table.mutex);
  // Steps of 4 keep the values looking like aligned pointers to callers that print them.
  const std::uintptr_t value = table.next;
  table.next += 4;
  object->handle_ = reinterpret_cast<HINTERNET>(value);
  table.objects.emplace(value, object);
  return object->handle_;
}

std::shared_ptr<InternetObject> LookupAnyHandle(HINTERNET handle) {
  if (handle == nullptr) return nullptr;
  HandleTable& table = Table();
  std::lock_guard lock(table.mutex);
  const auto it = table.objects.find(reinterpret_cast<std::uintptr_t>(handle));
  return it == table.objects.end() ? nullptr : it->second;
}

std::shared_ptr<InternetObject> LookupHandle(HINTERNET handle, HandleKind kind) {
  auto object = LookupAnyHandle(handle);
  if (object == nullptr) return FailNull(ERROR_INVALID_HANDLE);
  if (object->kind() != kind) return FailNull(ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  return object;
}

bool CloseHandleTree(HINTERNET handle) {
  std::shared_ptr<InternetObject> object;
  {
    HandleTable& table = Table();
    std::lock_guard lock(table.mutex);
    const auto it = table.objects.find(reinterpret_cast<std::uintptr_t>(handle));
    if (it == table.objects.end()) return false;
    object = std::move(it->second);
    table.objects.erase(it);
  }
  std::vector<std::weak_ptr<InternetObject>> children;
  {
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
