// Simulated Windows kernel headers: the power manager's share of wdm.h
// (power states, power actions, PoRequestPowerIrp and friends). Implemented in
// sim/kernel/io/power.cpp on top of the I/O manager.
#pragma once
#include "kv/ntbase.h"

typedef struct _DEVICE_OBJECT DEVICE_OBJECT, *PDEVICE_OBJECT;
typedef struct _IRP IRP, *PIRP;

typedef enum _SYSTEM_POWER_STATE {
    PowerSystemUnspecified = 0,
    PowerSystemWorking = 1,
    PowerSystemSleeping1 = 2,
    PowerSystemSleeping2 = 3,
    PowerSystemSleeping3 = 4,
    PowerSystemHibernate = 5,
    PowerSystemShutdown = 6,
    PowerSystemMaximum = 7
} SYSTEM_POWER_STATE, *PSYSTEM_POWER_STATE;

typedef enum _DEVICE_POWER_STATE {
    PowerDeviceUnspecified = 0,
    PowerDeviceD0 = 1,
    PowerDeviceD1 = 2,
    PowerDeviceD2 = 3,
    PowerDeviceD3 = 4,
    PowerDeviceMaximum = 5
} DEVICE_POWER_STATE, *PDEVICE_POWER_STATE;

typedef union _POWER_STATE {
    SYSTEM_POWER_STATE SystemState;
    DEVICE_POWER_STATE DeviceState;
} POWER_STATE, *PPOWER_STATE;

typedef enum _POWER_STATE_TYPE {
    SystemPowerState = 0,
    DevicePowerState = 1
} POWER_STATE_TYPE, *PPOWER_STATE_TYPE;

typedef enum _POWER_ACTION {
    PowerActionNone = 0,
    PowerActionReserved = 1,
    PowerActionSleep = 2,
    PowerActionHibernate = 3,
    PowerActionShutdown = 4,
    PowerActionShutdownReset = 5,
    PowerActionShutdownOff = 6,
    PowerActionWarmEject = 7,
    PowerActionDisplayOff = 8
} POWER_ACTION, *PPOWER_ACTION;

// Carried in IO_STACK_LOCATION.Parameters.Power for system power IRPs.
typedef struct _SYSTEM_POWER_STATE_CONTEXT {
    union {
        struct {
            ULONG Reserved1 : 8;
            ULONG TargetSystemState : 4;
            ULONG EffectiveSystemState : 4;
            ULONG CurrentSystemState : 4;
            ULONG IgnoreHibernationPath : 1;
            ULONG PseudoTransition : 1;
            ULONG KernelSoftReboot : 1;
            ULONG DirectedDripsTransition : 1;
            ULONG Reserved2 : 8;
        };
        ULONG ContextAsUlong;
    };
} SYSTEM_POWER_STATE_CONTEXT, *PSYSTEM_POWER_STATE_CONTEXT;

typedef VOID REQUEST_POWER_COMPLETE(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                                    PVOID Context, PIO_STATUS_BLOCK IoStatus);
typedef REQUEST_POWER_COMPLETE* PREQUEST_POWER_COMPLETE;

KV_EXTERN_C_BEGIN
// Allocates an IRP_MJ_POWER IRP, sends it to the top of the stack that
// DeviceObject belongs to, and when it completes calls CompletionFunction and
// frees the IRP. Returns STATUS_PENDING once sent, STATUS_INSUFFICIENT_RESOURCES
// when no IRP could be allocated, STATUS_INVALID_PARAMETER_2 for a minor
// function other than SET_POWER, QUERY_POWER, WAIT_WAKE.
NTSTATUS PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                           PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP* Irp);
// Records the device's (or system's) power state; returns the previous one.
POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State);
NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
VOID PoStartNextPowerIrp(PIRP Irp);
KV_EXTERN_C_END
