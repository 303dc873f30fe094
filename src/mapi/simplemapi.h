// Simple MAPI as it is published: the structures and functions of a mail client's library, on 64-bit systems.
#pragma once

#include <cstddef>
#include <cstdint>

using MapiHandle = std::uintptr_t; // of a session or a window
using MapiResult = std::uint32_t;

inline constexpr MapiResult kMapiSuccess = 0;
inline constexpr MapiResult kMapiUserAbort = 1;
inline constexpr MapiResult kMapiFailure = 2;
inline constexpr MapiResult kMapiLoginFailure = 3;
inline constexpr MapiResult kMapiTooManyRecipients = 10;
inline constexpr MapiResult kMapiAttachmentNotFound = 11;
inline constexpr MapiResult kMapiAttachmentOpenFailure = 12;
inline constexpr MapiResult kMapiAttachmentWriteFailure = 13;
inline constexpr MapiResult kMapiTextTooLarge = 18;

inline constexpr std::uint32_t kMapiLogonUi = 1;
inline constexpr std::uint32_t kMapiNewSession = 2;
inline constexpr std::uint32_t kMapiDialog = 8;

inline constexpr std::uint32_t kMapiOriginator = 0;
inline constexpr std::uint32_t kMapiTo = 1;
inline constexpr std::uint32_t kMapiCc = 2;
inline constexpr std::uint32_t kMapiBcc = 3;

// The names of the fields are the published ones.
struct MapiFileDesc
{
    std::uint32_t ulReserved;
    std::uint32_t flFlags;
    std::uint32_t nPosition;
    char* lpszPathName;
    char* lpszFileName;
    void* lpFileType;
};

struct MapiRecipDesc
{
    std::uint32_t ulReserved;
    std::uint32_t ulRecipClass;
    char* lpszName;
    char* lpszAddress;
    std::uint32_t ulEIDSize;
    void* lpEntryID;
};

struct MapiMessage
{
    std::uint32_t ulReserved;
    char* lpszSubject;
    char* lpszNoteText;
    char* lpszMessageType;
    char* lpszDateReceived;
    char* lpszConversationID;
    std::uint32_t flFlags;
    MapiRecipDesc* lpOriginator;
    std::uint32_t nRecipCount;
    MapiRecipDesc* lpRecips;
    std::uint32_t nFileCount;
    MapiFileDesc* lpFiles;
};

static_assert(sizeof(MapiMessage) == 96 && offsetof(MapiMessage, lpFiles) == 88);
static_assert(sizeof(MapiRecipDesc) == 40 && offsetof(MapiRecipDesc, lpEntryID) == 32);
static_assert(sizeof(MapiFileDesc) == 40 && offsetof(MapiFileDesc, lpszPathName) == 16);

using MapiLogonFunction = MapiResult(MapiHandle window, char* profile, char* password, std::uint32_t flags,
                                     std::uint32_t reserved, MapiHandle* session);
using MapiSendMailFunction = MapiResult(MapiHandle session, MapiHandle window, MapiMessage* message,
                                        std::uint32_t flags, std::uint32_t reserved);
using MapiResolveNameFunction = MapiResult(MapiHandle session, MapiHandle window, char* name,
                                           std::uint32_t flags, std::uint32_t reserved,
                                           MapiRecipDesc** entry);
using MapiFreeBufferFunction = MapiResult(void* buffer);
