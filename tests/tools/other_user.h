// Runs a piece of a test without root's rights, for what only other users are refused.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <optional>
#include <string>

namespace memleak {

/// What `action` returns in a forked child that runs as nobody; nothing where this process may not
/// become another user.
inline std::optional<std::string> AsOtherUser(const std::function<std::string()>& action) {
  constexpr uid_t kNobody = 65534;
  std::array<int, 2> answer{};
  if (geteuid() != 0 || pipe(answer.data()) != 0) return std::nullopt;
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(1);
    const std::string text = action();
    _exit(write(answer[1], text.data(), text.size()) < 0 ? 1 : 0);
  }
  close(answer[1]);
  std::string text;
  std::array<char, 4096> buffer{};
  ssize_t count = 0;
  while ((count = read(answer[0], buffer.data(), buffer.size())) > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  close(answer[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return text;
}

}  // namespace memleak
