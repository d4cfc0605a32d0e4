// Choosing the package of a container for the identified board.
#pragma once

#include "tags/tags.h"

namespace ravik {

struct simg;

// The package document meant for the board of "cpu.id", owned by the caller;
// null, with the reason logged, when there is none. Sets "cpu.name" and,
// where the index gives one, "storage.type".
xtags *load_package(simg *image);

} // namespace ravik
