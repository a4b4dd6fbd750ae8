// SPDX-License-Identifier: Apache-2.0
// A bounded ring with a turn number in each slot, and the posted commands of the state.
#include "host/command_queue.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "host/fork_page.h"
#include "host/state.h"
#include "protocol/kinds.h"

namespace host {
namespace {

/// A slot with turn n is free for command n. A slot that contains command n has turn n + 1. Slot i
/// starts with turn i. It stores turn - i, so that the array is initially zero.
struct Slot {
  std::atomic<uint32_t> turn;
  std::atomic<uint32_t> parameter;
  std::atomic<uint64_t> word;
  std::atomic<uint32_t> ticket;
};

Slot slots[kRingCommands];
// Every fork reads them.
MEMLEAK_FORK_PAGE std::atomic<uint32_t> added{0};
MEMLEAK_FORK_PAGE std::atomic<uint32_t> taken_count{0};
std::atomic<uint32_t> dropped{0};

uint32_t Index(uint32_t number) {
  return number % kRingCommands;
}

/// Returns whether the slot of command `number` is filled. AddCommand claims a slot before it fills
/// it.
bool RingHasFirst(uint32_t number) {
  return slots[Index(number)].turn.load(std::memory_order_acquire) + Index(number) == number + 1;
}

Command Read(const Slot& slot) {
  return {slot.word.load(), slot.parameter.load()};
}

/// Returns the number of posted commands that wait; 0 if the file is damaged.
uint64_t Posted(const State& state) {
  const uint64_t count = state.sent.load() - state.done.load();
  return count <= protocol::kMaxPosted ? count : 0;
}

Command ReadPosted(const State& state, uint64_t number) {
  const protocol::PostedCommand& posted = state.posted[number % protocol::kMaxPosted];
  return {posted.word.load(), posted.parameter.load()};
}

bool IsReport(const Command& command) {
  return (command.word & protocol::kReportBits) != 0;
}

void AcknowledgePosted(uint64_t count, int error) {
  State& state = CurrentState();
  for (; count > 0; --count) {
    state.posted[state.done % protocol::kMaxPosted].error = error;
    state.done.fetch_add(1);
  }
  syscall(SYS_futex, &state.done, FUTEX_WAKE, 0x7fffffff, nullptr, nullptr, 0);
}

}  // namespace

bool AddCommand(const Command& command, uint32_t ticket) {
  uint32_t number = added.load();
  for (;;) {
    const uint32_t turn = slots[Index(number)].turn.load(std::memory_order_acquire) + Index(number);
    const auto lead = static_cast<int32_t>(turn - number);
    if (lead == 0) {
      if (added.compare_exchange_weak(number, number + 1)) break;
    } else if (lead < 0) {
      dropped.fetch_add(1);
      return false;
    } else {
      number = added.load();
    }
  }
  Slot& slot = slots[Index(number)];
  slot.word.store(command.word);
  slot.parameter.store(command.parameter);
  slot.ticket.store(ticket);
  slot.turn.store(number + 1 - Index(number), std::memory_order_release);
  return true;
}

bool CommandWaits() {
  return added.load() != taken_count.load() || Posted(CurrentState()) != 0;
}

bool FirstCommand(Command& command) {
  const State& state = CurrentState();
  const uint32_t number = taken_count.load();
  if (RingHasFirst(number)) {
    command = Read(slots[Index(number)]);
    return true;
  }
  if (Posted(state) == 0) return false;
  command = ReadPosted(state, state.done);
  return true;
}

Taken TakeCommand() {
  Taken taken{{}, 0, 0, protocol::Recipient::kTracker};
  uint32_t number = taken_count.load();
  const State& state = CurrentState();
  if (!RingHasFirst(number)) {
    const uint64_t count = Posted(state);
    taken.command = ReadPosted(state, state.done);
    taken.recipient = state.posted[state.done % protocol::kMaxPosted].recipient;
    taken.posted = 1;
    while (IsReport(taken.command) && taken.posted < count &&
           ReadPosted(state, state.done + taken.posted) == taken.command) {
      ++taken.posted;
    }
    return taken;
  }
  taken.command = Read(slots[Index(number)]);
  do {
    Slot& slot = slots[Index(number)];
    if (const uint32_t ticket = slot.ticket.load(); ticket != 0) taken.ticket = ticket;
    slot.turn.store(number + kRingCommands - Index(number), std::memory_order_release);
    taken_count.store(++number);
  } while (IsReport(taken.command) && RingHasFirst(number) &&
           Read(slots[Index(number)]) == taken.command);
  return taken;
}

void Acknowledge(const Taken& taken, int error) {
  if (taken.posted != 0) AcknowledgePosted(taken.posted, error);
}

void RefusePosted(int error) {
  const uint64_t count = Posted(CurrentState());
  if (count != 0) AcknowledgePosted(count, error);
}

void ForgetCommands() {
  if (added.load() == taken_count.load()) return;
  for (Slot& slot : slots) slot.turn.store(0);
  added.store(0);
  taken_count.store(0);
}

uint32_t TakeDropped() {
  return dropped.exchange(0);
}

}  // namespace host
