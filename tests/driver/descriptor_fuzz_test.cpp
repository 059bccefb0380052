// Fuzz test of the format tables: seeded random mutations of real and virtual
// configuration descriptors, walked under AddressSanitizer: no crash, no
// out-of-bounds read, no leak, every table consistent with its count.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <random>
#include <vector>

#include "camera/descriptor_builder.h"
#include "device/formats.h"
#include "driver/descriptor_blob.h"
#include "kvsim/diag.h"
#include "kvsim/pool.h"

namespace {

std::vector<uint8_t> Mutate(std::vector<uint8_t> b, std::mt19937& rng)
{
    auto pick = [&](size_t n) { return n ? std::uniform_int_distribution<size_t>(0, n - 1)(rng) : 0; };
    const int nMutations = 1 + int(pick(8));
    for (int i = 0; i < nMutations && !b.empty(); i++) {
        switch (pick(7)) {
        case 0: b[pick(b.size())] ^= uint8_t(1u << pick(8)); break;             // flip a bit
        case 1: b[pick(b.size())] = uint8_t(pick(256)); break;                 // random byte
        case 2: b[pick(b.size())] = pick(2) ? 0x00 : 0xFF; break;              // extremes
        case 3: b.resize(pick(b.size() + 1)); break;                           // truncate
        case 4: {                                                              // duplicate a chunk
            size_t at = pick(b.size()), len = 1 + pick(40);
            len = std::min(len, b.size() - at);
            std::vector<uint8_t> chunk(b.begin() + at, b.begin() + at + len);
            b.insert(b.begin() + pick(b.size() + 1), chunk.begin(), chunk.end());
            break;
        }
        case 5: if (b.size() >= 4) { b[2] = uint8_t(pick(256)); b[3] = uint8_t(pick(256)); } break;  // wTotalLength
        case 6: {                                                              // a length byte of some descriptor
            size_t at = pick(b.size());
            b[at] = uint8_t(pick(64));
            break;
        }
        }
    }
    return b;
}

void CheckTable(NTSTATUS status, PKS_DATARANGE_VIDEO p, USHORT n)
{
    if (NT_SUCCESS(status)) {
        ASSERT_NE(p, nullptr);
        ASSERT_GT(n, 0);
        for (USHORT i = 0; i < n; i++) {   // ASan checks the table really holds n entries
            ASSERT_EQ(p[i].DataRange.FormatSize, 296u);
        }
        ExFreePool(p);
    } else {
        ASSERT_EQ(p, nullptr);
        ASSERT_EQ(n, 0);
    }
}

void RunOne(const std::vector<uint8_t>& bytes)
{
    FormatTables tables;
    USHORT n = 0;
    PKS_DATARANGE_VIDEO p = nullptr;
    auto check = [&](NTSTATUS status) {
        CheckTable(status, p, n);
        p = nullptr;
        n = 0;
    };
    // 1: a buffer of exactly the bytes held, walked with that bound.
    std::vector<uint8_t> exact(bytes);
    auto pConfig = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(exact.data());
    check(tables.ExtractVSInfo(pConfig, ULONG(exact.size()), &p, &n));
    check(tables.ExtractStillInfo(pConfig, ULONG(exact.size()), &p, &n));
    // 2: as the start walks it, a buffer of exactly wTotalLength bytes.
    if (bytes.size() >= 9) {
        const size_t total = std::max<size_t>(9, bytes[2] | (bytes[3] << 8));
        std::vector<uint8_t> held(bytes);
        held.resize(total, 0);
        held[2] = total & 0xFF;
        held[3] = total >> 8;
        pConfig = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(held.data());
        check(tables.ExtractVSInfo(pConfig, &p, &n));
        check(tables.ExtractStillInfo(pConfig, &p, &n));
    }
}

TEST(DescriptorFuzz, MutatedConfigurationDescriptorsNeverCrashReadOutOfBoundsOrLeak)
{
    std::vector<std::vector<uint8_t>> seeds;
    for (const char* name : {"trust_webcam", "logitech_c270", "elp_h264"}) {
        auto set = blob::LoadReal(name);
        if (!set.configuration.empty()) seeds.push_back(set.configuration);
    }
    seeds.push_back(kvsim::camera::BuildDescriptors(kvsim::camera::DefaultCameraSpec()).configuration);
    ASSERT_GE(seeds.size(), 2u);

    const uint32_t seed = 20240905;
    std::mt19937 rng(seed);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(8);
    int iterations = 0;
    for (; iterations < 10000 && std::chrono::steady_clock::now() < deadline; iterations++) {
        const auto& base = seeds[iterations % seeds.size()];
        auto bytes = Mutate(base, rng);
        RunOne(bytes);
        if (HasFatalFailure()) {
            ADD_FAILURE() << "seed " << seed << ", iteration " << iterations;
            return;
        }
        kvsim::ClearDebugLog();  // the debug log would grow without bound
    }
    EXPECT_EQ(kvsim::PoolLiveBlockCount(), 0u);
    EXPECT_GT(iterations, 200) << "too few iterations to mean anything";
}

}  // namespace
