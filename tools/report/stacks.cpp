// SPDX-License-Identifier: Apache-2.0
#include "tools/report/stacks.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "protocol/protocol.h"
#include "tools/base/files.h"

namespace memleak {
namespace {

// The names end at the parameters, at a suffix of the compiler, or at a symbol version.
constexpr const char* kKnown =
    // C, and the usual names for versions that end the program without memory
    "^((__libc_|__|x|xx|_x|safe_|chk_|my_|do_|git__|apr_|je_|tc_|mi_)?"
    "(malloc|calloc|realloc|zalloc|reallocarray|memalign|aligned_alloc|valloc|pvalloc|strdup|"
    "strndup|memdup)|posix_memalign|"
    "x[in]?(n|2|2n|c|char|pal|size)?(malloc|calloc|realloc|zalloc|alloc|nmalloc|nrealloc)|"
    // Redis, nginx, PostgreSQL
    "z(try)?(malloc|calloc|realloc|strdup)(_usable)?(_internal)?|"
    "ngx_(alloc|calloc|memalign|palloc(_small|_large|_block)?|pnalloc|pcalloc|pmemalign|pstrdup|"
    "create_pool)|palloc(0|_extended)?|repalloc|pstrdup|pnstrdup|pg_(malloc|realloc|strdup)(0|_"
    "extended|_internal)?|AllocSet(Alloc|Realloc)(Large)?|MemoryContext(Alloc|Strdup)(Zero|"
    "ZeroAligned|Extended|Huge)?|"
    // GLib, libxml2, OpenSSL, FFmpeg, SQLite, Perl
    "g_(try_)?(malloc|realloc|calloc)(0|_n|0_n)?|g_slice_(alloc|alloc0|copy)|g_strn?dup|"
    "g_memdup2?|xml(Malloc|Realloc|MemStrdup|StrdupFunc|Strn?dup)(Loc)?|"
    "CRYPTO_(malloc|zalloc|calloc|realloc|clear_realloc|strdup|strndup|memdup)(_array)?|"
    "OPENSSL_(malloc|zalloc|realloc)|av_(malloc|mallocz|calloc|realloc|strdup|strndup|memdup)"
    "(_array|_f|p|p_array|z_array|z)?|sqlite3_(malloc|realloc)(64)?|"
    "sqlite3(Db)?(Malloc|Realloc|StrDup|StrNDup)(Zero|Raw|RawNN|NN|OrFree)?|sqlite3Mem(Malloc|"
    "Realloc)|Perl_(safesys|my_)(malloc|calloc|realloc)|"
    // Python
    "_?Py(Mem|Object|DataMem)_?(Raw|Debug|DebugRaw)?(Malloc|Calloc|Realloc|Alloc)|"
    "_PyMem_RawWcsdup|_PyMem_(Raw)?Strdup|_?PyObject_(GC_)?(New|NewVar|Malloc|Calloc|Resize)|"
    "_PyObject_GC_(New|NewVar|Malloc|Calloc|Resize)|_PyType_AllocNoTrack|PyType_GenericAlloc|"
    "gc_alloc|pymalloc_alloc|"
    // C++ and Rust
    "operator new(\\[\\])?|(std|__gnu_cxx)::(__)?(new_)?allocator(_traits)?<.*>::allocate|"
    "std::_Vector_base<.*>::_M_allocate|__rust_(alloc|realloc|alloc_zeroed)|"
    "__rdl_(alloc|realloc|alloc_zeroed)|alloc::alloc::(alloc|realloc|alloc_zeroed|"
    "exchange_malloc))(\\(.*|\\..*|@.*)?$";

struct StackHash {
  std::size_t operator()(const std::vector<std::uint32_t>& stack) const {
    std::size_t hash = stack.size();
    for (const std::uint32_t frame : stack) hash = (hash ^ frame) * 0x9e3779b97f4a7c15U;
    return hash ^ (hash >> 32U);
  }
};

}  // namespace

Wrappers::Wrappers(const std::string& skip) : known_(kKnown, "the list of wrappers") {
  if (!skip.empty()) more_.emplace(skip, "--skip");
}

bool Wrappers::Contains(const std::string& function) const {
  // Most names need no search with the long expression.
  constexpr const char* kParts[] = {"lloc",    "memalign",   "strdup", "strndup", "memdup",
                                    "new",     "New",        "Alloc",  "StrDup",  "StrNDup",
                                    "Strdup",  "Strndup",    "Wcsdup", "Resize",  "alloc",
                                    "g_slice", "create_pool"};
  for (const char* part : kParts) {
    if (function.find(part) == std::string::npos) continue;
    if (known_.Matches(function)) return true;
    break;
  }
  return more_ && !function.empty() && more_->Matches(function);
}

void FoldWrappers(const Wrappers& wrappers, Profile* profile) {
  std::vector<bool> is_wrapper;
  is_wrapper.reserve(profile->frames.size());
  for (const Frame& frame : profile->frames) {
    // The loader has its own operator new. It is on the stack if the program brings another one.
    const Library* const library = profile->LibraryOf(frame);
    const bool own = library != nullptr && LastPart(library->path) == protocol::kPreloadLibrary;
    is_wrapper.push_back(own || wrappers.Contains(frame.function));
  }
  for (Group& group : profile->groups) {
    const auto caller = std::find_if(group.stack.begin(), group.stack.end(),
                                     [&](std::uint32_t frame) { return !is_wrapper[frame]; });
    if (caller != group.stack.end()) group.stack.erase(group.stack.begin(), caller);
  }
}

void ClearCutOfWhole(Profile* profile) {
  // Of glibc and bionic. Their callers may lack a symbol.
  constexpr std::string_view kStarts[] = {"_start",
                                          "__libc_start_main",
                                          "__libc_start_main_impl",
                                          "__libc_start_call_main",
                                          "clone",
                                          "clone3",
                                          "__clone",
                                          "__clone3",
                                          "__GI_clone",
                                          "__GI___clone3",
                                          "start_thread",
                                          "__libc_init",
                                          "_start_main",
                                          "__start_thread",
                                          "__pthread_start"};
  constexpr std::size_t kOutermost = 3;
  std::vector<bool> starts;
  for (const Frame& frame : profile->frames) {
    const std::string_view name(
        frame.function.data(), std::min(frame.function.find_first_of("(@"), frame.function.size()));
    starts.push_back(std::ranges::find(kStarts, name) != std::end(kStarts));
  }
  for (Group& group : profile->groups) {
    const std::size_t checked = std::min(kOutermost, group.stack.size());
    group.cut = group.cut &&
                std::none_of(group.stack.end() - static_cast<std::ptrdiff_t>(checked),
                             group.stack.end(), [&](std::uint32_t frame) { return starts[frame]; });
  }
}

void MergeStacks(Profile* profile) {
  std::unordered_map<std::vector<std::uint32_t>, std::size_t, StackHash> known;
  std::vector<Group> merged;
  for (Group& group : profile->groups) {
    const auto [at, added] = known.try_emplace(group.stack, merged.size());
    if (added) {
      merged.push_back(std::move(group));
    } else {
      merged[at->second].Merge(group);
    }
  }
  std::ranges::stable_sort(merged, std::greater(), &Group::total);
  profile->groups = std::move(merged);
}

}  // namespace memleak
