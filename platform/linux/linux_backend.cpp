// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/linux_backend.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "platform/common/wide_stream.h"
#include "platform/ks.h"
#include "platform/linux/camera_functions.h"
#include "platform/linux/capture_nodes.h"
#include "platform/linux/settings_store.h"
#include "platform/linux/sysfs.h"
#include "platform/linux/uevent_monitor.h"
#include "platform/linux/usb_paths.h"
#include "platform/linux/uvc_descriptors.h"
#include "platform/usb_descriptors.h"

namespace platform::linux_hw {
namespace {

constexpr std::uint8_t kInfoSupportsSet = 0x02;

// Long enough for a device that is busy writing flash; short enough not to hang the tool.
constexpr unsigned kControlTimeoutMs = 5000;

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

int RetryIoctl(int fd, unsigned long request, void* argument) {
    int result;
    do {
        result = ::ioctl(fd, request, argument);
    } while (result < 0 && errno == EINTR);
    return result;
}

// --- USB devices through usbfs ---------------------------------------------------------

class UsbfsConnection final : public UsbDeviceConnection {
  public:
    explicit UsbfsConnection(int fd) : fd_(fd) {}
    ~UsbfsConnection() override {
        for (unsigned number : claimed_) {
            unsigned interfaceNumber = number;
            RetryIoctl(fd_.get(), USBDEVFS_RELEASEINTERFACE, &interfaceNumber);
        }
    }

    ErrorCode GetDescriptor(std::uint8_t type, std::uint8_t index, std::uint16_t language,
                            std::uint8_t* buffer, std::uint32_t length,
                            std::uint32_t* transferred) override {
        const UsbSetupPacket setup{0x80, usb::USB_REQ_GET_DESCRIPTOR,
                                   static_cast<std::uint16_t>((type << 8) | index), language,
                                   static_cast<std::uint16_t>(std::min(length, 0xFFFFu))};
        return ControlTransfer(setup, buffer, setup.wLength, transferred);
    }

    ErrorCode ClaimInterface(std::uint8_t interfaceNumber) override {
        unsigned number = interfaceNumber;
        if (RetryIoctl(fd_.get(), USBDEVFS_CLAIMINTERFACE, &number) < 0) {
            return ErrorFromErrno(errno);
        }
        claimed_.insert(number);
        return ERROR_SUCCESS;
    }

    ErrorCode ReleaseInterface(std::uint8_t interfaceNumber) override {
        unsigned number = interfaceNumber;
        if (claimed_.erase(number) == 0) return ERROR_SUCCESS;
        if (RetryIoctl(fd_.get(), USBDEVFS_RELEASEINTERFACE, &number) < 0) {
            return ErrorFromErrno(errno);
        }
        return ERROR_SUCCESS;
    }

    ErrorCode SetAlternateSetting(std::uint8_t interfaceNumber,
                                  std::uint8_t alternateSetting) override {
        usbdevfs_setinterface request{};
        request.interface = interfaceNumber;
        request.altsetting = alternateSetting;
        if (RetryIoctl(fd_.get(), USBDEVFS_SETINTERFACE, &request) < 0) {
            return ErrorFromErrno(errno);
        }
        return ERROR_SUCCESS;
    }

    ErrorCode ControlTransfer(const UsbSetupPacket& setup, std::uint8_t* buffer,
                              std::uint32_t length, std::uint32_t* transferred) override {
        if (transferred != nullptr) *transferred = 0;
        length = std::min<std::uint32_t>(length, setup.wLength);
        if (length > 0 && buffer == nullptr) return ERROR_INVALID_PARAMETER;
        usbdevfs_ctrltransfer request{};
        request.bRequestType = setup.bRequestType;
        request.bRequest = setup.bRequest;
        request.wValue = setup.wValue;
        request.wIndex = setup.wIndex;
        // The data stage is what the caller's buffer holds, never more than the setup says.
        request.wLength = static_cast<std::uint16_t>(length);
        request.timeout = kControlTimeoutMs;
        request.data = buffer;
        const int result = RetryIoctl(fd_.get(), USBDEVFS_CONTROL, &request);
        if (result < 0) return ErrorFromErrno(errno);
        if (transferred != nullptr) *transferred = static_cast<std::uint32_t>(result);
        return ERROR_SUCCESS;
    }

  private:
    FileDescriptor fd_;
    std::set<unsigned> claimed_;
};

// --- cameras through V4L2 and uvcvideo ---------------------------------------------------

class V4l2Connection final : public VideoDeviceConnection {
  public:
    // `fds`: the function's capture nodes, lowest first.
    V4l2Connection(std::vector<std::unique_ptr<FileDescriptor>> fds, UvcControlInterface control)
        : fds_(std::move(fds)), control_(std::move(control)) {}

    HRESULT GetNodeCount(std::uint32_t* count) override {
        *count = static_cast<std::uint32_t>(control_.entities.size());
        return S_OK;
    }

    HRESULT GetNodeType(std::uint32_t node, GUID* type) override {
        if (node >= control_.entities.size()) return HResultFromError(ERROR_NOT_FOUND);
        *type = NodeTypeOf(control_.entities[node]);
        return S_OK;
    }

    HRESULT OpenNode(std::uint32_t node) override {
        return node < control_.entities.size() ? S_OK : HResultFromError(ERROR_NOT_FOUND);
    }

    HRESULT NodeProperty(std::uint32_t node, const GUID& propertySet, std::uint32_t id,
                         std::uint32_t flags, std::uint8_t* data, std::uint32_t length,
                         std::uint32_t* returned) override {
        *returned = 0;
        if (node >= control_.entities.size()) return HResultFromError(ERROR_NOT_FOUND);
        if (!(flags & KSPROPERTY_TYPE_TOPOLOGY)) return HResultFromError(ERROR_SET_NOT_FOUND);
        const UvcEntity& unit = control_.entities[node];
        if (unit.kind != UvcEntityKind::kExtensionUnit || unit.extensionCode != propertySet) {
            return HResultFromError(ERROR_SET_NOT_FOUND);
        }
        if (id == 0 || id > 0xFF || !unit.HasControl(static_cast<std::uint8_t>(id))) {
            return HResultFromError(ERROR_NOT_FOUND);
        }
        const auto selector = static_cast<std::uint8_t>(id);
        const std::uint32_t request = flags & ~KSPROPERTY_TYPE_TOPOLOGY;

        if (request == KSPROPERTY_TYPE_SETSUPPORT) {
            std::uint8_t info = 0;
            const ErrorCode error = Query(unit.id, selector, usb::UVC_GET_INFO, &info, 1);
            if (error != ERROR_SUCCESS) return HResultFromError(error);
            return (info & kInfoSupportsSet) ? S_OK : HResultFromError(ERROR_NOT_SUPPORTED);
        }
        if (request != KSPROPERTY_TYPE_GET && request != KSPROPERTY_TYPE_SET)
            return HResultFromError(ERROR_NOT_SUPPORTED);

        std::uint8_t lengthBytes[2] = {};
        ErrorCode error = Query(unit.id, selector, usb::UVC_GET_LEN, lengthBytes, 2);
        if (error != ERROR_SUCCESS) return HResultFromError(error);
        const std::uint32_t size = usb::Le16(lengthBytes);
        if (request == KSPROPERTY_TYPE_GET) {
            if (data == nullptr || length < size) {
                // As kernel streaming does: the caller learns the size it needs.
                *returned = size;
                return HResultFromError(ERROR_INSUFFICIENT_BUFFER);
            }
            error = Query(unit.id, selector, usb::UVC_GET_CUR, data, size);
            if (error != ERROR_SUCCESS) return HResultFromError(error);
            *returned = size;
            return S_OK;
        }
        if (data == nullptr || length < size) return HResultFromError(ERROR_INVALID_PARAMETER);
        error = Query(unit.id, selector, usb::UVC_SET_CUR, data, size);
        return error == ERROR_SUCCESS ? S_OK : HResultFromError(error);
    }

  private:
    ErrorCode Query(std::uint8_t unit, std::uint8_t selector, std::uint8_t query,
                    std::uint8_t* data, std::uint32_t size) {
        if (size > 0xFFFF) return ERROR_INVALID_PARAMETER;
        uvc_xu_control_query request{};
        request.unit = unit;
        request.selector = selector;
        request.query = query;
        request.size = static_cast<std::uint16_t>(size);
        request.data = data;
        // uvcvideo answers for a unit only on a node whose chain holds it: the lowest such
        // node is found once and kept.
        const int error = QueryThroughChains(fds_.size(), &unitNode_[unit], [&](std::size_t node) {
            return RetryIoctl(fds_[node]->get(), UVCIOC_CTRL_QUERY, &request) < 0 ? errno : 0;
        });
        return error == 0 ? ERROR_SUCCESS : ErrorFromErrno(error);
    }

    std::vector<std::unique_ptr<FileDescriptor>> fds_;
    UvcControlInterface control_;
    std::map<std::uint8_t, std::size_t> unitNode_;
};

class LinuxBackend final : public DeviceBackend {
  public:
    explicit LinuxBackend(LinuxPaths paths)
        : paths_(std::move(paths)), settings_(paths_.settings) {}

    std::vector<std::wstring> ListUsbDeviceInterfaces() override {
        std::vector<std::wstring> paths;
        for (const std::string& name : ListUsbDeviceNames(UsbDevicesDir())) {
            if (auto address = ReadAddress(name)) paths.push_back(BuildUsbInterfacePath(*address));
        }
        return paths;
    }

    ErrorCode OpenUsbDevice(const std::wstring& interfacePath,
                            std::unique_ptr<UsbDeviceConnection>* connection) override {
        const auto wanted = ParseUsbInterfacePath(interfacePath);
        if (!wanted) return ERROR_FILE_NOT_FOUND;
        const auto present = ReadAddress(wanted->sysName);
        if (!present || present->deviceNumber != wanted->deviceNumber ||
            present->vendorId != wanted->vendorId || present->productId != wanted->productId) {
            return ERROR_FILE_NOT_FOUND;
        }
        const auto bus =
            ReadNumberAttribute(UsbDevicesDir() + "/" + wanted->sysName + "/busnum", 10);
        if (!bus) return ERROR_FILE_NOT_FOUND;
        char node[64];
        std::snprintf(node, sizeof node, "/bus/usb/%03u/%03u", *bus, wanted->deviceNumber);
        const int fd = ::open((paths_.dev + node).c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0) return ErrorFromErrno(errno);
        *connection = std::make_unique<UsbfsConnection>(fd);
        return ERROR_SUCCESS;
    }

    std::uint64_t SubscribeUsbEvents(UsbEventCallback callback) override {
        return monitor_.Subscribe(std::move(callback));
    }

    void UnsubscribeUsbEvents(std::uint64_t subscription) override {
        monitor_.Unsubscribe(subscription);
    }

    std::vector<VideoCaptureDeviceInfo> ListVideoCaptureDevices(VideoCategory category) override {
        std::vector<VideoCaptureDeviceInfo> devices;
        // Linux has no sensor-camera category; every camera is a plain one, named by the
        // lowest capture node of its function.
        if (category != VideoCategory::kVideoCapture) return devices;
        const std::vector<CaptureNode> nodes = CaptureNodes();
        for (const CameraFunction& function : GroupCameraFunctions(NodeRecords(nodes))) {
            const CaptureNode& node = *std::find_if(nodes.begin(), nodes.end(), [&](const auto& n) {
                return NodeNumber(n.nodeName) == function.nodes.front();
            });
            devices.push_back({node.friendlyName,
                               BuildVideoLink(node.address, node.interfaceNumber, node.nodeName)});
        }
        return devices;
    }

    HRESULT OpenVideoDevice(const std::wstring& symbolicLink,
                            std::unique_ptr<VideoDeviceConnection>* connection) override {
        const auto link = ParseVideoLink(symbolicLink);
        if (!link) return HResultFromError(ERROR_FILE_NOT_FOUND);
        const auto node = DescribeCaptureNode(paths_.sys, link->nodeName, Capabilities());
        // The node number may have been given to another camera since the link was made.
        if (!node || node->address.sysName != link->address.sysName ||
            node->address.deviceNumber != link->address.deviceNumber ||
            node->interfaceNumber != link->interfaceNumber) {
            return HResultFromError(ERROR_FILE_NOT_FOUND);
        }
        const auto descriptors = ReadWholeFile(node->usbDeviceDir + "/descriptors");
        const auto configuration =
            ReadNumberAttribute(node->usbDeviceDir + "/bConfigurationValue", 10);
        if (!descriptors || !configuration) return HResultFromError(ERROR_DEVICE_NOT_CONNECTED);
        const auto control =
            FindControlInterface(*descriptors, *configuration, node->interfaceNumber);
        if (!control) return HResultFromError(ERROR_NOT_SUPPORTED);
        std::vector<std::unique_ptr<FileDescriptor>> fds;
        for (const CaptureNode& sibling : CaptureNodes()) {
            if (sibling.address.sysName != node->address.sysName ||
                sibling.interfaceNumber != node->interfaceNumber) {
                continue;
            }
            const int fd =
                ::open((paths_.dev + "/" + sibling.nodeName).c_str(), O_RDWR | O_CLOEXEC);
            if (fd < 0) return HResultFromError(ErrorFromErrno(errno));
            fds.push_back(std::make_unique<FileDescriptor>(fd));
        }
        if (fds.empty()) return HResultFromError(ERROR_DEVICE_NOT_CONNECTED);
        *connection = std::make_unique<V4l2Connection>(std::move(fds), *control);
        return S_OK;
    }

    ErrorCode CreateSettingsKey(const std::wstring& keyPath) override {
        return settings_.CreateKey(keyPath);
    }

    ErrorCode SetSettingsValue(const std::wstring& keyPath, const std::wstring& valueName,
                               std::uint32_t type, const std::uint8_t* data,
                               std::uint32_t size) override {
        return settings_.SetValue(keyPath, valueName, type, data, size);
    }

  private:
    std::string UsbDevicesDir() const { return paths_.sys + "/bus/usb/devices"; }

    std::optional<UsbDeviceAddress> ReadAddress(const std::string& name) const {
        return ReadUsbDeviceAddress(UsbDevicesDir(), name);
    }

    // What VIDIOC_QUERYCAP says of a node of this machine.
    CapabilityQuery Capabilities() const {
        return [dev = paths_.dev](const std::string& nodeName) -> std::optional<NodeCapabilities> {
            FileDescriptor fd(::open((dev + "/" + nodeName).c_str(), O_RDONLY | O_CLOEXEC));
            if (fd.get() < 0) return std::nullopt;
            v4l2_capability caps{};
            if (RetryIoctl(fd.get(), VIDIOC_QUERYCAP, &caps) < 0) return std::nullopt;
            const std::uint32_t nodeCaps =
                (caps.capabilities & V4L2_CAP_DEVICE_CAPS) ? caps.device_caps : caps.capabilities;
            const auto* card = reinterpret_cast<const char*>(caps.card);
            return NodeCapabilities{
                (nodeCaps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) != 0,
                std::string(card, ::strnlen(card, sizeof caps.card))};
        };
    }

    std::vector<CaptureNode> CaptureNodes() const {
        return ListCaptureNodes(paths_.sys, Capabilities());
    }

    // The sysfs descriptors file holds the device descriptor and then every configuration.
    static std::optional<UvcControlInterface> FindControlInterface(const std::string& raw,
                                                                   unsigned configuration,
                                                                   std::uint8_t interfaceNumber) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(raw.data());
        std::optional<UvcControlInterface> found;
        usb::WalkDescriptors(bytes, raw.size(), [&](const usb::usb_descriptor_header& d) {
            if (d.bDescriptorType != usb::USB_DT_CONFIG ||
                d.bLength < usb::usb_config_descriptor::bLength) {
                return true;
            }
            const auto config = usb::usb_config_descriptor::Read(d.bytes);
            if (config.bConfigurationValue != configuration) return true;
            const std::size_t left = raw.size() - static_cast<std::size_t>(d.bytes - bytes);
            found = ParseUvcControlInterface(
                d.bytes, std::min<std::size_t>(config.wTotalLength, left), interfaceNumber);
            return false;
        });
        return found;
    }

    LinuxPaths paths_;
    SettingsStore settings_;
    UeventMonitor monitor_;
};

}  // namespace

std::shared_ptr<DeviceBackend> CreateLinuxBackend(LinuxPaths paths) {
    return std::make_shared<LinuxBackend>(std::move(paths));
}

}  // namespace platform::linux_hw
