// The wire between the library and the filter driver: the port names, the
// command codes, and every message in its exact byte layout (little-endian,
// no padding but where a field says "unset"). Both ends include this one
// header, the library's senders and the in-process driver, so the layout is
// written down once; the static_asserts pin each offset.
//
// Strings on this wire are UTF-16LE (char16_t here), sized in 16-bit units:
// a name field of 260 characters is 520 bytes. Convert at the boundary with
// foundation/Utf16.h. Addresses that a message carries (the pages of command
// 9, the completion header, the buffer of command 13) are valid because both
// ends share the process.
#pragma once

#include <cstddef>
#include <cstdint>


// The driver's identity of an open data file: opaque but for its third
// word, which is 0 while no identity is known (then no command may name it).
struct FileObjectUniquifier {
    uint32_t m_aiWords[4];
};
static_assert(sizeof(FileObjectUniquifier) == 16);

inline bool IsUniquifierSet(const FileObjectUniquifier& u) { return u.m_aiWords[2] != 0; }

// ---------------------------------------------------------------------------
// Ports
// ---------------------------------------------------------------------------

inline constexpr wchar_t kControlPortName[] = L"\\KelpbakMVControlPort";
inline constexpr wchar_t kTracePortName[] = L"\\KelpbakMVTracePort";
inline constexpr wchar_t kOperationPortName[] = L"\\KelpbakMVOperationPort";
inline constexpr wchar_t kAsyncLiveIOPortName[] = L"\\KelpbakMVAsyncLiveIO";
inline constexpr wchar_t kFilterDriverName[] = L"KelpbakFilterDriver";

// ---------------------------------------------------------------------------
// Commands from the library to the driver (FilterSendMessage)
// ---------------------------------------------------------------------------

enum ZR_DriverCommand_e : uint32_t {
    DRIVER_COMMAND_TRACE_ENABLE = 1,
    DRIVER_COMMAND_TRACE_DISABLE = 2,
    DRIVER_COMMAND_TRACE_CAPTURE = 3,
    DRIVER_COMMAND_ADD_FILE_NAMES = 4,
    DRIVER_COMMAND_FILE_NAMES_DONE = 5,
    DRIVER_COMMAND_CLEANUP_FILE_NAMES = 6,
    DRIVER_COMMAND_PREPARE_HYDRATION = 7,
    DRIVER_COMMAND_GET_HYDRATION_STATUS = 8,
    DRIVER_COMMAND_HYDRATE_PAGES = 9,
    DRIVER_COMMAND_HYDRATION_CLEANUP = 10,
    DRIVER_COMMAND_MAP_READ_BUFFER = 13,
    DRIVER_COMMAND_UNMAP_READ_BUFFER = 14,
    DRIVER_COMMAND_SET_NUM_THREADS = 15,
    DRIVER_COMMAND_RESTART_MOUNT = 16,
    DRIVER_COMMAND_SERVICE_STARTED = 17,
    DRIVER_COMMAND_FLUSH_MOUNT_CACHES = 18,
    DRIVER_COMMAND_SET_NUM_IOS_TO_TRACK = 19,
};

// The driver's trace ring, as commands 1 and 3 size it.
inline constexpr uint32_t kDriverTraceRingSize = 0x100000;

#pragma pack(push, 1)

// Commands 2, 6 and 17: the code alone.
struct ZR_CodeOnlyMessage {
    uint32_t iCode;
};
static_assert(sizeof(ZR_CodeOnlyMessage) == 4);

// Commands 5 and 16 (a second word with no meaning; command 5 from a
// differential sends only the first 4 bytes), 15 and 19 (a count).
struct ZR_CodeValueMessage {
    uint32_t iCode;
    uint32_t iValue;
};
static_assert(sizeof(ZR_CodeValueMessage) == 8);

// Commands 1 and 3: ring size and line limit (enable), ring size (capture).
struct ZR_TraceMessage {
    uint32_t iCode;
    uint32_t iRingSize;
    uint32_t iLimit;
};
static_assert(sizeof(ZR_TraceMessage) == 12);

// Command 4: one data file of a mount. Name A, the path SQL Server will
// open, then name B, the virtual name "C:\<key>!<n>.mxf" (or .nxf), both
// UTF-16 with their terminating zero, packed behind the head.
struct ZR_AddFileNamesMessage {
    uint32_t iCode;
    uint32_t iNameABytes;   // with the terminating zero
    uint64_t iFileSize;     // the file's size as the backup records it
    uint32_t iNameBBytes;   // with the terminating zero
    uint32_t iUnset;
    char16_t aNames[1];     // name A, then name B
};
inline constexpr size_t kAddFileNamesHead = 24;
inline constexpr size_t kAddFileNamesBufferSize = 2104;
static_assert(offsetof(ZR_AddFileNamesMessage, iFileSize) == 8);
static_assert(offsetof(ZR_AddFileNamesMessage, iNameBBytes) == 16);
static_assert(offsetof(ZR_AddFileNamesMessage, aNames) == kAddFileNamesHead);

// Commands 7 (prepare) and 10 (clean-up, with bComplete).
struct ZR_PrepareHydrationMessage {
    uint32_t iCode;
    FileObjectUniquifier Uniquifier;
};
static_assert(sizeof(ZR_PrepareHydrationMessage) == 20);

struct ZR_HydrationCleanupMessage {
    uint32_t iCode;
    FileObjectUniquifier Uniquifier;
    uint32_t bComplete;     // 1 if hydration ended complete
};
static_assert(sizeof(ZR_HydrationCleanupMessage) == 24);

// Command 8: what the file still lacks, from an extent on.
struct ZR_HydrationStatusMessage {
    uint32_t iCode;
    FileObjectUniquifier Uniquifier;
    uint32_t iStartExtent;
};
static_assert(sizeof(ZR_HydrationStatusMessage) == 24);

// The reply to command 8, and the range part of command 9.
//   reply to 8: iFirstExtent is the first extent to hydrate, 0xFFFFFFFF if
//     none, 0 for a corrupted bitmap; iNumExtents the extents of this chunk;
//     iTotalExtents the file's size in extents; iHydratedBytes the bytes
//     present; Bitmap one byte an extent from iFirstExtent on, one bit a
//     page, highest bit first, set = present.
//   request 9: iFirstExtent is the first page number of the run and
//     iNumExtents the number of pages in it.
struct ZR_HydrationRange {
    uint32_t iFileId;
    uint32_t iFirstExtent;
    uint32_t iNumExtents;
    uint32_t iTotalExtents;
    uint64_t iHydratedBytes;
    uint8_t Bitmap[16];
};
static_assert(sizeof(ZR_HydrationRange) == 40);
static_assert(offsetof(ZR_HydrationRange, iHydratedBytes) == 16);
static_assert(offsetof(ZR_HydrationRange, Bitmap) == 24);

inline constexpr uint32_t kNoExtentToHydrate = 0xFFFFFFFF;

// Command 9: a run of pages for the driver to write into a data file.
enum ZR_HydrateMode_e : uint32_t {
    ZR_HYDRATE_MODE_DATA_FILE = 0,   // no completion header; done when the send returns
    ZR_HYDRATE_MODE_WRITER = 1,      // the driver reports through the completion header
    ZR_HYDRATE_MODE_WRITER_FULL = 2, // the same, from a writer whose queue is full
};

struct ZR_HydratePagesMessage {
    uint32_t iCode;
    uint32_t iUnset1;
    FileObjectUniquifier Uniquifier;
    uint64_t pPages;             // address of the first page of the run
    ZR_HydrationRange Range;
    uint32_t iMode;              // ZR_HydrateMode_e
    uint32_t iUnset2;
    uint64_t pCompletionHeader;  // modes 1 and 2
};
static_assert(sizeof(ZR_HydratePagesMessage) == 88);
static_assert(offsetof(ZR_HydratePagesMessage, Uniquifier) == 8);
static_assert(offsetof(ZR_HydratePagesMessage, pPages) == 24);
static_assert(offsetof(ZR_HydratePagesMessage, Range) == 32);
static_assert(offsetof(ZR_HydratePagesMessage, iMode) == 72);
static_assert(offsetof(ZR_HydratePagesMessage, pCompletionHeader) == 80);

// The 4,096 bytes in front of a writer's block buffer, shared with the
// driver. The library writes 1, 1, 0, 0 before the first message; after each
// accepted message it doubles iPosted and flips bPostedToggle; the driver,
// when it has finished a message, doubles iCompleted and flips
// bCompletedToggle. The block is finished when the counts and the toggles
// are equal.
struct ZR_CompletionHeader {
    uint32_t iPosted;
    uint32_t iCompleted;
    uint8_t bCompletedToggle;
    uint8_t bPostedToggle;
};
static_assert(sizeof(ZR_CompletionHeader) == 10);
inline constexpr size_t kCompletionHeaderRoom = 4096;

// Command 13 (reply: 8 bytes, the address of the read's buffer in this
// process, 0 on failure) and command 14 (gives the buffer up).
struct ZR_MapReadBufferMessage {
    uint32_t iCode;
    uint64_t iBufferKey;
};
static_assert(sizeof(ZR_MapReadBufferMessage) == 12);

struct ZR_UnmapReadBufferMessage {
    uint32_t iCode;
    uint64_t iBufferKey;
    uint64_t pBuffer;
};
static_assert(sizeof(ZR_UnmapReadBufferMessage) == 20);

// Command 18: the mount key, with its terminating zero; the size sent is
// 2 x characters + 6.
struct ZR_FlushMountCachesMessage {
    uint32_t iCode;
    char16_t wszKey[261];
};
inline constexpr size_t kFlushMountCachesBufferSize = 526;
static_assert(sizeof(ZR_FlushMountCachesMessage) == kFlushMountCachesBufferSize);

// On the async live I/O port, no command code: a read operation is done.
struct ZR_ReadCompletionMessage {
    uint64_t pOpId;
    int32_t hr;       // 0, or the read's error code
    uint32_t iUnset;
};
static_assert(sizeof(ZR_ReadCompletionMessage) == 16);

// ---------------------------------------------------------------------------
// Operations from the driver to the library (FilterGetMessage), and replies
// (FilterReplyMessage)
// ---------------------------------------------------------------------------

enum ZR_DriverOperation_e : uint32_t {
    ZR_OP_CREATE = 1,
    ZR_OP_CLOSE = 2,
    ZR_OP_READ = 3,
    ZR_OP_QUERY_INFORMATION = 5,
    ZR_OP_FLUSH = 6,
};

// Query classes of operation 5.
inline constexpr uint32_t kFileStandardInformation = 5;
inline constexpr uint32_t kFilePositionInformation = 14;

// The pair that the reply to a create gives and later operations carry.
struct ZR_FileInfoPair {
    uint32_t iFileKey;
    uint32_t bVirtualBackup;  // not 0 for a virtual backup file
};
static_assert(sizeof(ZR_FileInfoPair) == 8);

// The head of every operation: the filter manager's FILTER_MESSAGE_HEADER
// (ReplyLength, 4 bytes of padding, MessageId), then the operation.
struct ZR_OperationHead {
    uint32_t iReplyLength;
    uint32_t iPadding;
    uint64_t iMessageId;
    uint32_t iOperation;      // ZR_DriverOperation_e
    uint32_t iUnset;
};
static_assert(sizeof(ZR_OperationHead) == 24);

// Operation 1. A second name that is not empty makes this the association
// of a data file: name is the physical file, second name the virtual one.
struct ZR_CreateOperation {
    ZR_OperationHead Head;
    char16_t wszName[260];
    char16_t wszSecondName[260];
    uint8_t aUnset[8];
    FileObjectUniquifier Uniquifier;
};
static_assert(offsetof(ZR_CreateOperation, wszName) == 24);
static_assert(offsetof(ZR_CreateOperation, wszSecondName) == 544);
static_assert(offsetof(ZR_CreateOperation, Uniquifier) == 1072);
static_assert(sizeof(ZR_CreateOperation) == 1088);

// Operation 2.
struct ZR_CloseOperation {
    ZR_OperationHead Head;
    ZR_FileInfoPair File;
    uint8_t bDeleteOnClose;
};
static_assert(offsetof(ZR_CloseOperation, bDeleteOnClose) == 32);

// Operation 3. Bitmap: one bit a page from the first page of the extent that
// holds iOffset, highest bit first; a set bit is a page the driver has.
struct ZR_ReadOperation {
    ZR_OperationHead Head;
    ZR_FileInfoPair File;
    uint32_t iLength;
    uint32_t iUnset;
    uint64_t iOffset;
    uint8_t Bitmap[128];
    uint64_t iBufferKey;
    uint64_t pOpId;
};
static_assert(offsetof(ZR_ReadOperation, iLength) == 32);
static_assert(offsetof(ZR_ReadOperation, iOffset) == 40);
static_assert(offsetof(ZR_ReadOperation, Bitmap) == 48);
static_assert(offsetof(ZR_ReadOperation, iBufferKey) == 176);
static_assert(offsetof(ZR_ReadOperation, pOpId) == 184);
static_assert(sizeof(ZR_ReadOperation) == 192);

// Operation 5.
struct ZR_QueryOperation {
    ZR_OperationHead Head;
    ZR_FileInfoPair File;
    uint32_t iUnset;
    uint32_t iClass;          // kFileStandardInformation or kFilePositionInformation
};
static_assert(offsetof(ZR_QueryOperation, iClass) == 36);

// Operation 6: FILEINFO alone.
struct ZR_FlushOperation {
    ZR_OperationHead Head;
    ZR_FileInfoPair File;
};
static_assert(sizeof(ZR_FlushOperation) == 32);

// What the driver sends, and what each pending request holds: the message
// then an OVERLAPPED.
inline constexpr size_t kOperationMessageSize = 1088;
inline constexpr size_t kOperationRequestSize = 1120;

// The reply to every operation: the filter manager's FILTER_REPLY_HEADER
// (Status, padding, MessageId), the result, and 360 bytes of results.
struct ZR_OperationReply {
    int32_t iStatus;          // 0
    uint32_t iPadding;
    uint64_t iMessageId;
    int32_t iResult;          // NTSTATUS or HRESULT of the operation
    uint32_t iUnset;
    uint64_t iZero;
    uint8_t aResults[360];
};
static_assert(offsetof(ZR_OperationReply, iResult) == 16);
static_assert(offsetof(ZR_OperationReply, aResults) == 32);
static_assert(sizeof(ZR_OperationReply) == 392);

// Where the results of each operation stand in a reply, as byte offsets from
// the start of the reply.
inline constexpr size_t kReplyCreateFileKey = 32;        // 4 bytes
inline constexpr size_t kReplyCreateVirtualBackup = 36;  // 1 byte: 0 association, 1 plain create
inline constexpr size_t kReplyAllocationSize = 72;       // 8, class 5
inline constexpr size_t kReplyEndOfFile = 80;            // 8, class 5
inline constexpr size_t kReplyNumberOfLinks = 88;        // 4, class 5
inline constexpr size_t kReplyDeletePending = 92;        // 1, class 5
inline constexpr size_t kReplyDirectory = 93;            // 1, class 5
inline constexpr size_t kReplyPositionLow = 96;          // 4, class 14
inline constexpr size_t kReplyPositionHigh = 100;        // 4, class 14

#pragma pack(pop)

// Results the operation service gives the driver.
inline constexpr int32_t kStatusInvalidHandle = static_cast<int32_t>(0xC0000008);
inline constexpr int32_t kStatusNoMemory = static_cast<int32_t>(0xC0000017);
inline constexpr int32_t kStatusAssertionFailure = static_cast<int32_t>(0xC0000420);
// FilterGetMessage with an OVERLAPPED: the request is pending.
inline constexpr int32_t kHrIoPending = static_cast<int32_t>(0x800703E5);
