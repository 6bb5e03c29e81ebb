#include "app/commands.h"

// Key 1. The camera update comes with the updatable camera.
void UpdateCameraDevice() {}
