// SPDX-License-Identifier: GPL-2.0-only
//
// Privileges given back once they have done their service. Call these while the process has one
// thread: what they change belongs to a thread, and later ones inherit it.
#pragma once

#include <string>

namespace tarvelo::app {

/// Gives up every capability (capabilities(7)) for good, and when run as root its identity as well:
/// the process goes on as nobody, in no group. No program that it starts can gain any back. Root of
/// a user namespace that knows no nobody keeps its number there, which is no privilege outside.
/// Throws input_error when it may not become nobody, std::system_error otherwise.
void drop_privileges();

/// For a process that only has to take a mount away later: as root all that is kept is what
/// unmounting and removing directories takes. Throws std::system_error.
void keep_unmounting_privileges();

}  // namespace tarvelo::app
