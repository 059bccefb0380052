// The filter the driver offers: the static filter descriptor and three-pin
// table that every device copies, the node and connection tables built at
// start, and the filter factory made from the device's copy. Each device
// keeps its own copy because the pins' data ranges are the camera's own
// format tables.
#pragma once

#include "wdk.h"

// Pin ids: the order of the pin table.
enum : ULONG {
    KV_PIN_CAPTURE = 0,
    KV_PIN_BRIDGE = 1,
    KV_PIN_STILL = 2,
    KV_PIN_COUNT = 3,
};

// Sizes of the run-time tables.
enum : UCHAR {
    KV_NODE_COUNT = 4,
    KV_CONNECTION_COUNT = 6,
};

// The static templates. The filter template has no pins, nodes or
// connections: each device fills them in on its copy.
extern const KSFILTER_DESCRIPTOR g_CaptureFilterDescriptor;
extern const KSPIN_DESCRIPTOR_EX g_PinDescriptorTemplate[KV_PIN_COUNT];

class FilterTables {
public:
    FilterTables();
    ~FilterTables();
    FilterTables(const FilterTables&) = delete;
    FilterTables& operator=(const FilterTables&) = delete;

    // The device's own filter descriptor pointing at its own copy of the pin
    // table, data ranges cleared until the format tables are attached.
    void CopyFilterTemplates();
    // An array of nCount pointers into pTable (pool, Tag) set as the pin's
    // data ranges; *ppRanges receives the array, which its owner frees.
    NTSTATUS AttachDataRanges(ULONG PinId, PKS_DATARANGE_VIDEO pTable, USHORT nCount, PKSDATARANGE** ppRanges,
                              ULONG Tag);
    // The node and connection tables, hung on the filter descriptor.
    NTSTATUS InitNodeAndTopologyDescriptor();
    // The one filter factory of the device, freed by ks.sys at stop.
    NTSTATUS CreateFilterFactory(PKSDEVICE pKsDevice);
    // Unhooks the pins' data ranges: the format tables they point into are
    // about to go.
    void UnhookDataRanges();
    // Frees the node and connection tables and unhooks them from the filter
    // descriptor (a second call is harmless).
    void ReleaseTopology();
    void Release()
    {
        UnhookDataRanges();
        ReleaseTopology();
    }

    KSFILTER_DESCRIPTOR m_FilterDescriptor;
    KSPIN_DESCRIPTOR_EX m_PinDescriptors[KV_PIN_COUNT];
    PKSNODE_DESCRIPTOR m_pNodeDescriptors;          // "KVNd"
    UCHAR m_ucNbrNodeDescriptor;
    PKSTOPOLOGY_CONNECTION m_pTopologyConnections;  // "KVCn"
    UCHAR m_ucNbrTopologyConnection;
    PKSFILTERFACTORY m_pFilterFactory;
    BOOLEAN m_FilterFactoryCreated;

private:
    NTSTATUS InitNodeDescriptorSize();
};
