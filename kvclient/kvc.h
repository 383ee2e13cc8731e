// The Key Vault client: one configured connection to one vault.
#pragma once

#include "support/bldstr.h"
#include "support/timeseam.h"

struct KVC;
