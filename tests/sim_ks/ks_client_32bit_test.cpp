// The client API's 32-bit caller path: a property read made "as a 32-bit
// caller" reaches the minidriver's handler with IoIs32bitProcess(Irp) TRUE
// (a WOW64 application's request), and a normal read with FALSE.
// https://learn.microsoft.com/windows-hardware/drivers/ddi/wdm/nf-wdm-iois32bitprocess
#include "sim_ks/ks_fixture.h"

namespace kvtest::ks {
namespace {

TEST_F(KsTest, APropertyReadAsA32BitCallerReachesTheHandlerAs32Bit) {
    AddAndStart();
    OpenFilter();
    Recorder().propertyValue = 41;
    LONG value = 0;
    auto r = filter_->Property(kTestPropertySet, kTestPropertyValue, KSPROPERTY_TYPE_GET, &value, sizeof value,
                               nullptr, 0, /*as32bit=*/true);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_EQ(r.information, sizeof(LONG));
    EXPECT_EQ(value, 41);
    EXPECT_TRUE(Recorder().valueReadFrom32bit);

    r = filter_->Property(kTestPropertySet, kTestPropertyValue, KSPROPERTY_TYPE_GET, &value, sizeof value);
    EXPECT_EQ(r.status, STATUS_SUCCESS);
    EXPECT_FALSE(Recorder().valueReadFrom32bit);
}

}  // namespace
}  // namespace kvtest::ks
