// Functions that are inlined whatever the compiler makes of their size.
#pragma once

/// For what every event passes through, in place of `inline`: in units as large as those of a build g++ would
/// leave it out of line, which takes about as long again as the function itself.
#define KILN_ALWAYS_INLINE [[gnu::always_inline]] inline

/// The same for a lambda, between its parameters and its body.
#define KILN_ALWAYS_INLINE_LAMBDA __attribute__((always_inline))
