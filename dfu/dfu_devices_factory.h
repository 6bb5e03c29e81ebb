// SPDX-License-Identifier: Apache-2.0
// Discovery of the family's devices in DFU mode.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "dfu/lynx_dfu_device.h"
#include "diag/dfu_logger.h"

class IDfuDevicesFactory : public DfuLogger {
  public:
    using DfuLogger::DfuLogger;
    ~IDfuDevicesFactory() override = default;
    // The devices present (after waiting up to timeoutMs for one, when it is not 0).
    virtual std::vector<std::shared_ptr<IDfuDevice>> GetDfuDevices(std::uint32_t timeoutMs) = 0;
};

// Joins what its family factories find.
class DfuDevicesFactory : public IDfuDevicesFactory {
  public:
    explicit DfuDevicesFactory(std::ostream* log);
    std::vector<std::shared_ptr<IDfuDevice>> GetDfuDevices(std::uint32_t timeoutMs) override;

  private:
    std::list<std::shared_ptr<IDfuDevicesFactory>> factories;
};

class LynxDfuDevicesFactory : public IDfuDevicesFactory {
  public:
    explicit LynxDfuDevicesFactory(std::ostream* log) : IDfuDevicesFactory(log) {}
    std::vector<std::shared_ptr<IDfuDevice>> GetDfuDevices(std::uint32_t timeoutMs) override;
};

std::shared_ptr<IDfuDevicesFactory> CreateDfuDevicesFactory(std::ostream* log);
