// The configuration manager's calls on POSIX: the interface list in the platform's own form and
// notifications from the backend's thread.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "lab_bus.h"
#include "platform/cfgmgr.h"
#include "platform/sync.h"

namespace {

using namespace discovery_test;

GUID UsbClass() {
    return kGuidDevinterfaceUsbDevice;
}

TEST(CfgmgrPosix, InterfaceListIsDoubleNullTerminated) {
    LabBus bus({kFirst, kOtherVendor});
    GUID usb = UsbClass();
    ULONG size = 0;
    ASSERT_EQ(CR_SUCCESS, CM_Get_Device_Interface_List_SizeW(&size, &usb, nullptr,
                                                             CM_GET_DEVICE_INTERFACE_LIST_PRESENT));
    ASSERT_EQ(kFirst.size() + 1 + kOtherVendor.size() + 1 + 1, size);

    std::wstring buffer(size, L'x');
    ASSERT_EQ(CR_SUCCESS, CM_Get_Device_Interface_ListW(&usb, nullptr, buffer.data(), size,
                                                        CM_GET_DEVICE_INTERFACE_LIST_PRESENT));
    EXPECT_EQ(kFirst + L'\0' + kOtherVendor + L'\0' + L'\0', buffer);

    // A list that grew since its size was asked for does not fit.
    std::wstring small(size - 1, L'x');
    EXPECT_EQ(CR_BUFFER_SMALL, CM_Get_Device_Interface_ListW(&usb, nullptr, small.data(), size - 1,
                                                             CM_GET_DEVICE_INTERFACE_LIST_PRESENT));

    // Another class lists nothing: just the closing empty path.
    GUID other = usb;
    other.Data1 ^= 1;
    ASSERT_EQ(CR_SUCCESS, CM_Get_Device_Interface_List_SizeW(&size, &other, nullptr,
                                                             CM_GET_DEVICE_INTERFACE_LIST_PRESENT));
    EXPECT_EQ(1u, size);
}

TEST(CfgmgrPosix, NotificationsComeOnAnotherThreadUntilUnregistered) {
    LabBus bus({});
    struct Seen {
        std::atomic<int> arrivals{0}, removals{0};
        std::atomic<bool> otherThread{true};
        std::thread::id caller = std::this_thread::get_id();
        std::wstring lastLink;
        HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    } seen;
    CM_NOTIFY_FILTER filter{};
    filter.cbSize = sizeof filter;
    filter.FilterType = CM_NOTIFY_FILTER_TYPE_DEVICEINTERFACE;
    filter.u.DeviceInterface.ClassGuid = UsbClass();
    HCMNOTIFICATION handle = nullptr;
    const auto callback = [](HCMNOTIFICATION, PVOID context, CM_NOTIFY_ACTION action,
                             PCM_NOTIFY_EVENT_DATA data, DWORD size) -> DWORD {
        auto* s = static_cast<Seen*>(context);
        if (std::this_thread::get_id() == s->caller) s->otherThread = false;
        s->lastLink = data->u.DeviceInterface.SymbolicLink;
        EXPECT_GE(size, sizeof(CM_NOTIFY_EVENT_DATA) + (s->lastLink.size()) * sizeof(WCHAR));
        (action == CM_NOTIFY_ACTION_DEVICEINTERFACEARRIVAL ? s->arrivals : s->removals)++;
        SetEvent(s->event);
        return 0;
    };
    ASSERT_EQ(CR_SUCCESS, CM_Register_Notification(&filter, &seen, callback, &handle));
    ASSERT_NE(nullptr, handle);

    auto device = bus.MakeDevice(kFirst);
    bus.Plug(device);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(seen.event, 5000));
    bus.Unplug(*device);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(seen.event, 5000));
    EXPECT_EQ(kFirst, seen.lastLink);
    EXPECT_EQ(1, seen.arrivals.load());
    EXPECT_EQ(1, seen.removals.load());
    EXPECT_TRUE(seen.otherThread);

    EXPECT_EQ(CR_SUCCESS, CM_Unregister_Notification(handle));
    bus.Plug(device);
    // A later registration as a barrier: once it has seen the arrival, so would the first.
    Seen barrier;
    HCMNOTIFICATION second = nullptr;
    ASSERT_EQ(CR_SUCCESS, CM_Register_Notification(&filter, &barrier, callback, &second));
    bus.Unplug(*device);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(barrier.event, 5000));
    EXPECT_EQ(1, seen.arrivals.load());
    EXPECT_EQ(1, seen.removals.load());
    EXPECT_EQ(CR_SUCCESS, CM_Unregister_Notification(second));

    // A record of the wrong size is refused.
    filter.cbSize = 8;
    EXPECT_NE(CR_SUCCESS, CM_Register_Notification(&filter, &seen, callback, &second));
    CloseHandle(seen.event);
    CloseHandle(barrier.event);
}

}  // namespace
