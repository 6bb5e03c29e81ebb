// The cameras of the lab: plain webcams and cameras of the family with their extension unit.
#include "platform/sim/sim_world.h"

namespace sim {

SimCamera::SimCamera(SimWorld& world, CameraSpec spec, int index)
    : firmware(spec.firmware), world_(world), spec_(std::move(spec)), index_(index) {}

}  // namespace sim

HRESULT sim::SimWorld::OpenVideoDevice(const std::wstring&,
                                       std::unique_ptr<platform::VideoDeviceConnection>*) {
    return platform::HResultFromError(ERROR_FILE_NOT_FOUND);
}
