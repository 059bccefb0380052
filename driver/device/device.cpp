// Part 1.1: Driver entry and device lifecycle.
// DriverEntry with the device dispatch table; Add; the start sequence (steps
// 1-8 and 10; step 9, the interrupt endpoint, is Part 3.4's); stop, remove
// and surprise removal; QueryCapabilities; DispatchQueryPower and
// DispatchSetPower; the idle-power scheme (idle timer and DPC, idle work
// item, timer-restart work item, power-up request); the self-timer's
// countdown timer and DPC; the release of device allocations. The device
// dispatch table and device descriptor are const data at the end.
//
// Decisions (the spec leaves them open):
//  - Nothing sets the flag that suppresses one idle-timer restart
//    (Part 1.1 "Left to the implementer"), so every restart stays in force.
//  - Remove also ends idle management when a failed start left the idle
//    timer running: a device whose start failed gets no stop, and its timer
//    and DPC must not outlive the device object.
//  - The end of idle management flushes queued DPCs and waits for an
//    outstanding timer-restart work item, and that work item re-arms the
//    timer only while idle management is active; so no idle routine runs
//    after stop, surprise removal or remove have returned.
//  - A power-up request that PoRequestPowerIrp refuses sets the power-up
//    event at once, so that nobody waits for a completion that never comes.
//  - Pageable routines print the IRQL line and go on (PAGED_CODE's role in a
//    checked build is a diagnostic).
#include "wdk.h"
#include "device.h"
#include "descriptors.h"
#include "descriptor_reader.h"

using kv::PageableCallTooHigh;
using kv::PoolTag;

// Part 1.1: set by the idle work item when it asks for D3.
ULONG g_KvIdlePowerDownRequested = 0;

bool kv::PageableCallTooHigh()
{
    const KIRQL irql = KeGetCurrentIrql();
    if (irql > APC_LEVEL) {
        DbgPrint("EX: Pageable code called at IRQL %d\n", irql);
        return true;
    }
    return false;
}

// Part 1.1: driver entry registers the device dispatch table with ks.sys.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    DbgPrint("init Driver entry get called\n");
    return KsInitializeDriver(DriverObject, RegistryPath, &g_KvDeviceDescriptor);
}

namespace {

constexpr ULONG kDeviceTag = PoolTag("KVaC");

// Idle timer: first expiry after 5 s (relative, 100-ns units), then every
// 5000 ms (Part 1.1 idle management).
constexpr LONGLONG kIdleFirstDue = -50000000LL;
constexpr LONG kIdlePeriodMs = 5000;
// The idle work item waits for its D3 request in 5-second slices.
constexpr LONGLONG kPowerDownWaitSlice = -50000000LL;

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

CCaptureDevice* DeviceOf(PKSDEVICE pKsDevice)
{
    return static_cast<CCaptureDevice*>(pKsDevice->Context);
}

void SetIdleTimer(PKTIMER pTimer, PKDPC pDpc)
{
    LARGE_INTEGER due;
    due.QuadPart = kIdleFirstDue;
    KeSetTimerEx(pTimer, due, kIdlePeriodMs, pDpc);
}

// Completion of a power IRP the driver requested: signal the event given
// as context.
VOID SignalPowerEvent(PDEVICE_OBJECT pDeviceObject, UCHAR MinorFunction, POWER_STATE PowerState, PVOID pContext,
                      PIO_STATUS_BLOCK pIoStatus)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    UNREFERENCED_PARAMETER(MinorFunction);
    UNREFERENCED_PARAMETER(PowerState);
    UNREFERENCED_PARAMETER(pIoStatus);
    KeSetEvent(static_cast<PKEVENT>(pContext), IO_NO_INCREMENT, FALSE);
}

// The reference string of the one filter factory (Part 1.1 step 8).
WCHAR g_FilterReferenceString[] = L"GLOBAL";

}  // namespace

// Part 1.1 Add's allocation: the tagged pool block, constructed in place;
// null when the pool has nothing.
CCaptureDevice* CCaptureDevice::Create(PKSDEVICE pKsDevice)
{
    void* pMemory = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(CCaptureDevice), kDeviceTag);
    if (pMemory == nullptr) {
        return nullptr;
    }
    return new (pMemory) CCaptureDevice(pKsDevice);
}

// Part 1.1: construction with the kernel-streaming device; the initial values
// are those Part 1.1 lists (the idle scheme's timers and events are set up by
// the start sequence, step 3).
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
      m_pCaptureFilter(nullptr),
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
      m_IdleTimerStarted(0),
      m_TimerRestartIdle(),
      m_CountdownTimer(),
      m_CountdownDpc(),
      m_CountdownCounter(-1),
      m_StillRequest(0),
      m_SoftwareTrigger(0),
      m_CountdownTimerReady(0)
{
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
    ExFreePoolWithTag(pDevice, kDeviceTag);
}

// ---- Device dispatch ------------------------------------------------------------------

// Part 1.1 Add: the device object joins the device's object bag, which
// destroys it with the device.
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

// Part 1.1 QueryCapabilities: the camera may be pulled out without warning
// and the system need not offer to eject it.
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
    NTSTATUS status = DeviceOf(pKsDevice)->QueryPower(Action, SystemTo, SystemFrom);
    KsReleaseDevice(pKsDevice);
    DbgPrint("CCaptureDevice::DispatchQueryPower exit\n");
    return status;
}

void CCaptureDevice::DispatchSetPower(PKSDEVICE pKsDevice, PIRP pIrp, DEVICE_POWER_STATE To, DEVICE_POWER_STATE From)
{
    UNREFERENCED_PARAMETER(pIrp);
    KsAcquireDevice(pKsDevice);
    DeviceOf(pKsDevice)->SetPower(To, From);
    KsReleaseDevice(pKsDevice);
}

// ---- Start, stop, removal --------------------------------------------------------------

// Part 1.1 start sequence. Each step runs only when all before it
// succeeded; what a failing step leaves allocated is freed by remove.
NTSTATUS CCaptureDevice::PnpStart()
{
    // Step 1: descriptors and configuration (Part 1.2).
    NTSTATUS status = ReadandSelectUsbDescriptors();
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvdrv PnP start exit1 (Status 0x%X )", static_cast<ULONG>(status));
        return status;
    }

    // Step 2: settings (Part 3.1), which also asks for the bus interface
    // and the device speed (Part 1.2).
    status = InitDeviceSettings();
    if (!NT_SUCCESS(status)) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        DbgPrint("Kvdrv PnP start exit2 (Status 0x%X )", static_cast<ULONG>(status));
        return status;
    }

    // Step 3: idle power management.
    if (m_IdlePowerEnabled != 0) {
        POWER_STATE state;
        state.DeviceState = PowerDeviceD0;
        PoSetPowerState(m_pFunctionalDeviceObject, DevicePowerState, state);
        StartIdleManagement();
        m_IdleActive = 1;
    } else {
        m_IdleActive = 0;
    }

    // Step 4: the device's own filter descriptor and pin table (Part 1.4).
    CopyFilterTemplates();

    // Step 5: the capture table (Part 1.3) on pin 0.
    USHORT nCount = 0;
    status = ExtractVSInfo(m_pConfigurationDescriptor, &m_pCaptureTable, &nCount);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvdrv PnP start : ExtractVSInfo return error (Status 0x%X )", static_cast<ULONG>(status));
        return status;
    }
    m_nCaptureTable = nCount;
    if (nCount != 0) {
        status = AttachDataRanges(KV_PIN_CAPTURE, m_pCaptureTable, nCount, &m_pCaptureRanges, PoolTag("KVVp"));
        if (!NT_SUCCESS(status)) {
            DbgPrint("Kvdrv PnP start exit3 (Status 0x%X )", static_cast<ULONG>(status));
            return status;
        }
    }

    // Step 6: the still table (Part 1.3) on pin 2.
    nCount = 0;
    status = ExtractStillInfo(m_pConfigurationDescriptor, &m_pStillTable, &nCount);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvdrv PnP start : ExtractStillInfo return error (Status 0x%X )", static_cast<ULONG>(status));
        return status;
    }
    m_nStillTable = nCount;
    if (nCount != 0) {
        status = AttachDataRanges(KV_PIN_STILL, m_pStillTable, nCount, &m_pStillRanges, PoolTag("KVVr"));
        if (!NT_SUCCESS(status)) {
            DbgPrint("Kvdrv PnP start exit4 (Status 0x%X )", static_cast<ULONG>(status));
            return status;
        }
    }

    // Step 7: nodes and connections (Part 1.4) on the filter descriptor.
    status = InitNodeAndTopologyDescriptor();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    m_FilterDescriptor.NodeDescriptorsCount = m_ucNbrNodeDescriptor;
    m_FilterDescriptor.NodeDescriptorSize = sizeof(KSNODE_DESCRIPTOR);  // 24
    m_FilterDescriptor.NodeDescriptors = m_pNodeDescriptors;
    m_FilterDescriptor.ConnectionsCount = m_ucNbrTopologyConnection;
    m_FilterDescriptor.Connections = m_pTopologyConnections;

    // Step 8: the one filter factory, freed by ks.sys at stop.
    KsAcquireDevice(m_pKsDevice);
    status = KsCreateFilterFactory(m_pFunctionalDeviceObject, &m_FilterDescriptor, g_FilterReferenceString, nullptr,
                                   KSCREATE_ITEM_FREEONSTOP, nullptr, nullptr, &m_pFilterFactory);
    KsReleaseDevice(m_pKsDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    m_FilterFactoryCreated = TRUE;

    // Step 9: m_Int.Initialize and start (Part 3.4, a later issue).

    // Step 10: the self-timer's countdown timer (Part 3.4 starts it).
    KeInitializeTimerEx(&m_CountdownTimer, NotificationTimer);
    KeInitializeDpc(&m_CountdownDpc, CountdownDpcRoutine, this);
    m_CountdownTimerReady = 1;

    // Part 3.3 reads it: controls are accepted from device start on.
    m_ControlReady = 1;
    return STATUS_SUCCESS;
}

// Start steps 5 and 6: an array of count pointers into the table, set as
// the pin's data ranges.
NTSTATUS CCaptureDevice::AttachDataRanges(ULONG PinId, PKS_DATARANGE_VIDEO pTable, USHORT nCount,
                                          PKSDATARANGE** ppRanges, ULONG Tag)
{
    auto ppArray =
        static_cast<PKSDATARANGE*>(ExAllocatePoolWithTag(NonPagedPoolNx, nCount * sizeof(PKSDATARANGE), Tag));
    if (ppArray == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    for (USHORT i = 0; i < nCount; ++i) {
        ppArray[i] = reinterpret_cast<PKSDATARANGE>(&pTable[i]);
    }
    *ppRanges = ppArray;
    m_PinDescriptors[PinId].PinDescriptor.DataRangesCount = nCount;
    m_PinDescriptors[PinId].PinDescriptor.DataRanges = ppArray;
    return STATUS_SUCCESS;
}

// Part 1.1 stop sequence.
void CCaptureDevice::PnpStop()
{
    // Step 1: no idle pass after this (skipped when idle power is off).
    if (m_IdlePowerEnabled != 0) {
        EndIdleManagement(TRUE);
    }
    // Step 2 (Part 1.2).
    DeconfigureUsbDevice();
    // Step 3.
    CancelCountdown();
    // Step 4: stop and release m_Int (Part 3.4, a later issue).
    // Step 5.
    ReleaseAllocations();
    // Step 6: "DeviceExist" = 2 under "\Data" (Part 3.1's store).
    WriteDeviceExist(2);
}

// Part 1.1 remove: the wait for outstanding pin IRPs belongs to the capture
// pin (Part 2.1).
void CCaptureDevice::PnpRemove()
{
    DbgPrint("PnP Remove\n");
    CancelCountdown();
    EndIdleManagement(FALSE);
    ReleaseAllocations();
}

// Part 1.1 surprise removal: end idle management (no power request: the
// camera is gone).
void CCaptureDevice::SurpriseRemoval()
{
    if (m_IdlePowerEnabled != 0) {
        EndIdleManagement(FALSE);
    }
}

// Stop step 3 (also remove): a running countdown is cancelled.
void CCaptureDevice::CancelCountdown()
{
    if (m_CountdownCounter >= 0) {
        if (m_CountdownTimerReady != 0) {
            KeCancelTimer(&m_CountdownTimer);
        }
        m_CountdownCounter = -1;
    }
}

// ---- Power -------------------------------------------------------------------------------

// Part 1.1 DispatchQueryPower, under the device lock: a coming system
// sleep (action above 1: sleep, hibernate, shutdown) stops the idle timer.
NTSTATUS CCaptureDevice::QueryPower(POWER_ACTION Action, SYSTEM_POWER_STATE SystemTo, SYSTEM_POWER_STATE SystemFrom)
{
    m_LastPowerAction = Action;
    if (m_IdlePowerEnabled != 0) {
        m_SystemStateTo = SystemTo;
        m_SystemStateFrom = SystemFrom;
        if (Action > 1) {
            m_ResumePending = 1;
            if (m_IdleTimerStarted != 0) {
                KeCancelTimer(&m_IdleTimer);
            }
        }
    }
    return STATUS_SUCCESS;
}

// Part 1.1 DispatchSetPower, under the device lock: the set-power after a
// system sleep was announced restarts the idle timer once, from a work
// item.
void CCaptureDevice::SetPower(DEVICE_POWER_STATE To, DEVICE_POWER_STATE From)
{
    m_DevicePowerState = static_cast<ULONG>(To);
    m_DevicePowerStateFrom = From;
    if (m_IdlePowerEnabled == 0 || m_ResumePending != 1) {
        return;
    }
    if (m_SuppressTimerRestart != 0) {
        m_SuppressTimerRestart = 0;
        return;
    }
    m_ResumePending = 0;
    if (m_IdleTimerStarted == 0 || m_pTimerRestartWorkItem != nullptr) {
        return;
    }
    m_pTimerRestartWorkItem = IoAllocateWorkItem(m_pFunctionalDeviceObject);
    if (m_pTimerRestartWorkItem == nullptr) {
        return;
    }
    KeClearEvent(&m_TimerRestartIdle);
    IoQueueWorkItem(m_pTimerRestartWorkItem, TimerRestartWorkRoutine, DelayedWorkQueue, this);
}

void CCaptureDevice::TimerRestartWorkRoutine(PDEVICE_OBJECT pDeviceObject, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto* pDevice = static_cast<CCaptureDevice*>(pContext);
    if (pDevice->m_IdleActive != 0) {
        SetIdleTimer(&pDevice->m_IdleTimer, &pDevice->m_IdleDpc);
    }
    PIO_WORKITEM pWorkItem = pDevice->m_pTimerRestartWorkItem;
    pDevice->m_pTimerRestartWorkItem = nullptr;
    IoFreeWorkItem(pWorkItem);
    KeSetEvent(&pDevice->m_TimerRestartIdle, IO_NO_INCREMENT, FALSE);
}

// Part 1.1 power-up request.
NTSTATUS CCaptureDevice::RequestPowerUp()
{
    KeClearEvent(&m_PowerUpEvent);
    POWER_STATE state;
    state.DeviceState = PowerDeviceD0;
    NTSTATUS status =
        PoRequestPowerIrp(m_pPhysicalDeviceObject, IRP_MN_SET_POWER, state, SignalPowerEvent, &m_PowerUpEvent, nullptr);
    if (status != STATUS_PENDING) {
        KeSetEvent(&m_PowerUpEvent, IO_NO_INCREMENT, FALSE);
    }
    return status;
}

// ---- Idle management -----------------------------------------------------------------------

// Part 1.1 idle management start (start step 3).
void CCaptureDevice::StartIdleManagement()
{
    KeInitializeSpinLock(&m_IdleSpinLock);
    KeInitializeDpc(&m_IdleDpc, IdleDpcRoutine, this);
    KeInitializeTimerEx(&m_IdleTimer, NotificationTimer);
    KeInitializeEvent(&m_IdlePassEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&m_PowerUpEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&m_TimerRestartIdle, NotificationEvent, TRUE);
    SetIdleTimer(&m_IdleTimer, &m_IdleDpc);
    m_pIdleWorkItem = nullptr;
    m_IdleTimerStarted = 1;
}

// Stop step 1 (PowerUp TRUE), surprise removal and remove (FALSE).
void CCaptureDevice::EndIdleManagement(BOOLEAN PowerUp)
{
    if (m_IdleTimerStarted == 0) {
        return;
    }
    KIRQL oldIrql;
    KeAcquireSpinLock(&m_IdleSpinLock, &oldIrql);
    m_IdleActive = 0;
    KeReleaseSpinLock(&m_IdleSpinLock, oldIrql);
    if (PowerUp) {
        RequestPowerUp();
        KeWaitForSingleObject(&m_PowerUpEvent, Executive, KernelMode, FALSE, nullptr);
    }
    KeCancelTimer(&m_IdleTimer);
    // A DPC of an expiry just before the cancel may still be queued; once it
    // has run, the idle-pass event tells whether its work item is done.
    KeFlushQueuedDpcs();
    KeWaitForSingleObject(&m_IdlePassEvent, Executive, KernelMode, FALSE, nullptr);
    // A restart queued before m_IdleActive was cleared leaves the timer
    // alone (it re-arms only while active); it must still finish first.
    KeWaitForSingleObject(&m_TimerRestartIdle, Executive, KernelMode, FALSE, nullptr);
    m_IdleTimerStarted = 0;
}

// Part 1.1 idle DPC: one idle pass. The pass ends (event set) here, or in
// the work item it queues.
VOID CCaptureDevice::IdleDpcRoutine(PKDPC pDpc, PVOID pContext, PVOID pArgument1, PVOID pArgument2)
{
    UNREFERENCED_PARAMETER(pDpc);
    UNREFERENCED_PARAMETER(pArgument1);
    UNREFERENCED_PARAMETER(pArgument2);
    auto* pDevice = static_cast<CCaptureDevice*>(pContext);
    KeClearEvent(&pDevice->m_IdlePassEvent);
    const bool idle =
        pDevice->m_DevicePowerState <= 1 && pDevice->m_StreamBusy == 0 && pDevice->m_OpenFilterCount == 0;
    if (idle && pDevice->m_pIdleWorkItem == nullptr && pDevice->m_IdleActive == 1) {
        pDevice->m_pIdleWorkItem = IoAllocateWorkItem(pDevice->m_pFunctionalDeviceObject);
        if (pDevice->m_pIdleWorkItem != nullptr) {
            IoQueueWorkItem(pDevice->m_pIdleWorkItem, IdleWorkRoutine, DelayedWorkQueue, pDevice);
            return;
        }
    }
    KeSetEvent(&pDevice->m_IdlePassEvent, IO_NO_INCREMENT, FALSE);
}

// Part 1.1 idle work item: power down an idle device, or up a device that
// a filter needs again.
VOID CCaptureDevice::IdleWorkRoutine(PDEVICE_OBJECT pDeviceObject, PVOID pContext)
{
    UNREFERENCED_PARAMETER(pDeviceObject);
    auto* pDevice = static_cast<CCaptureDevice*>(pContext);
    const bool idle =
        pDevice->m_DevicePowerState <= 1 && pDevice->m_StreamBusy == 0 && pDevice->m_OpenFilterCount == 0;
    if (idle && pDevice->m_IdleActive != 0) {
        KEVENT done;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        POWER_STATE state;
        state.DeviceState = PowerDeviceD3;
        NTSTATUS status = PoRequestPowerIrp(pDevice->m_pPhysicalDeviceObject, IRP_MN_SET_POWER, state,
                                            SignalPowerEvent, &done, nullptr);
        g_KvIdlePowerDownRequested = 1;
        if (status == STATUS_PENDING) {
            LARGE_INTEGER slice;
            slice.QuadPart = kPowerDownWaitSlice;
            do {
                status = KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, &slice);
            } while (status == STATUS_TIMEOUT);
            if (status != STATUS_SUCCESS) {
                DbgPrint("Wait not ended with success, and not with timeout?? Status= 0x%x\n",
                         static_cast<ULONG>(status));
            }
        }
    } else if (pDevice->m_OpenFilterCount != 0 && pDevice->m_DevicePowerState > 1) {
        pDevice->RequestPowerUp();
    }
    PIO_WORKITEM pWorkItem = pDevice->m_pIdleWorkItem;
    pDevice->m_pIdleWorkItem = nullptr;
    IoFreeWorkItem(pWorkItem);
    KeSetEvent(&pDevice->m_IdlePassEvent, IO_NO_INCREMENT, FALSE);
}

// Part 1.1 step 10: the countdown DPC, once a second while a self-timer
// runs (Part 3.4 arms it).
VOID CCaptureDevice::CountdownDpcRoutine(PKDPC pDpc, PVOID pContext, PVOID pArgument1, PVOID pArgument2)
{
    UNREFERENCED_PARAMETER(pDpc);
    UNREFERENCED_PARAMETER(pArgument1);
    UNREFERENCED_PARAMETER(pArgument2);
    auto* pDevice = static_cast<CCaptureDevice*>(pContext);
    if (pDevice->m_CountdownCounter < 1) {
        pDevice->m_CountdownCounter--;
        KeCancelTimer(&pDevice->m_CountdownTimer);
        pDevice->m_StillRequest = 1;
        pDevice->m_SoftwareTrigger = 0;
    } else {
        pDevice->m_CountdownCounter--;
    }
}

// ---- Release ---------------------------------------------------------------------------------

// Part 1.1 "Release of device allocations". Each block goes back with its
// tag and its pointer is cleared.
void CCaptureDevice::ReleaseAllocations()
{
    // The still-capture object (Part 2.4) joins here with its Part.
    m_ConfigurationHandle = nullptr;
    m_IsoInPipe = nullptr;
    m_IsoOutPipe = nullptr;
    m_InterruptPipe = nullptr;
    m_nPipes = 0;
    m_nPipeCapacity = 0;
    FreeTagged(m_pPipes, PoolTag("KVtx"));
    FreeTagged(m_pConfigurationDescriptor, PoolTag("KVcd"));
    FreeTagged(m_pDeviceDescriptor, PoolTag("KVdd"));
    FreeTagged(m_pInterfaceInformation, PoolTag("KVle"));
    // The pins' copies must not keep pointers into the freed tables.
    m_PinDescriptors[KV_PIN_CAPTURE].PinDescriptor.DataRangesCount = 0;
    m_PinDescriptors[KV_PIN_CAPTURE].PinDescriptor.DataRanges = nullptr;
    m_PinDescriptors[KV_PIN_STILL].PinDescriptor.DataRangesCount = 0;
    m_PinDescriptors[KV_PIN_STILL].PinDescriptor.DataRanges = nullptr;
    FreeTagged(m_pCaptureRanges, PoolTag("KVVp"));
    FreeTagged(m_pCaptureTable, PoolTag("KVVd"));
    m_nCaptureTable = 0;
    FreeTagged(m_pStillRanges, PoolTag("KVVr"));
    FreeTagged(m_pStillTable, PoolTag("KVVs"));
    m_nStillTable = 0;
    ReleaseTopology();
    // ks.sys frees the factory itself (KSCREATE_ITEM_FREEONSTOP, or with the
    // device).
    m_pFilterFactory = nullptr;
    m_FilterFactoryCreated = FALSE;
    if (m_pBusInterface != nullptr && m_pBusInterface->InterfaceDereference != nullptr) {
        // The bus took a reference when it answered IRP_MN_QUERY_INTERFACE;
        // the interface's user gives it back before dropping the interface.
        // https://learn.microsoft.com/windows-hardware/drivers/kernel/irp-mn-query-interface
        m_pBusInterface->InterfaceDereference(m_pBusInterface->BusContext);
    }
    FreeTagged(m_pBusInterface, PoolTag("KVB1"));
    ReleaseSettings();
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
// the device's own copy (Part 1.4).
const KSDEVICE_DESCRIPTOR g_KvDeviceDescriptor = {
    &g_DeviceDispatch,            // Dispatch
    0,                            // FilterDescriptorsCount
    nullptr,                      // FilterDescriptors
    KSDEVICE_DESCRIPTOR_VERSION,  // Version
};
