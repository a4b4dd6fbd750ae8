// Keeps libunwind from using descriptors: its imports of the file functions lead here instead.
//
// The redirection runs at start-up, the functions that take the imports' place in any unwind.
#include "platform/standin/libunwind/unwind_descriptors.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/standin/raw_calls.h"

namespace platform {
namespace {

// What libunwind takes for the two ends of its pipe. The kernel hands out no negative numbers; -1
// means "none" to libunwind.
constexpr int kReadEnd = -1000;
constexpr int kWriteEnd = -1001;

/// Whether the byte at `address` can be read. The kernel reads the signal set before it refuses
/// the impossible request, so nothing is ever changed. Unlike the calls that read another process's
/// memory, this one is allowed in every sandbox.
bool IsReadable(std::uintptr_t address) {
  constexpr int kNoSuchRequest = -1;
  constexpr std::uintptr_t kSetBytes = 8;  // the kernel's sigset_t
  syscall(SYS_rt_sigprocmask, kNoSuchRequest, address / kSetBytes * kSetBytes, nullptr, kSetBytes);
  return errno != EFAULT;
}

/// As write(2) to the pipe, whose only purpose is the check: libunwind writes one byte at a time.
long CheckAddress(std::uintptr_t address, std::size_t count) {
  if (IsReadable(address)) return static_cast<long>(count);
  errno = EFAULT;
  return -1;
}

// --- What libunwind calls ------------------------------------------------------------------------

int MakePipe(int* ends) {
  ends[0] = kReadEnd;
  ends[1] = kWriteEnd;
  return 0;
}

int MakePipeWithFlags(int* ends, int /*flags*/) {
  return MakePipe(ends);
}

ssize_t Read(int file, void* buffer, std::size_t bytes) {
  if (file == kReadEnd) {
    errno = EAGAIN;  // an empty pipe
    return -1;
  }
  // Only the pipe is read a byte at a time: a real one, from an unwind before the redirection. Told
  // that it is broken, libunwind asks for a new one.
  if (bytes == 1) {
    errno = EBADF;
    return -1;
  }
  return RawRead(file, buffer, bytes);
}

ssize_t Write(int file, const void* bytes, std::size_t count) {
  if (file == kWriteEnd) return CheckAddress(reinterpret_cast<std::uintptr_t>(bytes), count);
  return RawWrite(file, bytes, count);
}

/// syscall(2), by which libunwind writes to its pipe on x86-64. Taking all six arguments, whether
/// the caller passed them or not, is what the C library's own function does.
long SystemCall(long number, long a, long b, long c, long d, long e, long f) {
  if (number == SYS_write && static_cast<int>(a) == kWriteEnd) {
    return CheckAddress(static_cast<std::uintptr_t>(b), static_cast<std::size_t>(c));
  }
  return syscall(number, a, b, c, d, e, f);
}

int Close(int file) {
  return file == kReadEnd || file == kWriteEnd ? 0 : RawClose(file);
}

// The two below have nothing to do with the pipe but are cancellation points like it.
int Open(const char* path, int flags, mode_t mode) {
  return RawOpen(path, flags, mode);
}

int SyncMemory(void* address, std::size_t bytes, int flags) {
  return static_cast<int>(syscall(SYS_msync, address, bytes, flags));
}

// --- Redirection ---------------------------------------------------------------------------------

template <typename Function>
std::uintptr_t AddressOf(Function* function) {
  return reinterpret_cast<std::uintptr_t>(function);
}

/// The function that takes the place of the import `name`, or 0. `makes_pipe` tells that it is the
/// one on which all the others depend.
std::uintptr_t ReplacementOf(std::string_view name, bool& makes_pipe) {
  makes_pipe = name == "pipe2" || name == "pipe";
  if (name == "pipe2") return AddressOf(MakePipeWithFlags);
  if (name == "pipe") return AddressOf(MakePipe);
  if (name == "read") return AddressOf(Read);
  if (name == "write") return AddressOf(Write);
  if (name == "syscall") return AddressOf(SystemCall);
  if (name == "close") return AddressOf(Close);
  if (name == "open") return AddressOf(Open);
  if (name == "msync") return AddressOf(SyncMemory);
  return 0;
}

/// Start of the page that `address` is in.
std::uintptr_t PageOf(std::uintptr_t address) {
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  return address / page * page;
}

/// A loaded object and what the redirection needs of it.
struct Object {
  std::uintptr_t inside = 0;  // an address by which it is found
  std::uintptr_t base = 0;
  const ElfW(Dyn) * dynamic = nullptr;
  std::uintptr_t sealed_begin = 0;  // the pages that the loader made read-only again
  std::uintptr_t sealed_end = 0;
};

/// Takes over the object that contains `inside`, provided that it is libunwind: a program that has
/// it linked in must keep its own calls.
int TakeObject(dl_phdr_info* info, std::size_t /*size*/, void* data) {
  Object& object = *static_cast<Object*>(data);
  bool contains = false;
  Object found = object;
  found.base = info->dlpi_addr;
  for (std::size_t i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& header = info->dlpi_phdr[i];
    const std::uintptr_t begin = info->dlpi_addr + header.p_vaddr;
    if (header.p_type == PT_LOAD) contains |= object.inside - begin < header.p_memsz;
    if (header.p_type == PT_DYNAMIC) found.dynamic = reinterpret_cast<const ElfW(Dyn)*>(begin);
    if (header.p_type != PT_GNU_RELRO) continue;
    found.sealed_begin = PageOf(begin);
    found.sealed_end = PageOf(begin + header.p_memsz);
  }
  if (!contains) return 0;
  const std::string_view path = info->dlpi_name;
  if (path.substr(path.rfind('/') + 1).substr(0, 9) == "libunwind") object = found;
  return 1;
}

/// Puts `value` into an import slot of `object`.
bool Fill(const Object& object, std::uintptr_t slot, std::uintptr_t value) {
  const bool sealed = slot >= object.sealed_begin && slot < object.sealed_end;
  auto* const page = reinterpret_cast<void*>(PageOf(slot));
  const std::size_t length = slot + sizeof(slot) - PageOf(slot);
  if (sealed && mprotect(page, length, PROT_READ | PROT_WRITE) != 0) return false;
  __atomic_store_n(reinterpret_cast<std::uintptr_t*>(slot), value, __ATOMIC_RELEASE);
  if (sealed) mprotect(page, length, PROT_READ);
  return true;
}

/// Redirects the imports of `object`: in the first pass all but the pipe, which without the others
/// would be of no use, and in the second that. The C library keeps the addresses in a dynamic
/// section absolute.
bool Redirect(const Object& object, bool pipe_pass) {
  const ElfW(Sym)* symbols = nullptr;
  const char* names = nullptr;
  struct {
    const ElfW(Rela) * entries = nullptr;
    std::size_t bytes = 0;
  } tables[2];
  for (const ElfW(Dyn)* entry = object.dynamic; entry->d_tag != DT_NULL; ++entry) {
    const auto table = reinterpret_cast<const ElfW(Rela)*>(entry->d_un.d_ptr);
    if (entry->d_tag == DT_SYMTAB) symbols = reinterpret_cast<const ElfW(Sym)*>(table);
    if (entry->d_tag == DT_STRTAB) names = reinterpret_cast<const char*>(table);
    if (entry->d_tag == DT_JMPREL) tables[0].entries = table;
    if (entry->d_tag == DT_PLTRELSZ) tables[0].bytes = entry->d_un.d_val;
    if (entry->d_tag == DT_RELA) tables[1].entries = table;
    if (entry->d_tag == DT_RELASZ) tables[1].bytes = entry->d_un.d_val;
  }
  if (symbols == nullptr || names == nullptr) return false;
  unsigned filled = 0;
  for (const auto& table : tables) {
    const std::size_t count = table.entries != nullptr ? table.bytes / sizeof(ElfW(Rela)) : 0;
    for (std::size_t i = 0; i < count; ++i) {
      const ElfW(Rela)& entry = table.entries[i];
      // Whatever refers to one of these functions by name is a slot with its address.
      bool makes_pipe = false;
      const char* name = names + symbols[ELF64_R_SYM(entry.r_info)].st_name;
      const std::uintptr_t replacement = ReplacementOf(name, makes_pipe);
      if (replacement == 0 || makes_pipe != pipe_pass) continue;
      if (!Fill(object, object.base + entry.r_offset, replacement)) return false;
      ++filled;
    }
  }
  return filled >= (pipe_pass ? 1U : 3U);  // reading, writing and closing
}

}  // namespace

bool KeepUnwinderOffDescriptors() {
  Object object;
  // By its name, since a program's own reference to a function may be to a stub of its own.
  object.inside = reinterpret_cast<std::uintptr_t>(dlsym(RTLD_DEFAULT, "unw_backtrace"));
  if (object.inside == 0) return false;
  dl_iterate_phdr(TakeObject, &object);
  return object.dynamic != nullptr && Redirect(object, false) && Redirect(object, true);
}

}  // namespace platform
