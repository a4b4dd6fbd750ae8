// SPDX-License-Identifier: Apache-2.0
// The variables that a fork of an idle process writes.
#pragma once

/// Puts a variable into .data, with the others of this kind. After a fork, each page that the
/// parent or the child writes to costs a fault and a copy. So these variables share a page.
#define MEMLEAK_FORK_PAGE __attribute__((section(".data.fork")))
