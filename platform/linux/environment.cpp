// SPDX-License-Identifier: Apache-2.0
// The environment variables that configure the tracker on Linux.
#include "platform/linux/environment.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "protocol/protocol.h"

namespace platform {
namespace {

constexpr const char* kNames[] = {protocol::kRootVariable, protocol::kLogVariable,
                                  protocol::kPropertiesVariable};
constexpr std::size_t kVariables = sizeof(kNames) / sizeof(kNames[0]);

// Copies, because a program may overwrite its environment (to change its title) or unset variables
// at any time.
char g_values[kVariables][kPathBytes];
std::atomic<bool> g_captured{false};

/// Runs before the program has other threads. Earlier calls of CapturedValue read the environment
/// itself.
__attribute__((constructor)) void CaptureAtLoad() {
  CaptureEnvironment();
}

}  // namespace

void CaptureEnvironment() {
  g_captured.store(false, std::memory_order_relaxed);
  for (std::size_t i = 0; i < kVariables; ++i) {
    const char* value = std::getenv(kNames[i]);
    std::strncpy(g_values[i], value != nullptr ? value : "", kPathBytes - 1);
  }
  g_captured.store(true, std::memory_order_release);
}

const char* CapturedValue(Variable variable) {
  const auto index = static_cast<std::size_t>(variable);
  const char* value =
      g_captured.load(std::memory_order_acquire) ? g_values[index] : std::getenv(kNames[index]);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

std::size_t ExpandPath(const char* pattern, const char* suffix, char (&path)[kPathBytes]) {
  std::size_t length = 0;
  const auto put = [&path, &length](char c) {
    if (length < kPathBytes - 1) path[length++] = c;
  };
  protocol::ExpandPid(pattern, getpid(), put);
  for (; *suffix != '\0'; ++suffix) put(*suffix);
  path[length] = '\0';
  return length;
}

}  // namespace platform
