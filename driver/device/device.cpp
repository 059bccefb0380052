// Part 1.1: Driver entry and device lifecycle.
// For now: the driver entry, and the share of CCaptureDevice's construction
// and release that Parts 1.2 and 1.3 need (their fields' initial values and
// the release of their allocations). The start, stop, removal and power
// sequences of Part 1.1 are a later issue.
#include "wdk.h"
#include "device.h"
#include "descriptor_reader.h"

// Part 1.1: driver entry registers the device dispatch table with ks.sys.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    DbgPrint("init Driver entry get called\n");
    return KsInitializeDriver(DriverObject, RegistryPath, nullptr);
}

namespace {

// Frees a pool block with its tag and clears the pointer, so that a second
// release is harmless (Overview, Conventions).
template <typename T>
void FreeTagged(T*& p, ULONG tag)
{
    if (p != nullptr) {
        ExFreePoolWithTag(const_cast<void*>(static_cast<const void*>(p)), tag);
        p = nullptr;
    }
}

}  // namespace

// Part 1.1: construction with the kernel-streaming device; the initial values
// are those Part 1.1 lists (the idle scheme's timers and events are set up by
// the start sequence, a later issue).
CCaptureDevice::CCaptureDevice(PKSDEVICE pKsDevice)
    : m_pKsDevice(pKsDevice),
      m_pFunctionalDeviceObject(pKsDevice != nullptr ? pKsDevice->FunctionalDeviceObject : nullptr),
      m_pPhysicalDeviceObject(pKsDevice != nullptr ? pKsDevice->PhysicalDeviceObject : nullptr),
      m_pNextDeviceObject(pKsDevice != nullptr ? pKsDevice->NextDeviceObject : nullptr),
      m_pDeviceDescriptor(nullptr),
      m_pConfigurationDescriptor(nullptr),
      m_RemoteWakeup(0),
      m_ConfigurationHandle(nullptr),
      m_pInterfaceInformation(nullptr),
      m_pPipes(nullptr),
      m_nPipes(0),
      m_nPipeCapacity(0),
      m_IsoInPipe(nullptr),
      m_IsoOutPipe(nullptr),
      m_InterruptPipe(nullptr),
      m_pBusInterface(nullptr),
      m_HighSpeed(0),
      m_SpeedPacketCount(0),
      CameraTerminalControls(0),
      ProcessingUnitControls(0),
      WideFrameWidth(0),
      m_pCaptureTable(nullptr),
      m_nCaptureTable(0),
      m_pCaptureRanges(nullptr),
      m_pStillTable(nullptr),
      m_nStillTable(0),
      m_pStillRanges(nullptr),
      m_FilterDescriptor(),
      m_PinDescriptors(),
      m_pNodeDescriptors(nullptr),
      m_ucNbrNodeDescriptor(0),
      m_pTopologyConnections(nullptr),
      m_ucNbrTopologyConnection(0),
      m_pFilterFactory(nullptr),
      m_FilterFactoryCreated(FALSE),
      m_IdlePowerEnabled(0),
      m_IdleActive(0),
      m_IdleTimer(),
      m_IdleDpc(),
      m_pIdleWorkItem(nullptr),
      m_pTimerRestartWorkItem(nullptr),
      m_IdlePassEvent(),
      m_PowerUpEvent(),
      m_IdleSpinLock(0),
      m_LastPowerAction(PowerActionNone),
      m_SystemStateFrom(PowerSystemWorking),
      m_SystemStateTo(PowerSystemWorking),
      m_DevicePowerStateFrom(PowerDeviceD0),
      m_DevicePowerState(1),
      m_ResumePending(0),
      m_SuppressTimerRestart(0),
      m_StreamBusy(0),
      m_OpenFilterCount(0),
      m_CountdownTimer(),
      m_CountdownDpc(),
      m_CountdownCounter(-1)
{
}

CCaptureDevice::~CCaptureDevice()
{
    ReleaseAllocations();
}

// Part 1.1 "Release of device allocations", the share of Parts 1.2 and 1.3.
// Each block goes back with its tag and its pointer is cleared.
void CCaptureDevice::ReleaseAllocations()
{
    m_ConfigurationHandle = nullptr;
    m_IsoInPipe = nullptr;
    m_IsoOutPipe = nullptr;
    m_InterruptPipe = nullptr;
    m_nPipes = 0;
    m_nPipeCapacity = 0;
    FreeTagged(m_pPipes, kv::PoolTag("KVtx"));
    FreeTagged(m_pConfigurationDescriptor, kv::PoolTag("KVcd"));
    FreeTagged(m_pDeviceDescriptor, kv::PoolTag("KVdd"));
    FreeTagged(m_pInterfaceInformation, kv::PoolTag("KVle"));
    FreeTagged(m_pCaptureRanges, kv::PoolTag("KVVp"));
    FreeTagged(m_pCaptureTable, kv::PoolTag("KVVd"));
    m_nCaptureTable = 0;
    FreeTagged(m_pStillRanges, kv::PoolTag("KVVr"));
    FreeTagged(m_pStillTable, kv::PoolTag("KVVs"));
    m_nStillTable = 0;
    if (m_pBusInterface != nullptr && m_pBusInterface->InterfaceDereference != nullptr) {
        // The bus took a reference when it answered IRP_MN_QUERY_INTERFACE;
        // the interface's user gives it back before dropping the interface.
        // https://learn.microsoft.com/windows-hardware/drivers/kernel/irp-mn-query-interface
        m_pBusInterface->InterfaceDereference(m_pBusInterface->BusContext);
    }
    FreeTagged(m_pBusInterface, kv::PoolTag("KVB1"));
}
