// A named, reference-counted component of the host (a subsystem that is initialised once).
#pragma once

#include <mutex>
#include <string>

#include "tqutil/export.h"

/// A named part of the host that is initialised and terminated in pairs, possibly by several
/// owners: only the first initialisation and the last termination do the work. Thread-safe.
class TQUTIL_API TqUComponent {
 public:
  TqUComponent() = default;
  TqUComponent(const TqUComponent&) = delete;
  TqUComponent& operator=(const TqUComponent&) = delete;

  /// Counts one initialisation; true only for the call that takes the count from 0 to 1 (the
  /// one that must really do the work). The first call's name is kept.
  bool Initialise(const wchar_t* name);
  /// Counts one termination; true only for the call that takes the count from 1 to 0. False
  /// when the component is not initialised.
  bool Terminate();
  /// At least one initialisation is not yet matched by a termination.
  bool IsInitialised() const;
  /// The name given to the first Initialise ("" before).
  std::wstring GetName() const;

 private:
  mutable std::mutex m_mutex;
  unsigned m_count = 0;
  std::wstring m_name;
};
