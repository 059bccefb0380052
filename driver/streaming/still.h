// CStillPin: the filter's still pin. It has no transfers and no thread of its
// own: a still is a frame of the running capture stream that the frame loop
// sends here instead of to the capture pin when a still is due (the camera's
// button, the self-timer or the software trigger asked for it). The pin
// keeps its connected format for the frame loop, which reads the still's size
// from it, and announces itself to the device while it is open.
#pragma once
#include "wdk.h"

class CCaptureDevice;

// The pin's context, allocated with the pin and freed through its bag.
struct StillPinContext {
    PKSPIN pKsPin;
    CCaptureDevice* pDevice;
    PKS_VIDEOINFOHEADER pFormat;  // copy of the connected video-info header, "KVIV"
};

class CStillPin {
public:
    static NTSTATUS DispatchCreate(PKSPIN pKsPin, PIRP pIrp);
    static NTSTATUS DispatchClose(PKSPIN pKsPin, PIRP pIrp);
    static NTSTATUS SetDataFormat(PKSPIN pKsPin, PKSDATAFORMAT pOldFormat, PKSMULTIPLE_ITEM pOldAttributeList,
                                  const KSDATARANGE* pDataRange, const KSATTRIBUTE_LIST* pAttributeRange);
    static NTSTATUS SetState(PKSPIN pKsPin, KSSTATE ToState, KSSTATE FromState);
};

extern const KSPIN_DISPATCH g_StillPinDispatch;
