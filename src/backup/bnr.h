// Backup and restore of the partitions that must survive a flash.
#pragma once

namespace ravik {

// Forced mode: backup and restore stay on for secure targets. One switch for
// the whole process, off at load, never cleared once set.
bool bnr_is_forced();
void bnr_enable_forced();

} // namespace ravik
