// SPDX-License-Identifier: Apache-2.0
#include "tools/target/state_file.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "tools/base/user_error.h"

namespace memleak {
namespace {

using protocol::State;

// The fields that all layouts share: the start of State.
struct Header {
  std::uint64_t magic;
  std::uint32_t layout;
  std::uint32_t bytes;
  char version[sizeof(State::version)];
};
static_assert(sizeof(Header) == offsetof(State, pid));

// A file that was cut short after it was mapped has pages that cannot be read.
void OnBusError(int) {
  constexpr std::string_view kText =
      "memleak: the state file of the process was cut short; restart the process\n";
  const ssize_t ignored = write(STDERR_FILENO, kText.data(), kText.size());
  _exit(ignored < 0 ? 3 : 2);
}

}  // namespace

StateFile::StateFile(Descriptor file) : file_(std::move(file)) {
  signal(SIGBUS, OnBusError);
  Check();
}

StateFile::~StateFile() {
  if (state_ != nullptr) munmap(state_, sizeof(State));
}

void StateFile::Check() {
  struct stat status {};
  if (fstat(file_.Number(), &status) != 0 || !S_ISREG(status.st_mode)) return;
  Header header{};
  if (pread(file_.Number(), &header, sizeof header, 0) != ssize_t{sizeof header}) return;
  if (header.magic != protocol::kStateMagic) return;
  version_ = TextOf(header.version);
  kind_ = StateKind::kIncompatible;
  if (header.layout != protocol::kStateLayout || header.bytes != sizeof(State) ||
      status.st_size < off_t{sizeof(State)} || version_ != MEMLEAK_VERSION) {
    return;
  }
  void* memory =
      mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED, file_.Number(), 0);
  if (memory == MAP_FAILED) {
    throw UserError(std::string("cannot map the state file: ") + std::strerror(errno),
                    "free some memory");
  }
  state_ = static_cast<State*>(memory);
  kind_ = StateKind::kValid;
}

protocol::Recording StateFile::RecordingOf(const protocol::Kind& kind) const {
  return state_->kinds[kind.type].recording;
}

}  // namespace memleak
