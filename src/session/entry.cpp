// Process start and end hooks of the library. Thread end is handled by the
// per-thread slots themselves: the platform frees a thread's blocks when the
// thread ends.
#include "core/tls.h"

namespace ravik {

namespace {

// A shared object cannot refuse to load from here; if no slot index can be
// had, every per-thread block is missing and each call reports ERR_TLS.
__attribute__((constructor)) void process_start() { tls_proc_attach(); }

__attribute__((destructor)) void process_end()
{
    tls_thread_detach();
    tls_proc_detach();
}

} // namespace

} // namespace ravik
