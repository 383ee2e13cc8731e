// The log-folder fixture and the recorded event log are the harness's now; this name stays for
// the tests that include it.
#pragma once

#include "tests/harness/harness.h"
