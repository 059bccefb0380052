// Simulated Windows kernel headers: ks.h, the kernel-streaming (AVStream)
// types, constants, GUIDs and the ks.sys functions a minidriver calls.
// Names, values and Windows x64 layouts follow the WDK (checked against the
// mingw-w64 ks.h by driver/layout_asserts.h, compiled in both worlds); the
// functions are implemented by the ks.sys simulation (sim/ks).
//
// GUIDs are spelled as the WDK spells them so that one driver source builds
// in both worlds: STATIC_X is the flat initialiser list ("{STATIC_X}" or
// STATICGUIDOF(X) in a table), X is a GUID object (&X, IsEqualGUID(X, ...)).
// On the host every GUID object is an inline constexpr definition, which is
// what ksguid.h makes of DEFINE_GUIDEX on Windows.
#pragma once

#include "wdm.h"

// ---- Kernel types that KS only points to -----------------------------------
// Incomplete declarations with the WDK's tags; the kv/ headers complete them.
typedef struct _IRP IRP, *PIRP;
typedef struct _FILE_OBJECT FILE_OBJECT, *PFILE_OBJECT;
typedef struct _DEVICE_OBJECT DEVICE_OBJECT, *PDEVICE_OBJECT;
typedef struct _DRIVER_OBJECT DRIVER_OBJECT, *PDRIVER_OBJECT;
typedef struct _MDL MDL, *PMDL;
typedef struct _KDPC KDPC, *PKDPC;
typedef struct _KTIMER KTIMER, *PKTIMER;
typedef struct _WORK_QUEUE_ITEM WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;
typedef struct _CM_RESOURCE_LIST CM_RESOURCE_LIST, *PCM_RESOURCE_LIST;
typedef struct _DEVICE_CAPABILITIES DEVICE_CAPABILITIES, *PDEVICE_CAPABILITIES;
typedef PVOID PSECURITY_DESCRIPTOR;

// SYSTEM_POWER_STATE, DEVICE_POWER_STATE and POWER_ACTION come from kv/po.h.

// ---- GUID spelling helpers (ks.h / ksguid.h) -------------------------------
#define STATICGUIDOF(guid) STATIC_##guid
#ifdef __cplusplus
#define DEFINE_GUIDEX(name) inline constexpr GUID name = {STATICGUIDOF(name)}
#else
#define DEFINE_GUIDEX(name) static const GUID name = {STATICGUIDOF(name)}
#endif
#define DEFINE_GUIDSTRUCT(guidString, name) DEFINE_GUIDEX(name)
#define DEFINE_GUIDNAMED(name) name

#ifndef SIZEOF_ARRAY
#define SIZEOF_ARRAY(ar) (sizeof(ar) / sizeof((ar)[0]))
#endif

#define STATIC_GUID_NULL 0x00000000, 0x0000, 0x0000, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00
DEFINE_GUIDSTRUCT("00000000-0000-0000-0000-000000000000", GUID_NULL);

// ---- I/O controls of a KS object (FILE_DEVICE_KS, METHOD_NEITHER) ----------
#define FILE_DEVICE_KS 0x0000002f
#define KV_KS_IOCTL(function, access) ((FILE_DEVICE_KS << 16) | ((access) << 14) | ((function) << 2) | 3)
#define IOCTL_KS_PROPERTY KV_KS_IOCTL(0x000, 0)
#define IOCTL_KS_ENABLE_EVENT KV_KS_IOCTL(0x001, 0)
#define IOCTL_KS_DISABLE_EVENT KV_KS_IOCTL(0x002, 0)
#define IOCTL_KS_METHOD KV_KS_IOCTL(0x003, 0)
#define IOCTL_KS_WRITE_STREAM KV_KS_IOCTL(0x004, 2)
#define IOCTL_KS_READ_STREAM KV_KS_IOCTL(0x005, 1)
#define IOCTL_KS_RESET_STATE KV_KS_IOCTL(0x006, 0)

// ---- Basic enumerations and records ----------------------------------------
typedef enum { KSRESET_BEGIN, KSRESET_END } KSRESET;

typedef enum { KSSTATE_STOP, KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN } KSSTATE, *PKSSTATE;

#define KSPRIORITY_LOW 0x00000001
#define KSPRIORITY_NORMAL 0x40000000
#define KSPRIORITY_HIGH 0x80000000
#define KSPRIORITY_EXCLUSIVE 0xFFFFFFFF

typedef struct {
    ULONG PriorityClass;
    ULONG PrioritySubClass;
} KSPRIORITY, *PKSPRIORITY;

// KSIDENTIFIER: set GUID, item id and request flags; 24 bytes, 8-aligned.
typedef struct {
    union {
        struct {
            GUID Set;
            ULONG Id;
            ULONG Flags;
        };
        LONGLONG Alignment;
    };
} KSIDENTIFIER, *PKSIDENTIFIER;

typedef KSIDENTIFIER KSPROPERTY, *PKSPROPERTY, KSMETHOD, *PKSMETHOD, KSEVENT, *PKSEVENT;

#define KSMETHOD_TYPE_NONE 0x00000000
#define KSMETHOD_TYPE_READ 0x00000001
#define KSMETHOD_TYPE_WRITE 0x00000002
#define KSMETHOD_TYPE_MODIFY 0x00000003
#define KSMETHOD_TYPE_SOURCE 0x00000004
#define KSMETHOD_TYPE_SEND 0x00000001
#define KSMETHOD_TYPE_SETSUPPORT 0x00000100
#define KSMETHOD_TYPE_BASICSUPPORT 0x00000200
#define KSMETHOD_TYPE_TOPOLOGY 0x10000000

#define KSPROPERTY_TYPE_GET 0x00000001
#define KSPROPERTY_TYPE_SET 0x00000002
#define KSPROPERTY_TYPE_SETSUPPORT 0x00000100
#define KSPROPERTY_TYPE_BASICSUPPORT 0x00000200
#define KSPROPERTY_TYPE_RELATIONS 0x00000400
#define KSPROPERTY_TYPE_SERIALIZESET 0x00000800
#define KSPROPERTY_TYPE_UNSERIALIZESET 0x00001000
#define KSPROPERTY_TYPE_SERIALIZERAW 0x00002000
#define KSPROPERTY_TYPE_UNSERIALIZERAW 0x00004000
#define KSPROPERTY_TYPE_SERIALIZESIZE 0x00008000
#define KSPROPERTY_TYPE_DEFAULTVALUES 0x00010000
#define KSPROPERTY_TYPE_TOPOLOGY 0x10000000

typedef struct {
    KSPROPERTY Property;
    ULONG NodeId;
    ULONG Reserved;
} KSP_NODE, *PKSP_NODE;

typedef struct {
    KSMETHOD Method;
    ULONG NodeId;
    ULONG Reserved;
} KSM_NODE, *PKSM_NODE;

typedef struct {
    KSEVENT Event;
    ULONG NodeId;
    ULONG Reserved;
} KSE_NODE, *PKSE_NODE;

#define STATIC_KSPROPTYPESETID_General 0x97E99BA0, 0xBDEA, 0x11CF, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("97E99BA0-BDEA-11CF-A5D6-28DB04C10000", KSPROPTYPESETID_General);

// The VARTYPE values that KSPROPERTY_VALUES descriptions name (wtypes.h).
enum VARENUM {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_BOOL = 11,
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_INT = 22,
    VT_UINT = 23,
};

typedef struct {
    ULONG Size;
    ULONG Count;
} KSMULTIPLE_ITEM, *PKSMULTIPLE_ITEM;

typedef struct {
    ULONG AccessFlags;
    ULONG DescriptionSize;
    KSIDENTIFIER PropTypeSet;
    ULONG MembersListCount;
    ULONG Reserved;
} KSPROPERTY_DESCRIPTION, *PKSPROPERTY_DESCRIPTION;

#define KSPROPERTY_MEMBER_RANGES 0x00000001
#define KSPROPERTY_MEMBER_STEPPEDRANGES 0x00000002
#define KSPROPERTY_MEMBER_VALUES 0x00000003
#define KSPROPERTY_MEMBER_FLAG_DEFAULT 0x00000001
#define KSPROPERTY_MEMBER_FLAG_BASICSUPPORT_MULTICHANNEL 0x00000002
#define KSPROPERTY_MEMBER_FLAG_BASICSUPPORT_UNIFORM 0x00000004

typedef struct {
    ULONG MembersFlags;
    ULONG MembersSize;
    ULONG MembersCount;
    ULONG Flags;
} KSPROPERTY_MEMBERSHEADER, *PKSPROPERTY_MEMBERSHEADER;

typedef union {
    struct {
        LONG SignedMinimum;
        LONG SignedMaximum;
    };
    struct {
        ULONG UnsignedMinimum;
        ULONG UnsignedMaximum;
    };
} KSPROPERTY_BOUNDS_LONG, *PKSPROPERTY_BOUNDS_LONG;

typedef union {
    struct {
        LONGLONG SignedMinimum;
        LONGLONG SignedMaximum;
    };
    struct {
        ULONGLONG UnsignedMinimum;
        ULONGLONG UnsignedMaximum;
    };
} KSPROPERTY_BOUNDS_LONGLONG, *PKSPROPERTY_BOUNDS_LONGLONG;

typedef struct {
    ULONG SteppingDelta;
    ULONG Reserved;
    KSPROPERTY_BOUNDS_LONG Bounds;
} KSPROPERTY_STEPPING_LONG, *PKSPROPERTY_STEPPING_LONG;

typedef struct {
    ULONGLONG SteppingDelta;
    KSPROPERTY_BOUNDS_LONGLONG Bounds;
} KSPROPERTY_STEPPING_LONGLONG, *PKSPROPERTY_STEPPING_LONGLONG;

// ---- AVStream object types (completed further below) -----------------------
typedef struct _KSDEVICE_DESCRIPTOR KSDEVICE_DESCRIPTOR, *PKSDEVICE_DESCRIPTOR;
typedef struct _KSDEVICE_DISPATCH KSDEVICE_DISPATCH, *PKSDEVICE_DISPATCH;
typedef struct _KSDEVICE KSDEVICE, *PKSDEVICE;
typedef struct _KSFILTERFACTORY KSFILTERFACTORY, *PKSFILTERFACTORY;
typedef struct _KSFILTER_DESCRIPTOR KSFILTER_DESCRIPTOR, *PKSFILTER_DESCRIPTOR;
typedef struct _KSFILTER_DISPATCH KSFILTER_DISPATCH, *PKSFILTER_DISPATCH;
typedef struct _KSFILTER KSFILTER, *PKSFILTER;
typedef struct _KSPIN_DESCRIPTOR_EX KSPIN_DESCRIPTOR_EX, *PKSPIN_DESCRIPTOR_EX;
typedef struct _KSPIN_DISPATCH KSPIN_DISPATCH, *PKSPIN_DISPATCH;
typedef struct _KSCLOCK_DISPATCH KSCLOCK_DISPATCH, *PKSCLOCK_DISPATCH;
typedef struct _KSALLOCATOR_DISPATCH KSALLOCATOR_DISPATCH, *PKSALLOCATOR_DISPATCH;
typedef struct _KSPIN KSPIN, *PKSPIN;
typedef struct _KSNODE_DESCRIPTOR KSNODE_DESCRIPTOR, *PKSNODE_DESCRIPTOR;
typedef struct _KSSTREAM_POINTER_OFFSET KSSTREAM_POINTER_OFFSET, *PKSSTREAM_POINTER_OFFSET;
typedef struct _KSSTREAM_POINTER KSSTREAM_POINTER, *PKSSTREAM_POINTER;
typedef struct _KSMAPPING KSMAPPING, *PKSMAPPING;
typedef struct _KSPROCESSPIN KSPROCESSPIN, *PKSPROCESSPIN;
typedef struct _KSPROCESSPIN_INDEXENTRY KSPROCESSPIN_INDEXENTRY, *PKSPROCESSPIN_INDEXENTRY;
typedef PVOID PKSWORKER;

// ---- Events -----------------------------------------------------------------
// KSEVENTDATA: how a client asked to be notified; 32 bytes on x64.
typedef struct {
    ULONG NotificationType;
    union {
        struct {
            HANDLE Event;
            ULONG_PTR Reserved[2];
        } EventHandle;
        struct {
            HANDLE Semaphore;
            ULONG Reserved;
            LONG Adjustment;
        } SemaphoreHandle;
        struct {
            PVOID Event;
            KPRIORITY Increment;
            ULONG_PTR Reserved;
        } EventObject;
        struct {
            PVOID Semaphore;
            KPRIORITY Increment;
            LONG Adjustment;
        } SemaphoreObject;
        struct {
            PKDPC Dpc;
            ULONG ReferenceCount;
            ULONG_PTR Reserved;
        } Dpc;
        struct {
            PWORK_QUEUE_ITEM WorkQueueItem;
            ULONG WorkQueueType;  // WORK_QUEUE_TYPE in the WDK: the same 4 bytes
            ULONG_PTR Reserved;
        } WorkItem;
        struct {
            PWORK_QUEUE_ITEM WorkQueueItem;
            PKSWORKER KsWorkerObject;
            ULONG_PTR Reserved;
        } KsWorkItem;
        struct {
            PVOID Unused;
            LONG_PTR Alignment[2];
        } Alignment;
    };
} KSEVENTDATA, *PKSEVENTDATA;

#define KSEVENTF_EVENT_HANDLE 0x00000001
#define KSEVENTF_SEMAPHORE_HANDLE 0x00000002
#define KSEVENTF_EVENT_OBJECT 0x00000004
#define KSEVENTF_SEMAPHORE_OBJECT 0x00000008
#define KSEVENTF_DPC 0x00000010
#define KSEVENTF_WORKITEM 0x00000020
#define KSEVENTF_KSWORKITEM 0x00000080

#define KSEVENT_TYPE_ENABLE 0x00000001
#define KSEVENT_TYPE_ONESHOT 0x00000002
#define KSEVENT_TYPE_ENABLEBUFFERED 0x00000004
#define KSEVENT_TYPE_SETSUPPORT 0x00000100
#define KSEVENT_TYPE_BASICSUPPORT 0x00000200
#define KSEVENT_TYPE_QUERYBUFFER 0x00000400
#define KSEVENT_TYPE_TOPOLOGY 0x10000000

// ---- Categories, general property sets --------------------------------------
#define STATIC_KSPROPSETID_General 0x1464EDA5, 0x6A8F, 0x11D1, 0x9A, 0xA7, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96
DEFINE_GUIDSTRUCT("1464EDA5-6A8F-11D1-9AA7-00A0C9223196", KSPROPSETID_General);

#define STATIC_KSPROPSETID_Topology 0x720D4AC0, 0x7533, 0x11D0, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("720D4AC0-7533-11D0-A5D6-28DB04C10000", KSPROPSETID_Topology);

typedef enum {
    KSPROPERTY_TOPOLOGY_CATEGORIES,
    KSPROPERTY_TOPOLOGY_NODES,
    KSPROPERTY_TOPOLOGY_CONNECTIONS,
    KSPROPERTY_TOPOLOGY_NAME
} KSPROPERTY_TOPOLOGY;

#define STATIC_KSCATEGORY_BRIDGE 0x085AFF00, 0x62CE, 0x11CF, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("085AFF00-62CE-11CF-A5D6-28DB04C10000", KSCATEGORY_BRIDGE);
#define STATIC_KSCATEGORY_CAPTURE 0x65E8773D, 0x8F56, 0x11D0, 0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96
DEFINE_GUIDSTRUCT("65E8773D-8F56-11D0-A3B9-00A0C9223196", KSCATEGORY_CAPTURE);
#define STATIC_KSCATEGORY_RENDER 0x65E8773E, 0x8F56, 0x11D0, 0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96
DEFINE_GUIDSTRUCT("65E8773E-8F56-11D0-A3B9-00A0C9223196", KSCATEGORY_RENDER);
#define STATIC_KSCATEGORY_CLOCK 0x53172480, 0x4791, 0x11D0, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("53172480-4791-11D0-A5D6-28DB04C10000", KSCATEGORY_CLOCK);
#define STATIC_KSCATEGORY_VIDEO_CAMERA 0xE5323777, 0xF976, 0x4F5B, 0x9B, 0x55, 0xB9, 0x46, 0x99, 0xC4, 0x6E, 0x44
DEFINE_GUIDSTRUCT("E5323777-F976-4F5B-9B55-B94699C46E44", KSCATEGORY_VIDEO_CAMERA);

typedef struct {
    ULONG FromNode;
    ULONG FromNodePin;
    ULONG ToNode;
    ULONG ToNodePin;
} KSTOPOLOGY_CONNECTION, *PKSTOPOLOGY_CONNECTION;

// A connection end that is a pin of the filter itself rather than of a node.
#define KSFILTER_NODE ((ULONG)-1)
#define KSALL_NODES ((ULONG)-1)

#define STATIC_KSTIME_FORMAT_MEDIA_TIME 0x7b785574, 0x8c82, 0x11cf, 0xbc, 0x0c, 0x00, 0xaa, 0x00, 0xac, 0x74, 0xf6
DEFINE_GUIDSTRUCT("7b785574-8c82-11cf-bc0c-00aa00ac74f6", KSTIME_FORMAT_MEDIA_TIME);

// ---- Pins: interfaces, mediums, data formats ----------------------------------
typedef KSIDENTIFIER KSPIN_INTERFACE, *PKSPIN_INTERFACE;

#define STATIC_KSINTERFACESETID_Standard 0x1A8766A0, 0x62CE, 0x11CF, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("1A8766A0-62CE-11CF-A5D6-28DB04C10000", KSINTERFACESETID_Standard);

typedef enum {
    KSINTERFACE_STANDARD_STREAMING,
    KSINTERFACE_STANDARD_LOOPED_STREAMING,
    KSINTERFACE_STANDARD_CONTROL
} KSINTERFACE_STANDARD;

#define KSMEDIUM_TYPE_ANYINSTANCE 0
#define STATIC_KSMEDIUMSETID_Standard 0x4747B320, 0x62CE, 0x11CF, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("4747B320-62CE-11CF-A5D6-28DB04C10000", KSMEDIUMSETID_Standard);
#define KSMEDIUM_STANDARD_DEVIO KSMEDIUM_TYPE_ANYINSTANCE

#define STATIC_KSPROPSETID_Pin 0x8C134960, 0x51AD, 0x11CF, 0x87, 0x8A, 0x94, 0xF8, 0x01, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("8C134960-51AD-11CF-878A-94F801C10000", KSPROPSETID_Pin);

typedef enum {
    KSPROPERTY_PIN_CINSTANCES,
    KSPROPERTY_PIN_CTYPES,
    KSPROPERTY_PIN_DATAFLOW,
    KSPROPERTY_PIN_DATARANGES,
    KSPROPERTY_PIN_DATAINTERSECTION,
    KSPROPERTY_PIN_INTERFACES,
    KSPROPERTY_PIN_MEDIUMS,
    KSPROPERTY_PIN_COMMUNICATION,
    KSPROPERTY_PIN_GLOBALCINSTANCES,
    KSPROPERTY_PIN_NECESSARYINSTANCES,
    KSPROPERTY_PIN_PHYSICALCONNECTION,
    KSPROPERTY_PIN_CATEGORY,
    KSPROPERTY_PIN_NAME,
    KSPROPERTY_PIN_CONSTRAINEDDATARANGES,
    KSPROPERTY_PIN_PROPOSEDATAFORMAT
} KSPROPERTY_PIN;

typedef struct {
    KSPROPERTY Property;
    ULONG PinId;
    ULONG Reserved;
} KSP_PIN, *PKSP_PIN;

#define KSINSTANCE_INDETERMINATE ((ULONG)-1)

typedef struct {
    ULONG PossibleCount;
    ULONG CurrentCount;
} KSPIN_CINSTANCES, *PKSPIN_CINSTANCES;

typedef enum { KSPIN_DATAFLOW_IN = 1, KSPIN_DATAFLOW_OUT } KSPIN_DATAFLOW, *PKSPIN_DATAFLOW;

#define KSDATAFORMAT_BIT_TEMPORAL_COMPRESSION 0
#define KSDATAFORMAT_TEMPORAL_COMPRESSION (1 << KSDATAFORMAT_BIT_TEMPORAL_COMPRESSION)
#define KSDATAFORMAT_BIT_ATTRIBUTES 1
#define KSDATAFORMAT_ATTRIBUTES (1 << KSDATAFORMAT_BIT_ATTRIBUTES)
#define KSDATARANGE_BIT_ATTRIBUTES 1
#define KSDATARANGE_ATTRIBUTES (1 << KSDATARANGE_BIT_ATTRIBUTES)
#define KSDATARANGE_BIT_REQUIRED_ATTRIBUTES 2
#define KSDATARANGE_REQUIRED_ATTRIBUTES (1 << KSDATARANGE_BIT_REQUIRED_ATTRIBUTES)

// KSDATAFORMAT / KSDATARANGE: the 64-byte header of every format and range.
typedef union {
    struct {
        ULONG FormatSize;
        ULONG Flags;
        ULONG SampleSize;
        ULONG Reserved;
        GUID MajorFormat;
        GUID SubFormat;
        GUID Specifier;
    };
    LONGLONG Alignment;
} KSDATAFORMAT, *PKSDATAFORMAT, KSDATARANGE, *PKSDATARANGE;

#define KSATTRIBUTE_REQUIRED 0x00000001

typedef struct {
    ULONG Size;
    ULONG Flags;
    GUID Attribute;
} KSATTRIBUTE, *PKSATTRIBUTE;

typedef struct {
    ULONG Count;
    PKSATTRIBUTE* Attributes;
} KSATTRIBUTE_LIST, *PKSATTRIBUTE_LIST;

typedef enum {
    KSPIN_COMMUNICATION_NONE,
    KSPIN_COMMUNICATION_SINK,
    KSPIN_COMMUNICATION_SOURCE,
    KSPIN_COMMUNICATION_BOTH,
    KSPIN_COMMUNICATION_BRIDGE
} KSPIN_COMMUNICATION, *PKSPIN_COMMUNICATION;

typedef KSIDENTIFIER KSPIN_MEDIUM, *PKSPIN_MEDIUM;

typedef struct {
    KSPIN_INTERFACE Interface;
    KSPIN_MEDIUM Medium;
    ULONG PinId;
    HANDLE PinToHandle;
    KSPRIORITY Priority;
} KSPIN_CONNECT, *PKSPIN_CONNECT;

typedef struct {
    ULONG Size;
    ULONG Pin;
    WCHAR SymbolicLinkName[1];
} KSPIN_PHYSICALCONNECTION, *PKSPIN_PHYSICALCONNECTION;

typedef NTSTATUS (*PFNKSINTERSECTHANDLER)(PIRP Irp, PKSP_PIN Pin, PKSDATARANGE DataRange, PVOID Data);
typedef NTSTATUS (*PFNKSINTERSECTHANDLEREX)(PVOID Context, PIRP Irp, PKSP_PIN Pin, PKSDATARANGE DataRange,
                                            PKSDATARANGE MatchingDataRange, ULONG DataBufferSize, PVOID Data,
                                            PULONG DataSize);

#define DEFINE_KSPIN_INTERFACE_TABLE(tablename) const KSPIN_INTERFACE tablename[] =
#define DEFINE_KSPIN_INTERFACE_ITEM(guid, _interFace) {{{STATICGUIDOF(guid), (_interFace), 0}}}
#define DEFINE_KSPIN_MEDIUM_TABLE(tablename) const KSPIN_MEDIUM tablename[] =
#define DEFINE_KSPIN_MEDIUM_ITEM(guid, medium) DEFINE_KSPIN_INTERFACE_ITEM(guid, medium)

#define STATIC_KSDATAFORMAT_TYPE_STREAM 0xE436EB83, 0x524F, 0x11CE, 0x9F, 0x53, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70
DEFINE_GUIDSTRUCT("E436EB83-524F-11CE-9F53-0020AF0BA770", KSDATAFORMAT_TYPE_STREAM);
#define STATIC_KSDATAFORMAT_SUBTYPE_NONE 0xE436EB8E, 0x524F, 0x11CE, 0x9F, 0x53, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70
DEFINE_GUIDSTRUCT("E436EB8E-524F-11CE-9F53-0020AF0BA770", KSDATAFORMAT_SUBTYPE_NONE);
#define STATIC_KSDATAFORMAT_SPECIFIER_NONE 0x0F6417D6, 0xC318, 0x11D0, 0xA4, 0x3F, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96
DEFINE_GUIDSTRUCT("0F6417D6-C318-11D0-A43F-00A0C9223196", KSDATAFORMAT_SPECIFIER_NONE);
#define STATIC_KSDATAFORMAT_TYPE_WILDCARD STATIC_GUID_NULL
#define STATIC_KSDATAFORMAT_SUBTYPE_WILDCARD STATIC_GUID_NULL
#define STATIC_KSDATAFORMAT_SPECIFIER_WILDCARD STATIC_GUID_NULL

#define STATIC_KSNAME_Filter 0x9b365890, 0x165f, 0x11d0, 0xa1, 0x95, 0x00, 0x20, 0xaf, 0xd1, 0x56, 0xe4
DEFINE_GUIDSTRUCT("9b365890-165f-11d0-a195-0020afd156e4", KSNAME_Filter);
#define STATIC_KSNAME_Pin 0x146F1A80, 0x4791, 0x11D0, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("146F1A80-4791-11D0-A5D6-28DB04C10000", KSNAME_Pin);
#define STATIC_KSNAME_Clock 0x53172480, 0x4791, 0x11D0, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("53172480-4791-11D0-A5D6-28DB04C10000", KSNAME_Clock);
#define STATIC_KSNAME_Allocator 0x642F5D00, 0x4791, 0x11D0, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("642F5D00-4791-11D0-A5D6-28DB04C10000", KSNAME_Allocator);

#define STATIC_KSNODETYPE_DEV_SPECIFIC 0x941C7AC0, 0xC559, 0x11D0, 0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A, 0xC1
DEFINE_GUIDSTRUCT("941C7AC0-C559-11D0-8A2B-00A0C9255AC1", KSNODETYPE_DEV_SPECIFIC);

// KSPIN_DESCRIPTOR: the static description of one pin factory; 88 bytes.
typedef struct {
    ULONG InterfacesCount;
    const KSPIN_INTERFACE* Interfaces;
    ULONG MediumsCount;
    const KSPIN_MEDIUM* Mediums;
    ULONG DataRangesCount;
    const PKSDATARANGE* DataRanges;
    KSPIN_DATAFLOW DataFlow;
    KSPIN_COMMUNICATION Communication;
    const GUID* Category;
    const GUID* Name;
    union {
        LONGLONG Reserved;
        struct {
            ULONG ConstrainedDataRangesCount;
            PKSDATARANGE* ConstrainedDataRanges;
        };
    };
} KSPIN_DESCRIPTOR, *PKSPIN_DESCRIPTOR;
typedef const KSPIN_DESCRIPTOR* PCKSPIN_DESCRIPTOR;

#define DEFINE_KSPIN_DESCRIPTOR_TABLE(tablename) const KSPIN_DESCRIPTOR tablename[] =
#define DEFINE_KSPIN_DESCRIPTOR_ITEM(InterfacesCount, Interfaces, MediumsCount, Mediums, DataRangesCount, DataRanges, \
                                     DataFlow, Communication)                                                      \
    {InterfacesCount, Interfaces, MediumsCount, Mediums, DataRangesCount, DataRanges, DataFlow, Communication,    \
     NULL, NULL, {0}}
#define DEFINE_KSPIN_DESCRIPTOR_ITEMEX(InterfacesCount, Interfaces, MediumsCount, Mediums, DataRangesCount,         \
                                       DataRanges, DataFlow, Communication, Category, Name)                        \
    {InterfacesCount, Interfaces, MediumsCount, Mediums, DataRangesCount, DataRanges, DataFlow, Communication,    \
     Category, Name, {0}}

// ---- Allocator framing --------------------------------------------------------
#define KSALLOCATOR_REQUIREMENTF_INPLACE_MODIFIER 0x00000001
#define KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY 0x00000002
#define KSALLOCATOR_REQUIREMENTF_FRAME_INTEGRITY 0x00000004
#define KSALLOCATOR_REQUIREMENTF_MUST_ALLOCATE 0x00000008
#define KSALLOCATOR_REQUIREMENTF_PREFERENCES_ONLY 0x80000000
#define KSALLOCATOR_OPTIONF_COMPATIBLE 0x00000001
#define KSALLOCATOR_OPTIONF_SYSTEM_MEMORY 0x00000002
#define KSALLOCATOR_OPTIONF_VALID 0x00000003
#define KSALLOCATOR_FLAG_PARTIAL_READ_SUPPORT 0x00000010
#define KSALLOCATOR_FLAG_DEVICE_SPECIFIC 0x00000020
#define KSALLOCATOR_FLAG_CAN_ALLOCATE 0x00000040
#define KSALLOCATOR_FLAG_INSIST_ON_FRAMESIZE_RATIO 0x00000080
#define KSALLOCATOR_FLAG_NO_FRAME_INTEGRITY 0x00000100
#define KSALLOCATOR_FLAG_MULTIPLE_OUTPUT 0x00000200
#define KSALLOCATOR_FLAG_CYCLE 0x00000400
#define KSALLOCATOR_FLAG_ALLOCATOR_EXISTS 0x00000800
#define KSALLOCATOR_FLAG_INDEPENDENT_RANGES 0x00001000
#define KSALLOCATOR_FLAG_ATTENTION_STEPPING 0x00002000

typedef struct {
    union {
        ULONG OptionsFlags;
        ULONG RequirementsFlags;
    };
    POOL_TYPE PoolType;
    ULONG Frames;
    ULONG FrameSize;
    ULONG FileAlignment;
    ULONG Reserved;
} KSALLOCATOR_FRAMING, *PKSALLOCATOR_FRAMING;

typedef PVOID (*PFNKSDEFAULTALLOCATE)(PVOID Context);
typedef VOID (*PFNKSDEFAULTFREE)(PVOID Context, PVOID Buffer);
typedef NTSTATUS (*PFNKSINITIALIZEALLOCATOR)(PVOID InitialContext, PKSALLOCATOR_FRAMING AllocatorFraming,
                                             PVOID* Context);
typedef VOID (*PFNKSDELETEALLOCATOR)(PVOID Context);

typedef struct {
    ULONG MinFrameSize;
    ULONG MaxFrameSize;
    ULONG Stepping;
} KS_FRAMING_RANGE, *PKS_FRAMING_RANGE;

typedef struct {
    KS_FRAMING_RANGE Range;
    ULONG InPlaceWeight;
    ULONG NotInPlaceWeight;
} KS_FRAMING_RANGE_WEIGHTED, *PKS_FRAMING_RANGE_WEIGHTED;

typedef struct {
    ULONG RatioNumerator;
    ULONG RatioDenominator;
    ULONG RatioConstantMargin;
} KS_COMPRESSION, *PKS_COMPRESSION;

typedef struct {
    GUID MemoryType;
    GUID BusType;
    ULONG MemoryFlags;
    ULONG BusFlags;
    ULONG Flags;
    ULONG Frames;
    ULONG FileAlignment;
    ULONG MemoryTypeWeight;
    KS_FRAMING_RANGE PhysicalRange;
    KS_FRAMING_RANGE_WEIGHTED FramingRange;
} KS_FRAMING_ITEM, *PKS_FRAMING_ITEM;

typedef struct {
    ULONG CountItems;
    ULONG PinFlags;
    KS_COMPRESSION OutputCompression;
    ULONG PinWeight;
    KS_FRAMING_ITEM FramingItem[1];
} KSALLOCATOR_FRAMING_EX, *PKSALLOCATOR_FRAMING_EX;

#define STATIC_KS_TYPE_DONT_CARE STATIC_GUID_NULL
#define STATIC_KSMEMORY_TYPE_SYSTEM 0x091bb638, 0x603f, 0x11d1, 0xb0, 0x67, 0x00, 0xa0, 0xc9, 0x06, 0x28, 0x02
DEFINE_GUIDSTRUCT("091bb638-603f-11d1-b067-00a0c9062802", KSMEMORY_TYPE_SYSTEM);
#define STATIC_KSMEMORY_TYPE_USER 0x8cb0fc28, 0x7893, 0x11d1, 0xb0, 0x69, 0x00, 0xa0, 0xc9, 0x06, 0x28, 0x02
DEFINE_GUIDSTRUCT("8cb0fc28-7893-11d1-b069-00a0c9062802", KSMEMORY_TYPE_USER);
#define STATIC_KSMEMORY_TYPE_KERNEL_PAGED 0xd833f8f8, 0x7894, 0x11d1, 0xb0, 0x69, 0x00, 0xa0, 0xc9, 0x06, 0x28, 0x02
DEFINE_GUIDSTRUCT("d833f8f8-7894-11d1-b069-00a0c9062802", KSMEMORY_TYPE_KERNEL_PAGED);
#define STATIC_KSMEMORY_TYPE_KERNEL_NONPAGED \
    0x4a6d5fc4, 0x7895, 0x11d1, 0xb0, 0x69, 0x00, 0xa0, 0xc9, 0x06, 0x28, 0x02
DEFINE_GUIDSTRUCT("4a6d5fc4-7895-11d1-b069-00a0c9062802", KSMEMORY_TYPE_KERNEL_NONPAGED);

// One framing item: any bus, the given memory type, frames from MinFrameSize
// to MaxFrameSize.
#define DECLARE_SIMPLE_FRAMING_EX(FramingExName, MemoryType, Flags, Frames, Alignment, MinFrameSize, MaxFrameSize) \
    const KSALLOCATOR_FRAMING_EX FramingExName = {                                                                  \
        1, 0, {1, 1, 0}, 0,                                                                                       \
        {{{MemoryType}, {STATIC_KS_TYPE_DONT_CARE}, 0, 0, Flags, Frames, Alignment, 0,                            \
          {0, (ULONG)-1, 1}, {{MinFrameSize, MaxFrameSize, 1}, 0, 0}}}}

#define SetDefaultKsCompression(KsCompressionPointer)     \
    do {                                                  \
        (KsCompressionPointer)->RatioNumerator = 1;       \
        (KsCompressionPointer)->RatioDenominator = 1;     \
        (KsCompressionPointer)->RatioConstantMargin = 0;  \
    } while (0)

// ---- Stream headers -------------------------------------------------------------
#define KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT 0x00000001
#define KSSTREAM_HEADER_OPTIONSF_PREROLL 0x00000002
#define KSSTREAM_HEADER_OPTIONSF_DATADISCONTINUITY 0x00000004
#define KSSTREAM_HEADER_OPTIONSF_TYPECHANGED 0x00000008
#define KSSTREAM_HEADER_OPTIONSF_TIMEVALID 0x00000010
#define KSSTREAM_HEADER_OPTIONSF_TIMEDISCONTINUITY 0x00000040
#define KSSTREAM_HEADER_OPTIONSF_FLUSHONPAUSE 0x00000080
#define KSSTREAM_HEADER_OPTIONSF_DURATIONVALID 0x00000100
#define KSSTREAM_HEADER_OPTIONSF_ENDOFSTREAM 0x00000200
#define KSSTREAM_HEADER_OPTIONSF_BUFFEREDTRANSFER 0x00000400
#define KSSTREAM_HEADER_OPTIONSF_VRAM_DATA_TRANSFER 0x00000800
#define KSSTREAM_HEADER_OPTIONSF_LOOPEDDATA 0x80000000

typedef struct {
    LONGLONG Time;
    ULONG Numerator;
    ULONG Denominator;
} KSTIME, *PKSTIME;

// KSSTREAM_HEADER: 56 bytes on x64 (the trailing Reserved exists on Win64
// only); extended headers such as KS_FRAME_INFO follow it directly.
typedef struct {
    ULONG Size;
    ULONG TypeSpecificFlags;
    KSTIME PresentationTime;
    LONGLONG Duration;
    ULONG FrameExtent;
    ULONG DataUsed;
    PVOID Data;
    ULONG OptionsFlags;
    ULONG Reserved;
} KSSTREAM_HEADER, *PKSSTREAM_HEADER;

#define STATIC_KSPROPSETID_Connection 0x1D58C920, 0xAC9B, 0x11CF, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00
DEFINE_GUIDSTRUCT("1D58C920-AC9B-11CF-A5D6-28DB04C10000", KSPROPSETID_Connection);

typedef enum {
    KSPROPERTY_CONNECTION_STATE,
    KSPROPERTY_CONNECTION_PRIORITY,
    KSPROPERTY_CONNECTION_DATAFORMAT,
    KSPROPERTY_CONNECTION_ALLOCATORFRAMING,
    KSPROPERTY_CONNECTION_PROPOSEDATAFORMAT,
    KSPROPERTY_CONNECTION_ACQUIREORDERING,
    KSPROPERTY_CONNECTION_ALLOCATORFRAMING_EX,
    KSPROPERTY_CONNECTION_STARTAT
} KSPROPERTY_CONNECTION;

#define STATIC_KSPROPSETID_Stream 0x65aaba60, 0x98ae, 0x11cf, 0xa1, 0x0d, 0x00, 0x20, 0xaf, 0xd1, 0x56, 0xe4
DEFINE_GUIDSTRUCT("65aaba60-98ae-11cf-a10d-0020afd156e4", KSPROPSETID_Stream);
// The KSPROPSETID_Stream items (names and values as in the WDK's ks.h):
// KSPROPERTY_STREAM_MASTERCLOCK is 3.
typedef enum {
    KSPROPERTY_STREAM_ALLOCATOR,
    KSPROPERTY_STREAM_QUALITY,
    KSPROPERTY_STREAM_DEGRADATION,
    KSPROPERTY_STREAM_MASTERCLOCK,
    KSPROPERTY_STREAM_TIMEFORMAT,
    KSPROPERTY_STREAM_PRESENTATIONTIME,
    KSPROPERTY_STREAM_PRESENTATIONEXTENT,
    KSPROPERTY_STREAM_FRAMETIME,
    KSPROPERTY_STREAM_RATECAPABILITY,
    KSPROPERTY_STREAM_RATE,
    KSPROPERTY_STREAM_PIPE_ID
} KSPROPERTY_STREAM;

#define STATIC_KSEVENTSETID_Connection 0x7f4bcbe0, 0x9ea5, 0x11cf, 0xa5, 0xd6, 0x28, 0xdb, 0x04, 0xc1, 0x00, 0x00
DEFINE_GUIDSTRUCT("7f4bcbe0-9ea5-11cf-a5d6-28db04c10000", KSEVENTSETID_Connection);

typedef struct {
    LONGLONG Granularity;
    LONGLONG Error;
} KSRESOLUTION, *PKSRESOLUTION;

typedef struct {
    LONGLONG Time;
    LONGLONG SystemTime;
} KSCORRELATED_TIME, *PKSCORRELATED_TIME;

// ---- Automation: property, method and event items and sets ---------------------
#define KSPROBE_STREAMREAD 0x00000000
#define KSPROBE_STREAMWRITE 0x00000001
#define KSPROBE_ALLOCATEMDL 0x00000010
#define KSPROBE_PROBEANDLOCK 0x00000020
#define KSPROBE_SYSTEMADDRESS 0x00000040
#define KSPROBE_MODIFY 0x00000200
#define KSPROBE_STREAMWRITEMODIFY (KSPROBE_MODIFY | KSPROBE_STREAMWRITE)
#define KSPROBE_ALLOWFORMATCHANGE 0x00000080

typedef NTSTATUS (*PFNKSCONTEXT_DISPATCH)(PVOID Context, PIRP Irp);
typedef NTSTATUS (*PFNKSHANDLER)(PIRP Irp, PKSIDENTIFIER Request, PVOID Data);
typedef BOOLEAN (*PFNKSFASTHANDLER)(PFILE_OBJECT FileObject, PKSIDENTIFIER Request, ULONG RequestLength, PVOID Data,
                                    ULONG DataLength, PIO_STATUS_BLOCK IoStatus);
typedef NTSTATUS (*PFNKSALLOCATOR)(PIRP Irp, ULONG BufferSize, BOOLEAN InputOperation);

typedef struct {
    KSPROPERTY_MEMBERSHEADER MembersHeader;
    const VOID* Members;
} KSPROPERTY_MEMBERSLIST, *PKSPROPERTY_MEMBERSLIST;

typedef struct {
    KSIDENTIFIER PropTypeSet;
    ULONG MembersListCount;
    const KSPROPERTY_MEMBERSLIST* MembersList;
} KSPROPERTY_VALUES, *PKSPROPERTY_VALUES;

// KSPROPERTY_ITEM: 72 bytes on x64.
typedef struct {
    ULONG PropertyId;
    union {
        PFNKSHANDLER GetPropertyHandler;
        BOOLEAN GetSupported;
    };
    ULONG MinProperty;
    ULONG MinData;
    union {
        PFNKSHANDLER SetPropertyHandler;
        BOOLEAN SetSupported;
    };
    const KSPROPERTY_VALUES* Values;
    ULONG RelationsCount;
    const KSPROPERTY* Relations;
    PFNKSHANDLER SupportHandler;
    ULONG SerializedSize;
} KSPROPERTY_ITEM, *PKSPROPERTY_ITEM;

#define DEFINE_KSPROPERTY_TABLE(tablename) const KSPROPERTY_ITEM tablename[] =
#define DEFINE_KSPROPERTY_ITEM(PropertyId, GetHandler, MinProperty, MinData, SetHandler, Values, RelationsCount, \
                               Relations, SupportHandler, SerializedSize)                                        \
    {PropertyId,       {(PFNKSHANDLER)GetHandler}, MinProperty,           MinData,                             \
     {(PFNKSHANDLER)SetHandler}, (PKSPROPERTY_VALUES)Values, RelationsCount, (PKSPROPERTY)Relations,           \
     (PFNKSHANDLER)SupportHandler, (ULONG)SerializedSize}

typedef struct {
    ULONG PropertyId;
    union {
        PFNKSFASTHANDLER GetPropertyHandler;
        BOOLEAN GetSupported;
    };
    union {
        PFNKSFASTHANDLER SetPropertyHandler;
        BOOLEAN SetSupported;
    };
    ULONG Reserved;
} KSFASTPROPERTY_ITEM, *PKSFASTPROPERTY_ITEM;

#define DEFINE_KSFASTPROPERTY_ITEM(PropertyId, GetHandler, SetHandler) \
    {PropertyId, {(PFNKSFASTHANDLER)GetHandler}, {(PFNKSFASTHANDLER)SetHandler}, 0}

typedef struct {
    const GUID* Set;
    ULONG PropertiesCount;
    const KSPROPERTY_ITEM* PropertyItem;
    ULONG FastIoCount;
    const KSFASTPROPERTY_ITEM* FastIoTable;
} KSPROPERTY_SET, *PKSPROPERTY_SET;

#define DEFINE_KSPROPERTY_SET(Set, PropertiesCount, PropertyItem, FastIoCount, FastIoTable) \
    {Set, PropertiesCount, PropertyItem, FastIoCount, FastIoTable}
#define DEFINE_KSPROPERTY_SET_TABLE(tablename) const KSPROPERTY_SET tablename[] =

typedef struct {
    ULONG MethodId;
    union {
        PFNKSHANDLER MethodHandler;
        BOOLEAN MethodSupported;
    };
    ULONG MinMethod;
    ULONG MinData;
    PFNKSHANDLER SupportHandler;
    ULONG Flags;
} KSMETHOD_ITEM, *PKSMETHOD_ITEM;

#define DEFINE_KSMETHOD_TABLE(tablename) const KSMETHOD_ITEM tablename[] =
#define DEFINE_KSMETHOD_ITEM(MethodId, Flags, MethodHandler, MinMethod, MinData, SupportHandler) \
    {MethodId, {(PFNKSHANDLER)MethodHandler}, MinMethod, MinData, SupportHandler, Flags}

typedef struct {
    ULONG MethodId;
    union {
        PFNKSFASTHANDLER MethodHandler;
        BOOLEAN MethodSupported;
    };
} KSFASTMETHOD_ITEM, *PKSFASTMETHOD_ITEM;

typedef struct {
    const GUID* Set;
    ULONG MethodsCount;
    const KSMETHOD_ITEM* MethodItem;
    ULONG FastIoCount;
    const KSFASTMETHOD_ITEM* FastIoTable;
} KSMETHOD_SET, *PKSMETHOD_SET;

#define DEFINE_KSMETHOD_SET(Set, MethodsCount, MethodItem, FastIoCount, FastIoTable) \
    {Set, MethodsCount, MethodItem, FastIoCount, FastIoTable}
#define DEFINE_KSMETHOD_SET_TABLE(tablename) const KSMETHOD_SET tablename[] =

typedef struct _KSEVENT_ENTRY KSEVENT_ENTRY, *PKSEVENT_ENTRY;
typedef NTSTATUS (*PFNKSADDEVENT)(PIRP Irp, PKSEVENTDATA EventData, struct _KSEVENT_ENTRY* EventEntry);
typedef VOID (*PFNKSREMOVEEVENT)(PFILE_OBJECT FileObject, struct _KSEVENT_ENTRY* EventEntry);

// KSEVENT_ITEM: 40 bytes on x64.
typedef struct {
    ULONG EventId;
    ULONG DataInput;
    ULONG ExtraEntryData;
    PFNKSADDEVENT AddHandler;
    PFNKSREMOVEEVENT RemoveHandler;
    PFNKSHANDLER SupportHandler;
} KSEVENT_ITEM, *PKSEVENT_ITEM;

#define DEFINE_KSEVENT_TABLE(tablename) const KSEVENT_ITEM tablename[] =
#define DEFINE_KSEVENT_ITEM(EventId, DataInput, ExtraEntryData, AddHandler, RemoveHandler, SupportHandler) \
    {EventId, DataInput, ExtraEntryData, AddHandler, RemoveHandler, SupportHandler}

typedef struct {
    const GUID* Set;
    ULONG EventsCount;
    const KSEVENT_ITEM* EventItem;
} KSEVENT_SET, *PKSEVENT_SET;

#define DEFINE_KSEVENT_SET(Set, EventsCount, EventItem) {Set, EventsCount, EventItem}
#define DEFINE_KSEVENT_SET_TABLE(tablename) const KSEVENT_SET tablename[] =

// The DPC and buffer items of DPC-notified events are private to ks.sys.
typedef struct _KSDPC_ITEM KSDPC_ITEM, *PKSDPC_ITEM;
typedef struct _KSBUFFER_ITEM KSBUFFER_ITEM, *PKSBUFFER_ITEM;

#define KSEVENT_ENTRY_DELETED 1
#define KSEVENT_ENTRY_ONESHOT 2
#define KSEVENT_ENTRY_BUFFERED 4

// One enabled event; ks.sys allocates it with ExtraEntryData bytes behind it.
struct _KSEVENT_ENTRY {
    LIST_ENTRY ListEntry;
    PVOID Object;
    union {
        PKSDPC_ITEM DpcItem;
        PKSBUFFER_ITEM BufferItem;
    };
    PKSEVENTDATA EventData;
    ULONG NotificationType;
    const KSEVENT_SET* EventSet;
    const KSEVENT_ITEM* EventItem;
    PFILE_OBJECT FileObject;
    ULONG SemaphoreAdjustment;
    ULONG Reserved;
    ULONG Flags;
};

typedef enum {
    KSEVENTS_NONE,
    KSEVENTS_SPINLOCK,
    KSEVENTS_MUTEX,
    KSEVENTS_FMUTEX,
    KSEVENTS_FMUTEXUNSAFE,
    KSEVENTS_INTERRUPT,
    KSEVENTS_ERESOURCE
} KSEVENTS_LOCKTYPE;

#define KSCREATE_ITEM_SECURITYCHANGED 0x00000001
#define KSCREATE_ITEM_WILDCARD 0x00000002
#define KSCREATE_ITEM_NOPARAMETERS 0x00000004
#define KSCREATE_ITEM_FREEONSTOP 0x00000008

// ---- Handshake, gate ----------------------------------------------------------
typedef struct {
    GUID ProtocolId;
    PVOID Argument1;
    PVOID Argument2;
} KSHANDSHAKE, *PKSHANDSHAKE;

typedef struct _KSGATE KSGATE, *PKSGATE;
struct _KSGATE {
    LONG Count;
    PKSGATE NextGate;
};

// ---- AVStream callbacks ---------------------------------------------------------
typedef PVOID KSOBJECT_BAG;

typedef BOOLEAN (*PFNKSGENERATEEVENTCALLBACK)(PVOID Context, PKSEVENT_ENTRY EventEntry);
typedef NTSTATUS (*PFNKSDEVICECREATE)(PKSDEVICE Device);
typedef NTSTATUS (*PFNKSDEVICEPNPSTART)(PKSDEVICE Device, PIRP Irp, PCM_RESOURCE_LIST TranslatedResourceList,
                                        PCM_RESOURCE_LIST UntranslatedResourceList);
typedef NTSTATUS (*PFNKSDEVICE)(PKSDEVICE Device);
typedef NTSTATUS (*PFNKSDEVICEIRP)(PKSDEVICE Device, PIRP Irp);
typedef void (*PFNKSDEVICEIRPVOID)(PKSDEVICE Device, PIRP Irp);
typedef NTSTATUS (*PFNKSDEVICEQUERYCAPABILITIES)(PKSDEVICE Device, PIRP Irp, PDEVICE_CAPABILITIES Capabilities);
typedef NTSTATUS (*PFNKSDEVICEQUERYPOWER)(PKSDEVICE Device, PIRP Irp, DEVICE_POWER_STATE DeviceTo,
                                          DEVICE_POWER_STATE DeviceFrom, SYSTEM_POWER_STATE SystemTo,
                                          SYSTEM_POWER_STATE SystemFrom, POWER_ACTION Action);
typedef void (*PFNKSDEVICESETPOWER)(PKSDEVICE Device, PIRP Irp, DEVICE_POWER_STATE To, DEVICE_POWER_STATE From);
typedef NTSTATUS (*PFNKSFILTERFACTORYVOID)(PKSFILTERFACTORY FilterFactory);
typedef void (*PFNKSFILTERFACTORYPOWER)(PKSFILTERFACTORY FilterFactory, DEVICE_POWER_STATE State);
typedef NTSTATUS (*PFNKSFILTERIRP)(PKSFILTER Filter, PIRP Irp);
typedef NTSTATUS (*PFNKSFILTERPROCESS)(PKSFILTER Filter, PKSPROCESSPIN_INDEXENTRY Index);
typedef NTSTATUS (*PFNKSFILTERVOID)(PKSFILTER Filter);
typedef void (*PFNKSFILTERPOWER)(PKSFILTER Filter, DEVICE_POWER_STATE State);
typedef NTSTATUS (*PFNKSPINIRP)(PKSPIN Pin, PIRP Irp);
typedef NTSTATUS (*PFNKSPINSETDEVICESTATE)(PKSPIN Pin, KSSTATE ToState, KSSTATE FromState);
typedef NTSTATUS (*PFNKSPINSETDATAFORMAT)(PKSPIN Pin, PKSDATAFORMAT OldFormat, PKSMULTIPLE_ITEM OldAttributeList,
                                          const KSDATARANGE* DataRange, const KSATTRIBUTE_LIST* AttributeRange);
typedef NTSTATUS (*PFNKSPINHANDSHAKE)(PKSPIN Pin, PKSHANDSHAKE In, PKSHANDSHAKE Out);
typedef NTSTATUS (*PFNKSPIN)(PKSPIN Pin);
typedef void (*PFNKSPINVOID)(PKSPIN Pin);
typedef void (*PFNKSPINPOWER)(PKSPIN Pin, DEVICE_POWER_STATE State);
typedef BOOLEAN (*PFNKSPINSETTIMER)(PKSPIN Pin, PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
typedef BOOLEAN (*PFNKSPINCANCELTIMER)(PKSPIN Pin, PKTIMER Timer);
typedef LONGLONG (*PFNKSPINCORRELATEDTIME)(PKSPIN Pin, PLONGLONG SystemTime);
typedef void (*PFNKSPINRESOLUTION)(PKSPIN Pin, PKSRESOLUTION Resolution);
typedef NTSTATUS (*PFNKSPININITIALIZEALLOCATOR)(PKSPIN Pin, PKSALLOCATOR_FRAMING AllocatorFraming, PVOID* Context);
typedef void (*PFNKSSTREAMPOINTER)(PKSSTREAM_POINTER StreamPointer);
typedef void (*PFNKSFREE)(PVOID Data);
typedef void (*PFNKSPINFRAMERETURN)(PKSPIN Pin, PVOID Data, ULONG Size, PMDL Mdl, PVOID Context, NTSTATUS Status);
typedef void (*PFNKSPINIRPCOMPLETION)(PKSPIN Pin, PIRP Irp);

// ---- Automation tables ------------------------------------------------------------
// KSAUTOMATION_TABLE: 48 bytes on x64 (the Alignment member is Win32 only).
typedef struct KSAUTOMATION_TABLE_ KSAUTOMATION_TABLE, *PKSAUTOMATION_TABLE;
struct KSAUTOMATION_TABLE_ {
    ULONG PropertySetsCount;
    ULONG PropertyItemSize;
    const KSPROPERTY_SET* PropertySets;
    ULONG MethodSetsCount;
    ULONG MethodItemSize;
    const KSMETHOD_SET* MethodSets;
    ULONG EventSetsCount;
    ULONG EventItemSize;
    const KSEVENT_SET* EventSets;
};

#define DEFINE_KSAUTOMATION_TABLE(table) const KSAUTOMATION_TABLE table =
#define DEFINE_KSAUTOMATION_PROPERTIES(table) SIZEOF_ARRAY(table), sizeof(KSPROPERTY_ITEM), table
#define DEFINE_KSAUTOMATION_METHODS(table) SIZEOF_ARRAY(table), sizeof(KSMETHOD_ITEM), table
#define DEFINE_KSAUTOMATION_EVENTS(table) SIZEOF_ARRAY(table), sizeof(KSEVENT_ITEM), table
#define DEFINE_KSAUTOMATION_PROPERTIES_NULL 0, sizeof(KSPROPERTY_ITEM), NULL
#define DEFINE_KSAUTOMATION_METHODS_NULL 0, sizeof(KSMETHOD_ITEM), NULL
#define DEFINE_KSAUTOMATION_EVENTS_NULL 0, sizeof(KSEVENT_ITEM), NULL

#define MIN_DEV_VER_FOR_QI (0x100)

// ---- Dispatch tables ----------------------------------------------------------------
struct _KSDEVICE_DISPATCH {
    PFNKSDEVICECREATE Add;
    PFNKSDEVICEPNPSTART Start;
    PFNKSDEVICE PostStart;
    PFNKSDEVICEIRP QueryStop;
    PFNKSDEVICEIRPVOID CancelStop;
    PFNKSDEVICEIRPVOID Stop;
    PFNKSDEVICEIRP QueryRemove;
    PFNKSDEVICEIRPVOID CancelRemove;
    PFNKSDEVICEIRPVOID Remove;
    PFNKSDEVICEQUERYCAPABILITIES QueryCapabilities;
    PFNKSDEVICEIRPVOID SurpriseRemoval;
    PFNKSDEVICEQUERYPOWER QueryPower;
    PFNKSDEVICESETPOWER SetPower;
    PFNKSDEVICEIRP QueryInterface;
};

struct _KSFILTER_DISPATCH {
    PFNKSFILTERIRP Create;
    PFNKSFILTERIRP Close;
    PFNKSFILTERPROCESS Process;
    PFNKSFILTERVOID Reset;
};

struct _KSPIN_DISPATCH {
    PFNKSPINIRP Create;
    PFNKSPINIRP Close;
    PFNKSPIN Process;
    PFNKSPINVOID Reset;
    PFNKSPINSETDATAFORMAT SetDataFormat;
    PFNKSPINSETDEVICESTATE SetDeviceState;
    PFNKSPIN Connect;
    PFNKSPINVOID Disconnect;
    const KSCLOCK_DISPATCH* Clock;
    const KSALLOCATOR_DISPATCH* Allocator;
};

struct _KSCLOCK_DISPATCH {
    PFNKSPINSETTIMER SetTimer;
    PFNKSPINCANCELTIMER CancelTimer;
    PFNKSPINCORRELATEDTIME CorrelatedTime;
    PFNKSPINRESOLUTION Resolution;
};

struct _KSALLOCATOR_DISPATCH {
    PFNKSPININITIALIZEALLOCATOR InitializeAllocator;
    PFNKSDELETEALLOCATOR DeleteAllocator;
    PFNKSDEFAULTALLOCATE Allocate;
    PFNKSDEFAULTFREE Free;
};

// ---- Descriptors ------------------------------------------------------------------------
#define KSDEVICE_DESCRIPTOR_VERSION (0x100)

struct _KSDEVICE_DESCRIPTOR {
    const KSDEVICE_DISPATCH* Dispatch;
    ULONG FilterDescriptorsCount;
    const KSFILTER_DESCRIPTOR* const* FilterDescriptors;
    ULONG Version;
};

typedef struct {
    GUID Manufacturer;
    GUID Product;
    GUID Component;
    GUID Name;
    ULONG Version;
    ULONG Revision;
} KSCOMPONENTID, *PKSCOMPONENTID;

#define KSFILTER_DESCRIPTOR_VERSION ((ULONG)-1)
#define KSFILTER_FLAG_DISPATCH_LEVEL_PROCESSING 0x00000001
#define KSFILTER_FLAG_CRITICAL_PROCESSING 0x00000002
#define KSFILTER_FLAG_HYPERCRITICAL_PROCESSING 0x00000004
#define KSFILTER_FLAG_RECEIVE_ZERO_LENGTH_SAMPLES 0x00000008
#define KSFILTER_FLAG_DENY_USERMODE_ACCESS 0x80000000

struct _KSFILTER_DESCRIPTOR {
    const KSFILTER_DISPATCH* Dispatch;
    const KSAUTOMATION_TABLE* AutomationTable;
    ULONG Version;
    ULONG Flags;
    const GUID* ReferenceGuid;
    ULONG PinDescriptorsCount;
    ULONG PinDescriptorSize;
    const KSPIN_DESCRIPTOR_EX* PinDescriptors;
    ULONG CategoriesCount;
    const GUID* Categories;
    ULONG NodeDescriptorsCount;
    ULONG NodeDescriptorSize;
    const KSNODE_DESCRIPTOR* NodeDescriptors;
    ULONG ConnectionsCount;
    const KSTOPOLOGY_CONNECTION* Connections;
    const KSCOMPONENTID* ComponentId;
};

#define DEFINE_KSFILTER_DESCRIPTOR(descriptor) const KSFILTER_DESCRIPTOR descriptor =
#define DEFINE_KSFILTER_PIN_DESCRIPTORS(table) SIZEOF_ARRAY(table), sizeof(table[0]), table
#define DEFINE_KSFILTER_CATEGORIES(table) SIZEOF_ARRAY(table), table
#define DEFINE_KSFILTER_CATEGORY(category) 1, &(category)
#define DEFINE_KSFILTER_CATEGORIES_NULL 0, NULL
#define DEFINE_KSFILTER_NODE_DESCRIPTORS(table) SIZEOF_ARRAY(table), sizeof(table[0]), table
#define DEFINE_KSFILTER_NODE_DESCRIPTORS_NULL 0, sizeof(KSNODE_DESCRIPTOR), NULL
#define DEFINE_KSFILTER_CONNECTIONS(table) SIZEOF_ARRAY(table), table
#define DEFINE_KSFILTER_DEFAULT_CONNECTIONS 0, NULL
#define DEFINE_KSFILTER_DESCRIPTOR_TABLE(table) const KSFILTER_DESCRIPTOR* const table[] =

#define KSPIN_FLAG_DISPATCH_LEVEL_PROCESSING KSFILTER_FLAG_DISPATCH_LEVEL_PROCESSING
#define KSPIN_FLAG_CRITICAL_PROCESSING KSFILTER_FLAG_CRITICAL_PROCESSING
#define KSPIN_FLAG_HYPERCRITICAL_PROCESSING KSFILTER_FLAG_HYPERCRITICAL_PROCESSING
#define KSPIN_FLAG_ASYNCHRONOUS_PROCESSING 0x00000008
#define KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING 0x00000010
#define KSPIN_FLAG_INITIATE_PROCESSING_ON_EVERY_ARRIVAL 0x00000020
#define KSPIN_FLAG_FRAMES_NOT_REQUIRED_FOR_PROCESSING 0x00000040
#define KSPIN_FLAG_ENFORCE_FIFO 0x00000080
#define KSPIN_FLAG_GENERATE_MAPPINGS 0x00000100
#define KSPIN_FLAG_DISTINCT_TRAILING_EDGE 0x00000200
#define KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY 0x00010000
#define KSPIN_FLAG_SPLITTER 0x00020000
#define KSPIN_FLAG_USE_STANDARD_TRANSPORT 0x00040000
#define KSPIN_FLAG_DO_NOT_USE_STANDARD_TRANSPORT 0x00080000
#define KSPIN_FLAG_FIXED_FORMAT 0x00100000
#define KSPIN_FLAG_GENERATE_EOS_EVENTS 0x00200000
#define KSPIN_FLAG_RENDERER (KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY | KSPIN_FLAG_GENERATE_EOS_EVENTS)
#define KSPIN_FLAG_IMPLEMENT_CLOCK 0x00400000
#define KSPIN_FLAG_SOME_FRAMES_REQUIRED_FOR_PROCESSING 0x00800000
#define KSPIN_FLAG_PROCESS_IF_ANY_IN_RUN_STATE 0x01000000
#define KSPIN_FLAG_DENY_USERMODE_ACCESS 0x80000000

// KSPIN_DESCRIPTOR_EX: 136 bytes on x64.
struct _KSPIN_DESCRIPTOR_EX {
    const KSPIN_DISPATCH* Dispatch;
    const KSAUTOMATION_TABLE* AutomationTable;
    KSPIN_DESCRIPTOR PinDescriptor;
    ULONG Flags;
    ULONG InstancesPossible;
    ULONG InstancesNecessary;
    const KSALLOCATOR_FRAMING_EX* AllocatorFraming;
    PFNKSINTERSECTHANDLEREX IntersectHandler;
};

#define DEFINE_KSPIN_DEFAULT_INTERFACES 0, NULL
#define DEFINE_KSPIN_DEFAULT_MEDIUMS 0, NULL

// KSNODE_DESCRIPTOR: 24 bytes on x64 (the Alignment member is Win32 only).
struct _KSNODE_DESCRIPTOR {
    const KSAUTOMATION_TABLE* AutomationTable;
    const GUID* Type;
    const GUID* Name;
};

#define DEFINE_NODE_DESCRIPTOR(automation, type, name) {(automation), (type), (name)}

// ---- The AVStream objects ------------------------------------------------------------
struct _KSDEVICE {
    const KSDEVICE_DESCRIPTOR* Descriptor;
    KSOBJECT_BAG Bag;
    PVOID Context;
    PDEVICE_OBJECT FunctionalDeviceObject;
    PDEVICE_OBJECT PhysicalDeviceObject;
    PDEVICE_OBJECT NextDeviceObject;
    BOOLEAN Started;
    SYSTEM_POWER_STATE SystemPowerState;
    DEVICE_POWER_STATE DevicePowerState;
};

struct _KSFILTERFACTORY {
    const KSFILTER_DESCRIPTOR* FilterDescriptor;
    KSOBJECT_BAG Bag;
    PVOID Context;
};

struct _KSFILTER {
    const KSFILTER_DESCRIPTOR* Descriptor;
    KSOBJECT_BAG Bag;
    PVOID Context;
};

struct _KSPIN {
    const KSPIN_DESCRIPTOR_EX* Descriptor;
    KSOBJECT_BAG Bag;
    PVOID Context;
    ULONG Id;
    KSPIN_COMMUNICATION Communication;
    BOOLEAN ConnectionIsExternal;
    KSPIN_INTERFACE ConnectionInterface;
    KSPIN_MEDIUM ConnectionMedium;
    KSPRIORITY ConnectionPriority;
    PKSDATAFORMAT ConnectionFormat;
    PKSMULTIPLE_ITEM AttributeList;
    ULONG StreamHeaderSize;
    KSPIN_DATAFLOW DataFlow;
    KSSTATE DeviceState;
    KSRESET ResetState;
    KSSTATE ClientState;
};

struct _KSMAPPING {
    LARGE_INTEGER PhysicalAddress;  // PHYSICAL_ADDRESS
    ULONG ByteCount;
    ULONG Alignment;
};

// Where a stream pointer stands in its frame: 16 bytes on x64.
struct _KSSTREAM_POINTER_OFFSET {
    union {
        PUCHAR Data;
        PKSMAPPING Mappings;
    };
    ULONG Count;
    ULONG Remaining;
};

struct _KSSTREAM_POINTER {
    PVOID Context;
    PKSPIN Pin;
    PKSSTREAM_HEADER StreamHeader;
    PKSSTREAM_POINTER_OFFSET Offset;
    KSSTREAM_POINTER_OFFSET OffsetIn;
    KSSTREAM_POINTER_OFFSET OffsetOut;
};

typedef enum { KsObjectTypeDevice, KsObjectTypeFilterFactory, KsObjectTypeFilter, KsObjectTypePin } KSOBJECTTYPE;

typedef enum { KSSTREAM_POINTER_STATE_UNLOCKED = 0, KSSTREAM_POINTER_STATE_LOCKED } KSSTREAM_POINTER_STATE;

// ---- Kernel-mode COM: IUnknown and the reference clock ------------------------------
// As unknown.h and ks.h declare them for C++: abstract classes, so that
// pClock->GetTime() reads the same in both worlds.
#ifdef __cplusplus
struct IUnknown {
    virtual NTSTATUS QueryInterface(REFIID InterfaceId, PVOID* Interface) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;
};
typedef IUnknown* PUNKNOWN;

struct IKsReferenceClock : public IUnknown {
    virtual LONGLONG GetTime() = 0;
    virtual LONGLONG GetPhysicalTime() = 0;
    virtual LONGLONG GetCorrelatedTime(PLONGLONG SystemTime) = 0;
    virtual LONGLONG GetCorrelatedPhysicalTime(PLONGLONG SystemTime) = 0;
    virtual NTSTATUS GetResolution(PKSRESOLUTION Resolution) = 0;
    virtual NTSTATUS GetState(PKSSTATE State) = 0;
};
typedef IKsReferenceClock* PIKSREFERENCECLOCK;

DEFINE_GUID(IID_IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
#endif

// ---- ks.sys functions (the simulation's ks.sys implements them) ----------------------
KV_EXTERN_C_BEGIN

// Driver and device.
NTSTATUS KsInitializeDriver(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPathName,
                            const KSDEVICE_DESCRIPTOR* Descriptor);
NTSTATUS KsAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject);
PKSDEVICE KsGetDeviceForDeviceObject(PDEVICE_OBJECT FunctionalDeviceObject);
void KsAcquireDevice(PKSDEVICE Device);
void KsReleaseDevice(PKSDEVICE Device);

// Filter factories.
NTSTATUS KsCreateFilterFactory(PDEVICE_OBJECT DeviceObject, const KSFILTER_DESCRIPTOR* Descriptor, PWSTR RefString,
                               PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG CreateItemFlags,
                               PFNKSFILTERFACTORYPOWER SleepCallback, PFNKSFILTERFACTORYPOWER WakeCallback,
                               PKSFILTERFACTORY* FilterFactory);
NTSTATUS KsFilterFactorySetDeviceClassesState(PKSFILTERFACTORY FilterFactory, BOOLEAN NewState);
NTSTATUS KsFilterFactoryUpdateCacheData(PKSFILTERFACTORY FilterFactory, const KSFILTER_DESCRIPTOR* FilterDescriptor);

// Object hierarchy.
PVOID KsGetParent(PVOID Object);
PVOID KsGetFirstChild(PVOID Object);
PVOID KsGetNextSibling(PVOID Object);
PKSDEVICE KsGetDevice(PVOID Object);
PKSFILTER KsPinGetParentFilter(PKSPIN Pin);
PKSPIN KsPinGetNextSiblingPin(PKSPIN Pin);
ULONG KsFilterGetChildPinCount(PKSFILTER Filter, ULONG PinId);
PKSPIN KsFilterGetFirstChildPin(PKSFILTER Filter, ULONG PinId);
PKSFILTER KsGetFilterFromIrp(PIRP Irp);
PKSPIN KsGetPinFromIrp(PIRP Irp);
ULONG KsGetNodeIdFromIrp(PIRP Irp);
KSOBJECTTYPE KsGetObjectTypeFromIrp(PIRP Irp);
PVOID KsGetObjectFromFileObject(PFILE_OBJECT FileObject);
void KsAcquireControl(PVOID Object);
void KsReleaseControl(PVOID Object);

// Object bags.
NTSTATUS KsAddItemToObjectBag(KSOBJECT_BAG ObjectBag, PVOID Item, PFNKSFREE Free);
ULONG KsRemoveItemFromObjectBag(KSOBJECT_BAG ObjectBag, PVOID Item, BOOLEAN Free);
NTSTATUS KsAllocateObjectBag(PKSDEVICE Device, KSOBJECT_BAG* ObjectBag);
void KsFreeObjectBag(KSOBJECT_BAG ObjectBag);
NTSTATUS _KsEdit(KSOBJECT_BAG ObjectBag, PVOID* PointerToPointerToItem, ULONG NewSize, ULONG OldSize, ULONG Tag);

// Events.
void KsGenerateEvents(PVOID Object, const GUID* EventSet, ULONG EventId, ULONG DataSize, PVOID Data,
                      PFNKSGENERATEEVENTCALLBACK CallBack, PVOID CallBackContext);
NTSTATUS KsGenerateEvent(PKSEVENT_ENTRY EventEntry);
void KsAddEvent(PVOID Object, PKSEVENT_ENTRY EventEntry);
NTSTATUS KsDefaultAddEventHandler(PIRP Irp, PKSEVENTDATA EventData, PKSEVENT_ENTRY EventEntry);

// Streaming.
PKSSTREAM_POINTER KsPinGetLeadingEdgeStreamPointer(PKSPIN Pin, KSSTREAM_POINTER_STATE State);
PKSSTREAM_POINTER KsPinGetTrailingEdgeStreamPointer(PKSPIN Pin, KSSTREAM_POINTER_STATE State);
NTSTATUS KsStreamPointerLock(PKSSTREAM_POINTER StreamPointer);
void KsStreamPointerUnlock(PKSSTREAM_POINTER StreamPointer, BOOLEAN Eject);
NTSTATUS KsStreamPointerAdvance(PKSSTREAM_POINTER StreamPointer);
NTSTATUS KsStreamPointerAdvanceOffsets(PKSSTREAM_POINTER StreamPointer, ULONG InUsed, ULONG OutUsed, BOOLEAN Eject);
void KsStreamPointerAdvanceOffsetsAndUnlock(PKSSTREAM_POINTER StreamPointer, ULONG InUsed, ULONG OutUsed,
                                            BOOLEAN Eject);
NTSTATUS KsStreamPointerSetStatusCode(PKSSTREAM_POINTER StreamPointer, NTSTATUS Status);
void KsStreamPointerDelete(PKSSTREAM_POINTER StreamPointer);
NTSTATUS KsStreamPointerClone(PKSSTREAM_POINTER StreamPointer, PFNKSSTREAMPOINTER CancelCallback, ULONG ContextSize,
                              PKSSTREAM_POINTER* CloneStreamPointer);
void KsPinAttemptProcessing(PKSPIN Pin, BOOLEAN Asynchronous);
void KsPinAcquireProcessingMutex(PKSPIN Pin);
void KsPinReleaseProcessingMutex(PKSPIN Pin);
void KsFilterAcquireProcessingMutex(PKSFILTER Filter);
void KsFilterReleaseProcessingMutex(PKSFILTER Filter);
#ifdef __cplusplus
NTSTATUS KsPinGetReferenceClockInterface(PKSPIN Pin, PIKSREFERENCECLOCK* Interface);
#endif
void KsPinRegisterPowerCallbacks(PKSPIN Pin, PFNKSPINPOWER Sleep, PFNKSPINPOWER Wake);
void KsFilterRegisterPowerCallbacks(PKSFILTER Filter, PFNKSFILTERPOWER Sleep, PFNKSFILTERPOWER Wake);

// Property and data-intersection helpers.
NTSTATUS KsPropertyHandler(PIRP Irp, ULONG PropertySetsCount, const KSPROPERTY_SET* PropertySet);
NTSTATUS KsPinDataIntersection(PIRP Irp, PKSP_PIN Pin, PVOID Data, ULONG DescriptorsCount,
                               const KSPIN_DESCRIPTOR* Descriptor, PFNKSINTERSECTHANDLER IntersectHandler);
NTSTATUS KsPinDataIntersectionEx(PIRP Irp, PKSP_PIN Pin, PVOID Data, ULONG DescriptorsCount,
                                 const KSPIN_DESCRIPTOR* Descriptor, ULONG DescriptorSize,
                                 PFNKSINTERSECTHANDLEREX IntersectHandler, PVOID HandlerContext);

KV_EXTERN_C_END

// ---- Inline helpers (ks.h defines these over the generic object calls) ------------------
FORCEINLINE PKSDEVICE KsFilterFactoryGetParentDevice(PKSFILTERFACTORY FilterFactory)
{
    return (PKSDEVICE)KsGetParent((PVOID)FilterFactory);
}
FORCEINLINE PKSFILTERFACTORY KsFilterGetParentFilterFactory(PKSFILTER Filter)
{
    return (PKSFILTERFACTORY)KsGetParent((PVOID)Filter);
}
FORCEINLINE PKSFILTERFACTORY KsDeviceGetFirstChildFilterFactory(PKSDEVICE Device)
{
    return (PKSFILTERFACTORY)KsGetFirstChild((PVOID)Device);
}
FORCEINLINE PKSFILTER KsFilterFactoryGetFirstChildFilter(PKSFILTERFACTORY FilterFactory)
{
    return (PKSFILTER)KsGetFirstChild((PVOID)FilterFactory);
}
FORCEINLINE PKSFILTERFACTORY KsFilterFactoryGetNextSiblingFilterFactory(PKSFILTERFACTORY FilterFactory)
{
    return (PKSFILTERFACTORY)KsGetNextSibling((PVOID)FilterFactory);
}
FORCEINLINE PKSFILTER KsFilterGetNextSiblingFilter(PKSFILTER Filter)
{
    return (PKSFILTER)KsGetNextSibling((PVOID)Filter);
}
FORCEINLINE PKSDEVICE KsFilterFactoryGetDevice(PKSFILTERFACTORY FilterFactory)
{
    return KsGetDevice((PVOID)FilterFactory);
}
FORCEINLINE PKSDEVICE KsFilterGetDevice(PKSFILTER Filter) { return KsGetDevice((PVOID)Filter); }
FORCEINLINE PKSDEVICE KsPinGetDevice(PKSPIN Pin) { return KsGetDevice((PVOID)Pin); }
FORCEINLINE void KsFilterAcquireControl(PKSFILTER Filter) { KsAcquireControl((PVOID)Filter); }
FORCEINLINE void KsFilterReleaseControl(PKSFILTER Filter) { KsReleaseControl((PVOID)Filter); }
FORCEINLINE void KsPinAcquireControl(PKSPIN Pin) { KsAcquireControl((PVOID)Pin); }
FORCEINLINE void KsPinReleaseControl(PKSPIN Pin) { KsReleaseControl((PVOID)Pin); }
FORCEINLINE void KsFilterAddEvent(PKSFILTER Filter, PKSEVENT_ENTRY EventEntry) { KsAddEvent(Filter, EventEntry); }
FORCEINLINE void KsPinAddEvent(PKSPIN Pin, PKSEVENT_ENTRY EventEntry) { KsAddEvent(Pin, EventEntry); }
FORCEINLINE void KsFilterGenerateEvents(PKSFILTER Filter, const GUID* EventSet, ULONG EventId, ULONG DataSize,
                                        PVOID Data, PFNKSGENERATEEVENTCALLBACK CallBack, PVOID CallBackContext)
{
    KsGenerateEvents(Filter, EventSet, EventId, DataSize, Data, CallBack, CallBackContext);
}
FORCEINLINE void KsPinGenerateEvents(PKSPIN Pin, const GUID* EventSet, ULONG EventId, ULONG DataSize, PVOID Data,
                                     PFNKSGENERATEEVENTCALLBACK CallBack, PVOID CallBackContext)
{
    KsGenerateEvents(Pin, EventSet, EventId, DataSize, Data, CallBack, CallBackContext);
}
FORCEINLINE PKSFILTER KsGetFilterFromFileObject(PFILE_OBJECT FileObject)
{
    return (PKSFILTER)KsGetObjectFromFileObject(FileObject);
}
FORCEINLINE PKSPIN KsGetPinFromFileObject(PFILE_OBJECT FileObject)
{
    return (PKSPIN)KsGetObjectFromFileObject(FileObject);
}

#define KsDiscard(Object, Pointer) KsRemoveItemFromObjectBag((Object)->Bag, (PVOID)(Pointer), TRUE)
#define KsEdit(Object, PointerToPointer, Tag)                                                                  \
    _KsEdit((Object)->Bag, (PVOID*)(PointerToPointer), sizeof(**(PointerToPointer)), sizeof(**(PointerToPointer)), \
            (Tag))
#define KsEditSized(Object, PointerToPointer, NewSize, OldSize, Tag) \
    _KsEdit((Object)->Bag, (PVOID*)(PointerToPointer), (NewSize), (OldSize), (Tag))
