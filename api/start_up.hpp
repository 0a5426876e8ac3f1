// Internal: the start-up sequence shared by kesDBMInit and the directory start-up.
#pragma once

#include <cstdint>

#include "kesdbm/api.h"

namespace kes {

// The start-up steps of kesDBMInit with its result and error word. With `undoOnFailure`, a
// failed start-up also runs the shut-down partner of every step that ran, so the process is
// left as it was before the call (its counts, mappings and the database's registration).
int32_t startUp(const DBMInitParam* param, int32_t* errorWord, bool undoOnFailure);

}  // namespace kes
