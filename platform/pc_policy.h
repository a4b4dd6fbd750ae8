// Which program counters can name code. Used by the map index.
#pragma once

namespace platform {

/// Bounds on the number of hexadecimal digits of a pc, both inclusive.
struct PcWidth {
  int min_digits;
  int max_digits;
};

/// Android with 39-bit addresses: pcs from 0x10000000 to 0xFFFFFFFFFF.
inline constexpr PcWidth kAndroidPcWidth{8, 10};
/// Linux user space on x86-64 and on aarch64 with 48-bit addresses: up to 12 digits, and from 6 on,
/// as a program that is not position-independent lies at 0x400000 (Debian builds python3.11 so).
inline constexpr PcWidth kLinuxPcWidth{6, 12};

/// The bounds of the platform this was built for. Any thread, any context.
PcWidth AcceptedPcWidth();

}  // namespace platform
