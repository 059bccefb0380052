// The device object: DriverEntry with the device dispatch table; Add; the
// start sequence; stop, remove and surprise removal; QueryCapabilities; the
// power dispatch; the release of the device's allocations. The device
// dispatch table and device descriptor are const data at the end.
//
// Choices worth knowing:
//  - Remove also ends idle management when a failed start left the idle
//    timer running: a device whose start failed gets no stop, and its timer
//    and DPC must not outlive the device object.
//  - Pageable routines print the IRQL line and go on (PAGED_CODE's role in a
//    checked build is a diagnostic).
#include "device/device.h"

#include "imaging/primitives.h"
#include "pageable.h"
#include "pooltag.h"

using namespace kv;

// Driver entry registers the device dispatch table with ks.sys, which then
// owns the device objects and calls us for each device. The frame loop's
// conversions pick their instruction set once, here, at PASSIVE_LEVEL.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    DbgPrint("init Driver entry get called\n");
    InitPrimitives();
    return KsInitializeDriver(DriverObject, RegistryPath, &g_KvDeviceDescriptor);
}

namespace {

CCaptureDevice* DeviceOf(PKSDEVICE pKsDevice)
{
    return static_cast<CCaptureDevice*>(pKsDevice->Context);
}

}  // namespace

// The tagged pool block, constructed in place; null when the pool has nothing.
CCaptureDevice* CCaptureDevice::Create(PKSDEVICE pKsDevice)
{
    void* pMemory = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(CCaptureDevice), kTagDevice);
    if (pMemory == nullptr) {
        return nullptr;
    }
    return new (pMemory) CCaptureDevice(pKsDevice);
}

// The idle scheme's timers and events are set up by the start sequence.
CCaptureDevice::CCaptureDevice(PKSDEVICE pKsDevice)
    : m_pKsDevice(pKsDevice),
      m_pFunctionalDeviceObject(pKsDevice != nullptr ? pKsDevice->FunctionalDeviceObject : nullptr),
      m_pPhysicalDeviceObject(pKsDevice != nullptr ? pKsDevice->PhysicalDeviceObject : nullptr),
      m_pNextDeviceObject(pKsDevice != nullptr ? pKsDevice->NextDeviceObject : nullptr),
      m_Usb(),
      m_Formats(),
      m_Filter(),
      m_Idle(),
      m_Settings(),
      m_Requests(&m_Settings, &m_Formats, &m_Usb),
      m_SelfTimer(),
      m_Int(),
      m_StillEvents(),
      m_Stream(),
      m_FrameLoop(),
      m_pCaptureFilter(nullptr),
      m_StreamingSlot(0),
      m_pStillPin(nullptr),
      m_StillPinUsers(0)
{
    m_Stream.Attach(this);
    m_Usb.Attach(m_pNextDeviceObject);
    m_Idle.Attach(m_pFunctionalDeviceObject, m_pPhysicalDeviceObject);
    m_Settings.Bind(m_Requests.Access(), &m_Formats);
}

CCaptureDevice::~CCaptureDevice()
{
    ReleaseAllocations();
}

// The object bag's free routine (and Add's undo): destroy, then give the
// block back with its tag.
void CCaptureDevice::Cleanup(PVOID pContext)
{
    auto* pDevice = static_cast<CCaptureDevice*>(pContext);
    pDevice->~CCaptureDevice();
    ExFreePoolWithTag(pDevice, kTagDevice);
}

// ---- Device dispatch ------------------------------------------------------------------

// The device object joins the device's object bag, which destroys it with
// the device.
NTSTATUS CCaptureDevice::DispatchAdd(PKSDEVICE pKsDevice)
{
    PageableCallTooHigh();
    CCaptureDevice* pDevice = Create(pKsDevice);
    if (pDevice == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KsAcquireDevice(pKsDevice);
    NTSTATUS status = KsAddItemToObjectBag(pKsDevice->Bag, pDevice, CCaptureDevice::Cleanup);
    KsReleaseDevice(pKsDevice);
    if (!NT_SUCCESS(status)) {
        Cleanup(pDevice);
        return status;
    }
    pKsDevice->Context = pDevice;
    return STATUS_SUCCESS;
}

NTSTATUS CCaptureDevice::DispatchStart(PKSDEVICE pKsDevice, PIRP pIrp, PCM_RESOURCE_LIST pTranslated,
                                       PCM_RESOURCE_LIST pUntranslated)
{
    UNREFERENCED_PARAMETER(pIrp);
    UNREFERENCED_PARAMETER(pTranslated);
    UNREFERENCED_PARAMETER(pUntranslated);
    PageableCallTooHigh();
    if (pKsDevice->Started) {
        return STATUS_SUCCESS;
    }
    return DeviceOf(pKsDevice)->PnpStart();
}

void CCaptureDevice::DispatchStop(PKSDEVICE pKsDevice, PIRP pIrp)
{
    UNREFERENCED_PARAMETER(pIrp);
    PageableCallTooHigh();
    DeviceOf(pKsDevice)->PnpStop();
}

void CCaptureDevice::DispatchRemove(PKSDEVICE pKsDevice, PIRP pIrp)
{
    UNREFERENCED_PARAMETER(pIrp);
    PageableCallTooHigh();
    DeviceOf(pKsDevice)->PnpRemove();
}

// The camera may be pulled out without warning and the system need not
// offer to eject it.
NTSTATUS CCaptureDevice::DispatchQueryCapabilities(PKSDEVICE pKsDevice, PIRP pIrp,
                                                   PDEVICE_CAPABILITIES pCapabilities)
{
    UNREFERENCED_PARAMETER(pKsDevice);
    UNREFERENCED_PARAMETER(pIrp);
    PageableCallTooHigh();
    pCapabilities->Removable = 0;
    pCapabilities->SurpriseRemovalOK = 1;
    return STATUS_SUCCESS;
}

void CCaptureDevice::DispatchSurpriseRemoval(PKSDEVICE pKsDevice, PIRP pIrp)
{
    UNREFERENCED_PARAMETER(pIrp);
    PageableCallTooHigh();
    DeviceOf(pKsDevice)->SurpriseRemoval();
}

NTSTATUS CCaptureDevice::DispatchQueryPower(PKSDEVICE pKsDevice, PIRP pIrp, DEVICE_POWER_STATE DeviceTo,
                                            DEVICE_POWER_STATE DeviceFrom, SYSTEM_POWER_STATE SystemTo,
                                            SYSTEM_POWER_STATE SystemFrom, POWER_ACTION Action)
{
    UNREFERENCED_PARAMETER(pIrp);
    UNREFERENCED_PARAMETER(DeviceTo);
    UNREFERENCED_PARAMETER(DeviceFrom);
    DbgPrint("CCaptureDevice::DispatchQueryPower \n");
    KsAcquireDevice(pKsDevice);
    NTSTATUS status = DeviceOf(pKsDevice)->m_Idle.QueryPower(Action, SystemTo, SystemFrom);
    KsReleaseDevice(pKsDevice);
    DbgPrint("CCaptureDevice::DispatchQueryPower exit\n");
    return status;
}

void CCaptureDevice::DispatchSetPower(PKSDEVICE pKsDevice, PIRP pIrp, DEVICE_POWER_STATE To, DEVICE_POWER_STATE From)
{
    UNREFERENCED_PARAMETER(pIrp);
    KsAcquireDevice(pKsDevice);
    DeviceOf(pKsDevice)->m_Idle.SetPower(To, From);
    KsReleaseDevice(pKsDevice);
}

// ---- Start, stop, removal --------------------------------------------------------------

// The start sequence. Each step runs only when all before it succeeded;
// what a failing step leaves allocated is freed by remove.
NTSTATUS CCaptureDevice::PnpStart()
{
    // Descriptors and configuration.
    NTSTATUS status = m_Usb.ReadandSelectUsbDescriptors();
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvdrv PnP start exit1 (Status 0x%X )", static_cast<ULONG>(status));
        return status;
    }

    // Settings, which also ask for the bus interface and the device speed.
    status = InitDeviceSettings();
    if (!NT_SUCCESS(status)) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        DbgPrint("Kvdrv PnP start exit2 (Status 0x%X )", static_cast<ULONG>(status));
        return status;
    }

    // Idle power management.
    if (m_Idle.m_IdlePowerEnabled != 0) {
        POWER_STATE state;
        state.DeviceState = PowerDeviceD0;
        PoSetPowerState(m_pFunctionalDeviceObject, DevicePowerState, state);
        m_Idle.StartIdleManagement();
        m_Idle.m_IdleActive = 1;
    } else {
        m_Idle.m_IdleActive = 0;
    }

    // The device's own filter descriptor and pin table.
    m_Filter.CopyFilterTemplates();

    // The capture table on the capture pin.
    USHORT nCount = 0;
    status = m_Formats.ExtractVSInfo(m_Usb.m_pConfigurationDescriptor, &m_Formats.m_pCaptureTable, &nCount);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvdrv PnP start : ExtractVSInfo return error (Status 0x%X )", static_cast<ULONG>(status));
        return status;
    }
    m_Formats.m_nCaptureTable = nCount;
    if (nCount != 0) {
        status = m_Filter.AttachDataRanges(KV_PIN_CAPTURE, m_Formats.m_pCaptureTable, nCount,
                                           &m_Formats.m_pCaptureRanges, kTagCaptureRanges);
        if (!NT_SUCCESS(status)) {
            DbgPrint("Kvdrv PnP start exit3 (Status 0x%X )", static_cast<ULONG>(status));
            return status;
        }
    }

    // The still table on the still pin.
    nCount = 0;
    status = m_Formats.ExtractStillInfo(m_Usb.m_pConfigurationDescriptor, &m_Formats.m_pStillTable, &nCount);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvdrv PnP start : ExtractStillInfo return error (Status 0x%X )", static_cast<ULONG>(status));
        return status;
    }
    m_Formats.m_nStillTable = nCount;
    if (nCount != 0) {
        status = m_Filter.AttachDataRanges(KV_PIN_STILL, m_Formats.m_pStillTable, nCount, &m_Formats.m_pStillRanges,
                                           kTagStillRanges);
        if (!NT_SUCCESS(status)) {
            DbgPrint("Kvdrv PnP start exit4 (Status 0x%X )", static_cast<ULONG>(status));
            return status;
        }
    }

    // Nodes and connections on the filter descriptor.
    status = m_Filter.InitNodeAndTopologyDescriptor();
    if (!NT_SUCCESS(status)) {
        return status;
    }

    // The one filter factory, freed by ks.sys at stop.
    status = m_Filter.CreateFilterFactory(m_pKsDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    // The self-timer's countdown timer, ready before the button can start
    // a countdown.
    m_SelfTimer.Initialize();
    m_StillEvents.Initialize(m_pKsDevice, m_pFunctionalDeviceObject);

    // The camera's button: its interrupt transfer stays outstanding from
    // here to the stop. A camera without the endpoint has no button.
    if (m_Usb.m_InterruptPipe != nullptr) {
        const ButtonTargets targets = {&m_Settings, &m_SelfTimer, &m_Stream.m_Streaming};
        status = m_Int.Initialize(targets, m_pFunctionalDeviceObject, m_pNextDeviceObject,
                                  m_Usb.m_InterruptPipe->PipeHandle);
        if (NT_SUCCESS(status)) {
            status = m_Int.Start();
        }
        if (!NT_SUCCESS(status)) {
            DbgPrint("Kvdrv PnP start m_Int.Initialize return error (Status 0x%X )", static_cast<ULONG>(status));
            return status;
        }
    }

    // Controls are accepted from device start on.
    m_Requests.m_ControlReady = 1;
    return STATUS_SUCCESS;
}

NTSTATUS CCaptureDevice::InitDeviceSettings()
{
    RegistryKeyPath path;
    path.OpenRoot(KV_REGISTRY_SERVICE);
    // The control-request context comes first: nothing is read without it.
    NTSTATUS status = m_Requests.Initialize(m_pFunctionalDeviceObject, m_pNextDeviceObject);
    if (!NT_SUCCESS(status)) {
        DbgPrint("InitDeviceSettings: Failed to allocate the control-request context\n");
        return status;
    }
    status = m_Settings.LoadDataKey(path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    m_Idle.m_IdlePowerEnabled = m_Settings.SwBit(SWBIT_IDLE_POWER) ? 1 : 0;
    // Without the interface InitDeviceSpeed falls back to full speed, so
    // neither status fails the start.
    m_Usb.GetBusInterface();
    m_Usb.InitDeviceSpeed();
    return STATUS_SUCCESS;
}

// KS calls Stop before Remove for a started device.
void CCaptureDevice::PnpStop()
{
    // No idle pass after this (skipped when idle power is off).
    if (m_Idle.m_IdlePowerEnabled != 0) {
        m_Idle.EndIdleManagement(TRUE);
    }
    // Requests deferred before the stop still reach a configured camera.
    m_Requests.WaitForDeferredRequests();
    m_Usb.DeconfigureUsbDevice();
    // The button first: a long press or a packet's work item would start
    // the countdown again after it was cancelled.
    StopButton();
    m_SelfTimer.CancelCountdown();
    // A countdown DPC already queued must not run into the next start's
    // initialisation of the same DPC.
    m_SelfTimer.FlushCountdown();
    ReleaseAllocations();
    m_Settings.WriteDeviceExist(DEVICE_EXIST_STOPPED);
}

// The wait for outstanding pin IRPs belongs to the capture pin.
void CCaptureDevice::PnpRemove()
{
    DbgPrint("PnP Remove\n");
    StopButton();
    m_SelfTimer.CancelCountdown();
    m_SelfTimer.FlushCountdown();
    m_Idle.EndIdleManagement(FALSE);
    m_Requests.WaitForDeferredRequests();
    ReleaseAllocations();
}

// No power request: the camera is gone.
void CCaptureDevice::SurpriseRemoval()
{
    if (m_Idle.m_IdlePowerEnabled != 0) {
        m_Idle.EndIdleManagement(FALSE);
    }
}

// Each block goes back with its tag and its pointer is cleared. The pins'
// descriptors are unhooked before the format tables go; the bus interface
// is given back only after everything that came through the configuration.
// The button's transfer cancelled and its work items and timers waited out
// (a second call is harmless).
void CCaptureDevice::StopButton()
{
    m_Int.Cancel();
    m_Int.Free();
    m_StillEvents.WaitForIdle();
}

void CCaptureDevice::ReleaseAllocations()
{
    // A start that failed after the button's step is released here.
    StopButton();
    m_Usb.ReleaseConfiguration();
    m_Filter.UnhookDataRanges();
    m_Formats.Release();
    m_Filter.ReleaseTopology();
    m_Usb.ReleaseBusInterface();
    m_Settings.Release();
    m_Requests.Release();
}

// ---- Const tables -------------------------------------------------------------------------------

namespace {

const KSDEVICE_DISPATCH g_DeviceDispatch = {
    CCaptureDevice::DispatchAdd,                // Add
    CCaptureDevice::DispatchStart,              // Start
    nullptr,                                    // PostStart
    nullptr,                                    // QueryStop
    nullptr,                                    // CancelStop
    CCaptureDevice::DispatchStop,               // Stop
    nullptr,                                    // QueryRemove
    nullptr,                                    // CancelRemove
    CCaptureDevice::DispatchRemove,             // Remove
    CCaptureDevice::DispatchQueryCapabilities,  // QueryCapabilities
    CCaptureDevice::DispatchSurpriseRemoval,    // SurpriseRemoval
    CCaptureDevice::DispatchQueryPower,         // QueryPower
    CCaptureDevice::DispatchSetPower,           // SetPower
    nullptr,                                    // QueryInterface
};

}  // namespace

// No static filter descriptors: the filter factory is created at start from
// the device's own copy, whose pins carry the camera's own formats.
const KSDEVICE_DESCRIPTOR g_KvDeviceDescriptor = {
    &g_DeviceDispatch,            // Dispatch
    0,                            // FilterDescriptorsCount
    nullptr,                      // FilterDescriptors
    KSDEVICE_DESCRIPTOR_VERSION,  // Version
};
