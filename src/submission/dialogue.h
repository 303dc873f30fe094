// The dialogue that carries messages over a connection whose login is done: MAIL, RCPT, DATA or BDAT, RSET,
// QUIT. A message is sent to all of its recipients or to none, and it is sent only when the server has said
// so to its end. Belongs to one connection and one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "src/messagesource.h"
#include "src/sendprogress.h"
#include "src/submission/dotstuffing.h"
#include "src/submission/failure.h"
#include "src/submission/replyreader.h"

enum class WireState : std::uint8_t
{
    Moved,   // some bytes
    Blocked, // none for now
    Ended    // none any more
};

// A connection whose calls do not wait.
class CWire
{
public:
    CWire() = default;
    CWire(const CWire&) = delete;
    CWire& operator=(const CWire&) = delete;
    virtual ~CWire() = default;

    // After Blocked it is called again with the same bytes.
    virtual WireState Send(const char* bytes, std::size_t size, std::size_t& sent) = 0;
    virtual WireState Receive(char* room, std::size_t size, std::size_t& received) = 0;
    // Waits until there may be something to receive or, if asked for, room to send. False after so many
    // milliseconds.
    virtual bool Wait(bool toSend, std::int64_t milliseconds) = 0;
};

// A line of the dialogue in the calling thread's trace; `what` is "sent" or "received". Nothing is formatted
// without a trace, and without memory the line is lost.
void TraceDialogue(const char* what, std::string_view bytes);

// What the server said to EHLO.
struct SubmissionOffer
{
    bool pipelining = false;
    bool chunking = false;
    bool size = false;

    [[nodiscard]] static SubmissionOffer Read(std::string_view replyText);
};

struct SubmissionEnvelope
{
    std::string sender;
    std::vector<std::string> recipients;
    CSendProgress progress{}; // is looked at before each piece and, at short intervals, in each wait
};

class CSubmissionDialogue
{
public:
    static constexpr std::int64_t kReplyLimit = 300'000; // milliseconds
    static constexpr std::int64_t kEndLimit = 600'000;   // for the answer to the end of the message
    static constexpr std::int64_t kQuitLimit = 5'000;

    // The wire must live as long as the dialogue.
    // `silenceLimit`, in milliseconds, stands for the first two limits; 0: they hold.
    CSubmissionDialogue(CWire& wire, const SubmissionOffer& offer, std::int64_t silenceLimit = 0);

    // Whether the connection can carry another message: it is open and the server has said nothing unasked.
    [[nodiscard]] bool IsQuiet();
    // Sends the message that `source` has begun. `size` is its size in bytes or a little more, -1 for
    // unknown. Throws what the source throws; the dialogue is over then. Fails with 151, and is over, when
    // the host cancels before the message has gone out whole.
    SubmissionFailure Deliver(const SubmissionEnvelope& envelope, CMessageSource& source, std::int64_t size);
    // What the server said last of a recipient of the last message; code 0: nothing that decides.
    [[nodiscard]] const SubmissionReply& GetAnswer(std::size_t recipient) const;
    // Whether another message may follow. If not, the connection has to be dropped.
    [[nodiscard]] bool IsUsable() const { return m_usable && !m_delivering; }
    // Takes leave; the connection is of no use afterwards.
    void Quit();

private:
    enum class Step : std::uint8_t
    {
        Mail,
        Rcpt,
        Data,
        Chunk,
        End,
        Rset,
        Quit
    };
    struct Question
    {
        Step step;
        std::size_t recipient;
    };

    bool SendEnvelope(std::int64_t size);
    bool SendAsData(CMessageSource& source);
    bool SendAsChunks(CMessageSource& source);
    // Fills the room; false when the source failed.
    bool Pull(CMessageSource& source, std::string_view& piece, bool& end);
    bool IsSilent();
    bool IsCancelled();
    bool Wait(bool toSend, std::int64_t limit, const char* silence);
    bool Ask(Step step, std::string_view command, std::int64_t limit);
    bool WritePiece(std::string_view command, std::string_view piece);
    bool Write(std::string_view bytes);
    bool TakeArrived();
    [[nodiscard]] std::int64_t Limit(std::int64_t usual) const
    {
        return m_silenceLimit == 0 ? usual : m_silenceLimit;
    }
    // All limits given are the usual ones.
    bool Settle(std::int64_t usual);
    ReplyState TakeReply(bool& going);
    WireState ReceiveMore();
    bool Answer(SubmissionReply& reply);
    void Refuse(const Question& question, SubmissionReply& reply);
    bool BreakFor(SubmissionReply& reply, int code, const char* text);
    void Keep(SubmissionReply& reply);
    bool Break(int code, std::string text);
    void Reset();

    CWire& m_wire;
    const SubmissionOffer m_offer;
    CReplyReader m_reader;
    std::vector<Question> m_open; // asked; empty when all are answered
    std::size_t m_answered = 0;   // of them
    const SubmissionEnvelope* m_envelope = nullptr;
    SubmissionFailure m_failure;             // the first one of the message
    bool m_deciding = false;                 // what the server says now decides about the message
    SubmissionReply m_answer;                // that decided, for all recipients
    std::vector<SubmissionReply> m_refusals; // before it, of single ones; by their places, or empty
    bool m_usable = true;
    bool m_delivering = false;
    bool m_inBody = false;
    bool m_sizeGiven = false;
    const std::int64_t m_silenceLimit; // 0: the limits of the steps
    std::int64_t m_writeLimit;
    const std::size_t m_roomSize;
    std::unique_ptr<char[]> m_room;
    std::string m_gathered;
};
