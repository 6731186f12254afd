// A map from handle-like keys (pointers or integers) to shared values, split into parts that each
// have their own lock on their own cache line, so that threads looking up different keys rarely
// wait for one another. Header-only: the platform layer, which links no utility library, uses it
// as well.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <type_traits>
#include <unordered_map>
#include <utility>

namespace qv {

template <class Key, class Value, std::size_t kParts = 16>
class ShardedMap {
  static_assert(std::is_pointer_v<Key> || std::is_integral_v<Key>);

 public:
  void Insert(Key key, Value value) {
    Part& part = PartOf(key);
    std::lock_guard lock(part.mutex);
    part.map.insert_or_assign(key, std::move(value));
  }

  // A copy of the value, or an empty Value when the key is absent.
  Value Find(Key key) {
    Part& part = PartOf(key);
    std::lock_guard lock(part.mutex);
    const auto it = part.map.find(key);
    return it == part.map.end() ? Value() : it->second;
  }

  // Takes the value out and hands it back, so that it is destroyed (a shared value, unless
  // someone still holds it) after the lock is let go. An empty Value when the key is absent.
  Value Take(Key key) {
    Part& part = PartOf(key);
    std::lock_guard lock(part.mutex);
    auto node = part.map.extract(key);
    return node.empty() ? Value() : std::move(node.mapped());
  }

 private:
  struct alignas(64) Part {
    std::mutex mutex;
    std::unordered_map<Key, Value> map;
  };

  // Multiplied by the golden ratio and bits from the middle of the product taken, so that keys
  // close together (objects allocated one after another, handle values counted up) land in
  // different parts.
  Part& PartOf(Key key) {
    std::uint64_t bits;
    if constexpr (std::is_pointer_v<Key>) {
      bits = reinterpret_cast<std::uintptr_t>(key);
    } else {
      bits = static_cast<std::uint64_t>(key);
    }
    return parts_[static_cast<std::size_t>((bits * 0x9E3779B97F4A7C15ull) >> 32) % kParts];
  }

  std::array<Part, kParts> parts_;
};

}  // namespace qv
