// SPDX-License-Identifier: GPL-2.0-only
//
// The thread that makes the calls of call_rcu().
#pragma once

namespace hosted {

/// Starts the thread, which otherwise starts with the first call_rcu(), and where the program
/// cannot go on without it. Throws std::system_error when there may be no more threads. Any thread,
/// any number of times.
void start_deferred_calls();

}  // namespace hosted
