#include <atomic>

#include "backup/bnr.h"

namespace ravik {

namespace {
// Shared by every session of the process; atomic so a session reading it
// while another thread sets it is well defined.
std::atomic<bool> forced{false};
} // namespace

bool bnr_is_forced() { return forced.load(std::memory_order_relaxed); }
void bnr_enable_forced() { forced.store(true, std::memory_order_relaxed); }

} // namespace ravik
