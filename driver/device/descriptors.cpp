// The filter's descriptors: the node and connection tables (built at
// start), the device's copy of the filter and pin templates, the filter
// factory, and - as const data at the end of the file - the filter
// descriptor template, the three-pin table and the framing of the capture
// and still pins.
//
// The framing item asks for 2 frames, byte alignment and frame size 0: the
// pins set count and size when a format is chosen, since only then is the
// frame size known.
#include "device/descriptors.h"

#include "controls/filter.h"
#include "streaming/capture.h"
#include "streaming/still.h"
#include "pageable.h"
#include "pooltag.h"

using namespace kv;

namespace {

// GUIDs used by the tables, defined here from the headers' STATIC_ forms so
// that the driver needs no INITGUID translation unit (Windows build).
const GUID g_KsNameFilter = {STATICGUIDOF(KSNAME_Filter)};
const GUID g_PinNameVideoCapture = {STATICGUIDOF(PINNAME_VIDEO_CAPTURE)};
const GUID g_PinNameVideoStill = {STATICGUIDOF(PINNAME_VIDEO_STILL)};
// The bridge pin's category and name, a GUID of this driver's own:
// 1B6C4281-0353-11D1-905F-0000C0CC16B0.
const GUID g_PinNameVideoBridge = {0x1B6C4281, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xB0}};
const GUID g_NodeCameraTerminal = {STATICGUIDOF(KSNODETYPE_VIDEO_CAMERA_TERMINAL)};
const GUID g_NodeVideoStreaming = {STATICGUIDOF(KSNODETYPE_VIDEO_STREAMING)};
const GUID g_NodeVideoProcessing = {STATICGUIDOF(KSNODETYPE_VIDEO_PROCESSING)};
const GUID g_NodeDevSpecific = {STATICGUIDOF(KSNODETYPE_DEV_SPECIFIC)};
// The device-specific node's name, a GUID of this driver's own:
// DFF229F0-F70F-11D0-B917-00A0C9223196.
const GUID g_NodeDevSpecificName = {0xDFF229F0, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};

// A node's type and name, in node order.
struct NodeEntry {
    const GUID* pType;
    const GUID* pName;
};

// A connection: from node, from pin, to node, to pin.
struct ConnectionEntry {
    ULONG FromNode;
    ULONG FromNodePin;
    ULONG ToNode;
    ULONG ToNodePin;
};

extern const NodeEntry g_NodeTable[KV_NODE_COUNT];
extern const ConnectionEntry g_ConnectionTable[KV_CONNECTION_COUNT];

}  // namespace

// ---- Node and connection tables ------------------------------------------------

FilterTables::FilterTables()
    : m_FilterDescriptor(),
      m_PinDescriptors(),
      m_pNodeDescriptors(nullptr),
      m_ucNbrNodeDescriptor(0),
      m_pTopologyConnections(nullptr),
      m_ucNbrTopologyConnection(0),
      m_pFilterFactory(nullptr),
      m_FilterFactoryCreated(FALSE)
{
}

FilterTables::~FilterTables()
{
    Release();
}

// Counts first, then both tables; the first is given back when the second
// cannot be had.
NTSTATUS FilterTables::InitNodeDescriptorSize()
{
    m_ucNbrNodeDescriptor = KV_NODE_COUNT;
    m_ucNbrTopologyConnection = KV_CONNECTION_COUNT;
    m_pNodeDescriptors = static_cast<PKSNODE_DESCRIPTOR>(
        ExAllocatePoolWithTag(NonPagedPoolNx, m_ucNbrNodeDescriptor * sizeof(KSNODE_DESCRIPTOR), kTagNodes));
    if (m_pNodeDescriptors == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    m_pTopologyConnections = static_cast<PKSTOPOLOGY_CONNECTION>(ExAllocatePoolWithTag(
        NonPagedPoolNx, m_ucNbrTopologyConnection * sizeof(KSTOPOLOGY_CONNECTION), kTagConnections));
    if (m_pTopologyConnections == nullptr) {
        FreeTagged(m_pNodeDescriptors, kTagNodes);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

// Fills both tables from the const data below and hangs them on the filter
// descriptor.
NTSTATUS FilterTables::InitNodeAndTopologyDescriptor()
{
    PageableCallTooHigh();
    NTSTATUS status = InitNodeDescriptorSize();
    if (!NT_SUCCESS(status)) {
        DbgPrint("CCaptureDevice::InitNodeAndTopologyDescriptor() InitNodeDescriptorSize() Failed Status 0x%x\n",
                 static_cast<ULONG>(status));
        return status;
    }

    UCHAR ucNbrNodeDescriptor = 0;
    for (const NodeEntry& node : g_NodeTable) {
        KSNODE_DESCRIPTOR& d = m_pNodeDescriptors[ucNbrNodeDescriptor++];
        d.AutomationTable = nullptr;
        d.Type = node.pType;
        d.Name = node.pName;
    }
    ASSERT(ucNbrNodeDescriptor == m_ucNbrNodeDescriptor);

    UCHAR nConnection = 0;
    for (const ConnectionEntry& c : g_ConnectionTable) {
        KSTOPOLOGY_CONNECTION& d = m_pTopologyConnections[nConnection++];
        d.FromNode = c.FromNode;
        d.FromNodePin = c.FromNodePin;
        d.ToNode = c.ToNode;
        d.ToNodePin = c.ToNodePin;
    }
    ASSERT(nConnection == m_ucNbrTopologyConnection);

    m_FilterDescriptor.NodeDescriptorsCount = m_ucNbrNodeDescriptor;
    m_FilterDescriptor.NodeDescriptorSize = sizeof(KSNODE_DESCRIPTOR);  // 24
    m_FilterDescriptor.NodeDescriptors = m_pNodeDescriptors;
    m_FilterDescriptor.ConnectionsCount = m_ucNbrTopologyConnection;
    m_FilterDescriptor.Connections = m_pTopologyConnections;
    return STATUS_SUCCESS;
}

void FilterTables::CopyFilterTemplates()
{
    m_FilterDescriptor = g_CaptureFilterDescriptor;
    for (ULONG i = 0; i < KV_PIN_COUNT; ++i) {
        m_PinDescriptors[i] = g_PinDescriptorTemplate[i];
        m_PinDescriptors[i].PinDescriptor.DataRangesCount = 0;
        m_PinDescriptors[i].PinDescriptor.DataRanges = nullptr;
    }
    m_FilterDescriptor.PinDescriptorsCount = KV_PIN_COUNT;
    m_FilterDescriptor.PinDescriptorSize = sizeof(KSPIN_DESCRIPTOR_EX);  // 136
    m_FilterDescriptor.PinDescriptors = m_PinDescriptors;
}

NTSTATUS FilterTables::AttachDataRanges(ULONG PinId, PKS_DATARANGE_VIDEO pTable, USHORT nCount,
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

NTSTATUS FilterTables::CreateFilterFactory(PKSDEVICE pKsDevice)
{
    // The reference string names the factory's device interface.
    static WCHAR s_FilterReferenceString[] = L"GLOBAL";
    KsAcquireDevice(pKsDevice);
    NTSTATUS status = KsCreateFilterFactory(pKsDevice->FunctionalDeviceObject, &m_FilterDescriptor,
                                            s_FilterReferenceString, nullptr, KSCREATE_ITEM_FREEONSTOP, nullptr,
                                            nullptr, &m_pFilterFactory);
    KsReleaseDevice(pKsDevice);
    if (NT_SUCCESS(status)) {
        m_FilterFactoryCreated = TRUE;
    }
    return status;
}

void FilterTables::UnhookDataRanges()
{
    for (KSPIN_DESCRIPTOR_EX& pin : m_PinDescriptors) {
        pin.PinDescriptor.DataRangesCount = 0;
        pin.PinDescriptor.DataRanges = nullptr;
    }
}

void FilterTables::ReleaseTopology()
{
    m_FilterDescriptor.NodeDescriptorsCount = 0;
    m_FilterDescriptor.NodeDescriptors = nullptr;
    m_FilterDescriptor.ConnectionsCount = 0;
    m_FilterDescriptor.Connections = nullptr;
    FreeTagged(m_pNodeDescriptors, kTagNodes);
    FreeTagged(m_pTopologyConnections, kTagConnections);
    // ks.sys frees the factory itself (KSCREATE_ITEM_FREEONSTOP, or with the
    // device).
    m_pFilterFactory = nullptr;
    m_FilterFactoryCreated = FALSE;
}

// ---- Const tables -------------------------------------------------------------------

namespace {

const NodeEntry g_NodeTable[KV_NODE_COUNT] = {
    {&g_NodeCameraTerminal, &g_NodeCameraTerminal},  // 0: camera terminal
    {&g_NodeVideoStreaming, &g_NodeVideoStreaming},  // 1: video streaming
    {&g_NodeVideoProcessing, &g_NodeVideoProcessing},  // 2: processing unit
    {&g_NodeDevSpecific, &g_NodeDevSpecificName},    // 3: device-specific unit
};

// Bridge pin -> camera terminal -> processing -> device-specific ->
// streaming -> capture pin and still pin.
const ConnectionEntry g_ConnectionTable[KV_CONNECTION_COUNT] = {
    {KSFILTER_NODE, KV_PIN_BRIDGE, 0, 1},   // 0: bridge pin to camera terminal
    {0, 0, 2, 1},                           // 1: camera terminal to processing
    {2, 0, 3, 1},                           // 2: processing to device-specific
    {3, 0, 1, 1},                           // 3: device-specific to streaming
    {1, 0, KSFILTER_NODE, KV_PIN_CAPTURE},  // 4: streaming to capture pin
    {1, 1, KSFILTER_NODE, KV_PIN_STILL},    // 5: streaming to still pin
};

// Filter categories, in order. The still pin's name stands as the third
// category on purpose: still-capture applications look for it among the
// filter's categories.
const GUID g_FilterCategories[] = {
    {STATICGUIDOF(KSCATEGORY_VIDEO)},    // video
    {STATICGUIDOF(KSCATEGORY_CAPTURE)},  // capture
    {STATICGUIDOF(PINNAME_VIDEO_STILL)}, // still, as a category
};

const KSFILTER_DISPATCH g_FilterDispatch = {
    CCaptureFilter::DispatchCreate,  // Create
    nullptr,                         // Close
    nullptr,                         // Process
    nullptr,                         // Reset
};

// One non-paged kernel-memory framing item for the capture and still pins.
DECLARE_SIMPLE_FRAMING_EX(g_CapturePinFraming, STATICGUIDOF(KSMEMORY_TYPE_KERNEL_NONPAGED),
                          KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY | KSALLOCATOR_REQUIREMENTF_PREFERENCES_ONLY, 2,
                          FILE_BYTE_ALIGNMENT, 0, 0);
DECLARE_SIMPLE_FRAMING_EX(g_StillPinFraming, STATICGUIDOF(KSMEMORY_TYPE_KERNEL_NONPAGED),
                          KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY | KSALLOCATOR_REQUIREMENTF_PREFERENCES_ONLY, 2,
                          FILE_BYTE_ALIGNMENT, 0, 0);

}  // namespace

const KSPIN_DESCRIPTOR_EX g_PinDescriptorTemplate[KV_PIN_COUNT] = {
    // Pin 0: capture.
    {
        &g_CapturePinDispatch,  // Dispatch
        nullptr,  // AutomationTable
        {
            0,                            // InterfacesCount
            nullptr,                      // Interfaces
            0,                            // MediumsCount
            nullptr,                      // Mediums
            0,                            // DataRangesCount: the capture table, at start
            nullptr,                      // DataRanges
            KSPIN_DATAFLOW_OUT,           // DataFlow
            KSPIN_COMMUNICATION_BOTH,     // Communication
            &g_PinNameVideoCapture,       // Category
            &g_PinNameVideoCapture,       // Name
            {0},                          // Reserved
        },
        KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY | KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING,  // Flags
        1,                    // InstancesPossible
        1,                    // InstancesNecessary
        &g_CapturePinFraming, // AllocatorFraming
        CCapturePin::IntersectHandler,  // IntersectHandler
    },
    // Pin 1: video input bridge.
    {
        nullptr,  // Dispatch
        nullptr,  // AutomationTable
        {
            0,                            // InterfacesCount
            nullptr,                      // Interfaces
            0,                            // MediumsCount
            nullptr,                      // Mediums
            0,                            // DataRangesCount
            nullptr,                      // DataRanges
            KSPIN_DATAFLOW_IN,            // DataFlow
            KSPIN_COMMUNICATION_BRIDGE,   // Communication
            &g_PinNameVideoBridge,        // Category
            &g_PinNameVideoBridge,        // Name
            {0},                          // Reserved
        },
        0,        // Flags
        0,        // InstancesPossible
        0,        // InstancesNecessary
        nullptr,  // AllocatorFraming
        nullptr,  // IntersectHandler
    },
    // Pin 2: still.
    {
        &g_StillPinDispatch,  // Dispatch
        nullptr,  // AutomationTable
        {
            0,                            // InterfacesCount
            nullptr,                      // Interfaces
            0,                            // MediumsCount
            nullptr,                      // Mediums
            0,                            // DataRangesCount: the still table, at start
            nullptr,                      // DataRanges
            KSPIN_DATAFLOW_OUT,           // DataFlow
            KSPIN_COMMUNICATION_SINK,     // Communication
            &g_PinNameVideoStill,         // Category
            &g_PinNameVideoStill,         // Name
            {0},                          // Reserved
        },
        KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING,  // Flags
        1,                   // InstancesPossible
        0,                   // InstancesNecessary
        &g_StillPinFraming,  // AllocatorFraming
        CCapturePin::IntersectHandler,  // IntersectHandler: the capture pin's, on the still ranges
    },
};

const KSFILTER_DESCRIPTOR g_CaptureFilterDescriptor = {
    &g_FilterDispatch,            // Dispatch
    &g_FilterAutomationTable,     // AutomationTable
    KSFILTER_DESCRIPTOR_VERSION,  // Version
    0,                            // Flags
    &g_KsNameFilter,              // ReferenceGuid
    0,                            // PinDescriptorsCount: at start
    sizeof(KSPIN_DESCRIPTOR_EX),  // PinDescriptorSize
    nullptr,                      // PinDescriptors: at start
    SIZEOF_ARRAY(g_FilterCategories),  // CategoriesCount
    g_FilterCategories,           // Categories
    0,                            // NodeDescriptorsCount: at start
    sizeof(KSNODE_DESCRIPTOR),    // NodeDescriptorSize
    nullptr,                      // NodeDescriptors: at start
    0,                            // ConnectionsCount: at start
    nullptr,                      // Connections: at start
    nullptr,                      // ComponentId
};
