// Registry configuration: the parameter table, the registry readers, and
// the per-device parameters read from the device's hardware key.
//
// Records: DEVICE_CFG lives inside its DEVICE; it is filled when the device
// is added, and the endpoint, interface and configuration fields are
// rewritten when the device starts.
//
// Environment: PASSIVE_LEVEL for every registry access.
// Locks: none; the block is written before the device runs and at start,
// under the device's DeviceMutex.
#pragma once

#include "forward.h"

struct _DEVICE_CFG {
    ULONG RequestTimeout; // ms, for requests sent down and waited for
    ULONG DataInPipe;     // endpoint addresses, found at start
    ULONG DataOutPipe;
    ULONG IntInPipe;
    ULONG UsbInterface; // as read; rewritten with the values found at start
    ULONG UsbConfig;
    ULONG TimerInterval; // ms, period of the queue timer
    ULONG HighPowerCfg;  // configuration index for a 500 mA port
    ULONG LowPowerCfg;   // configuration index for a 100 mA port
    ULONG ReadBufferSize;
    ULONG WriteBufferSize;
    ULONG ReadCircBufferSize;
    ULONG WriteCircBufferSize;
    ULONG useCtsFlowControl;
    ULONG FlowTest; // ms between bulk-in resubmissions; 0 off
};

// A parameter is named by its row in CfgParamTable.
typedef enum _CFG_PARAM {
    CfgRequestTimeout = 0,
    CfgTimerInterval,
    CfgHighPowerCfg,
    CfgLowPowerCfg,
    CfgUsbInterface,
    CfgUsbConfig,
    CfgReadBufferSize,
    CfgWriteBufferSize,
    CfgReadCircBufferSize,
    CfgWriteCircBufferSize,
    CfgUseCtsFlowControl,
    CfgFlowTest,
    CfgTraceMask, // driver-wide, in the service key
    CFG_PARAM_COUNT
} CFG_PARAM;

typedef struct _CFG_PARAM_REC {
    PCWSTR Name;        // registry value name
    ULONG Default;      // used when the value cannot be read
    UCHAR WriteDefault; // 1: create the value with Default when it cannot be read
    UCHAR Idx;          // the row's own CFG_PARAM, to catch a row out of place
} CFG_PARAM_REC;

extern const CFG_PARAM_REC CfgParamTable[CFG_PARAM_COUNT];

#define CFG_STAGING_TAG 0x30676643 // 'Cfg0', staging block of CfgGetValueData
#define CFG_VALUE_TAG 0x30676663   // 'cfg0', block returned by CfgAllocValueData

// Every function runs at PASSIVE_LEVEL; the caller closes keys with ZwClose.

// Opens a key by its full path; *Key is written only on success.
NTSTATUS CfgOpenKey(PHANDLE Key, PCWSTR Path);
// The parameter's value, its default when unreadable; 0 for an unknown CfgParam.
ULONG CfgGetParameter(HANDLE Key, ULONG CfgParam);
// A 4-byte REG_DWORD value, else Default; a value that cannot be read is
// created with Default when WriteDefault is set.
ULONG CfgReadDword(HANDLE Key, PCWSTR Name, ULONG Default, UCHAR WriteDefault);
// Reads up to *Length bytes of any value into Buffer (none: only probes).
// *Length becomes the value's full data length whenever the registry
// reported one.
NTSTATUS CfgGetValueData(HANDLE Key, PCWSTR Name, PULONG Length, PVOID Buffer);
// Reads a whole value into a zero-filled MemAlloc block two bytes longer than
// its data; *Block is NULL when nothing was read. The caller MemFrees it.
NTSTATUS CfgAllocValueData(HANDLE Key, PCWSTR Name, PVOID* Block);
// Fills the registry fields of Cfg from the device's hardware key.
NTSTATUS LoadCfg(PDEVICE_OBJECT Pdo, PDEVICE_CFG Cfg);
