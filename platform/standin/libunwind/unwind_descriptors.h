// Keeps libunwind from using descriptors of the watched program.
//
// Called by the map reader at start-up; what it puts in place runs in every unwind, on any thread.
#pragma once

namespace platform {

/// Makes libunwind check addresses with a system call of ours instead of its pipe.
///
/// libunwind keeps a pipe and writes the byte at an address into it, to learn whether the address
/// is readable. A program that closes all descriptors, as daemons do, and then opens files gets
/// them under the pipe's numbers; libunwind would read and write those files.
///
/// Redirects libunwind's own imports, once a process is enough; the code of this file must stay
/// loaded from then on. False, and nothing changed, when libunwind or its imports are not found in
/// the form expected. Before the first unwind, preferably while there is one thread. Takes the
/// loader's lock; allocates nothing itself.
bool KeepUnwinderOffDescriptors();

}  // namespace platform
