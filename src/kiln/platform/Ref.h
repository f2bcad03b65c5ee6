// Counted references: how entities and stages are shared.
#pragma once

#include <memory>

namespace KilnPlatform {

/// A counted reference. The count is atomic only in a process that has started a second thread, which is what
/// the standard library's implementation does by itself.
template <class T>
using Ref = std::shared_ptr<T>;

}  // namespace KilnPlatform
