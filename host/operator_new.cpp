// SPDX-License-Identifier: Apache-2.0
// operator new and operator delete. Any thread.
//
// Usually they forward to the C++ library's operators, which call malloc and free of the loader. In
// two cases they use the active table instead:
//   - The next allocator has its own operators. These do not call malloc.
//   - The process has no C++ library when the loader starts, such as a C program that loads C++
//     plug-ins later. Each plug-in may bring its own copy of the C++ library. A block from one copy
//     may be deleted by another.
// If the active table has no memory, the C++ library's operator new is called, which calls the
// new-handler or throws.
//
// Every build type compiles this file with optimization and without frame pointers, for tail calls
// (CMakeLists.txt): recorded stacks contain no frame of it.
#include <dlfcn.h>
#include <stdlib.h>

#include <atomic>
#include <new>

#include "host/allocator_table.h"
#include "host/exports.h"
#include "host/next_allocator.h"
#include "host/next_function.h"
#include "host/replaced_functions.h"

namespace host {
namespace {

const void* ObjectOf(const void* function) {
  Dl_info info;
  return dladdr(function, &info) != 0 ? info.dli_fbase : nullptr;
}

/// Returns the definition of `name` that code at `caller` would use without the loader, or null.
/// Takes the dynamic linker's lock.
void* FindForCaller(const char* name, const void* caller) {
  if (void* const next = NextDefinition(name)) return next;
  Dl_info info;
  if (dladdr(caller, &info) == 0 || info.dli_fname == nullptr) return nullptr;
  void* const library = dlopen(info.dli_fname, RTLD_NOLOAD | RTLD_LAZY);
  if (library == nullptr) return nullptr;
  void* const found = dlsym(library, name);
  dlclose(library);  // the caller keeps it loaded
  return found;
}

/// One overload of operator new or delete.
class OperatorBase {
 public:
  explicit constexpr OperatorBase(const char* name) : name_(name) {}

  const char* name() const { return name_; }
  void* target() const { return target_.load(std::memory_order_relaxed); }
  void set_target(void* target) { target_.store(target, std::memory_order_relaxed); }

 private:
  const char* const name_;
  // The function to call; null: use the active table.
  std::atomic<void*> target_{nullptr};
};

template <typename Signature>
class Operator : public OperatorBase {
 public:
  using OperatorBase::OperatorBase;

  Signature* Target() const { return reinterpret_cast<Signature*>(target()); }

  /// Returns the C++ library's definition, for a request that the active table cannot serve: it
  /// calls the new-handler or throws. Null if there is no C++ library. `caller` is a return
  /// address.
  __attribute__((noinline)) Signature* WithoutMemory(const void* caller) const {
    return reinterpret_cast<Signature*>(FindForCaller(name(), caller));
  }
};

using New = void*(size_t);
using NewNothrow = void*(size_t, const std::nothrow_t&);
using NewAligned = void*(size_t, std::align_val_t);
using NewAlignedNothrow = void*(size_t, std::align_val_t, const std::nothrow_t&);
using Delete = void(void*);
using DeleteSized = void(void*, size_t);
using DeleteAligned = void(void*, std::align_val_t);
using DeleteSizedAligned = void(void*, size_t, std::align_val_t);
using DeleteNothrow = void(void*, const std::nothrow_t&);
using DeleteAlignedNothrow = void(void*, std::align_val_t, const std::nothrow_t&);

Operator<New> new_one{"_Znwm"};
Operator<New> new_array{"_Znam"};
Operator<NewNothrow> new_one_nothrow{"_ZnwmRKSt9nothrow_t"};
Operator<NewNothrow> new_array_nothrow{"_ZnamRKSt9nothrow_t"};
Operator<NewAligned> new_one_aligned{"_ZnwmSt11align_val_t"};
Operator<NewAligned> new_array_aligned{"_ZnamSt11align_val_t"};
Operator<NewAlignedNothrow> new_one_aligned_nothrow{"_ZnwmSt11align_val_tRKSt9nothrow_t"};
Operator<NewAlignedNothrow> new_array_aligned_nothrow{"_ZnamSt11align_val_tRKSt9nothrow_t"};
Operator<Delete> delete_one{"_ZdlPv"};
Operator<Delete> delete_array{"_ZdaPv"};
Operator<DeleteSized> delete_one_sized{"_ZdlPvm"};
Operator<DeleteSized> delete_array_sized{"_ZdaPvm"};
Operator<DeleteAligned> delete_one_aligned{"_ZdlPvSt11align_val_t"};
Operator<DeleteAligned> delete_array_aligned{"_ZdaPvSt11align_val_t"};
Operator<DeleteSizedAligned> delete_one_sized_aligned{"_ZdlPvmSt11align_val_t"};
Operator<DeleteSizedAligned> delete_array_sized_aligned{"_ZdaPvmSt11align_val_t"};
Operator<DeleteNothrow> delete_one_nothrow{"_ZdlPvRKSt9nothrow_t"};
Operator<DeleteNothrow> delete_array_nothrow{"_ZdaPvRKSt9nothrow_t"};
Operator<DeleteAlignedNothrow> delete_one_aligned_nothrow{"_ZdlPvSt11align_val_tRKSt9nothrow_t"};
Operator<DeleteAlignedNothrow> delete_array_aligned_nothrow{"_ZdaPvSt11align_val_tRKSt9nothrow_t"};

/// Returns the alignment among the arguments after the size; 0 if there is none.
inline size_t AlignmentIn() {
  return 0;
}
inline size_t AlignmentIn(const std::nothrow_t& /*nothrow*/) {
  return 0;
}
template <typename... Rest>
size_t AlignmentIn(std::align_val_t alignment, const Rest&... /*rest*/) {
  return static_cast<size_t>(alignment);
}

/// The body of each operator new. Only the forms without std::nothrow throw.
template <typename Signature, typename... Arguments>
__attribute__((always_inline)) inline void* Allocate(const Operator<Signature>& op, bool throws,
                                                     size_t size, Arguments&&... arguments) {
  if (auto* const target = op.Target()) return target(size, arguments...);
  const size_t alignment = AlignmentIn(arguments...);
  const MallocDispatch& calls = ActiveAllocator().calls;
  void* const block = alignment == 0 ? calls.malloc(size) : calls.memalign(alignment, size);
  if (__builtin_expect(static_cast<long>(block != nullptr), 1L) != 0) return block;
  if (auto* const next = op.WithoutMemory(__builtin_return_address(0))) {
    return next(size, arguments...);
  }
  // Without a C++ library nothing can be thrown.
  if (throws) abort();
  return nullptr;
}

/// The body of each operator delete.
template <typename Signature, typename... Arguments>
__attribute__((always_inline)) inline void Release(const Operator<Signature>& op, void* block,
                                                   Arguments&&... arguments) {
  if (auto* const target = op.Target()) return target(block, arguments...);
  ActiveAllocator().calls.free(block);
}

OperatorBase* const kOperators[] = {
    &new_one,
    &new_array,
    &new_one_nothrow,
    &new_array_nothrow,
    &new_one_aligned,
    &new_array_aligned,
    &new_one_aligned_nothrow,
    &new_array_aligned_nothrow,
    &delete_one,
    &delete_array,
    &delete_one_sized,
    &delete_array_sized,
    &delete_one_aligned,
    &delete_array_aligned,
    &delete_one_sized_aligned,
    &delete_array_sized_aligned,
    &delete_one_nothrow,
    &delete_array_nothrow,
    &delete_one_aligned_nothrow,
    &delete_array_aligned_nothrow,
};

}  // namespace

void FindOperators() {
  void* const first = NextDefinition(new_one.name());
  const void* const allocator =
      ObjectOf(reinterpret_cast<const void*>(NextAllocator().calls.malloc));
  if (first == nullptr || ObjectOf(first) == allocator) return;
  for (OperatorBase* const op : kOperators) op->set_target(NextDefinition(op->name()));
}

}  // namespace host

MEMLEAK_CXX_EXPORT void* operator new(size_t size) {
  return host::Allocate(host::new_one, true, size);
}

MEMLEAK_CXX_EXPORT void* operator new(size_t size, const std::nothrow_t& tag) noexcept {
  return host::Allocate(host::new_one_nothrow, false, size, tag);
}

MEMLEAK_CXX_EXPORT void* operator new(size_t size, std::align_val_t alignment) {
  return host::Allocate(host::new_one_aligned, true, size, alignment);
}

MEMLEAK_CXX_EXPORT void* operator new(size_t size, std::align_val_t alignment,
                                      const std::nothrow_t& tag) noexcept {
  return host::Allocate(host::new_one_aligned_nothrow, false, size, alignment, tag);
}

MEMLEAK_CXX_EXPORT void* operator new[](size_t size) {
  return host::Allocate(host::new_array, true, size);
}

MEMLEAK_CXX_EXPORT void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
  return host::Allocate(host::new_array_nothrow, false, size, tag);
}

MEMLEAK_CXX_EXPORT void* operator new[](size_t size, std::align_val_t alignment) {
  return host::Allocate(host::new_array_aligned, true, size, alignment);
}

MEMLEAK_CXX_EXPORT void* operator new[](size_t size, std::align_val_t alignment,
                                        const std::nothrow_t& tag) noexcept {
  return host::Allocate(host::new_array_aligned_nothrow, false, size, alignment, tag);
}

MEMLEAK_CXX_EXPORT void operator delete(void* block) noexcept {
  host::Release(host::delete_one, block);
}

MEMLEAK_CXX_EXPORT void operator delete(void* block, size_t size) noexcept {
  host::Release(host::delete_one_sized, block, size);
}

MEMLEAK_CXX_EXPORT void operator delete(void* block, std::align_val_t alignment) noexcept {
  host::Release(host::delete_one_aligned, block, alignment);
}

MEMLEAK_CXX_EXPORT void operator delete(void* block, size_t size,
                                        std::align_val_t alignment) noexcept {
  host::Release(host::delete_one_sized_aligned, block, size, alignment);
}

MEMLEAK_CXX_EXPORT void operator delete(void* block, const std::nothrow_t& tag) noexcept {
  host::Release(host::delete_one_nothrow, block, tag);
}

MEMLEAK_CXX_EXPORT void operator delete(void* block, std::align_val_t alignment,
                                        const std::nothrow_t& tag) noexcept {
  host::Release(host::delete_one_aligned_nothrow, block, alignment, tag);
}

MEMLEAK_CXX_EXPORT void operator delete[](void* block) noexcept {
  host::Release(host::delete_array, block);
}

MEMLEAK_CXX_EXPORT void operator delete[](void* block, size_t size) noexcept {
  host::Release(host::delete_array_sized, block, size);
}

MEMLEAK_CXX_EXPORT void operator delete[](void* block, std::align_val_t alignment) noexcept {
  host::Release(host::delete_array_aligned, block, alignment);
}

MEMLEAK_CXX_EXPORT void operator delete[](void* block, size_t size,
                                          std::align_val_t alignment) noexcept {
  host::Release(host::delete_array_sized_aligned, block, size, alignment);
}

MEMLEAK_CXX_EXPORT void operator delete[](void* block, const std::nothrow_t& tag) noexcept {
  host::Release(host::delete_array_nothrow, block, tag);
}

MEMLEAK_CXX_EXPORT void operator delete[](void* block, std::align_val_t alignment,
                                          const std::nothrow_t& tag) noexcept {
  host::Release(host::delete_array_aligned_nothrow, block, alignment, tag);
}
