// Part 1.2: USB descriptors and configuration, on the simulated USB bus
// (sim/usb) with the virtual camera (sim/camera): reading and selecting the
// configuration, the pipe references, the Part's edge cases, the bus
// interface and speed, deconfiguration, and pool fault injection at every
// allocation of ReadandSelectUsbDescriptors.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "camera/descriptor_builder.h"
#include "camera/uvc_camera.h"
#include "device/device.h"
#include "kvsim/diag.h"
#include "kvsim/pool.h"
#include "usb/usb_bus.h"

namespace {

namespace cam = kvsim::camera;
namespace usb = kvsim::usb;

// A device plugged into the bus and a CCaptureDevice whose next-lower device
// is its PDO.
struct Fixture {
    PDEVICE_OBJECT pdo = nullptr;
    KSDEVICE ksDevice{};
    std::unique_ptr<CCaptureDevice> device;

    explicit Fixture(cam::DescriptorSet set, usb::Speed speed = usb::Speed::kHigh)
    {
        std::shared_ptr<cam::UvcCamera> camera = cam::UvcCamera::Create(std::move(set));
        pdo = usb::PlugCamera(camera, speed);
        ksDevice.PhysicalDeviceObject = pdo;
        ksDevice.NextDeviceObject = pdo;
        device = std::make_unique<CCaptureDevice>(&ksDevice);
    }
    ~Fixture()
    {
        device.reset();
        usb::Unplug(pdo);
    }
};

cam::DescriptorSet DefaultSet() { return cam::BuildDescriptors(cam::DefaultCameraSpec()); }

bool DebugSaid(const std::string& text)
{
    for (const auto& m : kvsim::DebugMessages()) {
        if (m == text) return true;
    }
    return false;
}

TEST(Part12Usb, ReadsDescriptorsAndSelectsTheConfiguration)
{
    Fixture f(DefaultSet());
    ASSERT_EQ(f.device->ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
    ASSERT_NE(f.device->m_pDeviceDescriptor, nullptr);
    ASSERT_NE(f.device->m_pConfigurationDescriptor, nullptr);
    EXPECT_EQ(f.device->m_pConfigurationDescriptor->wTotalLength, DefaultSet().configuration.size());
    EXPECT_NE(f.device->m_ConfigurationHandle, nullptr);
    EXPECT_TRUE(usb::GetDeviceState(f.pdo).configured);
    ASSERT_NE(f.device->m_pInterfaceInformation, nullptr);
    EXPECT_EQ(f.device->m_pInterfaceInformation->InterfaceNumber, 0);
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVdd")).currentBytes, 18u);
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVrb")).currentCount, 0u);
}

TEST(Part12Usb, WithOneInterruptPipeOnFirstInterfaceInterruptPipeIsSetAndIsoPipesStayEmpty)
{
    Fixture f(DefaultSet());
    ASSERT_EQ(f.device->ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
    ASSERT_EQ(f.device->m_nPipes, 1u);
    ASSERT_NE(f.device->m_InterruptPipe, nullptr);
    EXPECT_EQ(f.device->m_InterruptPipe, &f.device->m_pPipes[0]);
    EXPECT_EQ(f.device->m_InterruptPipe->EndpointAddress, 0x83);
    EXPECT_EQ(f.device->m_IsoInPipe, nullptr);
    EXPECT_EQ(f.device->m_IsoOutPipe, nullptr);
}

TEST(Part12Usb, ConfigurationWithInterfaces0And1AndBNumInterfaces2SelectsBoth)
{
    // The list of two pairs and an empty end pair is internal; the bus shows
    // that both interfaces were selected by the configuration request.
    Fixture f(DefaultSet());
    ASSERT_EQ(f.device->m_pConfigurationDescriptor, nullptr);
    ASSERT_EQ(f.device->ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
    EXPECT_EQ(f.device->m_pConfigurationDescriptor->bNumInterfaces, 2);
    auto camera = usb::CameraOf(f.pdo);
    EXPECT_TRUE(camera->Configured());
    EXPECT_EQ(camera->CurrentAlternate(1), 0);
    // The streaming interface can now be switched, so the bus knows it.
    EXPECT_EQ(f.device->SelectAlternateInterface(1, 1, 2), STATUS_SUCCESS);
    EXPECT_EQ(camera->CurrentAlternate(1), 1);
    EXPECT_EQ(f.device->m_pPipes[0].EndpointAddress, 0x81);
    EXPECT_EQ(f.device->SelectAlternateInterface(1, 0, 2), STATUS_SUCCESS);
    EXPECT_EQ(f.device->SelectAlternateInterface(1, 99, 2), STATUS_INVALID_PARAMETER);
}

TEST(Part12Usb, DeviceDescriptorWithBNumConfigurations0TripsAssertionAndProceeds)
{
    auto set = DefaultSet();
    set.device[17] = 0;
    Fixture f(set);
    EXPECT_EQ(f.device->ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
    auto violations = kvsim::TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].find("deviceDescriptor->bNumConfigurations"), std::string::npos);
}

TEST(Part12Usb, BusInterfaceGivesHighSpeedAnd128Packets)
{
    Fixture f(DefaultSet(), usb::Speed::kHigh);
    kvsim::ClearDebugLog();
    ASSERT_EQ(f.device->GetBusInterface(), STATUS_SUCCESS);
    EXPECT_EQ(f.device->InitDeviceSpeed(), STATUS_SUCCESS);
    EXPECT_EQ(f.device->m_HighSpeed, 1u);
    EXPECT_EQ(f.device->m_SpeedPacketCount, 128u);
    EXPECT_TRUE(DebugSaid("[CCaptureDevice::InitDeviceSpeed] Device is operating at high speed\n"));
}

TEST(Part12Usb, FullSpeedGives32Packets)
{
    Fixture f(DefaultSet(), usb::Speed::kFull);
    ASSERT_EQ(f.device->GetBusInterface(), STATUS_SUCCESS);
    f.device->InitDeviceSpeed();
    EXPECT_EQ(f.device->m_HighSpeed, 0u);
    EXPECT_EQ(f.device->m_SpeedPacketCount, 32u);
}

TEST(Part12Usb, NoBusInterfaceCountsAsFullSpeed)
{
    Fixture f(DefaultSet());
    kvsim::ClearDebugLog();
    f.device->InitDeviceSpeed();
    EXPECT_EQ(f.device->m_SpeedPacketCount, 32u);
    EXPECT_TRUE(DebugSaid("[CCaptureDevice::InitDeviceSpeed] Device have no interface V1\n"));
}

TEST(Part12Usb, DeconfigureLeavesTheDeviceUnconfigured)
{
    Fixture f(DefaultSet());
    ASSERT_EQ(f.device->ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
    EXPECT_EQ(f.device->DeconfigureUsbDevice(), STATUS_SUCCESS);
    EXPECT_FALSE(usb::GetDeviceState(f.pdo).configured);
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVsc")).currentCount, 0u);
}

TEST(Part12Usb, ReadandSelectAllocationFailureAtEveryAllocationReturnsItsStatusAndLeaksNothing)
{
    uint64_t nAllocations = 0;
    {
        Fixture f(DefaultSet());
        const uint64_t before = kvsim::PoolAllocationCount();
        ASSERT_EQ(f.device->ReadandSelectUsbDescriptors(), STATUS_SUCCESS);
        nAllocations = kvsim::PoolAllocationCount() - before;
    }
    ASSERT_GT(nAllocations, 5u);
    for (uint64_t i = 1; i <= nAllocations; i++) {
        SCOPED_TRACE("failing allocation " + std::to_string(i));
        Fixture f(DefaultSet());
        kvsim::PoolFailNthAllocation(i);
        NTSTATUS status = f.device->ReadandSelectUsbDescriptors();
        kvsim::PoolResetFaultInjection();
        EXPECT_FALSE(NT_SUCCESS(status));
        f.device->ReleaseAllocations();
        EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
    }
}

TEST(Part12Usb, GetBusInterfaceAllocationFailureReturnsInsufficientResourcesAndLeaksNothing)
{
    for (uint64_t i = 1; i <= 2; i++) {
        Fixture f(DefaultSet());
        kvsim::PoolFailNthAllocation(i);
        NTSTATUS status = f.device->GetBusInterface();
        kvsim::PoolResetFaultInjection();
        EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(f.device->m_pBusInterface, nullptr);
        EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
    }
}

}  // namespace
