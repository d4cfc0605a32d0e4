// The transfer buffer: one 1 MiB scratch block per thread through which
// Sahara payloads, Firehose commands and answers pass. It never grows. The
// acquire flag is no lock: it catches a layer that takes the buffer while
// another is in the middle of a job.
#pragma once

#include <cstdarg>
#include <cstdint>

namespace ravik {

constexpr int32_t BUFFER_SIZE = 0x100000;

// 0; ERR_GENERAL and an error line if held; else the last error.
int32_t __buffer_acquire();
// Ends any hold; counts nothing.
int32_t __buffer_release();
// Empties the buffer; the limit and the hold stay.
int32_t buffer_rewind();
// Appends what one device_read brings, up to the absolute end mark `wanted`
// (below 1: the whole buffer). Bytes read by this call; the text stays
// NUL-terminated.
int32_t buffer_read(int32_t wanted);
// Sends the whole fill in one device_write. Bytes written.
int32_t buffer_write();
char *buffer_base();
int32_t buffer_avail();
// Appends formatted text if it fits with its NUL; bytes added, else 0.
int32_t buffer_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int32_t buffer_vprintf(const char *fmt, va_list args);

} // namespace ravik
