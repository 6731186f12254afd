#include "tqutil/component.h"

bool TqUComponent::Initialise(const wchar_t* name) {
  std::lock_guard lock(m_mutex);
  if (m_count++ > 0) return false;
  m_name = name ? name : L"";
  return true;
}

bool TqUComponent::Terminate() {
  std::lock_guard lock(m_mutex);
  if (m_count == 0) return false;
  return --m_count == 0;
}

bool TqUComponent::IsInitialised() const {
  std::lock_guard lock(m_mutex);
  return m_count > 0;
}

std::wstring TqUComponent::GetName() const {
  std::lock_guard lock(m_mutex);
  return m_name;
}
