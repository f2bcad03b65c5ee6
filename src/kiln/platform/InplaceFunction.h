// A callable that never allocates.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

#include "kiln/platform/Assert.h"

namespace KilnPlatform {

template <class Signature, std::size_t Capacity>
class InplaceFunction;

/// A move-only callable whose target lives inside the object, in at most `Capacity` bytes; a larger target
/// does not compile.
template <class R, class... Args, std::size_t Capacity>
class InplaceFunction<R(Args...), Capacity> {
 public:
  InplaceFunction() = default;

  template <class F>
  requires(!std::is_same_v<std::decay_t<F>, InplaceFunction> && std::is_invocable_r_v<R, F&, Args...>)
      // NOLINTNEXTLINE(google-explicit-constructor,bugprone-forwarding-reference-overload)
      InplaceFunction(F&& target) {
    using T = std::decay_t<F>;
    static_assert(sizeof(T) <= Capacity && alignof(T) <= alignof(std::max_align_t));
    static_assert(std::is_nothrow_move_constructible_v<T>);
    ::new (static_cast<void*>(storage_)) T(std::forward<F>(target));
    invoke_ = [](void* self, Args... args) -> R {
      return (*static_cast<T*>(self))(std::forward<Args>(args)...);
    };
    relocate_ = &relocate<T>;
  }

  InplaceFunction(InplaceFunction&& other) noexcept { takeFrom(other); }
  InplaceFunction& operator=(InplaceFunction&& other) noexcept {
    if (this != &other) {
      reset();
      takeFrom(other);
    }
    return *this;
  }
  InplaceFunction(const InplaceFunction&) = delete;
  InplaceFunction& operator=(const InplaceFunction&) = delete;
  ~InplaceFunction() { reset(); }

  explicit operator bool() const { return invoke_ != nullptr; }
  R operator()(Args... args) {
    KILN_ASSERT(invoke_ != nullptr);
    return invoke_(storage_, std::forward<Args>(args)...);
  }
  /// The target if it is of type T, else null.
  template <class T>
  [[nodiscard]] const T* target() const {
    return relocate_ == &relocate<T> ? reinterpret_cast<const T*>(storage_) : nullptr;
  }
  /// Destroys the target.
  void reset() {
    if (relocate_ != nullptr) relocate_(storage_, nullptr);
    invoke_ = nullptr;
    relocate_ = nullptr;
  }

 private:
  template <class T>
  static void relocate(void* from, void* to) noexcept {
    if (to != nullptr) ::new (to) T(std::move(*static_cast<T*>(from)));
    static_cast<T*>(from)->~T();
  }
  void takeFrom(InplaceFunction& other) noexcept {
    if (other.relocate_ != nullptr) other.relocate_(other.storage_, storage_);
    invoke_ = std::exchange(other.invoke_, nullptr);
    relocate_ = std::exchange(other.relocate_, nullptr);
  }

  R (*invoke_)(void*, Args...) = nullptr;
  void (*relocate_)(void*, void*) noexcept = nullptr;
  alignas(std::max_align_t) std::byte storage_[Capacity];
};

}  // namespace KilnPlatform
