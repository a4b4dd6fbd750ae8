// An object that lives until the process's end, in place: making it needs no heap, and no exit
// handler takes it from threads that outlive main.
#pragma once

#include <new>

namespace platform {

/// Room for a T, for a static inside a function. T's constructor runs on first use, on whatever
/// thread, and its destructor never.
template <typename T>
class NeverDestroyed {
 public:
  NeverDestroyed() { new (memory_) T(); }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& get() { return *std::launder(reinterpret_cast<T*>(memory_)); }

 private:
  alignas(T) unsigned char memory_[sizeof(T)];
};

}  // namespace platform
