// The filter object: one per open capture filter, owned by the filter's
// object bag. It holds what the filter's property handlers keep between
// calls, and counts as an open filter against idle power-down.
#pragma once

#include "wdk.h"

class CCaptureDevice;

// The driver's own property set: every setting, through a two-step tunnel.
inline constexpr GUID PROPSETID_DriverControl = {0x53787043, 0xf62e, 0x4a66,
                                                 {0xbb, 0xa3, 0xac, 0x02, 0xd0, 0xc3, 0xfd, 0xe6}};

class CCaptureFilter {
public:
    // The object carries its own pool tag; a null return is checked by the
    // new-expression (noexcept allocation function).
    static void* operator new(decltype(sizeof(0)) cb) noexcept;
    static void operator delete(void* p) noexcept;

    CCaptureFilter(PKSFILTER pKsFilter, CCaptureDevice* pDevice);
    ~CCaptureFilter();

    // KSFILTER_DISPATCH.Create.
    static NTSTATUS DispatchCreate(PKSFILTER pKsFilter, PIRP pIrp);
    // The object bag's free routine: runs the destructor.
    static void Cleanup(PVOID pContext);

    // The filter's property handlers (KSPROPERTY_ITEM handlers).
    static NTSTATUS GetDroppedFrames(PIRP pIrp, PKSPROPERTY pProperty, PVOID pData);
    static NTSTATUS GetVideoControl(PIRP pIrp, PKSPROPERTY pProperty, PVOID pData);
    static NTSTATUS SetVideoControlProperty(PIRP pIrp, PKSPROPERTY pProperty, PVOID pData);
    static NTSTATUS DriverControl(PIRP pIrp, PKSPROPERTY pProperty, PVOID pData);

    CCaptureDevice* m_pDevice;
    PKSFILTER m_pKsFilter;
    ULONG m_DefaultValue;        // 15
    ULONG m_TunnelPending;       // the driver-control tunnel's pending flag
    ULONG m_CurrentFormatIndex;  // the format the handlers describe

private:
    NTSTATUS ActualFrameRate(PIRP pIrp, PKSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S pRequest, PVOID pData,
                             ULONG cbOut);
    NTSTATUS FrameRates(PIRP pIrp, PKSPROPERTY_VIDEOCONTROL_FRAME_RATES_S pRequest, PVOID pData, ULONG cbOut);
};

// The filter's automation table: the driver-control, dropped-frames and
// video-control property sets and the still-button event set.
extern const KSAUTOMATION_TABLE g_FilterAutomationTable;
