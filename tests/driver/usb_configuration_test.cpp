// The camera's USB configuration on the simulated USB bus: the pipes, the
// alternate settings, the bus speed, and a failure at every allocation.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "camera/descriptor_builder.h"
#include "camera/uvc_camera.h"
#include "device/usb.h"
#include "kvsim/pool.h"
#include "usb/usb_bus.h"

namespace {

namespace cam = kvsim::camera;
namespace usb = kvsim::usb;

// A camera plugged into the bus and a USB configuration whose next-lower
// device is its PDO.
struct Fixture {
    PDEVICE_OBJECT pdo = nullptr;
    UsbConfiguration config;

    explicit Fixture(usb::Speed speed = usb::Speed::kHigh)
    {
        pdo = usb::PlugCamera(cam::UvcCamera::Create(cam::BuildDescriptors(cam::DefaultCameraSpec())), speed);
        config.Attach(pdo);
    }
    ~Fixture()
    {
        config.Release();
        usb::Unplug(pdo);
    }
};

// The default camera: a video-control interface 0 with an interrupt
// endpoint, a streaming interface 1 whose alternate settings carry the
// isochronous endpoint.
TEST(UsbConfiguration, ReadsTheDescriptorsSelectsBothInterfacesAndKeepsTheInterruptPipe)
{
    Fixture f;
    UsbConfiguration& c = f.config;
    ASSERT_EQ(c.ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
    ASSERT_NE(c.m_pConfigurationDescriptor, nullptr);
    EXPECT_EQ(c.m_pConfigurationDescriptor->wTotalLength,
              cam::BuildDescriptors(cam::DefaultCameraSpec()).configuration.size());
    EXPECT_TRUE(usb::GetDeviceState(f.pdo).configured);
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVrb")).currentCount, 0u);
    // The first interface's one pipe is the interrupt pipe; no isochronous
    // pipe until an alternate setting is selected.
    ASSERT_EQ(c.m_nPipes, 1u);
    EXPECT_EQ(c.m_InterruptPipe, &c.m_pPipes[0]);
    EXPECT_EQ(c.m_InterruptPipe->EndpointAddress, 0x83);
    EXPECT_EQ(c.m_IsoInPipe, nullptr);

    // The bus knows both interfaces: the streaming one can be switched.
    EXPECT_EQ(c.SelectAlternateInterface(1, 1, 2), STATUS_SUCCESS);
    EXPECT_EQ(usb::CameraOf(f.pdo)->CurrentAlternate(1), 1);
    EXPECT_EQ(c.m_pPipes[0].EndpointAddress, 0x81);
    EXPECT_EQ(c.SelectAlternateInterface(1, 99, 2), STATUS_INVALID_PARAMETER);
}

// The bus interface tells the speed: 128 packets per isochronous transfer
// at high speed, 32 at full speed and without the interface.
TEST(UsbConfiguration, TheBusSpeedSetsThePacketsPerTransfer)
{
    struct Case {
        usb::Speed speed;
        bool busInterface;
        ULONG highSpeed, packets;
    };
    for (const Case& c : {Case{usb::Speed::kHigh, true, 1, 128}, Case{usb::Speed::kFull, true, 0, 32},
                          Case{usb::Speed::kHigh, false, 0, 32}}) {
        SCOPED_TRACE(::testing::Message() << "bus interface " << c.busInterface << ", packets " << c.packets);
        Fixture f(c.speed);
        if (c.busInterface) {
            ASSERT_EQ(f.config.GetBusInterface(), STATUS_SUCCESS);
        }
        EXPECT_EQ(f.config.InitDeviceSpeed(), STATUS_SUCCESS);
        EXPECT_EQ(f.config.m_HighSpeed, c.highSpeed);
        EXPECT_EQ(f.config.m_SpeedPacketCount, c.packets);
    }
}

TEST(UsbConfiguration, AnAllocationFailureAtAnyAllocationOfReadandSelectFailsItAndLeaksNothing)
{
    uint64_t nAllocations = 0;
    {
        Fixture f;
        const uint64_t before = kvsim::PoolAllocationCount();
        ASSERT_EQ(f.config.ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
        nAllocations = kvsim::PoolAllocationCount() - before;
    }
    ASSERT_GT(nAllocations, 5u);
    for (uint64_t i = 1; i <= nAllocations; i++) {
        SCOPED_TRACE("failing allocation " + std::to_string(i));
        Fixture f;
        kvsim::PoolFailNthAllocation(i);
        NTSTATUS status = f.config.ReadandSelectUsbDescriptors();
        kvsim::PoolResetFaultInjection();
        EXPECT_FALSE(NT_SUCCESS(status));
        f.config.Release();
        EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
    }
}

}  // namespace
