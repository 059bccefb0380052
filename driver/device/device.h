// CCaptureDevice: the per-device object, created by the device's Add
// dispatch and owned by the kernel-streaming device (freed with its object
// bag). It runs the device's start, stop, removal and power dispatch, and
// holds the device's state as one record per concern:
//   m_Usb       USB configuration (device/usb.h)
//   m_Formats   format tables and control bitmaps (device/formats.h)
//   m_Filter    filter, pin, node and connection tables (device/descriptors.h)
//   m_Idle      idle power and power states (device/power.h)
//   m_Settings  the settings record and "\Data" values (controls/settings.h)
//   m_Requests  video-class control requests (controls/requests.h)
//   m_SelfTimer the self-timer's countdown (controls/interrupt.h)
//   m_Stream    the isochronous stream and its frame buffers (streaming/isostream.h)
//   m_FrameLoop the frame loop's counters (streaming/frameloop.h)
#pragma once

#include "wdk.h"
#include "controls/interrupt.h"
#include "controls/requests.h"
#include "controls/settings.h"
#include "device/descriptors.h"
#include "device/formats.h"
#include "device/power.h"
#include "device/usb.h"
#include "streaming/frameloop.h"
#include "streaming/isostream.h"

class CCaptureFilter;

// The device descriptor handed to KsInitializeDriver.
extern const KSDEVICE_DESCRIPTOR g_KvDeviceDescriptor;

class CCaptureDevice {
public:
    explicit CCaptureDevice(PKSDEVICE pKsDevice);
    ~CCaptureDevice();
    CCaptureDevice(const CCaptureDevice&) = delete;
    CCaptureDevice& operator=(const CCaptureDevice&) = delete;

    // Add takes the object from non-paged pool with its tag and constructs it
    // in place (Create / Cleanup). Plain new and delete (tests that build a
    // device of their own) keep the global allocator.
    static CCaptureDevice* Create(PKSDEVICE pKsDevice);
    static void* operator new(decltype(sizeof(0)) cb, void* pPlace) noexcept
    {
        UNREFERENCED_PARAMETER(cb);
        return pPlace;
    }
    static void operator delete(void*, void*) noexcept {}
    static void* operator new(decltype(sizeof(0)) cb) { return ::operator new(cb); }
    static void operator delete(void* p) noexcept { ::operator delete(p); }
    // The object bag's free routine for the device object.
    static void Cleanup(PVOID pContext);

    // The device dispatch routines.
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

    // The settings, the control-request context, the bus interface and the
    // bus speed (device start).
    NTSTATUS InitDeviceSettings();
    // Frees every allocation of the device with its tag; a second call is
    // harmless.
    void ReleaseAllocations();
    void StopButton();

    PKSDEVICE m_pKsDevice;
    PDEVICE_OBJECT m_pFunctionalDeviceObject;
    PDEVICE_OBJECT m_pPhysicalDeviceObject;
    PDEVICE_OBJECT m_pNextDeviceObject;

    UsbConfiguration m_Usb;
    FormatTables m_Formats;
    FilterTables m_Filter;
    IdlePower m_Idle;
    DeviceSettings m_Settings;
    ControlRequests m_Requests;
    SelfTimer m_SelfTimer;
    InterruptEndpoint m_Int;
    StillEventSender m_StillEvents;
    IsoStream m_Stream;
    FrameLoop m_FrameLoop;
    CCaptureFilter* m_pCaptureFilter;  // the most recently created filter object
    // One streaming pin at a time: 1 while a capture pin is out of stop.
    volatile LONG m_StreamingSlot;
    // The still pin while it is open (its create and close set and clear
    // it), so that the frame thread finds it without the filter's control
    // mutex, which a state change holds while it waits for that thread.
    PKSPIN volatile m_pStillPin;
    // Frames being served to the still pin; its close waits for 0.
    volatile LONG m_StillPinUsers;

private:
    // The sequences behind the dispatch routines.
    NTSTATUS PnpStart();
    void PnpStop();
    void PnpRemove();
    void SurpriseRemoval();
};
