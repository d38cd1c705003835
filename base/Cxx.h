// The few language utilities the module needs. The firmware build has no C++ runtime library,
// so these stand in for <utility> and <new>.
#pragma once

#include <stddef.h>

#ifdef WIRECHECK_FIRMWARE
inline void* operator new(size_t, void* where) noexcept {
  return where;
}
#else
#include <new>
#endif

namespace wc {

template <class T> struct RemoveReference { using Type = T; };
template <class T> struct RemoveReference<T&> { using Type = T; };
template <class T> struct RemoveReference<T&&> { using Type = T; };

template <class T> constexpr typename RemoveReference<T>::Type&& Move(T&& v) noexcept {
  return static_cast<typename RemoveReference<T>::Type&&>(v);
}
template <class T> constexpr T&& Forward(typename RemoveReference<T>::Type& v) noexcept {
  return static_cast<T&&>(v);
}
template <class T> constexpr T&& Forward(typename RemoveReference<T>::Type&& v) noexcept {
  return static_cast<T&&>(v);
}
template <class T> constexpr T Exchange(T& slot, T value) {
  T old = slot;
  slot = value;
  return old;
}

template <class T, size_t N> constexpr size_t ArrayCount(const T (&)[N]) {
  return N;
}

template <class T> constexpr T Min(T a, T b) {
  return a < b ? a : b;
}
template <class T> constexpr T Max(T a, T b) {
  return a < b ? b : a;
}

// Runs a callable when the scope ends, unless dismissed.
template <class F> class ScopeGuard {
public:
  explicit ScopeGuard(F f) : fn_(Move(f)) {}
  ScopeGuard(const ScopeGuard&) = delete;
  ScopeGuard& operator=(const ScopeGuard&) = delete;
  ~ScopeGuard() {
    if (armed_)
      fn_();
  }
  void Dismiss() { armed_ = false; }

private:
  F fn_;
  bool armed_ = true;
};

} // namespace wc
