// Driver Verifier's checks in the simulated kernel, each rule broken once: a
// DPC routine, work item, system thread or completion routine that ends
// keeping a lock it took; dispatch routines that break the pairing of
// IoMarkIrpPending, STATUS_PENDING and the status the IRP completed with;
// pool freed while it holds a set timer, a queued DPC or an initialised work
// item (bug check 0xC7). Each is reported and the system goes on: locks kept
// are released, nothing in freed pool fires later. And fault injection
// reaching IoAllocateIrp and IoAllocateWorkItem by seeded chance (the low
// resources simulation).
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "kvsim/diag.h"
#include "kvsim/io.h"
#include "kvsim/pool.h"
#include "kvsim/sched.h"
#include "wdm.h"

namespace {

const bool g_virtual = (kvsim::SetClockMode(kvsim::ClockMode::Virtual), true);

PDEVICE_OBJECT g_pdo;
NTSTATUS (*g_dispatch)(PIRP);  // the PDO's dispatch routine
PIRP g_held;                   // an IRP it held, completed by Send
KSPIN_LOCK g_spin;
FAST_MUTEX g_fast;
KMUTEX g_mutex;
KTIMER g_outside;  // a timer outside the freed pool
bool g_dpcRan;

NTSTATUS Complete(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}
NTSTATUS FreeIrp(PDEVICE_OBJECT, PIRP irp, PVOID) {
    IoFreeIrp(irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// A new IRP to the PDO, with `routine` as its owner's completion routine; an
// IRP that `dispatch` held is completed after it returned.
void Send(NTSTATUS (*dispatch)(PIRP), PIO_COMPLETION_ROUTINE routine = FreeIrp) {
    g_dispatch = dispatch;
    g_held = nullptr;
    PIRP irp = IoAllocateIrp(g_pdo->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
    IoSetCompletionRoutine(irp, routine, nullptr, TRUE, TRUE, TRUE);
    IoCallDriver(g_pdo, irp);
    if (g_held) Complete(g_held, STATUS_SUCCESS);
}
NTSTATUS CompleteAtOnce(PIRP irp) { return Complete(irp, STATUS_SUCCESS); }

// ---- locks kept past the end of a callback: g_keep takes one and keeps it
void KeepSpin() {
    KIRQL old;
    KeAcquireSpinLock(&g_spin, &old);
}
void KeepFast() { ExAcquireFastMutex(&g_fast); }
void KeepMutex() {  // by polling, which DISPATCH_LEVEL allows
    LARGE_INTEGER zero{};
    KeWaitForSingleObject(&g_mutex, Executive, KernelMode, FALSE, &zero);
}
void (*g_keep)();
void KeepInDpc() {
    static KDPC dpc;
    KeInitializeDpc(&dpc, [](PKDPC, PVOID, PVOID, PVOID) { g_keep(); }, nullptr);
    KeInsertQueueDpc(&dpc, nullptr, nullptr);
    kvsim::RunUntilIdle();
}
void KeepInWorkItem() {
    PIO_WORKITEM item = IoAllocateWorkItem(g_pdo);
    IoQueueWorkItem(item, [](PDEVICE_OBJECT, PVOID) { g_keep(); }, DelayedWorkQueue, nullptr);
    kvsim::RunUntilIdle();
    IoFreeWorkItem(item);
}
void KeepInThread() {
    HANDLE handle;
    PVOID thread;
    PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, [](PVOID) { g_keep(); }, nullptr);
    ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr);
    ZwClose(handle);
    KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(thread);
}
void KeepInCompletion() {
    Send(CompleteAtOnce, [](PDEVICE_OBJECT, PIRP irp, PVOID) {
        g_keep();
        return FreeIrp(nullptr, irp, nullptr);
    });
}

// ---- pool freed with kernel objects still in use: `arm` uses them ----------
struct Block {
    KTIMER timer;
    KDPC dpc;
    UCHAR workItem[64];
};
void FreeArmed(void (*arm)(Block*)) {
    ASSERT_LE(IoSizeofWorkItem(), sizeof(Block::workItem));
    auto* block = static_cast<Block*>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(Block), 'tsVK'));
    KeInitializeTimer(&block->timer);
    KeInitializeDpc(&block->dpc, [](PKDPC, PVOID, PVOID, PVOID) { g_dpcRan = true; }, nullptr);
    arm(block);
    ExFreePoolWithTag(block, 'tsVK');
}
LARGE_INTEGER In10ms() { return LARGE_INTEGER{.QuadPart = -10 * kvsim::kMillisecond}; }

class Verifier : public ::testing::Test {
protected:
    void SetUp() override {
        kvsim::PdoCallbacks callbacks;
        callbacks.other = [](PDEVICE_OBJECT, PIRP irp) { return g_dispatch(irp); };
        g_pdo = kvsim::CreateBusPdo(u"VerifierBus", callbacks);
        KeInitializeSpinLock(&g_spin);
        ExInitializeFastMutex(&g_fast);
        KeInitializeMutex(&g_mutex, 0);
        KeInitializeTimer(&g_outside);
        g_dpcRan = false;
    }
    void TearDown() override { kvsim::DeleteBusPdo(g_pdo); }
};

struct RuleCase {
    const char* name;
    void (*breakRule)();
    const char* expected;
};
void PrintTo(const RuleCase& c, std::ostream* os) { *os << c.name; }

class BrokenRule : public Verifier, public ::testing::WithParamInterface<RuleCase> {};

TEST_P(BrokenRule, IsReportedAndTheSystemGoesOn) {
    GetParam().breakRule();
    EXPECT_THAT(kvsim::TakeViolations(), ::testing::Contains(::testing::HasSubstr(GetParam().expected)));
    // Released: the next taker gets it at once, and the IRQL is back.
    EXPECT_TRUE(KeTestSpinLock(&g_spin));
    EXPECT_TRUE(ExTryToAcquireFastMutex(&g_fast));
    ExReleaseFastMutex(&g_fast);
    EXPECT_EQ(KeReadStateMutex(&g_mutex), 1);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    // Nothing in freed pool fires.
    kvsim::RunFor(100 * kvsim::kMillisecond);
    EXPECT_FALSE(g_dpcRan);
    EXPECT_FALSE(KeCancelTimer(&g_outside));
}

INSTANTIATE_TEST_SUITE_P(
    Rules, BrokenRule,
    ::testing::Values(
        // Each callback kind once and each lock kind once: one check follows every callback.
        RuleCase{"DpcKeepsSpinLock", [] { g_keep = KeepSpin; KeepInDpc(); }, "DPC routine"},
        RuleCase{"WorkItemKeepsFastMutex", [] { g_keep = KeepFast; KeepInWorkItem(); },
                 "work item returned holding fast"},
        RuleCase{"ThreadKeepsMutex", [] { g_keep = KeepMutex; KeepInThread(); }, "ended holding mutex (KMUTEX)"},
        RuleCase{"CompletionKeepsMutex", [] { g_keep = KeepMutex; KeepInCompletion(); }, "completion routine"},
        // IoMarkIrpPending, STATUS_PENDING and the completed status.
        RuleCase{"PendingUnmarked", [] { Send([](PIRP irp) { g_held = irp; return STATUS_PENDING; }); },
                 "still not marked pending when the IRP completed"},
        RuleCase{"MarkedButSuccess",
                 [] { Send([](PIRP irp) { IoMarkIrpPending(irp); return Complete(irp, STATUS_SUCCESS); }); },
                 "called IoMarkIrpPending but returned 0x00000000"},
        RuleCase{"StatusOtherThanTheIrps",
                 [] { Send([](PIRP irp) { Complete(irp, STATUS_UNSUCCESSFUL); return STATUS_SUCCESS; }); },
                 "completed the IRP with IoStatus.Status 0xC0000001"},
        RuleCase{"NeitherCompletedNorPending", [] { Send([](PIRP irp) { g_held = irp; return STATUS_SUCCESS; }); },
                 "without completing the IRP"},
        // Freed pool (bug check 0xC7).
        RuleCase{"FreedSetTimer", [] { FreeArmed([](Block* b) { KeSetTimer(&b->timer, In10ms(), &b->dpc); }); },
                 "holds timer"},
        RuleCase{"FreedQueuedDpc", [] { FreeArmed([](Block* b) { KeInsertQueueDpc(&b->dpc, nullptr, nullptr); }); },
                 "still queued (bug check 0xC7"},
        RuleCase{"FreedDpcOfATimerElsewhere",
                 [] { FreeArmed([](Block* b) { KeSetTimer(&g_outside, In10ms(), &b->dpc); }); },
                 "still set (bug check 0xC7"},
        RuleCase{"FreedInitialisedWorkItem",
                 [] { FreeArmed([](Block* b) { IoInitializeWorkItem(g_pdo, PIO_WORKITEM(b->workItem)); }); },
                 "not uninitialised with IoUninitialize"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- fault injection by seeded chance: an IRP, a work item and a block a
// round, each failing with a 6% chance; the same seed fails the same ones.
// (By count and tag: runtime_test's pool tests.)
TEST_F(Verifier, FaultInjectionFailsIrpsWorkItemsAndBlocksBySeededChance) {
    auto run = [](uint64_t seed) {
        kvsim::PoolFailRandomly(600, seed);
        std::vector<bool> failed;
        for (int i = 0; i < 1000; ++i) {
            PIRP irp = IoAllocateIrp(1, FALSE);
            PIO_WORKITEM work = IoAllocateWorkItem(g_pdo);
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
