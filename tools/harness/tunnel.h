// The driver-control tunnel as an application uses it: a setting is read by
// a set of its id plus a request nibble (0 current, 1 maximum, 2 minimum,
// 3 resolution, 4 default) followed by a get, and written by a set of its
// id followed by a set of its value. The data buffer starts with a copy of
// the property header; the value sits at 36 (64-bit callers) or 32 (32-bit).
#pragma once
#include <cstring>
#include <vector>

#include "client/ks_client.h"
#include "controls/filter.h"

namespace kvharness {

inline constexpr GUID kPropsetDriverControl = PROPSETID_DriverControl;

enum class TunnelRequest : ULONG { Current = 0, Maximum = 1, Minimum = 2, Resolution = 3, Default = 4 };

class Tunnel {
public:
    explicit Tunnel(kvsim::client::Filter& filter, bool as32 = false) : filter_(filter), as32_(as32) {}

    size_t ValueOffset() const { return as32_ ? 32 : 36; }
    kvsim::client::IoResult Call(ULONG flags, LONG value, std::vector<uint8_t>* data = nullptr)
    {
        std::vector<uint8_t> buffer(as32_ ? 36 : 40);
        KSPROPERTY header{};
        header.Set = kPropsetDriverControl;
        header.Id = 1;
        header.Flags = flags;
        std::memcpy(buffer.data(), &header, sizeof(header));
        std::memcpy(buffer.data() + ValueOffset(), &value, sizeof(value));
        auto result =
            filter_.Property(kPropsetDriverControl, 1, flags, buffer.data(), ULONG(buffer.size()), nullptr, 0, as32_);
        if (data) *data = buffer;
        return result;
    }
    // The get step alone: the value of the id remembered last.
    LONG Get(size_t* returned = nullptr, NTSTATUS* status = nullptr)
    {
        std::vector<uint8_t> data;
        auto result = Call(KSPROPERTY_TYPE_GET, 0, &data);
        if (returned) *returned = result.information;
        if (status) *status = result.status;
        LONG value = 0;
        std::memcpy(&value, data.data() + ValueOffset(), sizeof(value));
        return value;
    }
    LONG Read(USHORT id, TunnelRequest request = TunnelRequest::Current, NTSTATUS* status = nullptr)
    {
        Call(KSPROPERTY_TYPE_SET, id + LONG(request));
        return Get(nullptr, status);
    }
    NTSTATUS Write(USHORT id, LONG value)
    {
        NTSTATUS status = Call(KSPROPERTY_TYPE_SET, id).status;
        NTSTATUS second = Call(KSPROPERTY_TYPE_SET, value).status;
        return status != STATUS_SUCCESS ? status : second;
    }

private:
    kvsim::client::Filter& filter_;
    bool as32_;
};

}  // namespace kvharness
