// The simulated run-time library's counted strings and conversions (WCHAR is
// 2 bytes on the host: these routines must not use the C library's wcs*).
#include <gtest/gtest.h>

#include "kvsim/diag.h"
#include "wdm.h"

TEST(Rtl, InitUnicodeStringCountsBytesWithoutTheTerminator) {
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, L"Data");
    EXPECT_EQ(s.Length, 8);
    EXPECT_EQ(s.MaximumLength, 10);
    RtlInitUnicodeString(&s, nullptr);
    EXPECT_EQ(s.Length, 0);
    EXPECT_EQ(s.Buffer, nullptr);
    ANSI_STRING a;
    RtlInitAnsiString(&a, "abc");
    EXPECT_EQ(a.Length, 3);
    EXPECT_EQ(a.MaximumLength, 4);
    UNICODE_STRING c = RTL_CONSTANT_STRING(L"\\Data");
    EXPECT_EQ(c.Length, 10);
    EXPECT_EQ(c.MaximumLength, 12);
}

TEST(Rtl, CopyTruncatesToTheDestinationAndAppendFailsWhenFull) {
    WCHAR buffer[6];
    UNICODE_STRING dest;
    RtlInitEmptyUnicodeString(&dest, buffer, sizeof(buffer));
    UNICODE_STRING src;
    RtlInitUnicodeString(&src, L"Property");
    RtlCopyUnicodeString(&dest, &src);
    EXPECT_EQ(dest.Length, 12);  // 6 characters fit, no room for a terminator
    EXPECT_EQ(buffer[5], L'r');
    dest.Length = 4;  // "Pr"
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, L"op"), STATUS_SUCCESS);
    EXPECT_EQ(dest.Length, 8);
    EXPECT_EQ(buffer[4], 0);  // terminated: there was room
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, L"erty"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(dest.Length, 8);  // unchanged
    UNICODE_STRING tail;
    RtlInitUnicodeString(&tail, L"e");
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &tail), STATUS_SUCCESS);
    EXPECT_EQ(dest.Length, 10);
    UNICODE_STRING expect;
    RtlInitUnicodeString(&expect, L"Prope");
    EXPECT_TRUE(RtlEqualUnicodeString(&dest, &expect, FALSE));
}

TEST(Rtl, CompareAndEqualHonourCase) {
    UNICODE_STRING a, b, c;
    RtlInitUnicodeString(&a, L"DeviceExist");
    RtlInitUnicodeString(&b, L"deviceexist");
    RtlInitUnicodeString(&c, L"DeviceExists");
    EXPECT_FALSE(RtlEqualUnicodeString(&a, &b, FALSE));
    EXPECT_TRUE(RtlEqualUnicodeString(&a, &b, TRUE));
    EXPECT_LT(RtlCompareUnicodeString(&a, &b, FALSE), 0);  // 'D' < 'd'
    EXPECT_EQ(RtlCompareUnicodeString(&a, &b, TRUE), 0);
    EXPECT_LT(RtlCompareUnicodeString(&a, &c, TRUE), 0);
    EXPECT_GT(RtlCompareUnicodeString(&c, &a, TRUE), 0);
}

TEST(Rtl, IntegerToUnicodeStringAndBack) {
    WCHAR buffer[12];
    UNICODE_STRING s;
    RtlInitEmptyUnicodeString(&s, buffer, sizeof(buffer));
    ASSERT_EQ(RtlIntegerToUnicodeString(1234, 10, &s), STATUS_SUCCESS);
    UNICODE_STRING expect;
    RtlInitUnicodeString(&expect, L"1234");
    EXPECT_TRUE(RtlEqualUnicodeString(&s, &expect, FALSE));
    ASSERT_EQ(RtlIntegerToUnicodeString(0xBEEF, 16, &s), STATUS_SUCCESS);
    RtlInitUnicodeString(&expect, L"BEEF");
    EXPECT_TRUE(RtlEqualUnicodeString(&s, &expect, FALSE));
    EXPECT_EQ(RtlIntegerToUnicodeString(1, 7, &s), STATUS_INVALID_PARAMETER);
    WCHAR tiny[2];
    UNICODE_STRING small;
    RtlInitEmptyUnicodeString(&small, tiny, sizeof(tiny));
    EXPECT_EQ(RtlIntegerToUnicodeString(123, 10, &small), STATUS_BUFFER_OVERFLOW);

    ULONG value = 0;
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, L"  -42");
    ASSERT_EQ(RtlUnicodeStringToInteger(&text, 0, &value), STATUS_SUCCESS);
    EXPECT_EQ(static_cast<LONG>(value), -42);
    RtlInitUnicodeString(&text, L"0x1F tail");
    ASSERT_EQ(RtlUnicodeStringToInteger(&text, 0, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 31u);
    RtlInitUnicodeString(&text, L"777");
    ASSERT_EQ(RtlUnicodeStringToInteger(&text, 8, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 511u);
    EXPECT_EQ(RtlUnicodeStringToInteger(&text, 3, &value), STATUS_INVALID_PARAMETER);
}

TEST(Rtl, AnsiConversionAllocatesFromPoolAndFrees) {
    ANSI_STRING a;
    RtlInitAnsiString(&a, "snapshot.bmp");
    UNICODE_STRING u;
    ASSERT_EQ(RtlAnsiStringToUnicodeString(&u, &a, TRUE), STATUS_SUCCESS);
    UNICODE_STRING expect;
    RtlInitUnicodeString(&expect, L"snapshot.bmp");
    EXPECT_TRUE(RtlEqualUnicodeString(&u, &expect, FALSE));
    ANSI_STRING back;
    ASSERT_EQ(RtlUnicodeStringToAnsiString(&back, &u, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(std::string(back.Buffer, back.Length), "snapshot.bmp");
    RtlFreeUnicodeString(&u);
    RtlFreeAnsiString(&back);
    EXPECT_EQ(u.Buffer, nullptr);
}

TEST(Rtl, CompareMemoryCountsMatchingBytesAndMacrosWork) {
    UCHAR a[8], b[8];
    RtlFillMemory(a, sizeof(a), 0x5A);
    RtlCopyMemory(b, a, sizeof(b));
    EXPECT_TRUE(RtlEqualMemory(a, b, sizeof(a)));
    b[5] = 0;
    EXPECT_EQ(RtlCompareMemory(a, b, sizeof(a)), 5u);
    RtlZeroMemory(a, sizeof(a));
    EXPECT_EQ(a[7], 0);
}
