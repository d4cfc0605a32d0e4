// Flash and wipe by partition name, and the storage command.
#include "firehose/commands.h"

namespace ravik {

xtags *do_storage(tagline *tag) { return not_yet(tag); }
xtags *do_wipe(tagline *tag) { return not_yet(tag); }
xtags *do_flash(tagline *tag) { return not_yet(tag); }

} // namespace ravik
