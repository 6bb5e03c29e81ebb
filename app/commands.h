// SPDX-License-Identifier: Apache-2.0
// The commands reached from the main menu.
#pragma once

#include <string>

void UpdateCameraDevice();
void ShowDevicesList(bool detailed, bool updatableOnly, const std::string& title);
void RecoverDfuDevices();
void ShowSettingsMenu();
void ConfigureDfuMode();
