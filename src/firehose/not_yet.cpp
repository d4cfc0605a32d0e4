#include "core/core.h"
#include "firehose/commands.h"

namespace ravik {

xtags *not_yet(tagline *tag)
{
    RK_LOGE("'%s' is not supported by this build\n", tag->name);
    set_error(ERR_NOT_SUPPORTED);
    return nullptr;
}

} // namespace ravik
