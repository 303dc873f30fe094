// The error codes that this library raises, by name. What a host reads of them stands in src/errortexts.
#pragma once

namespace codes {

inline constexpr int kCannotBeRead = 2;
inline constexpr int kNotWritable = 3;
inline constexpr int kNotEnoughMemory = 10;
inline constexpr int kNoTraceFile = 17;
inline constexpr int kInvalidArgument = 29;
inline constexpr int kBufferTooSmall = 47;
inline constexpr int kMapiNotLoaded = 60;
inline constexpr int kMapiFunctionMissing = 61;
inline constexpr int kMessageRefused = 62;
inline constexpr int kInvalidValue = 100;
inline constexpr int kDirectory = 118;
inline constexpr int kFile = 121;
inline constexpr int kFirstMapiResult = 150; // of the results of the mail client, which are added to it
inline constexpr int kCancelled = kFirstMapiResult + 1; // also by the host, on every path
inline constexpr int kMemoryOutput = 196;
inline constexpr int kNoRecipient = 650;
inline constexpr int kNoSubject = 651;
inline constexpr int kNoText = 652;
inline constexpr int kServerUnreachable = 653;
inline constexpr int kSecurity = 654;
inline constexpr int kLogin = 655;
inline constexpr int kUnknownProtocol = 656;
inline constexpr int kSenderRefused = 657;
inline constexpr int kRecipientRefused = 658;
inline constexpr int kAttachmentFailure = 659;
inline constexpr int kTransportBase = 661; // libESMTP's error numbers are added to it
inline constexpr int kInvalidAddress = 662;
inline constexpr int kDroppedConnection = 664;
inline constexpr int kInvalidResponse = 665;
inline constexpr int kNotOffered = 669;
inline constexpr int kResolveAgain = 670;
inline constexpr int kResolveFailed = 671;
inline constexpr int kResolveMemory = 672;
inline constexpr int kResolveAddressFamily = 673;
inline constexpr int kResolveNoData = 674;
inline constexpr int kResolveFamily = 675;
inline constexpr int kResolveBadFlags = 676;
inline constexpr int kResolveNoName = 677;
inline constexpr int kResolveService = 678;
inline constexpr int kResolveSocketType = 679;
inline constexpr int kUnknown = 682;
inline constexpr int kNoSender = 691;
inline constexpr int kNoCcRecipient = 692;
inline constexpr int kNoBccRecipient = 693;
inline constexpr int kNoKnownRecipient = 694;
inline constexpr int kMailText = 695;
inline constexpr int kAttachment = 696;
inline constexpr int kSession = 697;
inline constexpr int kMessage = 698;
inline constexpr int kInternal = 699;
inline constexpr int kMapiNotAvailable = 701;
inline constexpr int kNotImplemented = 702;

} // namespace codes
