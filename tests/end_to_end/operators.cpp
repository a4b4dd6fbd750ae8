// SPDX-License-Identifier: Apache-2.0
// Leaks one array of blocks for each form of allocation, and frees blocks of each form. Linked with
// an allocator that has operator new and delete of its own.
#include <cstdlib>
#include <new>

namespace {
struct alignas(64) Wide {
  char content[192];
};
void* volatile latest;
}  // namespace

__attribute__((noinline)) void Leak() {
  for (int i = 0; i < 1000; ++i) latest = ::operator new(1001);
  for (int i = 0; i < 500; ++i) latest = std::malloc(3003);
  for (int i = 0; i < 250; ++i) latest = new char[5005];
  for (int i = 0; i < 125; ++i) latest = new Wide[3];
  for (int i = 0; i < 100; ++i) latest = new (std::nothrow) char[7007];
}

int main() {
  Leak();
  for (int i = 0; i < 1000; ++i) {
    latest = ::operator new(50);
    ::operator delete (latest, std::size_t{50});
    char* const text = new char[9009];
    latest = text;
    delete[] text;
    Wide* const wide = new Wide;
    latest = wide;
    delete wide;
  }
}
