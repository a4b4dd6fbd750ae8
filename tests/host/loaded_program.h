// SPDX-License-Identifier: Apache-2.0
// What the cases of the program share.
#pragma once

#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <string>

#include "protocol/state.h"
#include "tests/control_signal.h"

#define CHECK(condition)                                                                        \
  do {                                                                                          \
    if (!(condition)) {                                                                         \
      fprintf(stderr, "%s:%d: not so: %s (errno %d)\n", __FILE__, __LINE__, #condition, errno); \
      _exit(1);                                                                                 \
    }                                                                                           \
  } while (false)

inline const char* Environment(const char* name) {
  const char* value = getenv(name);
  CHECK(value != nullptr);
  return value;
}

inline int WaitFor(pid_t child) {
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

inline bool HasReport(pid_t process) {
  std::string path = Environment("MEMLEAK_TRACKER_ROOT");
  path.replace(path.find("%p"), 2, std::to_string(process));
  std::ifstream report(path + "/data/log/reliability/allocations_dump");
  const std::string text{std::istreambuf_iterator<char>(report), {}};
  return text.size() > 3 && text.compare(text.size() - 3, 3, "END") == 0;
}

inline void Churn(int rounds) {
  void* blocks[64] = {};
  for (int i = 0; i < rounds; ++i) {
    void*& slot = blocks[i % 64];
    slot = i % 3 == 0 ? realloc(slot, static_cast<size_t>(i % 3000 + 1)) : (free(slot), malloc(99));
  }
  for (void* block : blocks) free(block);
}

/// Sends `count` commands, alternating `first` and `second`, and waits until all are carried out.
inline void CarryOut(uint64_t first, uint64_t second = 0, uint64_t count = 1) {
  const auto* pointer =
      static_cast<std::atomic<protocol::State*>*>(dlsym(RTLD_DEFAULT, protocol::kStateVariable));
  const uint64_t before = pointer->load()->carried_out;
  for (uint64_t i = 0; i < count; ++i) {
    CHECK(SendControlSignal(getpid(), i % 2 == 0 ? first : second));
  }
  // The handler may run late, on another thread.
  for (int i = 0; i < 240'000 && pointer->load()->carried_out - before < count; usleep(1000)) {
    free(malloc(static_cast<size_t>(++i)));
  }
  CHECK(pointer->load()->carried_out - before >= count);
  CHECK(pointer->load()->control_thread == protocol::ControlThread::kRunning);
}

/// A process that is hostile to the control channel.
int Hostile();
