// The simulated file system as a driver sees it: ZwCreateFile, ZwReadFile,
// ZwWriteFile and ZwQueryInformationFile on NT paths mapped to host folders.
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

TEST_F(Files, CreateWriteCloseReopenQuerySizeAndReadInPiecesToEnd) {
    HANDLE h = nullptr;
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(Create(L"\\SystemRoot\\snapshot.bmp", &h, FILE_OVERWRITE_IF, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, static_cast<ULONG_PTR>(FILE_CREATED));
    char header[54];
    for (int i = 0; i < 54; ++i) header[i] = static_cast<char>(i);
    LARGE_INTEGER at{};
    ASSERT_EQ(ZwWriteFile(h, nullptr, nullptr, nullptr, &iosb, header, sizeof header, &at, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 54u);
    char pixels[46];
    for (int i = 0; i < 46; ++i) pixels[i] = static_cast<char>(100 + i);
    ASSERT_EQ(ZwWriteFile(h, nullptr, nullptr, nullptr, &iosb, pixels, sizeof pixels, nullptr, nullptr),
              STATUS_SUCCESS);  // at the current position, 54
    EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
    EXPECT_EQ(kvsim::OpenFileCount(), 0u);

    // Reopen the same file under another case for reading.
    ASSERT_EQ(Create(L"\\SYSTEMROOT\\Snapshot.BMP", &h, FILE_OPEN, &iosb, GENERIC_READ | SYNCHRONIZE),
              STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, static_cast<ULONG_PTR>(FILE_OPENED));
    FILE_STANDARD_INFORMATION info{};
    ASSERT_EQ(ZwQueryInformationFile(h, &iosb, &info, sizeof info, FileStandardInformation), STATUS_SUCCESS);
    EXPECT_EQ(info.EndOfFile.QuadPart, 100);
    EXPECT_FALSE(info.Directory);
    EXPECT_EQ(iosb.Information, sizeof info);

    std::string content;
    char piece[30];
    NTSTATUS status;
    while ((status = ZwReadFile(h, nullptr, nullptr, nullptr, &iosb, piece, sizeof piece, nullptr, nullptr)) ==
           STATUS_SUCCESS) {
        ASSERT_GT(iosb.Information, 0u);
        content.append(piece, iosb.Information);
    }
    EXPECT_EQ(status, STATUS_END_OF_FILE);
    EXPECT_EQ(iosb.Information, 0u);
    ASSERT_EQ(content.size(), 100u);
    EXPECT_EQ(content.substr(0, 54), std::string(header, 54));
    EXPECT_EQ(content.substr(54), std::string(pixels, 46));

    // An explicit offset reads there; beyond the end is the end of file.
    LARGE_INTEGER offset{};
    offset.QuadPart = 18;
    ASSERT_EQ(ZwReadFile(h, nullptr, nullptr, nullptr, &iosb, piece, 4, &offset, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(piece[0], 18);
    offset.QuadPart = 500;
    EXPECT_EQ(ZwReadFile(h, nullptr, nullptr, nullptr, &iosb, piece, 4, &offset, nullptr), STATUS_END_OF_FILE);
    // This handle may not write.
    EXPECT_EQ(ZwWriteFile(h, nullptr, nullptr, nullptr, &iosb, piece, 4, &offset, nullptr), STATUS_ACCESS_DENIED);
    ZwClose(h);
}

TEST_F(Files, MissingFileAndMissingFolderHaveTheirStatuses) {
    HANDLE h = nullptr;
    IO_STATUS_BLOCK iosb{};
    EXPECT_EQ(Create(L"\\SystemRoot\\1_640_480.bmp", &h, FILE_OPEN, &iosb), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Create(L"\\SystemRoot\\NoSuchFolder\\x.bmp", &h, FILE_OPEN, &iosb), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Create(L"\\SystemRoot\\NoSuchFolder\\x.bmp", &h, FILE_OVERWRITE_IF, &iosb),
              STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Create(L"\\DosDevices\\Q:\\x.bmp", &h, FILE_OPEN, &iosb), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Create(L"\\SystemRoot\\..\\escape.bmp", &h, FILE_OPEN, &iosb), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(kvsim::OpenFileCount(), 0u);
}

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

TEST_F(Files, DispositionsFollowTheDocumentedTable) {
    HANDLE h = nullptr;
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(Create(L"\\SystemRoot\\a.bin", &h, FILE_CREATE, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, static_cast<ULONG_PTR>(FILE_CREATED));
    ZwClose(h);
    EXPECT_EQ(Create(L"\\SystemRoot\\a.bin", &h, FILE_CREATE, &iosb), STATUS_OBJECT_NAME_COLLISION);
    ASSERT_EQ(Create(L"\\SystemRoot\\a.bin", &h, FILE_SUPERSEDE, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, static_cast<ULONG_PTR>(FILE_SUPERSEDED));
    ZwClose(h);
    ASSERT_EQ(Create(L"\\SystemRoot\\a.bin", &h, FILE_OPEN_IF, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, static_cast<ULONG_PTR>(FILE_OPENED));
    ZwClose(h);
    EXPECT_EQ(Create(L"\\SystemRoot\\b.bin", &h, FILE_OVERWRITE, &iosb), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Create(L"\\SystemRoot", &h, FILE_OPEN, &iosb), STATUS_FILE_IS_A_DIRECTORY);
}

TEST_F(Files, SynchronousIoWithoutSynchronizeAccessIsRejected) {
    HANDLE h = nullptr;
    IO_STATUS_BLOCK iosb{};
    EXPECT_EQ(Create(L"\\SystemRoot\\a.bin", &h, FILE_OVERWRITE_IF, &iosb, FILE_READ_DATA | FILE_WRITE_DATA),
              STATUS_INVALID_PARAMETER);
}

TEST_F(Files, SharingViolationBetweenOpens) {
    HANDLE first = nullptr, second = nullptr;
    IO_STATUS_BLOCK iosb{};
    UNICODE_STRING name = Us(L"\\SystemRoot\\shared.bin");
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    ASSERT_EQ(ZwCreateFile(&first, GENERIC_WRITE | SYNCHRONIZE, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL, 0,
                           FILE_OVERWRITE_IF, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
              STATUS_SUCCESS);
    EXPECT_EQ(ZwCreateFile(&second, GENERIC_READ | SYNCHRONIZE, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
              STATUS_SHARING_VIOLATION);
    ZwClose(first);
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

TEST_F(Files, AsynchronousHandleNeedsAnOffsetAndEndOfFileOffsetAppends) {
    HANDLE h = nullptr;
    IO_STATUS_BLOCK iosb{};
    UNICODE_STRING name = Us(L"\\SystemRoot\\log.bin");
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    ASSERT_EQ(ZwCreateFile(&h, FILE_READ_DATA | FILE_WRITE_DATA, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL, 0,
                           FILE_OVERWRITE_IF, FILE_NON_DIRECTORY_FILE, nullptr, 0),
              STATUS_SUCCESS);
    char data[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(ZwWriteFile(h, nullptr, nullptr, nullptr, &iosb, data, 4, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    LARGE_INTEGER end{};
    end.HighPart = -1;
    end.LowPart = FILE_WRITE_TO_END_OF_FILE;
    ASSERT_EQ(ZwWriteFile(h, nullptr, nullptr, nullptr, &iosb, data, 4, &end, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(ZwWriteFile(h, nullptr, nullptr, nullptr, &iosb, data, 2, &end, nullptr), STATUS_SUCCESS);
    FILE_STANDARD_INFORMATION info{};
    ASSERT_EQ(ZwQueryInformationFile(h, &iosb, &info, sizeof info, FileStandardInformation), STATUS_SUCCESS);
    EXPECT_EQ(info.EndOfFile.QuadPart, 6);
    EXPECT_EQ(ZwQueryInformationFile(h, &iosb, &info, sizeof info - 1, FileStandardInformation),
              STATUS_INFO_LENGTH_MISMATCH);
    ZwClose(h);
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
