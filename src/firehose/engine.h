// The recipe engine: packages name recipes, recipes are flat lists of
// commands, and every command is one tag. Storage, backup and the session
// run their own commands through firehose_do_fmt as if they stood in a recipe.
#pragma once

#include <cstdint>

#include "core/list.h"
#include "tags/tags.h"

namespace ravik {

struct simg;
struct device_object;

struct firehose_module {
    bool initialised;
    device_object *device;
    simg *input;            // where file names are taken from now; not owned
    list_head ufs_commands; // ufs taglines since the last commit; not owned
};

// The module, made and brought up (storage type, chip version, secure state)
// on first use; null with the error slot set.
firehose_module *get_firehose();
simg *firehose_get_input();
// The previous input; null and nothing stored if the module cannot be had.
simg *firehose_set_input(simg *input);
// Runs a package or recipe document; the last response (owned by the link)
// or null, the outcome in the error slot.
xtags *firehose_do(xtags *doc);
void firehose_do_pkg(xtags *package);
// One command, formatted printf style without its envelope.
xtags *firehose_do_fmt(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int32_t apply_filters(xtags *doc);
// The walks below firehose_do, without its filtering: a nested container's
// package runs through do_package directly.
xtags *do_package(xtags *doc);
xtags *do_recipe(xtags *doc);

} // namespace ravik
