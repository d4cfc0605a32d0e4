// The handlers of the recipe language, one per command. Each takes its tag,
// may change it, sets the error slot and returns the response document of
// the target's last answer, or null.
#pragma once

#include "ravik.h"
#include "tags/tags.h"

namespace ravik {

struct firehose_module;

int32_t init_firehose();
xtags *do_configure(tagline *tag);

xtags *do_program(tagline *tag);
xtags *send_raw(const void *start, uint32_t size);
xtags *do_read(tagline *tag);
xtags *do_dump(tagline *tag);
xtags *do_patch(tagline *tag);

xtags *do_sleep(tagline *tag);
xtags *do_print(tagline *tag);
xtags *do_logger(tagline *tag);
xtags *do_power(tagline *tag);
xtags *do_setbootable(tagline *tag);
xtags *do_storage(tagline *tag);
xtags *do_backup(tagline *tag);
xtags *do_restore(tagline *tag);
xtags *do_wipe(tagline *tag);
xtags *do_ufs(tagline *tag);
xtags *do_flash(tagline *tag);

struct simg;
// The nested run of a container within a container: its first compatible
// package, with input switched to it for the length of the run.
xtags *find_first_package(simg *handle);
int32_t flash_simg(simg *handle);
// Reset, wait for the port, upload the programmer again from input; the
// link wakes again at its next use.
int32_t power_cycle();

// Commands whose work lives in modules still to come: they fail plainly
// rather than reach the target as unknown orders.
xtags *not_yet(tagline *tag);

// The no-response rule: an exchange that left no document and no code has
// timed out.
inline int32_t no_response_code(const xtags *doc, int32_t code)
{
    return !doc && code == 0 ? ERR_NO_RESPONSE : code;
}

} // namespace ravik
