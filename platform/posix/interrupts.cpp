// SPDX-License-Identifier: Apache-2.0
// Interrupts kept back while a camera is being written, and the terminal given back on every
// way out by a signal. Everything a handler does is async-signal-safe: lock-free atomics,
// sigaction, sigprocmask, raise, tcgetpgrp, getpgrp and tcsetattr.
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <iterator>

#include "platform/common/real_calls.h"
#include "platform/interrupts.h"
#include "platform/posix/signals.h"

namespace {

// Interrupts an operator or a session sends: those that end the program, those that stop it.
constexpr int kEnding[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr int kStopping[] = {SIGTSTP, SIGTTIN, SIGTTOU};
// Crashes after which the terminal must still be given back: the faults of an instruction,
// and an abort.
constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr int kOthers[] = {SIGABRT, SIGCONT};

template <std::size_t N>
bool IsIn(int sig, const int (&set)[N]) {
    return std::ranges::find(set, sig) != std::end(set);
}

std::atomic<int> holds{0};
std::atomic<int> keptBack{0};   // the first ending signal that arrived during a hold
std::atomic<int> stopAsked{0};  // the first stopping signal that arrived during a hold
std::atomic<bool> installed{false};
// What each signal did before; a signal that was ignored is left alone.
struct sigaction previous[NSIG];
bool handled[NSIG];

termios foundTerminal;
termios takenTerminal[2];
std::atomic<int> taken{-1};  // the slot of takenTerminal in force; -1: not guarded
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

bool InForeground() {
    const pid_t group = tcgetpgrp(STDIN_FILENO);
    return group != -1 && group == getpgrp();
}

// A process in the background leaves the terminal alone: its settings are someone else's.
void GiveTerminalBack() {
    if (taken.load() >= 0 && InForeground()) tcsetattr(STDIN_FILENO, TCSANOW, &foundTerminal);
}

void TakeTerminalAgain() {
    const int slot = taken.load();
    if (slot >= 0 && InForeground()) tcsetattr(STDIN_FILENO, TCSANOW, &takenTerminal[slot]);
}

void OnSignal(int sig, siginfo_t* info, void*);

void Catch(int sig) {
    struct sigaction action{};
    action.sa_sigaction = OnSignal;
    // Reads and writes go on after a handler that returns; the other signals of ours wait
    // while one is handled, SIGCONT excepted (a stop inside the handler needs it).
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int other : kEnding) sigaddset(&action.sa_mask, other);
    for (int other : kStopping) sigaddset(&action.sa_mask, other);
    sigaction(sig, &action, nullptr);
}

void Unblock(int sig) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

// Stops the process now, as the signal's default action does, and catches it again once
// the process continues.
void StopNow(int sig) {
    struct sigaction stop{};
    stop.sa_handler = SIG_DFL;
    sigaction(sig, &stop, nullptr);
    Unblock(sig);
    raise(sig);
    Catch(sig);
}

void OnSignal(int sig, siginfo_t* info, void*) {
    const int savedErrno = errno;
    if (sig == SIGCONT) {
        TakeTerminalAgain();
    } else if (holds.load() > 0 && (IsIn(sig, kEnding) || IsIn(sig, kStopping))) {
        int none = 0;
        if (IsIn(sig, kEnding)) {
            keptBack.compare_exchange_strong(none, sig);
        } else {
            stopAsked.compare_exchange_strong(none, sig);
            // A read or write from the background raises SIGTTIN or SIGTTOU each time it is
            // restarted; ignored, the write goes through. The hold's end catches it again.
            struct sigaction ignore{};
            ignore.sa_handler = SIG_IGN;
            sigaction(sig, &ignore, nullptr);
        }
    } else if (IsIn(sig, kStopping)) {
        GiveTerminalBack();
        StopNow(sig);
    } else {
        GiveTerminalBack();
        sigaction(sig, &previous[sig], nullptr);
        // A real fault happens again when the handler returns, now with the action it had
        // before (a sanitizer's report, or a core); a signal that was sent is sent again and
        // taken as soon as the handler returns.
        const bool realFault = IsIn(sig, kFaults) && info != nullptr && info->si_code > 0;
        if (!realFault) raise(sig);
    }
    errno = savedErrno;
}

template <std::size_t N>
void InstallFor(const int (&signals)[N]) {
    for (int sig : signals) {
        sigaction(sig, nullptr, &previous[sig]);
        handled[sig] = previous[sig].sa_handler != SIG_IGN;
        if (handled[sig]) Catch(sig);
    }
}

}  // namespace

namespace platform::posix {

void InstallSignalHandlers() {
    if (installed.exchange(true)) return;
    InstallFor(kEnding);
    InstallFor(kStopping);
    InstallFor(kFaults);
    InstallFor(kOthers);
}

void RemoveSignalHandlers() {
    if (!installed.exchange(false)) return;
    for (int sig = 1; sig < NSIG; ++sig) {
        if (handled[sig]) sigaction(sig, &previous[sig], nullptr);
        handled[sig] = false;
    }
}

void GuardTerminal(const termios& found, const termios& takenNow) {
    const int slot = taken.load();
    if (slot < 0) foundTerminal = found;
    const int next = slot == 0 ? 1 : 0;
    takenTerminal[next] = takenNow;
    taken.store(next);
}

void UnguardTerminal() {
    taken.store(-1);
}

}  // namespace platform::posix

namespace platform {

void real::HoldInterrupts() {
    posix::InstallSignalHandlers();
    holds.fetch_add(1);
}

void real::ReleaseInterrupts() {
    if (holds.fetch_sub(1) != 1) return;
    for (int sig : kStopping) {
        if (handled[sig]) Catch(sig);
    }
    // Taken now as if it had just arrived: the process stops and goes on when continued.
    if (const int stop = stopAsked.exchange(0)) raise(stop);
}

bool real::InterruptKeptBack() {
    return keptBack.load() != 0;
}

void real::EndByKeptBackInterrupt() {
    const int sig = keptBack.load();
    if (sig == 0) return;
    GiveTerminalBack();
    struct sigaction ending{};
    ending.sa_handler = SIG_DFL;
    sigaction(sig, &ending, nullptr);
    Unblock(sig);
    raise(sig);
    // Only reached if the signal's default action let the process live on.
    _exit(128 + sig);
}

}  // namespace platform
