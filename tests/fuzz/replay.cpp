// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz target without a fuzzer: over its corpus, which contains the inputs of past faults,
// and over a fixed list of mutations. One process, one thread.
//
// If an input kills the process, it prints the name of the input first.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fuzz/support.h"

extern "C" {
/// The target's own mutator, if it has one.
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) __attribute__((weak));
/// Replaces libFuzzer's function for the targets' own mutators. Changes some of the `size` bytes at
/// `data` but never their number, although `most` bytes fit.
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);
}

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr unsigned int kMutations = 300;

std::mt19937 random_numbers;                 // default seed: the same numbers everywhere
std::array<char, 512> input_name{"none\n"};  // read by the handler

/// Restores the signal's default action, which ends the process when the instruction runs again.
void SayInput(int number) {
  const ssize_t written = write(STDERR_FILENO, input_name.data(), std::strlen(input_name.data()));
  static_cast<void>(written);
  signal(number, SIG_DFL);
}

std::size_t Below(std::size_t bound) {
  return random_numbers() % bound;
}

/// Changes `input` in place. `round` is the seed of the target's own mutator.
void Mutate(Bytes& input, unsigned int round) {
  if (LLVMFuzzerCustomMutator != nullptr) {
    LLVMFuzzerCustomMutator(input.data(), input.size(), input.size(), round);
    return;
  }
  LLVMFuzzerMutate(input.data(), input.size(), input.size());
  if (Below(8) == 0) input.resize(Below(input.size()) + 1);
}

TEST(Replay, CorpusAndItsMutations) {
  // AddressSanitizer prints its findings first, and then aborts.
  signal(SIGABRT, SayInput);
#if !defined(__SANITIZE_ADDRESS__)
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE}) signal(number, SayInput);
#endif
  std::set<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(FUZZ_CORPUS)) {
    files.insert(entry.path());
  }
  std::istringstream more(FUZZ_MORE);
  for (std::string file; std::getline(more, file, ':');) files.insert(file);
  ASSERT_FALSE(files.empty());
  for (const std::string& file : files) {
    std::ifstream contents(file, std::ios::binary);
    const Bytes seed{std::istreambuf_iterator<char>(contents), {}};
    ASSERT_FALSE(seed.empty()) << file;
    Bytes input = seed;
    // The unchanged seed, then short chains of mutations.
    for (unsigned int round = 0; round <= kMutations; ++round) {
      if (round % 4 == 1) input = seed;
      if (round != 0) Mutate(input, round);
      std::snprintf(input_name.data(), input_name.size(), "input: %s, mutation %u\n", file.c_str(),
                    round);
      LLVMFuzzerTestOneInput(input.data(), input.size());
    }
  }
}

}  // namespace

std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t /*most*/) {
  constexpr std::string_view kPlaces("\n =-+[]09afx\r\0", 14);
  for (std::size_t changes = 1 + Below(4); changes != 0 && size != 0; --changes) {
    const std::size_t at = Below(size);
    const std::size_t from = Below(size);
    if (Below(3) == 0) {
      std::memmove(data + at, data + from, std::min({Below(32), size - at, size - from}));
    } else {
      const char place = kPlaces[Below(kPlaces.size())];
      data[at] = static_cast<std::uint8_t>(Below(2) == 0 ? place : data[at] ^ 1 << Below(8));
    }
  }
  return size;
}
