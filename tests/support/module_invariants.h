// SPDX-License-Identifier: GPL-2.0-only
//
// What must hold in the module's tables whenever nobody is inside it:
//
//   each connection entry is in the chain of its key, alone with that key unless it is an orphan,
//   and names a living connection with a record, or none if it is one; the counts are those of the
//   chains;
//   a bridge entry is in the chain of its address, and has a reference for the table and one for
//   each connection entry that holds it;
//   each fragment entry is either in a bucket and in use or on the free list and not.
//
// For programs that link the module's objects. Process context, no packet, timer or other user of
// the module under way.
#pragma once

#include <string>

namespace tarvelo::test {

/// The first broken rule in words; empty when all hold, and without a published handle.
[[nodiscard]] std::string broken_invariant();

}  // namespace tarvelo::test
