// SPDX-License-Identifier: Apache-2.0
// The program's entry and its main menu loop.
#pragma once

void ShowMainMenu();

// The whole program as main runs it: returns the exit code (0 when the operator quits or
// the input ends). It also returns after a camera's write during which an interrupt was
// kept back; main then ends by that interrupt (platform::EndByKeptBackInterrupt) once its
// own work is done.
int RunLynxDfu();
