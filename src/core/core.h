// Core services in one include: allocator, lists, per-thread blocks, errors,
// logger, utilities.
#pragma once

#include "core/alloc.h"
#include "core/error.h"
#include "core/list.h"
#include "core/logger.h"
#include "core/tls.h"
#include "core/util.h"
