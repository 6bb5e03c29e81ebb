// The program's entry and its main menu loop.
#pragma once

void ShowMainMenu();

// The whole program as main runs it: returns the exit code (0 when the operator quits or
// the input ends).
int RunLynxDfu();
