#include "app/commands.h"

// Key 3. Recovery comes with the DFU device discovery.
void RecoverDfuDevices() {}
