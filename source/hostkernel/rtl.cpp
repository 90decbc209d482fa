// Rtl counted-string helpers on 16-bit characters.
#include "hostkernel/emu.h"

namespace {
constexpr ULONG kStringTag = 0x53727453; // 'StrS'

USHORT WideLength(PCWSTR s) {
    size_t n = 0;
    while (s[n])
        ++n;
    return USHORT(n * sizeof(WCHAR));
}

WCHAR Upcase(WCHAR c) {
    return (c >= u'a' && c <= u'z') ? WCHAR(c - u'a' + u'A') : c;
}

// Appends Length bytes and a terminator when there is room for one.
NTSTATUS Append(PUNICODE_STRING Destination, const WCHAR* Source, USHORT Length) {
    if (Destination->Length + Length > Destination->MaximumLength)
        return STATUS_BUFFER_TOO_SMALL;
    memmove(reinterpret_cast<char*>(Destination->Buffer) + Destination->Length, Source, Length);
    Destination->Length = USHORT(Destination->Length + Length);
    if (Destination->Length + sizeof(WCHAR) <= Destination->MaximumLength)
        Destination->Buffer[Destination->Length / sizeof(WCHAR)] = 0;
    return STATUS_SUCCESS;
}
} // namespace

void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
    DestinationString->Length = SourceString ? WideLength(SourceString) : 0;
    DestinationString->MaximumLength =
        SourceString ? USHORT(DestinationString->Length + sizeof(WCHAR)) : 0;
}

void RtlInitAnsiString(PANSI_STRING DestinationString, PCSTR SourceString) {
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
    DestinationString->Length = SourceString ? USHORT(strlen(SourceString)) : 0;
    DestinationString->MaximumLength = SourceString ? USHORT(DestinationString->Length + 1) : 0;
}

void RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
    if (!SourceString) {
        DestinationString->Length = 0;
        return;
    }
    USHORT n = SourceString->Length < DestinationString->MaximumLength
                   ? SourceString->Length
                   : DestinationString->MaximumLength;
    memmove(DestinationString->Buffer, SourceString->Buffer, n);
    DestinationString->Length = n;
    if (n + sizeof(WCHAR) <= DestinationString->MaximumLength)
        DestinationString->Buffer[n / sizeof(WCHAR)] = 0;
}

NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
    return Source ? Append(Destination, Source, WideLength(Source)) : STATUS_SUCCESS;
}

NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    return Append(Destination, Source->Buffer, Source->Length);
}

NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String) {
    if (Base == 0)
        Base = 10;
    if (Base != 2 && Base != 8 && Base != 10 && Base != 16)
        return STATUS_INVALID_PARAMETER;
    WCHAR digits[33];
    int n = 0;
    do {
        ULONG d = Value % Base;
        digits[n++] = WCHAR(d < 10 ? u'0' + d : u'A' + d - 10);
        Value /= Base;
    } while (Value);
    USHORT bytes = USHORT(n * sizeof(WCHAR));
    if (bytes > String->MaximumLength)
        return STATUS_BUFFER_OVERFLOW;
    for (int i = 0; i < n; ++i)
        String->Buffer[i] = digits[n - 1 - i];
    String->Length = bytes;
    if (bytes + sizeof(WCHAR) <= String->MaximumLength)
        String->Buffer[n] = 0;
    return STATUS_SUCCESS;
}

NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                      BOOLEAN AllocateDestinationString) {
    USHORT bytes = USHORT(SourceString->Length * sizeof(WCHAR));
    if (AllocateDestinationString) {
        USHORT maximum = USHORT(bytes + sizeof(WCHAR));
        auto* buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, maximum, kStringTag));
        if (!buffer)
            return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = maximum;
    } else if (bytes + sizeof(WCHAR) > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW; // the terminator must fit too
    }
    for (USHORT i = 0; i < SourceString->Length; ++i)
        DestinationString->Buffer[i] = WCHAR(UCHAR(SourceString->Buffer[i]));
    DestinationString->Length = bytes;
    DestinationString->Buffer[SourceString->Length] = 0;
    return STATUS_SUCCESS;
}

void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
    if (UnicodeString->Buffer)
        ExFreePoolWithTag(UnicodeString->Buffer, kStringTag);
    UnicodeString->Buffer = nullptr;
    UnicodeString->Length = UnicodeString->MaximumLength = 0;
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                             BOOLEAN CaseInSensitive) {
    size_t n1 = String1->Length / sizeof(WCHAR), n2 = String2->Length / sizeof(WCHAR);
    for (size_t i = 0; i < n1 && i < n2; ++i) {
        WCHAR a = String1->Buffer[i], b = String2->Buffer[i];
        if (CaseInSensitive) {
            a = Upcase(a);
            b = Upcase(b);
        }
        if (a != b)
            return LONG(a) - LONG(b);
    }
    return LONG(n1) - LONG(n2);
}

BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                              BOOLEAN CaseInSensitive) {
    return String1->Length == String2->Length &&
           RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

SIZE_T RtlCompareMemory(const void* Source1, const void* Source2, SIZE_T Length) {
    auto* a = static_cast<const UCHAR*>(Source1);
    auto* b = static_cast<const UCHAR*>(Source2);
    SIZE_T i = 0;
    while (i < Length && a[i] == b[i])
        ++i;
    return i;
}
