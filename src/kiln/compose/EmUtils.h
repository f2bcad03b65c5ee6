// The translation of logical keys that need no resource.
#pragma once

#include "kiln/runtime/model/EmTypes.h"

namespace KilnEmServer {

/// The hardware key of a logical key of type 4, 5, 7 or 8: the same chip and core, and field for field the
/// same composer key. Throws std::range_error if a field does not fit the hardware's width; any other type is
/// an assertion failure.
EmHwKey translateToSwTableKey(const EmLogicalKey& key);

}  // namespace KilnEmServer
