// The simulated file system as a driver sees it: ZwCreateFile, ZwReadFile,
// ZwWriteFile and ZwQueryInformationFile on NT paths mapped to host folders
// (whose names' case the NT path ignores), the IRQL rule and the report of a
// file left open.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "kvsim/diag.h"
#include "kvsim/files.h"
#include "wdm.h"

namespace fs = std::filesystem;

namespace {

UNICODE_STRING Us(const wchar_t* s) {
    UNICODE_STRING u;
    RtlInitUnicodeString(&u, s);
    return u;
}

class Files : public testing::Test {
protected:
    void SetUp() override {
        root_ = fs::path(testing::TempDir()) / ("kv_files_test_" + std::to_string(::getpid()));
        fs::remove_all(root_);
        fs::create_directories(root_ / "Windows");
        fs::create_directories(root_ / "c" / "Frames");
        kvsim::UnmapAllRoots();
        kvsim::MapRoot("\\SystemRoot", (root_ / "Windows").string());
        kvsim::MapRoot("\\DosDevices\\C:", (root_ / "c").string());
    }
    void TearDown() override {
        kvsim::UnmapAllRoots();
        fs::remove_all(root_);
    }

    // Opens as a driver that reads and writes bitmap files does: synchronous
    // I/O, read and write sharing, a file and never a directory.
    NTSTATUS Create(const wchar_t* path, HANDLE* h, ULONG disposition, IO_STATUS_BLOCK* iosb,
                    ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE) {
        UNICODE_STRING name = Us(path);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        return ZwCreateFile(h, access, &oa, iosb, nullptr, FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ | FILE_SHARE_WRITE,
                            disposition, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0);
    }

    fs::path root_;
};

TEST_F(Files, PathComponentsResolveIgnoringCase) {
    std::ofstream(root_ / "c" / "Frames" / "MyFrame.BMP") << "BM-data";
    HANDLE h = nullptr;
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(Create(L"\\DosDevices\\c:\\FRAMES\\myframe.bmp", &h, FILE_OPEN, &iosb, GENERIC_READ | SYNCHRONIZE),
              STATUS_SUCCESS);
    char buffer[16];
    ASSERT_EQ(ZwReadFile(h, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, nullptr, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, iosb.Information), "BM-data");
    ZwClose(h);
    EXPECT_EQ(kvsim::HostPathOf("\\??\\C:\\frames\\MYFRAME.bmp"), (root_ / "c" / "Frames" / "MyFrame.BMP").string());
    // Creating through another case reuses the existing file.
    ASSERT_EQ(Create(L"\\??\\C:\\frames\\MYFRAME.bmp", &h, FILE_OVERWRITE_IF, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, static_cast<ULONG_PTR>(FILE_OVERWRITTEN));
    ZwClose(h);
    EXPECT_EQ(fs::file_size(root_ / "c" / "Frames" / "MyFrame.BMP"), 0u);
}

TEST_F(Files, FileCallAtDispatchLevelIsReported) {
    kvsim::TakeViolations();
    HANDLE h = nullptr;
    IO_STATUS_BLOCK iosb{};
    KIRQL old = 0;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    NTSTATUS status = Create(L"\\SystemRoot\\x.bin", &h, FILE_OPEN, &iosb);
    KeLowerIrql(old);
    auto violations = kvsim::TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].find("ZwCreateFile called at IRQL 2"), std::string::npos) << violations[0];
    EXPECT_EQ(status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(Files, FileLeftOpenIsReported) {
    HANDLE h = nullptr;
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(Create(L"\\SystemRoot\\leak.bin", &h, FILE_OVERWRITE_IF, &iosb), STATUS_SUCCESS);
    auto leaks = kvsim::CheckOpenFiles();
    ASSERT_EQ(leaks.size(), 1u);
    EXPECT_NE(leaks[0].find("\\SystemRoot\\leak.bin"), std::string::npos) << leaks[0];
    ZwClose(h);
}

}  // namespace
