// placeholder
#include "kvclient/kvc.h"
