// SPDX-License-Identifier: Apache-2.0
// Keeping the operator's interrupts back while a camera is being written, so that nothing
// leaves a device with half an image.
#pragma once

namespace platform {

// While at least one hold is alive, the interrupts an operator or a session can send are
// kept back instead of ending or stopping the program: Ctrl+C and Ctrl+Break, log off and shut
// down on Windows; SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGTTIN and SIGTTOU on POSIX.
// When the last hold ends, a stop that was asked for (SIGTSTP, SIGTTIN, SIGTTOU) is taken at
// once; an interrupt that ends the program is remembered (InterruptKeptBack) for the program
// to end by once its work is written out. Holds nest.
class InterruptHold {
  public:
    InterruptHold();
    ~InterruptHold();
    InterruptHold(const InterruptHold&) = delete;
    InterruptHold& operator=(const InterruptHold&) = delete;
};

// Whether an interrupt that ends the program arrived during a hold.
bool InterruptKeptBack();

// Ends the process the way the kept-back interrupt would have ended it, had it not been
// held: on POSIX by that signal with its default action, on Windows with the exit code of
// the system's own Ctrl+C handling, after the system's pause when the console window is the
// program's own (it would close before the last lines were read). Returns at once when
// nothing was kept back.
void EndByKeptBackInterrupt();

}  // namespace platform
