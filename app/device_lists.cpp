#include "app/commands.h"

// Keys 2, 4 and 5. The lists come with the camera enumeration.
void ShowDevicesList(bool, bool, const std::string&) {}
void ShowSettingsMenu() {}
void ConfigureDfuMode() {}
