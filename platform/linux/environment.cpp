// SPDX-License-Identifier: Apache-2.0
// The environment variables that configure the tracker on Linux.
#include "platform/linux/environment.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "protocol/protocol.h"

namespace platform {
namespace {

constexpr const char* kNames[] = {protocol::kRootVariable, protocol::kLogVariable,
                                  protocol::kPropertiesVariable};
constexpr std::size_t kVariables = std::size(kNames);
static_assert(kVariables == std::size(protocol::Paths{}.values));

// Copies, because a program may overwrite its environment (to change its title) or unset variables
// at any time.
protocol::Paths g_own;
// Null: not captured.
std::atomic<const protocol::Paths*> g_paths{nullptr};

/// Runs before the program has other threads. Earlier calls of CapturedValue read the environment
/// itself.
__attribute__((constructor)) void CaptureAtLoad() {
  CaptureEnvironment();
}

}  // namespace

void CaptureEnvironment() {
  CaptureValues(std::getenv(kNames[0]), std::getenv(kNames[1]), std::getenv(kNames[2]));
}

void CaptureValues(const char* root, const char* log, const char* properties) {
  const char* const values[kVariables] = {root, log, properties};
  g_paths.store(nullptr, std::memory_order_relaxed);
  for (std::size_t i = 0; i < kVariables; ++i) {
    std::strncpy(g_own.values[i], values[i] != nullptr ? values[i] : "", kPathBytes - 1);
  }
  g_paths.store(&g_own, std::memory_order_release);
}

const protocol::Paths& CapturedPaths() {
  return g_own;
}

void UsePaths(const protocol::Paths* paths) {
  if (paths != nullptr) g_paths.store(paths, std::memory_order_release);
}

const char* CapturedValue(Variable variable) {
  const auto index = static_cast<std::size_t>(variable);
  const protocol::Paths* const paths = g_paths.load(std::memory_order_acquire);
  const char* value = paths != nullptr ? paths->values[index] : std::getenv(kNames[index]);
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
