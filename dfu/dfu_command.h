// SPDX-License-Identifier: Apache-2.0
// Writes one firmware image into a device that is already in DFU mode (DFU 1.1 class requests).
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>

#include "diag/dfu_logger.h"
#include "usb_core/usb_control_endpoint.h"

namespace dfu {

enum class DFU_STATE : std::uint8_t {
    appIDLE = 0,
    appDETACH = 1,
    dfuIDLE = 2,
    dfuDNLOAD_SYNC = 3,
    dfuDNBUSY = 4,
    dfuDNLOAD_IDLE = 5,
    dfuMANIFEST_SYNC = 6,
    dfuMANIFEST = 7,
    dfuMANIFEST_WAIT_RESET = 8,
    dfuUPLOAD_IDLE = 9,
    dfuERROR = 10,
};

#pragma pack(push, 1)
// The six-byte reply of DFU_GETSTATUS.
struct DfuStatus {
    std::uint8_t bStatus;
    std::uint8_t bwPollTimeout[3];
    std::uint8_t bState;
    std::uint8_t iString;
};
#pragma pack(pop)
static_assert(sizeof(DfuStatus) == 6);

class DfuCommand : public DfuLogger {
  public:
    DfuCommand(std::ostream* log, std::shared_ptr<usb_core::IUsbControlEndpoint> usbEndpoint,
               std::uint64_t fwStatusSize = 0);
    ~DfuCommand() override = default;

    HRESULT ExecuteFile(const char* path);
    HRESULT Execute(const void* firmwareImage, std::uint64_t imageLength);

    HRESULT GetDfuState(UCHAR& state);
    HRESULT Detach();
    HRESULT AssertState(DFU_STATE expected);
    HRESULT TestConnection();
    HRESULT DownloadImage(const BYTE* firmwareImage, std::uint64_t imageLength);
    HRESULT WaitForState(DFU_STATE awaited, std::uint32_t timeLimitMs);
    HRESULT ManifestAndReset();

  private:
    HRESULT GetStatus(DfuStatus& status);

    std::shared_ptr<usb_core::IUsbControlEndpoint> usbEndpoint;
    std::uint64_t fwStatusSize;
};

}  // namespace dfu
