// Unwinding inside a program that has closed every descriptor and opened files under their numbers:
// the files must stay as they are, and addresses must still be checked.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <unwindstack/Unwinder.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "tests/temporary_directory.h"

// Calls `function` with `frame` in the frame pointer. No unwind information says so: whoever
// unwinds through it has only the frame pointer to go by, and must check what it points to.
extern "C" void CallOnFrame(void (*function)(std::size_t*), std::size_t* count, const void* frame);
#if defined(__aarch64__)
__asm__(
    ".text\n"
    ".globl CallOnFrame\n"
    ".type CallOnFrame, %function\n"
    "CallOnFrame:\n"
    "  stp x29, x30, [sp, #-16]!\n"
    "  mov x29, x2\n"
    "  mov x9, x0\n"
    "  mov x0, x1\n"
    "  blr x9\n"
    "  ldp x29, x30, [sp], #16\n"
    "  ret\n"
    ".size CallOnFrame, .-CallOnFrame\n");
#else
__asm__(
    ".text\n"
    ".globl CallOnFrame\n"
    ".type CallOnFrame, @function\n"
    "CallOnFrame:\n"
    "  push %rbp\n"
    "  mov %rdx, %rbp\n"
    "  mov %rdi, %rax\n"
    "  mov %rsi, %rdi\n"
    "  call *%rax\n"
    "  pop %rbp\n"
    "  ret\n"
    ".size CallOnFrame, .-CallOnFrame\n");
#endif

namespace {

constexpr int kFirst = 3;
constexpr int kEnd = 64;

unwindstack::LocalUpdatableMaps& Maps() {
  static unwindstack::LocalUpdatableMaps maps;
  static const bool parsed = maps.Parse();
  EXPECT_TRUE(parsed);
  return maps;
}

/// By the fast way, or frame by frame from the registers.
template <bool kNames>
__attribute__((noinline)) void Unwind(std::size_t* count) {
  const std::unique_ptr<unwindstack::Regs> regs(unwindstack::Regs::CreateFromLocal());
  unwindstack::RegsGetLocal(regs.get());
  unwindstack::Unwinder unwinder(100, &Maps(), regs.get(),
                                 unwindstack::Memory::CreateProcessMemoryThreadCached(getpid()));
  unwinder.SetResolveNames(kNames);
  unwinder.Unwind();
  *count = unwinder.NumFrames();
}

/// Every kind of frame pointer that a function without unwind information may leave behind.
void CaptureThroughGarbage() {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* forbidden = mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(forbidden, MAP_FAILED);
  const std::uintptr_t record[64] = {0x1234567, 0x7654321};
  for (const auto function : {Unwind<false>, Unwind<true>}) {
    for (const void* frame : {static_cast<const void*>(record), static_cast<const void*>(forbidden),
                              reinterpret_cast<const void*>(std::uintptr_t{16}),
                              reinterpret_cast<const void*>(std::uintptr_t{0x5555'5555'0000})}) {
      std::size_t count = 0;
      CallOnFrame(function, &count, frame);
      EXPECT_GE(count, 2U) << frame;
    }
  }
  munmap(forbidden, page);
}

std::vector<int> OpenDescriptors() {
  std::vector<int> open;
  for (int file = 0; file < 256; ++file) {
    if (fcntl(file, F_GETFD) >= 0) open.push_back(file);
  }
  return open;
}

TEST(UnwindDescriptors, FilesOfTheProgramAreLeftAlone) {
  const TemporaryDirectory directory;
  const std::string text = "abcdefghijklmnopqrstuvwxyz";
  const std::string data = directory.Write("data", text);
  const std::vector<int> before = OpenDescriptors();
  CaptureThroughGarbage();
  EXPECT_EQ(OpenDescriptors(), before);

  for (int file = kFirst; file < kEnd; ++file) close(file);
  std::vector<int> files(6);
  for (int& file : files) file = open(data.c_str(), O_RDWR);
  EXPECT_EQ(files.front(), kFirst);
  for (int round = 0; round < 20; ++round) CaptureThroughGarbage();
  for (const int file : files) EXPECT_EQ(lseek(file, 0, SEEK_CUR), 0) << file;
  EXPECT_EQ(directory.Read("data"), text);
}

}  // namespace
