// SPDX-License-Identifier: Apache-2.0
// A page for the variables that every fork writes, also in an idle process.
#pragma once

/// Puts a variable into the section of these variables. After a fork, the first write to each page
/// by parent or child costs a fault and a copy, so these variables share a page.
#define MEMLEAK_FORK_PAGE __attribute__((section(".data.fork")))
