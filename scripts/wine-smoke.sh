#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs lynx-dfu.exe under Wine with scripts of answers and checks what it prints: first on a
# system without Media Foundation (as Windows N editions and Server without the media
# feature are), where the program must start and every command that needs no camera must
# work; then once with Media Foundation present. Throughout, the session is one that an
# unprivileged program has prepared: COMSPEC names a planted program, and DLLs named as the
# system's lie beside the exe; neither may ever run. Runs recorded with --record replay in
# the Linux lab (LYNX_LAB, or build/default's) with the same standard output. The Wine prefix
# is a fresh temporary folder, removed when the test ends.
set -euo pipefail

built="${1:?usage: wine-smoke.sh path/to/lynx-dfu.exe [path/to/comspec_marker.exe [path/to/interrupted_write.exe]]}"
marker_exe="${2:-$(dirname "$built")/../tests/windows/comspec_marker.exe}"
interrupted_exe="${3:-$(dirname "$built")/../tests/windows/interrupted_write.exe}"
source "$(dirname "$0")/wine-prefix.sh"

failures=0

# run NAME ANSWERS EXPECTED-TEXT...: the program must exit 0 and print every expected text.
run() {
  local name="$1" answers="$2"
  shift 2
  local out status=0
  out=$(printf '%b' "$answers" | timeout 300 "$wine" "$exe" 2>/dev/null) || status=$?
  if [ "$status" -ne 0 ]; then
    echo "FAIL $name: exit status $status"
    failures=$((failures + 1))
    return
  fi
  for text in "$@"; do
    if ! grep -qF -- "$text" <<<"$out"; then
      echo "FAIL $name: missing \"$text\""
      printf '%s\n' "$out" | sed 's/^/    | /'
      failures=$((failures + 1))
      return
    fi
  done
  echo "ok   $name"
}

# record_case NAME ANSWERS: the program, recording, must exit 0; the recording names Windows
# and replays in the Linux lab with exit status 0 and the same standard output (the Windows
# program's CR LF line ends aside). The file already exists with other content: it is emptied.
lab="${LYNX_LAB:-$(cd "$(dirname "$0")/.." && pwd)/build/default/app/lynx-dfu-lab}"
record_case() {
  local name="$1" answers="$2" status=0 replay_status=0
  local recording="$public/recorded.jsonl" shown="$WINEPREFIX/recorded-out.txt" replayed="$WINEPREFIX/replayed-out.txt"
  echo "stale content" >"$recording"
  printf '%b' "$answers" | timeout 300 "$wine" "$exe" --record 'C:\users\Public\recorded.jsonl' 2>/dev/null |
    sed 's/\r$//' >"$shown" || status=$?
  [ -x "$lab" ] && timeout 120 "$lab" --replay "$recording" >"$replayed" 2>"$WINEPREFIX/replay-err.txt" || replay_status=$?
  if [ "$status" = 0 ] && [ "$replay_status" = 0 ] && [ -s "$shown" ] && cmp -s "$shown" "$replayed" &&
    head -n 1 "$recording" | grep -F '"platform":"windows"' >/dev/null && ! grep -F 'stale' "$recording" >/dev/null; then
    echo "ok   recorded, replayed in the Linux lab with the same output: $name ($(wc -l <"$recording") lines)"
  else
    echo "FAIL recorded and replayed: $name (exit status $status, replay $replay_status, lab $lab)"
    diff "$shown" "$replayed" 2>&1 | head -20 | sed 's/^/    | /'
    sed 's/^/    | /' "$WINEPREFIX/replay-err.txt" 2>/dev/null | head -5
    head -c 600 "$recording" 2>/dev/null | sed 's/^/    | /'
    failures=$((failures + 1))
  fi
}

# The first run creates the Wine prefix.
"$wine" cmd /c exit >/dev/null 2>&1 || true

# What any user may do without rights: set COMSPEC for the session (HKCU\Environment) to a
# program of theirs, which leaves a marker file if it ever runs, and put DLLs named as the
# system's beside the exe (not DLLs at all: loaded, they would fail the load).
public="$WINEPREFIX/drive_c/users/Public"
mkdir -p "$public/tool"
cp "$marker_exe" "$public/comspec_marker.exe"
marker="$public/comspec_marker.exe.ran"
"$wine" reg add 'HKCU\Environment' /v COMSPEC /d 'C:\users\Public\comspec_marker.exe' /f >/dev/null 2>&1
cp "$built" "$public/tool/lynx-dfu.exe"
exe="$public/tool/lynx-dfu.exe"
for dll in winusb cfgmgr32 mfplat mf; do echo "planted" >"$public/tool/$dll.dll"; done
# The plant works: a program started now sees the planted COMSPEC.
timeout 30 wineserver -w || true
if "$wine" cmd /c 'echo %COMSPEC%' 2>/dev/null | tr -d '\r' | grep -Fx 'C:\users\Public\comspec_marker.exe' >/dev/null; then
  echo "ok   COMSPEC planted in HKCU\Environment reaches new processes"
else
  echo "FAIL COMSPEC plant did not take"
  failures=$((failures + 1))
fi

# Without Media Foundation: the loader must not refuse the program.
# Without WinUSB and the configuration manager either: each is the failure of the step that
# needs it, never of the program.
export WINEDLLOVERRIDES="mfplat,mf,winusb,cfgmgr32=d"
echo "-- without Media Foundation, WinUSB and cfgmgr32 ($WINEDLLOVERRIDES)"
run "main menu, then Q" 'q\n' \
  "Vantrel (TM) Lynx Windows Device Firmware Update Tool for Vantrel Optyra Technology Main Menu" \
  "5: Configure Lynx Series Windows Device Firmware Update Tool Settings (Can run with or without camera device connected)." \
  "Q: Quit"
run "end of input quits" '' "Q: Quit"
run "answers ending in CR LF" '3\r\nq\r\n' "No devices are stuck in DFU mode" "Q: Quit"
run "key 2 lists no camera" '2\n\nq\n' "Vantrel (TM) Updatable Devices List"
run "key 1 finds no camera to update" '1\n\nq\n' "Vantrel (TM) Firmware Update:" "There are no updatable devices"
run "key 3 finds no DFU device and goes on" '3\n\nq\n' "Vantrel (TM) Recovering devices from DFU" \
  "No devices are stuck in DFU mode" "Q: Quit"
run "key 4 settings lists, then back" '4\n1\n\n2\n\nb\nq\n' \
  "Vantrel (TM) Configure Lynx Series Windows Device Firmware Update Tool Settings (Can run with or without camera device connected)." \
  "Vantrel (TM) All Cameras List (including non Vantrel)" \
  "Vantrel (TM) Detailed All Cameras List (including non Vantrel)"
run "key 5 without a camera sets service control" '5\n1\n1\n\nq\n' \
  "Vantrel (TM) Configure DFU mode:" "[1] Lynx"

record_case "keys 2 and 3 without Media Foundation" '2\n\n3\n\nq\n'

# What key 5 stored, read back with Wine's own registry tool rather than our code.
stored=$("$wine" reg query 'HKLM\SYSTEM\CurrentControlSet\Services\OptyraCameraDFU' /v DFUAutoMode 2>/dev/null | tr -d '\r')
if grep -Eq '^ +DFUAutoMode +REG_SZ +Service Controlled$' <<<"$stored"; then
  echo "ok   registry holds DFUAutoMode REG_SZ \"Service Controlled\""
else
  echo "FAIL registry value after key 5:"
  printf '%s\n' "$stored" | sed 's/^/    | /'
  failures=$((failures + 1))
fi

# Typed on a console rather than piped: with a terminal as standard input Wine gives the
# program a console, and answers are read with ReadConsoleW. Keys 2, 3 and Q, a key at each
# pause: seven clears (Wine's cls homes the cursor, ESC [ H), two pauses. The terminal's
# cursor moves are dropped from the output, with the blanks they stand for.
# Each key is typed once the screen shows what it answers (at most 60 s each).
screen="$WINEPREFIX/typed-screen.txt"
: >"$screen"
shown() { tr -d '\033 ' <"$screen" | sed 's/\[[0-9;?]*[a-zA-Z]//g'; }
type_when() { # type_when TEXT COUNT KEYS: KEYS once TEXT is on the screen COUNT times
  local i
  for i in $(seq 600); do
    [ "$(shown | grep -acF "$1")" -ge "$2" ] && break
    sleep 0.1
  done
  printf "$3"
}
( type_when 'Q:Quit' 1 '2\r'; type_when 'Pressanykey' 1 '\r'; type_when 'Q:Quit' 2 '3\r'
  type_when 'Pressanykey' 2 '\r'; type_when 'Q:Quit' 3 'q\r'; type_when 'exitstatus=' 1 '') |
  timeout 300 script -qfec "$wine $exe; echo exitstatus=\$?" /dev/null >"$screen" 2>/dev/null || true
clears=$(grep -ao $'\033\\[H' "$screen" | wc -l) || true
typed=$(shown)
if grep -aF 'NodevicesarestuckinDFUmode' <<<"$typed" >/dev/null &&
  grep -aF 'UpdatableDevicesList' <<<"$typed" >/dev/null &&
  [ "$(grep -acF 'Pressanykeytocontinue' <<<"$typed")" -ge 2 ] && [ "$clears" -ge 7 ] &&
  [ "$(grep -acF 'Q:Quit' <<<"$typed")" -ge 3 ] && grep -aF 'exitstatus=0' <<<"$typed" >/dev/null; then
  echo "ok   answers typed on a console: keys 2, 3 and Q, $clears clears and two pauses"
else
  echo "FAIL answers typed on a console ($clears clears):"
  printf '%s\n' "$typed" | sed 's/^/    | /' | tail -20
  failures=$((failures + 1))
fi

# A write interrupted by a real Ctrl+C (tests/windows/interrupted_write.cpp, the program's own
# interrupt service): on a console of its own the last lines stay under the system's pause until
# a key, then the process ends as Ctrl+C ends it (0xC000013A, seen by the shell as 0x3A = 58);
# on a console shared with cmd.exe it ends at once, as before.
echo "-- a write interrupted by Ctrl+C"
cp "$interrupted_exe" "$public/tool/interrupted_write.exe"
interrupted="$public/tool/interrupted_write.exe"
# interrupt_run COMMAND KEY: COMMAND on a terminal; KEY typed once the pause shows; the screen
# left in $screen. Ends with the command, at most 60 s.
interrupt_run() {
  : >"$screen"
  ( local i typed=no
    for i in $(seq 600); do
      shown | grep -aqF 'exitstatus=' && break
      if [ $typed = no ] && shown | grep -aqF 'Pressanykey'; then printf "$2"; typed=yes; fi
      sleep 0.1
    done ) | timeout 120 script -qfec "$1; echo exitstatus=\$?" /dev/null >"$screen" 2>/dev/null || true
}
# interrupt_case NAME PAUSES: the screen shows the kept-back Ctrl+C, the last line, the pause
# PAUSES times (0 or 1), and the exit status of Ctrl+C.
interrupt_case() {
  local typed
  typed=$(shown)
  if grep -aqF 'Ctrl+Ckeptback' <<<"$typed" && grep -aqF 'bytesremaining0' <<<"$typed" &&
    [ "$(grep -acF 'Pressanykeytocontinue' <<<"$typed")" -eq "$2" ] &&
    grep -aqF 'exitstatus=58' <<<"$typed" && ! grep -aqF 'endedwithoutaninterrupt' <<<"$typed"; then
    echo "ok   $1"
  else
    echo "FAIL $1:"
    printf '%s\n' "$typed" | sed 's/^/    | /' | tail -20
    failures=$((failures + 1))
  fi
}
interrupt_run "$wine $interrupted" '\r'
interrupt_case "own console: the last lines, the pause, a key, then the end by Ctrl+C" 1
# A Ctrl+C typed at the pause reaches the system's default handler, the hold being over: the
# program ends at once instead of waiting on. (Its exit status is the default handler's:
# STATUS_CONTROL_C_EXIT on Windows, 0 in Wine 8, so only the end is checked.)
interrupt_run "$wine $interrupted" '\003'
if grep -aqE 'Pressanykeytocontinue.*exitstatus=(0|58)([^0-9]|$)' <<<"$(shown)"; then
  echo "ok   own console: a second Ctrl+C at the pause ends the program"
else
  echo "FAIL own console: a second Ctrl+C at the pause:"
  shown | sed 's/^/    | /' | tail -20
  failures=$((failures + 1))
fi
interrupt_run "$wine cmd /c 'C:\\users\\Public\\tool\\interrupted_write.exe --handler'" '\r'
interrupt_case "console shared with cmd.exe: no pause, the end by Ctrl+C" 0

# The hold's hidden window, seen through Wine's own trace of the calls into user32: made by a
# thread other than the main one (which sends the Ctrl+C), and the block reason set and then
# cleared from that same thread (the only one the system accepts them from) with the window's
# handle, once each. (Wine 8's ShutdownBlockReasonCreate is a stub that fails, and it has no
# ShutdownBlockReasonQuery to read the reason back.) Without a console nothing is kept back, and
# the process ends with status 0: the window's thread does not keep it alive.
"$wine" reg add 'HKCU\Software\Wine\Debug' /v RelayInclude /f /d 'kernel32.GenerateConsoleCtrlEvent;user32.CreateWindowExW;user32.ShutdownBlockReasonCreate;user32.ShutdownBlockReasonDestroy' >/dev/null 2>&1
status=0
trace=$(WINEDEBUG=+relay timeout 120 "$wine" "$interrupted" </dev/null 2>&1 >/dev/null) || status=$?
# (Each grep may find nothing; the checks below then fail.)
trace=$(tr -d '\r' <<<"$trace" | grep -Ei '^[0-9a-f]+:Call +(user32|kernel32)\.|^[0-9a-f]+:Ret +user32.CreateWindowExW' || true)
made=$(grep -F 'Call user32.CreateWindowExW(' <<<"$trace" | grep -F 'L"LynxDfuWriteGuard"' | head -n 1 || true)
thread=${made%%:*}
main=$(grep -Fi 'Call kernel32.GenerateConsoleCtrlEvent(' <<<"$trace" | head -n 1 || true)
main=${main%%:*}
window=$(grep -E "^$thread:Ret +user32.CreateWindowExW\(\) retval=" <<<"$trace" | head -n 1 | sed 's/.*retval=\([0-9a-f]*\).*/\1/' || true)
calls=$(grep -E '^[0-9a-f]+:Call user32\.ShutdownBlockReason' <<<"$trace" | sed 's/) ret=.*/)/; s/,[0-9a-f]* L"/,L"/' || true)
expected="$thread:Call user32.ShutdownBlockReasonCreate($window,L\"Writing camera firmware: do not turn off or log off\")
$thread:Call user32.ShutdownBlockReasonDestroy($window)"
if [ "$status" = 0 ] && [ -n "$thread" ] && [ -n "$main" ] && [ "$thread" != "$main" ] &&
  [ -n "$window" ] && [ "$calls" = "$expected" ]; then
  echo "ok   the guard window made on its own thread ($thread), the block reason set there"
else
  echo "FAIL the guard window and its block reason (exit status $status):"
  printf '%s\n' "$trace" | sed 's/^/    | /' | head -20
  failures=$((failures + 1))
fi

# With Media Foundation (Wine's enumerates no device).
# Commands for scripts: a report in a file (the way out of an elevated run) and a usage error,
# each with its exit status.
echo "-- commands"
report="$public/report.json" status=0
rm -f "$report"
timeout 300 "$wine" "$exe" list --report 'C:\users\Public\report.json' </dev/null >/dev/null 2>&1 || status=$?
if [ "$status" = 0 ] && grep -F '"command": "list"' "$report" >/dev/null &&
  grep -F '"exitStatus": 0' "$report" >/dev/null && grep -F '"devices": []' "$report" >/dev/null; then
  echo "ok   list --report FILE: exit status 0, the report in the file"
else
  echo "FAIL list --report FILE: exit status $status, report:"
  sed 's/^/    | /' "$report" 2>/dev/null || true
  failures=$((failures + 1))
fi
status=0
refused=$(timeout 300 "$wine" "$exe" frobnicate </dev/null 2>&1 >/dev/null | tr -d '\r') || status=$?
if [ "$status" = 2 ] && [ "$(head -n 1 <<<"$refused")" = "lynx-dfu.exe: unknown command 'frobnicate'" ] &&
  grep -Fx 'usage: lynx-dfu.exe list [--json] [--report FILE]' <<<"$refused" >/dev/null; then
  echo "ok   an unknown command: exit status 2, the problem and the usage"
else
  echo "FAIL an unknown command: exit status $status:"
  printf '%s\n' "$refused" | sed 's/^/    | /'
  failures=$((failures + 1))
fi

unset WINEDLLOVERRIDES
echo "-- with Media Foundation"
run "key 2 lists no camera" '2\n\nq\n' "Vantrel (TM) Updatable Devices List" "Q: Quit"

record_case "keys 2, 3 and 5 with Media Foundation and the registry" '2\n\n3\n\n5\n1\n1\n\nq\n'
# Anything but a file on disk is refused before the program runs.
status=0
refused=$(timeout 300 "$wine" "$exe" --record NUL </dev/null 2>&1 >/dev/null | tr -d '\r') || status=$?
if [ "$status" = 2 ] && [ "$(head -n 1 <<<"$refused")" = "lynx-dfu.exe: cannot write the recording 'NUL': not a file on disk" ]; then
  echo "ok   --record NUL: refused, exit status 2"
else
  echo "FAIL --record NUL: exit status $status:"
  printf '%s\n' "$refused" | sed 's/^/    | /'
  failures=$((failures + 1))
fi

# Loaded at run time, from the system folder, once a command lists cameras.
loaded=$(printf '2\n\nq\n' | WINEDEBUG=+loaddll timeout 300 "$wine" "$exe" 2>&1 >/dev/null | tr -d '\r' || true)
if grep -Fi 'Loaded L"C:\\windows\\system32\\mfplat.dll"' <<<"$loaded" >/dev/null &&
  grep -Fi 'Loaded L"C:\\windows\\system32\\mf.dll"' <<<"$loaded" >/dev/null; then
  echo "ok   mfplat.dll and mf.dll loaded from system32"
else
  echo "FAIL Media Foundation not loaded from system32:"
  grep -i 'loaddll' <<<"$loaded" | sed 's/^/    | /' | head -20
  failures=$((failures + 1))
fi

# The configuration manager from system32 (key 3 lists the DFU-mode devices), with keys 3
# and 5 working; nothing planted beside the exe is loaded.
loaded=$(printf '3\n\n5\n1\n1\n\nq\n' | WINEDEBUG=+loaddll timeout 300 "$wine" "$exe" 2>&1 | tr -d '\r' || true)
if grep -Fi 'Loaded L"C:\\windows\\system32\\cfgmgr32.dll"' <<<"$loaded" >/dev/null &&
  grep -F 'No devices are stuck in DFU mode' <<<"$loaded" >/dev/null &&
  grep -F 'Vantrel (TM) Configure DFU mode:' <<<"$loaded" >/dev/null &&
  ! grep -Fi 'users\\Public\\tool\\' <<<"$loaded" | grep -Fiv 'lynx-dfu.exe' >/dev/null; then
  echo "ok   cfgmgr32.dll loaded from system32 for key 3, keys 3 and 5 work, nothing planted loaded"
else
  echo "FAIL cfgmgr32 not from system32, or keys 3 and 5 failed:"
  grep -i 'loaddll\|DFU' <<<"$loaded" | sed 's/^/    | /' | head -20
  failures=$((failures + 1))
fi

# The planted interpreter never ran, through all of the sessions above.
if [ -e "$marker" ]; then
  echo "FAIL the program named in COMSPEC ran"
  failures=$((failures + 1))
else
  echo "ok   the program named in COMSPEC never ran"
fi

if [ "$failures" -ne 0 ]; then
  echo "wine smoke test: $failures failure(s)"
  exit 1
fi
echo "wine smoke test passed"
