#include "tests/harness/harness.h"

#include <gtest/gtest.h>

#include "kvclient/kvc.h"
