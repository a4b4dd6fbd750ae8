// How the tracker learns that the program unloads libraries.
#pragma once

namespace protocol {

/// Name of the loader's variable (std::atomic<std::uint64_t>) that counts calls of dlclose: one
/// before each call and one after it. What is known about code in memory holds as long as the
/// number stays the same. Without a loader there is no such variable.
inline constexpr char kUnloadCounter[] = "memleak_unload_counter";

}  // namespace protocol
