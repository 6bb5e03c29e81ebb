// SPDX-License-Identifier: Apache-2.0
// The process's signal handling on POSIX, shared by the interrupt hold and the console.
#pragma once

#include <termios.h>

namespace platform::posix {

// Installs, once, the handlers that keep interrupts back during a hold, give the terminal
// back before the process ends or stops by a signal and take it up again when the process
// continues. A signal that the process was started with ignored stays ignored.
void InstallSignalHandlers();
// Puts back the actions the signals had before InstallSignalHandlers.
void RemoveSignalHandlers();

// While guarded, `found` is put back on standard input's terminal before the process ends
// or stops by a signal, and `taken` is set again when it continues in the foreground.
// Calling it again while guarded changes `taken` only.
void GuardTerminal(const termios& found, const termios& taken);
void UnguardTerminal();

}  // namespace platform::posix
