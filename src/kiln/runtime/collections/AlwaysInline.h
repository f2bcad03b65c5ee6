// Functions that are inlined whatever the compiler makes of their size.
#pragma once

/// Use in place of `inline` on the path of every event: in translation units as large as those of a unity
/// build, g++ would otherwise keep the function out of line, and the call takes about as long as the function
/// itself.
#define KILN_ALWAYS_INLINE [[gnu::always_inline]] inline

/// The same for a lambda, between its parameters and its body.
#define KILN_ALWAYS_INLINE_LAMBDA __attribute__((always_inline))
