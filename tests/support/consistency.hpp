// The test suite's consistency checker is the tool's: "kesdb check" and the tests verify a
// database's media with the same core (tools/check.hpp lists the invariants).
#pragma once

#include "tools/check.hpp"

namespace ck = kesdb::check;
