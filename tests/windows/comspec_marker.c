// SPDX-License-Identifier: Apache-2.0
/* A user's program named in COMSPEC: started, it leaves "<its own path>.ran" beside itself. */
#include <windows.h>

int wmain(void) {
    wchar_t path[MAX_PATH + 8];
    const DWORD length = GetModuleFileNameW(NULL, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return 1;
    lstrcatW(path, L".ran");
    const HANDLE marker =
        CreateFileW(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (marker == INVALID_HANDLE_VALUE) return 1;
    CloseHandle(marker);
    return 0;
}
