// Basic kernel types of the emulated platform: integer types with the
// Windows widths (ULONG is 32 bits even on the 64-bit host), NT status codes,
// list entries, counted strings and large integers.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#define NTAPI
#define NTSYSAPI
#define FASTCALL
#define IN
#define OUT
#define OPTIONAL
#define VOID void
#define CONST const
#define UNREFERENCED_PARAMETER(p) ((void)(p))

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

typedef void* PVOID;
typedef char CHAR;
typedef unsigned char UCHAR;
typedef signed char SCHAR;
typedef char CCHAR;
typedef int16_t SHORT, CSHORT;
typedef uint16_t USHORT;
typedef int32_t LONG, INT;
typedef uint32_t ULONG, UINT;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef uintptr_t ULONG_PTR;
typedef intptr_t LONG_PTR;
typedef size_t SIZE_T;
typedef UCHAR BOOLEAN;
typedef UCHAR BYTE;
typedef char16_t WCHAR; // 16-bit UTF-16 on both platforms, never the host's wchar_t
typedef LONG NTSTATUS;
typedef ULONG ACCESS_MASK;

typedef CHAR *PCHAR, *PSTR;
typedef const CHAR *PCSTR, *PCCH;
typedef UCHAR* PUCHAR;
typedef USHORT* PUSHORT;
typedef LONG* PLONG;
typedef ULONG* PULONG;
typedef BOOLEAN* PBOOLEAN;
typedef WCHAR *PWCHAR, *PWSTR;
typedef const WCHAR* PCWSTR;
typedef ULONG_PTR* PULONG_PTR;
typedef SIZE_T* PSIZE_T;
typedef NTSTATUS* PNTSTATUS;

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)

#define STATUS_SUCCESS ((NTSTATUS)0x00000000L)
#define STATUS_WAIT_0 ((NTSTATUS)0x00000000L)
#define STATUS_ABANDONED ((NTSTATUS)0x00000080L)
#define STATUS_USER_APC ((NTSTATUS)0x000000C0L)
#define STATUS_ALERTED ((NTSTATUS)0x00000101L)
#define STATUS_TIMEOUT ((NTSTATUS)0x00000102L)
#define STATUS_PENDING ((NTSTATUS)0x00000103L)
#define STATUS_BUFFER_OVERFLOW ((NTSTATUS)0x80000005L)
#define STATUS_DEVICE_BUSY ((NTSTATUS)0x80000011L)
#define STATUS_NO_MORE_ENTRIES ((NTSTATUS)0x8000001AL)
#define STATUS_UNSUCCESSFUL ((NTSTATUS)0xC0000001L)
#define STATUS_NOT_IMPLEMENTED ((NTSTATUS)0xC0000002L)
#define STATUS_INVALID_PARAMETER ((NTSTATUS)0xC000000DL)
#define STATUS_INVALID_PARAMETER_2 ((NTSTATUS)0xC00000F0L)
#define STATUS_NO_SUCH_DEVICE ((NTSTATUS)0xC000000EL)
#define STATUS_INVALID_DEVICE_REQUEST ((NTSTATUS)0xC0000010L)
#define STATUS_OBJECT_NAME_EXISTS ((NTSTATUS)0x40000000L)
#define STATUS_MORE_PROCESSING_REQUIRED ((NTSTATUS)0xC0000016L)
#define STATUS_NO_MEMORY ((NTSTATUS)0xC0000017L)
#define STATUS_ACCESS_DENIED ((NTSTATUS)0xC0000022L)
#define STATUS_BUFFER_TOO_SMALL ((NTSTATUS)0xC0000023L)
#define STATUS_OBJECT_TYPE_MISMATCH ((NTSTATUS)0xC0000024L)
#define STATUS_OBJECT_NAME_INVALID ((NTSTATUS)0xC0000033L)
#define STATUS_OBJECT_NAME_NOT_FOUND ((NTSTATUS)0xC0000034L)
#define STATUS_OBJECT_NAME_COLLISION ((NTSTATUS)0xC0000035L)
#define STATUS_DELETE_PENDING ((NTSTATUS)0xC0000056L)
#define STATUS_INSUFFICIENT_RESOURCES ((NTSTATUS)0xC000009AL)
#define STATUS_DEVICE_DATA_ERROR ((NTSTATUS)0xC000009CL)
#define STATUS_DEVICE_NOT_CONNECTED ((NTSTATUS)0xC000009DL)
#define STATUS_DEVICE_POWER_FAILURE ((NTSTATUS)0xC000009EL)
#define STATUS_IO_TIMEOUT ((NTSTATUS)0xC00000B5L)
#define STATUS_NOT_SUPPORTED ((NTSTATUS)0xC00000BBL)
#define STATUS_CANCELLED ((NTSTATUS)0xC0000120L)
#define STATUS_INVALID_DEVICE_STATE ((NTSTATUS)0xC0000184L)
#define STATUS_DEVICE_REMOVED ((NTSTATUS)0xC00002B6L)

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define CONTAINING_RECORD(address, type, field)                                                    \
    ((type*)((PCHAR)(address) - (ULONG_PTR)offsetof(type, field)))

inline void InitializeListHead(PLIST_ENTRY ListHead) {
    ListHead->Flink = ListHead->Blink = ListHead;
}
inline BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead) {
    return (BOOLEAN)(ListHead->Flink == ListHead);
}
inline BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
    PLIST_ENTRY Flink = Entry->Flink;
    PLIST_ENTRY Blink = Entry->Blink;
    Blink->Flink = Flink;
    Flink->Blink = Blink;
    return (BOOLEAN)(Flink == Blink);
}
inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY Entry = ListHead->Flink;
    RemoveEntryList(Entry);
    return Entry;
}
inline PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY Entry = ListHead->Blink;
    RemoveEntryList(Entry);
    return Entry;
}
inline void InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY Blink = ListHead->Blink;
    Entry->Flink = ListHead;
    Entry->Blink = Blink;
    Blink->Flink = Entry;
    ListHead->Blink = Entry;
}
inline void InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY Flink = ListHead->Flink;
    Entry->Flink = Flink;
    Entry->Blink = ListHead;
    Flink->Blink = Entry;
    ListHead->Flink = Entry;
}

typedef struct _UNICODE_STRING {
    USHORT Length;        // bytes, without terminator
    USHORT MaximumLength; // bytes of Buffer
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, ANSI_STRING, *PSTRING, *PANSI_STRING;
typedef const ANSI_STRING* PCANSI_STRING;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *LPGUID;
typedef const GUID* LPCGUID;

#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))
