// CCaptureDevice: the per-device object (Overview "Shared types", Part 1.1's
// field list). This header holds the fields of Parts 1.1-1.4 and the
// methods of Parts 1.1 (device.cpp), 1.2 (usb.cpp), 1.3 (formats.cpp) and
// 1.4 (descriptors.cpp); the marked blocks below belong to Parts 3.1 and 3.2
// (controls/). Later Parts (2.x, 3.4) add their members in their own issues.
#pragma once

#include "wdk.h"

class CCaptureFilter;

// Part 1.1: the device descriptor handed to KsInitializeDriver, and the
// driver-wide flag the idle work item sets when it asks for D3 (device.cpp).
extern const KSDEVICE_DESCRIPTOR g_KvDeviceDescriptor;
extern ULONG g_KvIdlePowerDownRequested;

namespace kv {
// Overview "Conventions": a pageable routine calls this on entry; above
// APC_LEVEL it prints "EX: Pageable code called at IRQL %d\n" and answers
// true. Defined in device.cpp.
bool PageableCallTooHigh();
}  // namespace kv

class CCaptureDevice {
public:
    // Part 1.1: construction sets the initial values the Part lists; the
    // release routine frees every allocation with its tag (Part 1.1
    // "Release of device allocations"); a second call is harmless.
    explicit CCaptureDevice(PKSDEVICE pKsDevice);
    ~CCaptureDevice();
    void ReleaseAllocations();

    // Part 1.1: Add takes the object from non-paged pool with tag "KVaC"
    // and constructs it in place (Create / Cleanup). Plain new and delete
    // (tests that build a device of their own) keep the global allocator.
    static CCaptureDevice* Create(PKSDEVICE pKsDevice);
    static void* operator new(decltype(sizeof(0)) cb, void* pPlace) noexcept
    {
        UNREFERENCED_PARAMETER(cb);
        return pPlace;
    }
    static void operator delete(void*, void*) noexcept {}
    static void* operator new(decltype(sizeof(0)) cb) { return ::operator new(cb); }
    static void operator delete(void* p) noexcept { ::operator delete(p); }

    // ---- Part 1.1: the device dispatch routines (device.cpp) ----
    static NTSTATUS DispatchAdd(PKSDEVICE pKsDevice);
    static NTSTATUS DispatchStart(PKSDEVICE pKsDevice, PIRP pIrp, PCM_RESOURCE_LIST pTranslated,
                                  PCM_RESOURCE_LIST pUntranslated);
    static void DispatchStop(PKSDEVICE pKsDevice, PIRP pIrp);
    static void DispatchRemove(PKSDEVICE pKsDevice, PIRP pIrp);
    static NTSTATUS DispatchQueryCapabilities(PKSDEVICE pKsDevice, PIRP pIrp, PDEVICE_CAPABILITIES pCapabilities);
    static void DispatchSurpriseRemoval(PKSDEVICE pKsDevice, PIRP pIrp);
    static NTSTATUS DispatchQueryPower(PKSDEVICE pKsDevice, PIRP pIrp, DEVICE_POWER_STATE DeviceTo,
                                       DEVICE_POWER_STATE DeviceFrom, SYSTEM_POWER_STATE SystemTo,
                                       SYSTEM_POWER_STATE SystemFrom, POWER_ACTION Action);
    static void DispatchSetPower(PKSDEVICE pKsDevice, PIRP pIrp, DEVICE_POWER_STATE To, DEVICE_POWER_STATE From);
    // The object bag's free routine for the device object.
    static void Cleanup(PVOID pContext);

    // The sequences behind them.
    NTSTATUS PnpStart();
    void PnpStop();
    void PnpRemove();
    void SurpriseRemoval();
    NTSTATUS QueryPower(POWER_ACTION Action, SYSTEM_POWER_STATE SystemTo, SYSTEM_POWER_STATE SystemFrom);
    void SetPower(DEVICE_POWER_STATE To, DEVICE_POWER_STATE From);

    // ---- Part 1.1: idle power management (device.cpp) ----
    void StartIdleManagement();
    // Stop step 1 / surprise removal: no idle pass runs after it returns.
    void EndIdleManagement(BOOLEAN PowerUp);
    // Power-up request: a D0 set-power IRP; m_PowerUpEvent is set when it
    // has completed (Part 1.4 filter creation and Part 2.1 call it).
    NTSTATUS RequestPowerUp();
    void CancelCountdown();
    NTSTATUS AttachDataRanges(ULONG PinId, PKS_DATARANGE_VIDEO pTable, USHORT nCount, PKSDATARANGE** ppRanges,
                              ULONG Tag);
    static KDEFERRED_ROUTINE IdleDpcRoutine;
    static IO_WORKITEM_ROUTINE IdleWorkRoutine;
    static IO_WORKITEM_ROUTINE TimerRestartWorkRoutine;
    static KDEFERRED_ROUTINE CountdownDpcRoutine;

    // ---- Part 1.4: filter and topology tables (device/descriptors.cpp) ----
    NTSTATUS InitNodeDescriptorSize();
    NTSTATUS InitNodeAndTopologyDescriptor();
    void CopyFilterTemplates();
    void ReleaseTopology();

    // ---- Part 1.2: USB descriptors and configuration (device/usb.cpp) ----
    NTSTATUS SubmitUrb(PURB pUrb);
    NTSTATUS ReadandSelectUsbDescriptors();
    NTSTATUS ConfigureUsbDevice();
    NTSTATUS SelectUsbInterfaces(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor);
    NTSTATUS SelectAlternateInterface(UCHAR InterfaceNumber, UCHAR AlternateSetting, UCHAR InterfaceSubClass);
    NTSTATUS DeconfigureUsbDevice();
    NTSTATUS GetBusInterface();
    NTSTATUS InitDeviceSpeed();
    // Helpers of the above (usb.cpp).
    NTSTATUS KeepFirstInterface(PUSBD_INTERFACE_INFORMATION pInfo, USBD_CONFIGURATION_HANDLE hConfiguration);
    void ReplaceBusInterface(PUSB_BUS_INTERFACE_USBDI_V1 pInterface);

    // ---- Part 1.3: format tables (device/formats.cpp) ----
    // pnCount: the caller sets it to 0; one increment per entry made.
    NTSTATUS ExtractVSInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor, PKS_DATARANGE_VIDEO* ppVSDataRange,
                           USHORT* pnCount);
    NTSTATUS ExtractStillInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor,
                              PKS_DATARANGE_VIDEO* ppVSDataRange, USHORT* pnCount);
    // The same walks over a buffer of cb bytes: the walk never reads past
    // min(cb, wTotalLength). The forms above take cb = wTotalLength.
    NTSTATUS ExtractVSInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor, ULONG cb,
                           PKS_DATARANGE_VIDEO* ppVSDataRange, USHORT* pnCount);
    NTSTATUS ExtractStillInfo(PUSB_CONFIGURATION_DESCRIPTOR pConfigurationDescriptor, ULONG cb,
                              PKS_DATARANGE_VIDEO* ppVSDataRange, USHORT* pnCount);

    // Parts 3.1 and 3.2 (helper H10) keep both their member functions and
    // their fields in the two marked blocks further down; only they edit
    // inside those blocks.

    // Fields are public: the Parts' routines (pins, filter, interrupt
    // object, work items) read them directly, as the spec's design does.

    // ---- Part 1.1: the kernel-streaming device and its device objects ----
    PKSDEVICE m_pKsDevice;
    PDEVICE_OBJECT m_pFunctionalDeviceObject;
    PDEVICE_OBJECT m_pPhysicalDeviceObject;
    PDEVICE_OBJECT m_pNextDeviceObject;

    // ---- Part 1.2: USB state ----
    PUSB_DEVICE_DESCRIPTOR m_pDeviceDescriptor;                // 18 bytes, "KVdd"
    PUSB_CONFIGURATION_DESCRIPTOR m_pConfigurationDescriptor;  // wTotalLength bytes, "KVcd"
    UCHAR m_RemoteWakeup;                                      // bmAttributes bit 0x20
    USBD_CONFIGURATION_HANDLE m_ConfigurationHandle;
    PUSBD_INTERFACE_INFORMATION m_pInterfaceInformation;       // first interface, "KVle"
    PUSBD_PIPE_INFORMATION m_pPipes;                           // pipe array, "KVtx"
    ULONG m_nPipes;                                            // pipes the array holds now
    ULONG m_nPipeCapacity;                                     // entries allocated (largest alt setting)
    PUSBD_PIPE_INFORMATION m_IsoInPipe;                        // references into m_pPipes
    PUSBD_PIPE_INFORMATION m_IsoOutPipe;
    PUSBD_PIPE_INFORMATION m_InterruptPipe;
    PUSB_BUS_INTERFACE_USBDI_V1 m_pBusInterface;               // 72 bytes, "KVB1"
    ULONG m_HighSpeed;
    ULONG m_SpeedPacketCount;                                  // 128 high speed, 32 full speed

    // ---- Part 1.3: control bitmaps and format tables ----
    ULONG CameraTerminalControls;
    USHORT ProcessingUnitControls;
    ULONG WideFrameWidth;
    PKS_DATARANGE_VIDEO m_pCaptureTable;    // "KVVd"
    USHORT m_nCaptureTable;
    PKSDATARANGE* m_pCaptureRanges;         // pointer array, "KVVp"
    PKS_DATARANGE_VIDEO m_pStillTable;      // "KVVs"
    USHORT m_nStillTable;
    PKSDATARANGE* m_pStillRanges;           // pointer array, "KVVr"

    // ---- Part 1.4: filter, pins, nodes (filled by a later issue) ----
    KSFILTER_DESCRIPTOR m_FilterDescriptor;
    KSPIN_DESCRIPTOR_EX m_PinDescriptors[3];
    PKSNODE_DESCRIPTOR m_pNodeDescriptors;
    UCHAR m_ucNbrNodeDescriptor;
    PKSTOPOLOGY_CONNECTION m_pTopologyConnections;
    UCHAR m_ucNbrTopologyConnection;
    PKSFILTERFACTORY m_pFilterFactory;
    BOOLEAN m_FilterFactoryCreated;
    CCaptureFilter* m_pCaptureFilter;  // the most recently created filter object

    // ---- Part 1.1: idle power state ----
    ULONG m_IdlePowerEnabled;
    ULONG m_IdleActive;
    KTIMER m_IdleTimer;
    KDPC m_IdleDpc;
    PIO_WORKITEM m_pIdleWorkItem;
    PIO_WORKITEM m_pTimerRestartWorkItem;
    KEVENT m_IdlePassEvent;
    KEVENT m_PowerUpEvent;
    KSPIN_LOCK m_IdleSpinLock;
    POWER_ACTION m_LastPowerAction;
    SYSTEM_POWER_STATE m_SystemStateFrom;
    SYSTEM_POWER_STATE m_SystemStateTo;
    DEVICE_POWER_STATE m_DevicePowerStateFrom;
    ULONG m_DevicePowerState;  // the state being entered; 1 = D0
    UCHAR m_ResumePending;
    UCHAR m_SuppressTimerRestart;
    ULONG m_StreamBusy;
    ULONG m_OpenFilterCount;
    // Set while the idle timer and DPC are initialised (start step 3 until
    // EndIdleManagement), so that remove can end a scheme that a failed
    // start left running (such a device gets no stop).
    UCHAR m_IdleTimerStarted;
    // Signalled while no timer-restart work item is outstanding, so that
    // the end of idle management can wait for one still queued.
    KEVENT m_TimerRestartIdle;

    // ---- Part 1.1 / 3.4: countdown timer of the self-timer ----
    KTIMER m_CountdownTimer;
    KDPC m_CountdownDpc;
    LONG m_CountdownCounter;  // -1 when no countdown runs
    // Part 3.4's still-request flag (the countdown-finished flag that the
    // countdown DPC sets) and the device's software-trigger flag (the
    // countdown-request flag it clears).
    ULONG m_StillRequest;
    ULONG m_SoftwareTrigger;
    UCHAR m_CountdownTimerReady;  // start step 10 done

    // Parts 3.1 and 3.2: member functions and fields (helper H10's blocks).
    // ---- Part 3.1: settings store (controls/settings.cpp) ---- begin
    // Types live in controls/settings.h (DeviceProperty, PropertySetKind as
    // ULONG Which: 0 Last, 1 Customer). PASSIVE_LEVEL routines.
    NTSTATUS InitDeviceSettings();
    NTSTATUS CheckReadDef();
    BOOLEAN InitLastValue();  // returns 1 in every case (Part 3.1)
    NTSTATUS LoadPropertySet(ULONG Which);
    NTSTATUS SavePropertySet(ULONG Which);
    NTSTATUS LoadDefaultOrientation();
    NTSTATUS LoadDefaultEffects();
    NTSTATUS ResetTrackingAndTimer();
    NTSTATUS SaveSpecialFrameString(ULONG Index, PCWSTR pText, ULONG Count);
    // Device stop (Part 1.1 step 6): "DeviceExist" = 2 under "\Data".
    NTSTATUS WriteDeviceExist(ULONG Value);
    // Frees the settings record and the control-request context (clears both
    // pointers); for Part 1.1's release of device allocations.
    void ReleaseSettings();

    struct DeviceProperty* m_Property = nullptr;                // 140 bytes, "KVaT"
    struct ControlRequestContext* m_pControlContext = nullptr;  // Part 3.2's handle, "KVrb"
    ULONG m_BW = 0;                                             // "BW"
    UCHAR m_SWSetting[3] = {0x00, 0xC0, 0x01};                  // "SWSetting", default 00 C0 01
    ULONG m_SaveFileMJPEG = 0;                                  // "SaveFileMJPEG"
    ULONG m_SaveFileDroppedMJPEG = 0;                           // "SaveFileDroppedMJPEG"
    ULONG m_DropFrameCntVGA = 0;                                // "DropFrameCntVGA"
    ULONG m_Key1Function = 0;                                   // "Key1Function" (Part 3.4)
    ULONG m_Key2Function = 0;                                   // "Key2Function" (Part 3.4)
    ULONG m_TrackingWindowSize = 0;                             // "TrackingWindowSize", 4 when absent
    ULONG m_TrackingFocus = 0;                                  // "TrackingFocus", 2 when absent
    LONG m_EffectiveVflip = 0;                                  // slot 13 gated by SWSetting bit 15
    LONG m_EffectiveMirror = 0;                                 // slot 14 gated by bit 14
    LONG m_EffectiveDeadPixel = 0;                              // slot 15 gated by bit 16
    LONG m_OneShotValue = 0;                                    // id 0x0918, cleared by its read
    // ---- Part 3.1: settings store (controls/settings.cpp) ---- end
    // ---- Part 3.2: class requests (controls/requests.cpp) ---- begin
    // SendClassRequest: synchronous at PASSIVE_LEVEL; at DISPATCH_LEVEL it
    // queues a work item and returns STATUS_PENDING (pBuffer and pLength must
    // then stay valid until the request has run).
    NTSTATUS SendClassRequest(USHORT wIndex, UCHAR Request, USHORT wValue, PVOID pBuffer, PULONG pLength);
    NTSTATUS SetProcessingUnit(USHORT wValue, LONG Value);
    NTSTATUS GetCur(USHORT wIndex, USHORT wValue, PVOID pBuffer, PULONG pLength);
    NTSTATUS SetCur(USHORT wIndex, USHORT wValue, PVOID pBuffer, PULONG pLength);
    NTSTATUS GetDeviceProperty(USHORT Id, UCHAR Request, PLONG pValue);
    NTSTATUS SetDeviceProperty(USHORT Id, LONG Value);
    NTSTATUS AccessExtensionRegister(UCHAR Register, ULONG Set);
    static IO_WORKITEM_ROUTINE DeferredRequestWorker;

    // Device values that ids 0x0639, 0x0660 and 0x0610 read or set; the
    // Parts that own their life (2.1 pin run, 3.3 control-ready, 4.2 frame
    // reload) set or consume them.
    ULONG m_CapturePinRunning = 0;   // id 0x0639: 1 from the pin's run transition until it stops
    ULONG m_ControlReady = 0;        // id 0x0660: set to 1 at device start
    ULONG m_SpecialFrameReload = 0;  // id 0x0610 value 11 sets it to 1 (Part 4.2)
    // ---- Part 3.2: class requests (controls/requests.cpp) ---- end

    // Parts 2.2/2.3 (m_streamObject, frame buffers) and 3.4 (m_Int) add
    // their members in their own issues.
};
