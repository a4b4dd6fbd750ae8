// SPDX-License-Identifier: Apache-2.0
#include "tools/report/wrappers.h"

#include <cstring>

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

}  // namespace memleak
