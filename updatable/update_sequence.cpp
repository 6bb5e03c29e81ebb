#include "updatable/lynx_updatable_device.h"

// The update sequence needs the DFU-mode discovery; until it lands no update can run.
HRESULT LynxUpdatableDevice::UpdateFirmware(const char*) {
    return E_FAIL;
}
