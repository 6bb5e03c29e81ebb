// SPDX-License-Identifier: Apache-2.0
// Kernel objects and time: events, waits, sleeps, the millisecond tick count.
#pragma once

#include "platform/types.h"

#ifndef _WIN32
HANDLE CreateEventW(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState,
                    LPCWSTR name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
BOOL CloseHandle(HANDLE handle);
void Sleep(DWORD milliseconds);
ULONGLONG GetTickCount64();
#endif
