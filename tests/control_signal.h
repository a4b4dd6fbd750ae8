// The control signal as a controller sends it, and as a handler reads it.
#pragma once

#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>

constexpr int kTestControlSignal = 44;

struct ControlWords {
  std::uint64_t word;
  std::uint32_t parameter;
};

inline bool SendControlSignal(pid_t process, std::uint64_t word, std::uint32_t parameter = 0) {
  siginfo_t info{};
  info.si_signo = kTestControlSignal;
  info.si_code = SI_QUEUE;
  memcpy(reinterpret_cast<char*>(&info) + 16, &word, sizeof word);
  memcpy(reinterpret_cast<char*>(&info) + 24, &parameter, sizeof parameter);
  return syscall(SYS_rt_sigqueueinfo, process, kTestControlSignal, &info) == 0;
}

inline ControlWords ReadControlWords(const siginfo_t* info) {
  ControlWords words{};
  memcpy(&words.word, reinterpret_cast<const char*>(info) + 16, sizeof words.word);
  memcpy(&words.parameter, reinterpret_cast<const char*>(info) + 24, sizeof words.parameter);
  return words;
}
