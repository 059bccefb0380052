// The filter, pin and topology descriptors as a client of the simulated
// ks.sys sees them (sim/client/ks_client.h) once the device has started
// through the simulated PnP manager: the filter's categories, the three pins
// in their order with categories, flows, communication, instances and data
// ranges, the node and connection tables, and the filter object that each
// open creates. Open filters' part in idle power is
// in idle_power_test.cpp.
#include <gtest/gtest.h>

#include <cstring>

#include "controls/filter.h"
#include "lifecycle_rig.h"

namespace {

using namespace lifecycle_rig;

const GUID kBridgeName = {0x1B6C4281, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xB0}};
const GUID kDevSpecificName = {0xDFF229F0, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};

bool Same(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

// A KSPROPSETID_Topology list (KSMULTIPLE_ITEM followed by Count items).
template <class T>
std::vector<T> TopologyList(kvsim::client::Filter& filter, ULONG id)
{
    std::vector<uint8_t> buffer(4096);
    auto result = filter.Property(KSPROPSETID_Topology, id, KSPROPERTY_TYPE_GET, buffer.data(),
                                  static_cast<ULONG>(buffer.size()));
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    if (!NT_SUCCESS(result.status)) return {};
    KSMULTIPLE_ITEM header;
    std::memcpy(&header, buffer.data(), sizeof(header));
    std::vector<T> items(header.Count);
    std::memcpy(items.data(), buffer.data() + sizeof(header), header.Count * sizeof(T));
    return items;
}

class Filter : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(rig_.AddAndStart(), STATUS_SUCCESS); }
    Rig rig_;
};

// ---- What a client sees ----------------------------------------------------------------

TEST_F(Filter, TheFilterIsFoundUnderItsThreeCategoriesOnly)
{
    EXPECT_EQ(kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO).size(), 1u);
    EXPECT_EQ(kvsim::client::EnumerateFilters(KSCATEGORY_CAPTURE).size(), 1u);
    EXPECT_EQ(kvsim::client::EnumerateFilters(PINNAME_VIDEO_STILL).size(), 1u);
    EXPECT_TRUE(kvsim::client::EnumerateFilters(PINNAME_VIDEO_CAPTURE).empty());
    EXPECT_TRUE(kvsim::client::EnumerateFilters(KSCATEGORY_VIDEO_CAMERA).empty());
    auto filter = rig_.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_NE(filter, nullptr);
    auto categories = TopologyList<GUID>(*filter, KSPROPERTY_TOPOLOGY_CATEGORIES);
    ASSERT_EQ(categories.size(), 3u);
    EXPECT_TRUE(Same(categories[0], KSCATEGORY_VIDEO));
    EXPECT_TRUE(Same(categories[1], KSCATEGORY_CAPTURE));
    EXPECT_TRUE(Same(categories[2], PINNAME_VIDEO_STILL));
}

// Graph-building clients see the pins in the order capture,
// bridge, still, and the still pin only through its own category GUID.
TEST_F(Filter, PinsAppearInTheOrderCaptureBridgeStillWithTheirCategories)
{
    auto filter = rig_.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_NE(filter, nullptr);
    ULONG count = 0;
    ASSERT_EQ(filter->PinCount(&count), STATUS_SUCCESS);
    ASSERT_EQ(count, 3u);
    const GUID expected[3] = {PINNAME_VIDEO_CAPTURE, kBridgeName, PINNAME_VIDEO_STILL};
    const KSPIN_DATAFLOW flows[3] = {KSPIN_DATAFLOW_OUT, KSPIN_DATAFLOW_IN, KSPIN_DATAFLOW_OUT};
    const KSPIN_COMMUNICATION comms[3] = {KSPIN_COMMUNICATION_BOTH, KSPIN_COMMUNICATION_BRIDGE,
                                          KSPIN_COMMUNICATION_SINK};
    const ULONG possible[3] = {1, 0, 1};
    for (ULONG pin = 0; pin < 3; ++pin) {
        SCOPED_TRACE("pin " + std::to_string(pin));
        GUID category{};
        ASSERT_EQ(filter->PinCategory(pin, &category), STATUS_SUCCESS);
        EXPECT_TRUE(Same(category, expected[pin]));
        KSPIN_DATAFLOW flow{};
        ASSERT_EQ(filter->PinDataFlow(pin, &flow), STATUS_SUCCESS);
        EXPECT_EQ(flow, flows[pin]);
        KSPIN_COMMUNICATION comm{};
        ASSERT_EQ(filter->PinCommunication(pin, &comm), STATUS_SUCCESS);
        EXPECT_EQ(comm, comms[pin]);
        KSPIN_CINSTANCES instances{};
        ASSERT_EQ(filter->PinInstances(pin, &instances), STATUS_SUCCESS);
        EXPECT_EQ(instances.PossibleCount, possible[pin]);
    }
    // The still pin is the only pin with the still category; no other pin
    // carries it, and it carries no capture category.
    size_t stillPins = 0;
    for (ULONG pin = 0; pin < 3; ++pin) {
        GUID category{};
        filter->PinCategory(pin, &category);
        if (Same(category, PINNAME_VIDEO_STILL)) ++stillPins;
    }
    EXPECT_EQ(stillPins, 1u);
}

TEST_F(Filter, DataRangesOfCaptureAndStillAreTheFormatTables)
{
    auto filter = rig_.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_NE(filter, nullptr);
    const FormatTables& t = rig_.Dev().m_Formats;
    std::vector<std::vector<uint8_t>> capture, bridge, still;
    ASSERT_EQ(filter->PinDataRanges(KV_PIN_CAPTURE, &capture), STATUS_SUCCESS);
    ASSERT_EQ(filter->PinDataRanges(KV_PIN_BRIDGE, &bridge), STATUS_SUCCESS);
    ASSERT_EQ(filter->PinDataRanges(KV_PIN_STILL, &still), STATUS_SUCCESS);
    ASSERT_EQ(capture.size(), t.m_nCaptureTable);
    EXPECT_TRUE(bridge.empty());
    ASSERT_EQ(still.size(), t.m_nStillTable);
    for (size_t i = 0; i < capture.size(); ++i) {
        ASSERT_EQ(capture[i].size(), sizeof(KS_DATARANGE_VIDEO));
        EXPECT_EQ(std::memcmp(capture[i].data(), &t.m_pCaptureTable[i], sizeof(KS_DATARANGE_VIDEO)), 0) << i;
    }
    for (size_t i = 0; i < still.size(); ++i) {
        EXPECT_EQ(std::memcmp(still[i].data(), &t.m_pStillTable[i], sizeof(KS_DATARANGE_VIDEO)), 0) << i;
    }
}

TEST_F(Filter, FourNodesAndSixConnectionsFromTheCameraTerminalToBothOutputPins)
{
    auto filter = rig_.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_NE(filter, nullptr);
    auto nodes = TopologyList<GUID>(*filter, KSPROPERTY_TOPOLOGY_NODES);
    ASSERT_EQ(nodes.size(), 4u);
    EXPECT_TRUE(Same(nodes[0], KSNODETYPE_VIDEO_CAMERA_TERMINAL));
    EXPECT_TRUE(Same(nodes[1], KSNODETYPE_VIDEO_STREAMING));
    EXPECT_TRUE(Same(nodes[2], KSNODETYPE_VIDEO_PROCESSING));
    EXPECT_TRUE(Same(nodes[3], KSNODETYPE_DEV_SPECIFIC));

    const PKSNODE_DESCRIPTOR nodeTable = rig_.Dev().m_Filter.m_pNodeDescriptors;
    for (ULONG i = 0; i < 3; ++i) {
        EXPECT_EQ(nodeTable[i].Name, nodeTable[i].Type);
        EXPECT_EQ(nodeTable[i].AutomationTable, nullptr);
    }
    ASSERT_NE(nodeTable[3].Name, nullptr);
    EXPECT_TRUE(Same(*nodeTable[3].Name, kDevSpecificName));

    auto connections = TopologyList<KSTOPOLOGY_CONNECTION>(*filter, KSPROPERTY_TOPOLOGY_CONNECTIONS);
    const KSTOPOLOGY_CONNECTION expected[6] = {
        {KSFILTER_NODE, 1, 0, 1}, {0, 0, 2, 1}, {2, 0, 3, 1},
        {3, 0, 1, 1},             {1, 0, KSFILTER_NODE, 0}, {1, 1, KSFILTER_NODE, 2},
    };
    ASSERT_EQ(connections.size(), 6u);
    for (size_t i = 0; i < 6; ++i) {
        SCOPED_TRACE("connection " + std::to_string(i));
        EXPECT_EQ(connections[i].FromNode, expected[i].FromNode);
        EXPECT_EQ(connections[i].FromNodePin, expected[i].FromNodePin);
        EXPECT_EQ(connections[i].ToNode, expected[i].ToNode);
        EXPECT_EQ(connections[i].ToNodePin, expected[i].ToNodePin);
    }
}

// ---- The filter object --------------------------------------------------------------------------

TEST_F(Filter, EachOpenMakesAFilterObjectWithItsValuesAndTheDevicesBackPointer)
{
    auto filter = rig_.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVFl")).currentCount, 1u);
    CCaptureFilter* object = rig_.Dev().m_pCaptureFilter;
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->m_pDevice, &rig_.Dev());
    ASSERT_NE(object->m_pKsFilter, nullptr);
    EXPECT_EQ(object->m_pKsFilter->Context, object);
    EXPECT_EQ(object->m_DefaultValue, 15u);
    EXPECT_EQ(object->m_TunnelPending, 0u);
    EXPECT_EQ(object->m_CurrentFormatIndex, 0u);
    // The device points at the most recent one.
    auto second = rig_.OpenFilter(KSCATEGORY_VIDEO);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(rig_.Dev().m_pCaptureFilter, object);
    filter->Close();
    second->Close();
    EXPECT_EQ(kvsim::PoolStatsForTag(kvsim::PoolTag("KVFl")).currentCount, 0u);
    EXPECT_EQ(rig_.Dev().m_pCaptureFilter, nullptr);
}

TEST_F(Filter, AFilterObjectAllocationFailureFailsTheOpen)
{
    kvsim::PoolFailTag(kvsim::PoolTag("KVFl"));
    NTSTATUS status = STATUS_SUCCESS;
    auto filter = rig_.OpenFilter(KSCATEGORY_VIDEO, &status);
    kvsim::PoolResetFaultInjection();
    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(rig_.Idle().m_OpenFilterCount, 0u);
}

}  // namespace
