// Part 1.4: the filter, pin and topology descriptors - the static filter
// descriptor and three-pin table that the start sequence (Part 1.1) copies
// into each device, the node and connection tables built at run time
// (CCaptureDevice::InitNodeDescriptorSize / InitNodeAndTopologyDescriptor,
// defined in descriptors.cpp), and the filter object created per open filter.
#pragma once

#include "wdk.h"

class CCaptureDevice;

// Pin ids: the order of the pin table (Part 1.4).
enum : ULONG {
    KV_PIN_CAPTURE = 0,
    KV_PIN_BRIDGE = 1,
    KV_PIN_STILL = 2,
    KV_PIN_COUNT = 3,
};

// Sizes of the run-time tables (Part 1.4 InitNodeDescriptorSize).
enum : UCHAR {
    KV_NODE_COUNT = 4,
    KV_CONNECTION_COUNT = 6,
};

// The static templates (descriptors.cpp). The filter template has no pins,
// nodes or connections: the start sequence fills them in on its copy.
extern const KSFILTER_DESCRIPTOR g_CaptureFilterDescriptor;
extern const KSPIN_DESCRIPTOR_EX g_PinDescriptorTemplate[KV_PIN_COUNT];

// Part 1.4 filter object: one per open filter, owned by the filter's object
// bag. The three values are the filter context of Part 3.3's property
// handlers.
class CCaptureFilter {
public:
    // Lasting objects carry their own pool tag ("KVFl", a decision: the spec
    // names none for the filter object). A null return is checked by the
    // new-expression (noexcept allocation function).
    static void* operator new(decltype(sizeof(0)) cb) noexcept;
    static void operator delete(void* p) noexcept;

    CCaptureFilter(PKSFILTER pKsFilter, CCaptureDevice* pDevice);
    ~CCaptureFilter();

    // KSFILTER_DISPATCH.Create (Part 1.4).
    static NTSTATUS DispatchCreate(PKSFILTER pKsFilter, PIRP pIrp);
    // The object bag's free routine: runs the destructor.
    static void Cleanup(PVOID pContext);

    CCaptureDevice* m_pDevice;
    PKSFILTER m_pKsFilter;
    ULONG m_DefaultValue;       // 15 (Part 1.4)
    ULONG m_TunnelPending;      // 0: Part 3.3's pending flag
    ULONG m_CurrentFormatIndex; // 0: Part 3.3's current format index
};
