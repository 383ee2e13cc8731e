// Module start-up and shutdown. (The logging settings and the module-wide state arrive with the logging work.)
#include "support/log.h"

void KspModuleAttach(void) {}
void KspModuleDetach(void) {}
