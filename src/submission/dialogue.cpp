#include "src/submission/dialogue.h"

#include <algorithm>
#include <new>
#include <utility>

#include "src-baselib/errorcodes.h"
#include "src-baselib/platform.h"
#include "src-baselib/report.h"
#include "src/submission/ascii.h"

namespace {

constexpr std::size_t kGroup = 16'384;   // bytes of commands sent together
constexpr std::size_t kGathered = 8'192; // bytes that go out with the command before them, copied
constexpr std::size_t kReceive = 4'096;
constexpr std::int64_t kWatchInterval = 100; // milliseconds
constexpr std::size_t kLongestKept = 512;    // bytes of the words for a refused recipient

// Bytes of a piece of DATA, and of a chunk. What is small is still in the processor's nearest memory when it
// is sent; a chunk whose answer is waited for should be large.
std::size_t RoomSize(const SubmissionOffer& offer)
{
    return !offer.chunking ? 32'768 : offer.pipelining ? 65'536 : 262'144;
}

constexpr int kServiceEnds = 421;
constexpr int kGoAhead = 354;
constexpr int kTooBig = 552;

// The server wants a login, or a better one.
bool IsLoginNeeded(int code)
{
    return code == 530 || code == 535 || code == 538;
}

} // namespace

void TraceDialogue(const char* what, std::string_view bytes)
{
    if (!IsTraceActive()) {
        return;
    }
    try {
        std::string line(what);
        line.append(" ").append(std::to_string(bytes.size())).append(" bytes ");
        line.append(line.starts_with("sent") ? "to" : "from").append(" server: \n").append(bytes);
        TraceText(line.c_str());
    } catch (const std::bad_alloc&) {
        // What is on its way, or has been taken, must not become a failure for want of a line.
    }
}

SubmissionOffer SubmissionOffer::Read(std::string_view replyText)
{
    SubmissionOffer offer;
    for (bool first = true; !replyText.empty(); first = false) {
        const std::string_view line = replyText.substr(0, replyText.find('\n'));
        replyText.remove_prefix(std::min(line.size() + 1, replyText.size()));
        const std::string_view keyword = line.substr(0, line.find_first_of(" ="));
        if (!first) { // that is the server's name
            offer.pipelining = offer.pipelining || EqualIgnoringCase(keyword, "PIPELINING");
            offer.chunking = offer.chunking || EqualIgnoringCase(keyword, "CHUNKING");
            offer.size = offer.size || EqualIgnoringCase(keyword, "SIZE");
        }
    }
    return offer;
}

CSubmissionDialogue::CSubmissionDialogue(CWire& wire, const SubmissionOffer& offer, std::int64_t silenceLimit)
    : m_wire(wire), m_offer(offer), m_silenceLimit(silenceLimit), m_writeLimit(Limit(kReplyLimit)),
      m_roomSize(RoomSize(offer)), m_room(new char[m_roomSize])
{
}

bool CSubmissionDialogue::IsQuiet()
{
    return IsUsable() && m_open.empty() && !m_reader.HasUnread() && ReceiveMore() == WireState::Blocked;
}

SubmissionFailure CSubmissionDialogue::Deliver(const SubmissionEnvelope& envelope, CMessageSource& source,
                                               std::int64_t size)
{
    m_envelope = &envelope;
    m_failure = {};
    m_inBody = false;
    m_delivering = true; // and stays so when the source throws
    m_deciding = true;
    m_answer = {};
    m_refusals.clear();
    m_gathered.clear();
    const bool sent = SendEnvelope(size) && (m_offer.chunking ? SendAsChunks(source) : SendAsData(source));
    SubmissionFailure failure = std::exchange(m_failure, {});
    m_deciding = false;
    if (!sent && m_usable) {
        Reset();
    }
    m_delivering = false;
    return failure;
}

bool CSubmissionDialogue::SendEnvelope(std::int64_t size)
{
    m_sizeGiven = m_offer.size && size >= 0;
    std::string group = "MAIL FROM:<" + m_envelope->sender + ">" +
                        (m_sizeGiven ? " SIZE=" + std::to_string(size) : std::string()) + "\r\n";
    const auto flush = [&] {
        const std::string commands = std::exchange(group, {});
        TraceDialogue("sent", commands);
        return Write(commands) && Settle(kReplyLimit);
    };
    if (!IsSilent()) {
        return false;
    }
    m_open.push_back({Step::Mail, 0});
    if (!m_offer.pipelining && (!flush() || m_failure.IsSet())) {
        return false;
    }
    for (std::size_t i = 0; i < m_envelope->recipients.size(); ++i) {
        if (m_open.empty() && !IsSilent()) {
            return false;
        }
        group += "RCPT TO:<" + m_envelope->recipients[i] + ">\r\n";
        m_open.push_back({Step::Rcpt, i});
        if ((!m_offer.pipelining || group.size() > kGroup) && !flush()) {
            return false;
        }
        if (m_failure.IsSet() && m_failure.code != codes::kRecipientRefused) {
            break; // without a sender there are no recipients
        }
    }
    return (group.empty() || flush()) && !m_failure.IsSet();
}

bool CSubmissionDialogue::Pull(CMessageSource& source, std::string_view& piece, bool& end)
{
    std::size_t used = 0;
    while (!end && m_roomSize - used >= CMessageSource::kSmallestRoom) {
        const Pulled pulled = source.Next(m_room.get() + used, static_cast<std::int32_t>(m_roomSize - used));
        used += static_cast<std::size_t>(pulled.count);
        end = pulled.state == PullState::End;
        if (pulled.state == PullState::Failed) {
            return Break(codes::kInternal, {});
        }
    }
    piece = {m_room.get(), used};
    return true;
}

bool CSubmissionDialogue::SendAsData(CMessageSource& source)
{
    if (!Ask(Step::Data, "DATA\r\n", kReplyLimit)) {
        return false;
    }
    m_inBody = true;
    CDotStuffing lines(true);
    std::string_view piece;
    for (bool end = false; !end;) {
        if (!Pull(source, piece, end) || !IsSilent()) {
            return false;
        }
        const std::string_view out = lines.Take(piece);
        m_reader.Reserve();
        if (!end && !WritePiece({}, out)) {
            return false;
        }
        if (end) {
            // The dot goes with the last piece; what the server says before is no answer to it.
            const std::string tail = std::string(lines.End()) + ".\r\n";
            const bool whole = out.size() <= kGathered;
            if ((!whole && (!WritePiece({}, out) || !IsSilent())) ||
                !WritePiece(whole ? out : std::string_view(), tail)) {
                return false;
            }
        }
    }
    m_inBody = false;
    m_open.push_back({Step::End, 0}); // in memory that is there, as what follows: the server may have it all
    return Settle(kEndLimit) && !m_failure.IsSet();
}

bool CSubmissionDialogue::SendAsChunks(CMessageSource& source)
{
    m_inBody = true;
    CDotStuffing lines(false);
    std::string_view piece;
    for (bool end = false; !end;) {
        if (!Pull(source, piece, end)) {
            return false;
        }
        std::string_view out = lines.Take(piece);
        std::string completed;
        if (end && !lines.End().empty()) {
            out = completed.append(out).append(lines.End());
        }
        // All answers to the chunks before come first: none of them can be taken for the last one's.
        if ((end || !m_offer.pipelining) && (!Settle(kReplyLimit) || !IsSilent())) {
            return false;
        }
        const std::string command = "BDAT " + std::to_string(out.size()) + (end ? " LAST\r\n" : "\r\n");
        if (m_failure.IsSet()) {
            return false;
        }
        m_reader.Reserve();
        TraceDialogue("sent", command);
        if (!WritePiece(command, out)) {
            return false;
        }
        m_open.push_back({end ? Step::End : Step::Chunk, 0});
        if (!end && !TakeArrived()) {
            return false;
        }
        if (m_failure.IsSet()) {
            break; // a chunk was refused: no further one
        }
    }
    return Settle(kEndLimit) && !m_failure.IsSet();
}

// Nothing may have arrived that was not asked for: it would be taken for an answer.
bool CSubmissionDialogue::IsSilent()
{
    if (!TakeArrived()) {
        return false;
    }
    return !(m_open.empty() && m_reader.HasUnread()) ||
           Break(codes::kInvalidResponse, "The server answers what it was not asked.");
}

bool CSubmissionDialogue::Ask(Step step, std::string_view command, std::int64_t limit)
{
    if (!IsSilent()) {
        return false;
    }
    TraceDialogue("sent", command);
    m_open.push_back({step, 0});
    return Write(command) && Settle(limit) && !m_failure.IsSet();
}

// Once the message is out, what counts is the server's answer.
bool CSubmissionDialogue::IsCancelled()
{
    const bool isOut = !m_open.empty() && m_open.back().step == Step::End;
    return m_deciding && !isOut && m_envelope->progress.IsCancelled() &&
           !Break(codes::kCancelled, kCancelledText);
}

// Breaks with the text `silence` after so many milliseconds.
bool CSubmissionDialogue::Wait(bool toSend, std::int64_t limit, const char* silence)
{
    const bool watched = m_deciding && m_envelope->progress.IsSet();
    const std::int64_t end = platform::MonotonicMilliseconds() + limit;
    for (std::int64_t rest = limit; rest > 0; rest = end - platform::MonotonicMilliseconds()) {
        if (IsCancelled()) {
            return false;
        }
        if (m_wire.Wait(toSend, watched ? std::min(rest, kWatchInterval) : rest)) {
            return true;
        }
        if (!watched) {
            break;
        }
    }
    return Break(codes::kDroppedConnection, silence);
}

bool CSubmissionDialogue::WritePiece(std::string_view command, std::string_view piece)
{
    if (IsCancelled()) {
        return false;
    }
    if (piece.size() > kGathered) {
        return Write(command) && Write(piece);
    }
    m_gathered.assign(command).append(piece);
    return Write(m_gathered);
}

bool CSubmissionDialogue::Write(std::string_view bytes)
{
    while (!bytes.empty()) {
        std::size_t sent = 0;
        switch (m_wire.Send(bytes.data(), bytes.size(), sent)) {
        case WireState::Moved:
            bytes.remove_prefix(sent);
            break;
        case WireState::Ended:
            // What the server said before it hung up tells more than that it did.
            return TakeArrived() && Break(codes::kDroppedConnection, "The server closed the connection.");
        case WireState::Blocked:
            if (!TakeArrived() || !Wait(true, m_writeLimit, "The server takes no more data.")) {
                return false;
            }
        }
    }
    return true;
}

WireState CSubmissionDialogue::ReceiveMore()
{
    char room[kReceive];
    std::size_t received = 0;
    const WireState state = m_wire.Receive(room, sizeof room, received);
    if (state == WireState::Moved) {
        TraceDialogue("received", {room, received});
        m_reader.Add({room, received});
    }
    return state;
}

ReplyState CSubmissionDialogue::TakeReply(bool& going)
{
    SubmissionReply reply;
    const ReplyState state = m_reader.Next(reply);
    going = state == ReplyState::Complete ? Answer(reply)
            : state == ReplyState::Bad    ? Break(codes::kInvalidResponse, "The server's answer is not SMTP.")
                                          : true;
    return state;
}

bool CSubmissionDialogue::TakeArrived()
{
    for (bool going = true; going;) {
        if (TakeReply(going) != ReplyState::More) {
            continue;
        }
        const WireState state = ReceiveMore();
        if (state == WireState::Blocked) {
            return true;
        }
        if (state == WireState::Ended) {
            return Break(codes::kDroppedConnection, "The server closed the connection.");
        }
    }
    return false;
}

bool CSubmissionDialogue::Settle(std::int64_t usual)
{
    const std::int64_t limit = usual == kQuitLimit ? std::min(usual, Limit(usual)) : Limit(usual);
    for (std::int64_t end = platform::MonotonicMilliseconds() + limit; !m_open.empty();) {
        bool going = true;
        if (TakeReply(going) == ReplyState::Complete) {
            end = platform::MonotonicMilliseconds() + limit;
            if (going) {
                continue;
            }
        }
        if (!going) {
            return false;
        }
        const WireState state = ReceiveMore();
        if (state == WireState::Ended) {
            return Break(codes::kDroppedConnection, "The server closed the connection.");
        }
        if (state == WireState::Blocked &&
            !Wait(false, end - platform::MonotonicMilliseconds(), "The server is silent.")) {
            return false;
        }
    }
    return true;
}

// False: the connection is of no use any more.
bool CSubmissionDialogue::Answer(SubmissionReply& reply)
{
    if (reply.code == kServiceEnds) {
        return BreakFor(reply, codes::kDroppedConnection, "The server ends the connection: ");
    }
    if (m_open.empty()) {
        // A server may give up within a message; anything else must not be taken for an answer.
        return m_inBody && reply.IsRefusal()
                   ? BreakFor(reply, codes::kMessageRefused, "The server refused the message: ")
                   : Break(codes::kInvalidResponse,
                           "The server answers what it was not asked: " + reply.Words());
    }
    const Question question = m_open[m_answered++];
    if (m_answered == m_open.size()) {
        m_open.clear(); // which keeps its memory
        m_answered = 0;
    }
    if (question.step == Step::Data ? reply.code == kGoAhead : reply.IsPositive()) {
        if (question.step == Step::End) {
            Keep(reply);
        }
        return true;
    }
    if (!reply.IsRefusal()) {
        return Break(codes::kInvalidResponse, "The server's answer does not fit: " + reply.Words());
    }
    Refuse(question, reply);
    return true;
}

// It takes no memory, for the server may have taken the message.
void CSubmissionDialogue::Keep(SubmissionReply& reply)
{
    if (m_deciding && m_answer.code == 0) {
        m_answer = std::move(reply);
    }
}

const SubmissionReply& CSubmissionDialogue::GetAnswer(std::size_t recipient) const
{
    const bool own = recipient < m_refusals.size() && m_refusals[recipient].code != 0;
    return own ? m_refusals[recipient] : m_answer;
}

void CSubmissionDialogue::Refuse(const Question& question, SubmissionReply& reply)
{
    SubmissionFailure failure = {codes::kMessageRefused, "The server refused the message: " + reply.Words()};
    if (question.step == Step::Mail && IsLoginNeeded(reply.code)) {
        failure = {codes::kLogin, "The server wants a login: " + reply.Words()};
    } else if (question.step == Step::Mail && !(m_sizeGiven && reply.code == kTooBig)) {
        failure = {codes::kSenderRefused,
                   "The server refused the sender '" + m_envelope->sender + "': " + reply.Words()};
    } else if (question.step == Step::Rcpt) {
        const std::string& recipient = m_envelope->recipients[question.recipient];
        failure = {codes::kRecipientRefused,
                   "The server refused the recipient '" + recipient + "': " + reply.Words()};
        if (!m_failure.IsSet() || m_failure.code == codes::kRecipientRefused) {
            Trace(TraceLevel::Warning, "Warning: %s", failure.text.c_str());
        }
    }
    if (!m_failure.IsSet()) {
        m_failure = std::move(failure);
    }
    if (question.step != Step::Rcpt) {
        Keep(reply);
    } else if (m_deciding && m_answer.code == 0) {
        m_refusals.resize(m_envelope->recipients.size());
        m_refusals[question.recipient] = {reply.code, reply.text.substr(0, kLongestKept)};
    }
}

bool CSubmissionDialogue::BreakFor(SubmissionReply& reply, int code, const char* text)
{
    Break(code, text + reply.Words());
    Keep(reply);
    return false;
}

bool CSubmissionDialogue::Break(int code, std::string text)
{
    m_usable = false;
    if (!m_failure.IsSet()) {
        m_failure = {code, std::move(text)};
    }
    return false;
}

// The server forgets the message. One that cannot is not spoken to again.
void CSubmissionDialogue::Reset()
{
    m_inBody = false;
    m_usable = Settle(kReplyLimit) && Ask(Step::Rset, "RSET\r\n", kReplyLimit);
}

void CSubmissionDialogue::Quit()
{
    m_writeLimit = std::min(kQuitLimit, m_writeLimit);
    m_failure = {};
    if (IsQuiet()) {
        Ask(Step::Quit, "QUIT\r\n", kQuitLimit);
    }
    m_usable = false;
}
