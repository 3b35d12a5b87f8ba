// The protocol of the control link between the control library and the driver: one device control
// code per request, fixed little-endian records, METHOD_BUFFERED. Both sides are built from the
// same tree, so there is no version field.
//
// Include after <windows.h> and <winioctl.h>, or after <ntddk.h>.
#pragma once

namespace vcam::protocol {

inline constexpr wchar_t kControlPath[] = L"\\\\.\\OrvikVirtualCamera";

constexpr ULONG ControlCode(ULONG function) {
    return CTL_CODE(FILE_DEVICE_BUS_EXTENDER, 0x800 + function, METHOD_BUFFERED,
                    FILE_READ_ACCESS | FILE_WRITE_ACCESS);
}

inline constexpr ULONG kPlug = ControlCode(0);          // in PlugRecord, out ULONG id
inline constexpr ULONG kUnplug = ControlCode(1);        // in ULONG id; pended
inline constexpr ULONG kList = ControlCode(2);          // out ULONG ids[]
inline constexpr ULONG kInfo = ControlCode(3);          // in ULONG id, out InfoRecord
inline constexpr ULONG kSetBehaviour = ControlCode(4);  // in BehaviourRecord
inline constexpr ULONG kRelease = ControlCode(5);       // in ReleaseRecord
inline constexpr ULONG kGetRequest = ControlCode(6);    // in RequestQuery, out RequestHeader, bytes
inline constexpr ULONG kCounters = ControlCode(7);      // in ULONG id, out CountersRecord
inline constexpr ULONG kWait = ControlCode(8);          // in WaitRecord; pended
inline constexpr ULONG kReadMemory = ControlCode(9);    // in MemoryRecord, out bytes
inline constexpr ULONG kWriteMemory = ControlCode(10);  // in MemoryRecord, bytes
inline constexpr ULONG kWaitStarted = ControlCode(11);  // in ULONG id; pended

inline constexpr ULONG kStringBytes = 255;
inline constexpr ULONG kInstanceIdCharacters = 60;
inline constexpr ULONG kInterfaceNameCharacters = 260;
inline constexpr ULONG kDescriptorBytes = 4096;
inline constexpr ULONG kCameraLimit = 1024;
inline constexpr ULONG kBlockBytes = 512;
inline constexpr ULONG kBlockLimit = 131072;
inline constexpr ULONG kRequestsKept = 64;
inline constexpr ULONG kRequestBytesKept = 128 * 1024;

/// "Not limited" in the limits of BehaviourRecord, "absent" in the lengths of PlugRecord.
inline constexpr ULONG kNone = 0xffffffff;

/// A descriptor string: `length` bytes, or absent when it is kNone.
struct StringRecord {
    ULONG length;
    char bytes[kStringBytes + 1];
};

struct PlugRecord {
    GUID interfaceClass;
    GUID secondClass;  // of a second interface, if it has one
    ULONG hasSecondClass;
    ULONG blockCount;
    ULONG transferLimit;
    StringRecord vendor;
    StringRecord product;
    StringRecord revision;
    ULONG instanceIdLength;                         // in characters; 0: generate one
    wchar_t instanceId[kInstanceIdCharacters + 1];  // zero-terminated
};

struct InfoRecord {
    PlugRecord plug;
    wchar_t interfaceName[kInterfaceNameCharacters + 1];  // "\??\...", zero-terminated
};

struct BehaviourRecord {
    ULONG id;
    LONG completionStatus;  // 0: none
    LONG immediateStatus;   // 0: none
    ULONG delayMilliseconds;
    ULONG blockMilliseconds;
    UCHAR scsiStatus;
    UCHAR hold;
    UCHAR ignoreCancel;
    UCHAR hasDescriptor;
    ULONG maximumDataBytes;
    ULONG returnedBytes;
    ULONG descriptorHeaderBytes;
    ULONG descriptorBytes;
    ULONG descriptorLength;
    UCHAR descriptor[kDescriptorBytes];
};

struct ReleaseRecord {
    ULONGLONG sequenceNumber;  // 0: all that are held
    ULONG id;
    ULONG reserved;
};

struct RequestQuery {
    ULONGLONG sequenceNumber;
    ULONG id;
    ULONG reserved;
};

struct RequestHeader {
    ULONG inputLength;
    ULONG outputLength;
    ULONG keptBytes;  // bytes of the block that follow
    ULONG reserved;
};

struct CountersRecord {
    ULONGLONG requests;
    ULONGLONG opens;
    ULONGLONG closes;
    ULONGLONG pending;
};

/// The value of vcam::Counter.
enum class CounterKind : ULONG { kRequests, kOpens, kCloses, kPending };

struct WaitRecord {
    ULONGLONG atLeast;
    ULONG id;
    CounterKind counter;
};

struct MemoryRecord {
    ULONGLONG offset;
    ULONG id;
    ULONG length;  // for a write: the bytes that follow this record
};

}  // namespace vcam::protocol
