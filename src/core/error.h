// Error codes and their call chains. A code is a signed 32-bit number: the
// low byte is the message number (ERR_ in ravik.h), the next byte the chain
// slot plus one. Every fallible function passes its code through
// __add_context with its own name on the way out.
#pragma once

#include <cstdint>

#include "ravik.h"

namespace ravik {

constexpr int32_t ERR_CODE_MASK = 0xFF;

int32_t __add_context(const char *name, int32_t code);
// Stores the thread's last error; always 0.
int32_t set_error(int32_t code);
// The thread's last error, or ERR_TLS without an error block.
int32_t get_error();
// The text of a code: "" for 0, the fixed message without chain, the chain
// outermost first, or "bug!" for a chain slot never used on this thread.
const char *format_error(int32_t code);
// The fixed message of a message number (the low byte of a code).
const char *err_str(int32_t n);

} // namespace ravik

// Returns `code` through this function's own name.
#define RK_RETURN(code) return ::ravik::__add_context(__func__, (code))
// Reports `code` through the last error under this function's name.
#define RK_SET_ERROR(code) ::ravik::set_error(::ravik::__add_context(__func__, (code)))
