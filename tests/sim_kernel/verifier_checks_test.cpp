// Driver Verifier's checks in the simulated kernel: a DPC routine, work item,
// system thread or completion routine that ends keeping a lock it took
// (reported, and the lock released so that the system goes on); dispatch
// routines that break the pairing of IoMarkIrpPending, STATUS_PENDING and the
// status the IRP completed with; pool freed while it holds a set timer, a
// queued DPC or an initialised work item (bug check 0xC7); fault injection
// reaching IoAllocateIrp and IoAllocateWorkItem by count, tag and seeded
// chance (the low resources simulation).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/pool.h"
#include "kvsim/sched.h"
#include "wdm.h"

namespace {

const bool g_virtual = [] {
    kvsim::SetClockMode(kvsim::ClockMode::Virtual);
    return true;
}();

std::string Violations() {
    std::string all;
    for (auto& v : kvsim::TakeViolations()) all += v + "\n";
    return all;
}

NTSTATUS Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS FreeIrp(PDEVICE_OBJECT, PIRP irp, PVOID) {
    IoFreeIrp(irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// A PDO whose dispatch routine is the test's (by default it completes the
// IRP at once); work items are queued for it.
NTSTATUS CompleteAtOnce(PIRP irp) { return Complete(irp, STATUS_SUCCESS); }
NTSTATUS (*g_dispatch)(PIRP);

class Verifier : public ::testing::Test {
protected:
    void SetUp() override {
        g_dispatch = CompleteAtOnce;
        kvsim::PdoCallbacks callbacks;
        callbacks.other = [](PDEVICE_OBJECT, PIRP irp) { return g_dispatch(irp); };
        pdo_ = kvsim::CreateBusPdo(u"VerifierBus", callbacks);
    }
    void TearDown() override { kvsim::DeleteBusPdo(pdo_); }
    // A new IRP to the PDO, with `routine` as its owner's completion routine.
    void Send(PIO_COMPLETION_ROUTINE routine) {
        PIRP irp = IoAllocateIrp(pdo_->StackSize, FALSE);
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
        IoSetCompletionRoutine(irp, routine, nullptr, TRUE, TRUE, TRUE);
        IoCallDriver(pdo_, irp);
    }
    PDEVICE_OBJECT pdo_ = nullptr;
};

// ---- locks kept past the end of a callback ----------------------------------------------------
enum class Lock { Spin, Fast, Mutex };
enum class Where { Dpc, WorkItem, SystemThread, CompletionRoutine };
KSPIN_LOCK g_spin;
FAST_MUTEX g_fast;
KMUTEX g_mutex;
Lock g_kept;

// Takes the lock and keeps it (a mutex by polling, which DISPATCH_LEVEL allows).
void Keep() {
    KIRQL old;
    LARGE_INTEGER zero{};
    if (g_kept == Lock::Spin) KeAcquireSpinLock(&g_spin, &old);
    if (g_kept == Lock::Fast) ExAcquireFastMutex(&g_fast);
    if (g_kept == Lock::Mutex) KeWaitForSingleObject(&g_mutex, Executive, KernelMode, FALSE, &zero);
}
VOID KeepInDpc(PKDPC, PVOID, PVOID, PVOID) { Keep(); }
VOID KeepInWorkItem(PDEVICE_OBJECT, PVOID) { Keep(); }
VOID KeepInThread(PVOID) { Keep(); }
NTSTATUS KeepInCompletion(PDEVICE_OBJECT, PIRP irp, PVOID) {
    Keep();
    return FreeIrp(nullptr, irp, nullptr);
}

struct LockCase {
    const char* name;
    Where where;
    Lock lock;
    const char* expected;
};
void PrintTo(const LockCase& c, std::ostream* os) { *os << c.name; }

class KeptLock : public Verifier, public ::testing::WithParamInterface<LockCase> {};

TEST_P(KeptLock, IsReportedAndReleased) {
    KeInitializeSpinLock(&g_spin);
    ExInitializeFastMutex(&g_fast);
    KeInitializeMutex(&g_mutex, 0);
    g_kept = GetParam().lock;
    KDPC dpc;
    PIO_WORKITEM item;
    HANDLE handle;
    PVOID thread;
    switch (GetParam().where) {
        case Where::Dpc:
            KeInitializeDpc(&dpc, KeepInDpc, nullptr);
            KeInsertQueueDpc(&dpc, nullptr, nullptr);
            kvsim::RunUntilIdle();
            break;
        case Where::WorkItem:
            item = IoAllocateWorkItem(pdo_);
            IoQueueWorkItem(item, KeepInWorkItem, DelayedWorkQueue, nullptr);
            kvsim::RunUntilIdle();
            IoFreeWorkItem(item);
            break;
        case Where::SystemThread:
            PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, KeepInThread, nullptr);
            ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr);
            ZwClose(handle);
            KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
            ObDereferenceObject(thread);
            break;
        case Where::CompletionRoutine: Send(KeepInCompletion); break;
    }
    std::string reported = Violations();
    EXPECT_NE(reported.find(GetParam().expected), std::string::npos) << reported;
    // Released: the next taker gets it at once, and the IRQL is back.
    EXPECT_TRUE(KeTestSpinLock(&g_spin));
    EXPECT_TRUE(ExTryToAcquireFastMutex(&g_fast));
    ExReleaseFastMutex(&g_fast);
    EXPECT_EQ(KeReadStateMutex(&g_mutex), 1);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

INSTANTIATE_TEST_SUITE_P(
    Callbacks, KeptLock,
    ::testing::Values(LockCase{"DpcSpinLock", Where::Dpc, Lock::Spin, "DPC routine"},
                      LockCase{"WorkItemFastMutex", Where::WorkItem, Lock::Fast, "work item returned holding fast"},
                      LockCase{"WorkItemSpinLock", Where::WorkItem, Lock::Spin, "work item returned holding spin"},
                      LockCase{"ThreadMutex", Where::SystemThread, Lock::Mutex, "ended holding mutex (KMUTEX)"},
                      LockCase{"CompletionMutex", Where::CompletionRoutine, Lock::Mutex, "completion routine"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- IoMarkIrpPending, STATUS_PENDING and the completed status -------------------------------------
// What the PDO's dispatch routine does: marks the IRP pending or not,
// completes it with a status or holds it (STATUS_PENDING; the test completes
// it after the routine returned), and returns a status.
struct PendingCase {
    const char* name;
    bool mark;
    NTSTATUS completeWith;
    NTSTATUS returns;
    const char* expected;
};
void PrintTo(const PendingCase& c, std::ostream* os) { *os << c.name; }
const PendingCase* g_case;
PIRP g_held;

NTSTATUS Misbehave(PIRP irp) {
    if (g_case->mark) IoMarkIrpPending(irp);
    if (g_case->completeWith == STATUS_PENDING) {
        g_held = irp;
    } else {
        Complete(irp, g_case->completeWith);
    }
    return g_case->returns;
}

class DispatchPairing : public Verifier, public ::testing::WithParamInterface<PendingCase> {};

TEST_P(DispatchPairing, IsReported) {
    g_case = &GetParam();
    g_held = nullptr;
    g_dispatch = Misbehave;
    Send(FreeIrp);
    if (g_held) Complete(g_held, STATUS_SUCCESS);
    std::string reported = Violations();
    EXPECT_NE(reported.find(GetParam().expected), std::string::npos) << reported;
}

INSTANTIATE_TEST_SUITE_P(
    DispatchRoutines, DispatchPairing,
    ::testing::Values(PendingCase{"PendingUnmarked", false, STATUS_PENDING, STATUS_PENDING,
                                  "still not marked pending when the IRP completed"},
                      PendingCase{"MarkedButSuccess", true, STATUS_SUCCESS, STATUS_SUCCESS,
                                  "called IoMarkIrpPending but returned 0x00000000"},
                      PendingCase{"StatusOtherThanTheIrps", false, STATUS_UNSUCCESSFUL, STATUS_SUCCESS,
                                  "completed the IRP with IoStatus.Status 0xC0000001"},
                      PendingCase{"NeitherCompletedNorPending", false, STATUS_PENDING, STATUS_SUCCESS,
                                  "without completing the IRP"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- pool freed with kernel objects still in use (bug check 0xC7) ----------------------------------
enum class Armed { Timer, QueuedDpc, DpcOfATimerElsewhere, WorkItem };
struct Block {
    KTIMER timer;
    KDPC dpc;
    UCHAR workItem[64];
};
bool g_dpcRan;
VOID NoteDpc(PKDPC, PVOID, PVOID, PVOID) { g_dpcRan = true; }

struct FreedCase {
    const char* name;
    Armed armed;
    const char* expected;
};
void PrintTo(const FreedCase& c, std::ostream* os) { *os << c.name; }

class FreedPool : public Verifier, public ::testing::WithParamInterface<FreedCase> {};

TEST_P(FreedPool, IsReportedAndNothingFiresLater) {
    ASSERT_LE(IoSizeofWorkItem(), sizeof(Block::workItem));
    auto* block = static_cast<Block*>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(Block), 'tsVK'));
    KTIMER outside;
    KeInitializeTimer(&outside);
    KeInitializeTimer(&block->timer);
    KeInitializeDpc(&block->dpc, NoteDpc, nullptr);
    g_dpcRan = false;
    LARGE_INTEGER due;
    due.QuadPart = -10 * kvsim::kMillisecond;
    switch (GetParam().armed) {
        case Armed::Timer: KeSetTimer(&block->timer, due, &block->dpc); break;
        case Armed::QueuedDpc: KeInsertQueueDpc(&block->dpc, nullptr, nullptr); break;
        case Armed::DpcOfATimerElsewhere: KeSetTimer(&outside, due, &block->dpc); break;
        case Armed::WorkItem: IoInitializeWorkItem(pdo_, reinterpret_cast<PIO_WORKITEM>(block->workItem)); break;
    }
    ExFreePoolWithTag(block, 'tsVK');
    std::string reported = Violations();
    EXPECT_NE(reported.find(GetParam().expected), std::string::npos) << reported;
    kvsim::RunFor(100 * kvsim::kMillisecond);
    EXPECT_FALSE(g_dpcRan);
    EXPECT_FALSE(KeCancelTimer(&outside));
}

INSTANTIATE_TEST_SUITE_P(
    Objects, FreedPool,
    ::testing::Values(FreedCase{"SetTimer", Armed::Timer, "holds timer"},
                      FreedCase{"QueuedDpc", Armed::QueuedDpc, "still queued (bug check 0xC7"},
                      FreedCase{"DpcOfATimerElsewhere", Armed::DpcOfATimerElsewhere, "still set (bug check 0xC7"},
                      FreedCase{"InitialisedWorkItem", Armed::WorkItem, "not uninitialised with IoUninitialize"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- fault injection: IRPs and work items, by count, tag and chance -----------------------------------
TEST_F(Verifier, FaultInjectionFailsIrpsAndWorkItemsByCountTagAndSeededChance) {
    kvsim::PoolFailNthAllocation(1);
    EXPECT_EQ(IoAllocateWorkItem(pdo_), nullptr);
    kvsim::PoolFailTag(kvsim::PoolTag("IoWk"));
    EXPECT_EQ(IoAllocateWorkItem(pdo_), nullptr);
    kvsim::PoolResetFaultInjection();

    // An IRP, a work item and a block a round, each failing with a 6% chance;
    // the same seed fails the same ones.
    auto run = [this](uint64_t seed) {
        kvsim::PoolFailRandomly(600, seed);
        std::vector<bool> failed;
        for (int i = 0; i < 1000; ++i) {
            PIRP irp = IoAllocateIrp(1, FALSE);
            PIO_WORKITEM work = IoAllocateWorkItem(pdo_);
            PVOID block = ExAllocatePoolWithTag(NonPagedPoolNx, 8, 'tsVK');
            failed.insert(failed.end(), {irp == nullptr, work == nullptr, block == nullptr});
            if (irp) IoFreeIrp(irp);
            if (work) IoFreeWorkItem(work);
            if (block) ExFreePoolWithTag(block, 'tsVK');
        }
        kvsim::PoolResetFaultInjection();
        return failed;
    };
    std::vector<bool> first = run(7);
    for (size_t kind = 0; kind < 3; ++kind) {
        int failures = 0;
        for (size_t i = kind; i < first.size(); i += 3) failures += first[i];
        EXPECT_TRUE(failures > 30 && failures < 100) << failures << " of kind " << kind;  // 60 expected
    }
    EXPECT_EQ(run(7), first);
    EXPECT_NE(run(8), first);
}

}  // namespace
