// The mail library's command-line host: sets properties, connects, sends, disconnects and says what became of
// the mail. It knows the library by its public header alone and loads it at run time.
//
// One thread does all that the library is asked for; the first thread shows the progress and hears Ctrl-C.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tools/hostconsole.h"
#include "tools/hostoptions.h"
#include "tools/hostoutcome.h"
#include "tools/hostsettings.h"
#include "tools/hosttrace.h"
#include "tools/maillibrary.h"
#include "tools/progressline.h"

namespace {

using Clock = std::chrono::steady_clock;

constinit SendProgress g_progress; // which a Ctrl-C can reach
constinit std::atomic<int> g_interrupts = 0;

void OnInterrupt()
{
    g_progress.Cancel();
    ++g_interrupts;
}

void PrintError(const std::string& text)
{
    std::fflush(stdout);
    std::fprintf(stderr, "velmail: %s\n", text.c_str());
}

void PrintReasons(int code, const std::string& trace, const std::string& other = "")
{
    std::vector<std::string> reasons = FindReasons(trace, code);
    if (reasons.empty() && !other.empty()) {
        reasons.push_back(other);
    }
    for (const std::string& reason : reasons) {
        PrintError("reason: " + reason);
    }
    if (const std::string properties = PropertiesBehind(code, reasons); !properties.empty()) {
        PrintError("property: " + properties);
    }
}

// Does what the command line asks for and prints it, all but sending.
void Answer(const HostOptions& options)
{
    if (options.action == HostAction::Help) {
        std::fputs(HelpText().c_str(), stdout);
        return;
    }
    if (options.action == HostAction::Version) {
        std::puts("velmail " VELMAIL_HOST_VERSION);
    }
    const CMailLibrary library(options.library);
    if (options.action == HostAction::Version) {
        std::printf("%s\nlibrary: %s\n", library.VersionText().c_str(), library.Path().c_str());
        return;
    }
    library.CheckUsable();
    CMemoryFiles files;
    CSettingsWriter(library, files).Write(options.settings);
    for (const std::string& name : options.queries) {
        std::printf("%s\n", library.Get(name).c_str());
    }
}

Delivery Deliver(const HostOptions& options)
{
    const CMailLibrary library(options.library);
    library.CheckUsable();
    CMemoryFiles files;
    CSettingsWriter(library, files).Write(options.settings);
    return library.Deliver(g_progress);
}

bool IsBulk(const HostOptions& options)
{
    return std::ranges::any_of(options.settings, [](const Setting& setting) {
        return setting.name == "UseBulkMail" && setting.value != "0";
    });
}

// Ends the program although the library has not come back, for it may wait for a silent server for minutes. A
// mail that is not read to its end has none at the server either.
void EndIfSafe(const HostOptions& options, CHostTrace& trace, bool impatient)
{
    using Phase = SendProgress::Phase;
    const Phase phase = g_progress.phase;
    if (phase == Phase::Before || (phase == Phase::Sending && g_progress.Read() < g_progress.Total())) {
        PrintError(phase != Phase::Before && IsBulk(options)
                       ? "cancelled; messages that the server had got before stay delivered"
                       : "cancelled; the server has no mail");
        trace.Remove();
        EndProcess(static_cast<int>(ExitStatus::Cancelled));
    }
    if (phase == Phase::Sending && (impatient || !g_progress.known)) {
        PrintError("ended before the server has answered: whether it takes the mail is not known");
        trace.Remove();
        EndProcess(static_cast<int>(ExitStatus::NoConnection));
    }
}

// Until the thread that sends is done.
void Follow(const std::future<Delivery>& delivery, const HostOptions& options, CHostTrace& trace)
{
    constexpr auto kStep = std::chrono::milliseconds(100);
    constexpr auto kPatience = std::chrono::seconds(2);
    CProgressLine line(!options.quiet && IsErrorTerminal());
    Clock::time_point asked = Clock::time_point::max();
    while (delivery.wait_for(kStep) != std::future_status::ready) {
        const int interrupts = g_interrupts;
        if (interrupts == 0) {
            line.Show(g_progress.Read(), g_progress.Total());
        } else if (asked == Clock::time_point::max()) {
            line.Clear();
            asked = Clock::now();
            if (!options.quiet) {
                PrintError("cancelling ...");
            }
        } else if (interrupts > 1 || Clock::now() - asked > kPatience) {
            EndIfSafe(options, trace, interrupts > 1);
        }
    }
}

// One line for each recipient, unless nobody's server has said anything.
void PrintReport(const std::vector<ReportLine>& report)
{
    if (std::ranges::all_of(report, [](const ReportLine& line) { return line.code == 0; })) {
        return;
    }
    std::fflush(stdout);
    const std::string notSent = "not sent: ";
    for (const ReportLine& line : report) {
        const std::string fate = line.IsRefused() ? "refused: " : line.IsTaken() ? "sent: " : notSent;
        const std::string words = line.words.substr(line.words.starts_with(notSent) ? notSent.size() : 0);
        std::fprintf(stderr, "%s%s: %s%s\n", fate.c_str(), line.mailbox.c_str(),
                     line.code == 0 ? "" : (std::to_string(line.code) + " ").c_str(), words.c_str());
    }
}

// Over SMTP a refusal is no failure of the call: the report tells.
ExitStatus JudgeReport(const std::vector<ReportLine>& report)
{
    return std::ranges::any_of(report, &ReportLine::IsRefused) ? ExitStatus::Refused
           : std::ranges::all_of(report, &ReportLine::IsTaken) ? ExitStatus::Sent
                                                               : ExitStatus::NotBuilt;
}

ExitStatus PrintDelivery(const Delivery& delivery, const HostOptions& options, const std::string& trace)
{
    constexpr int kWantsSecurity = 530;
    const std::vector<ReportLine> report = ReadReport(delivery.report);
    const auto taken = std::ranges::count_if(report, &ReportLine::IsTaken);
    if (!delivery.failure.empty()) {
        PrintReport(report);
        if (g_interrupts > 0 && StatusOf(delivery.code) == ExitStatus::Cancelled) {
            PrintError(taken == 0
                           ? "cancelled; the server has no mail"
                           : "cancelled; the mails to " + std::to_string(taken) + " recipients stay sent");
            return ExitStatus::Cancelled;
        }
        PrintError(delivery.failure);
        PrintReasons(delivery.code, trace, report.empty() || report[0].code != 0 ? "" : report[0].words);
        return StatusOf(delivery.code);
    }
    const ExitStatus status = JudgeReport(report);
    if (status != ExitStatus::Sent) {
        PrintReport(report);
        PrintError("sent to " + std::to_string(taken) + " of " + std::to_string(report.size()) +
                   " recipients");
        if (std::ranges::any_of(report, [](const ReportLine& line) { return line.code == kWantsSecurity; })) {
            PrintError("hint: the server wants encryption or a login, which MailProtocol=SUBMISSION has");
        }
    } else if (!options.quiet) {
        std::printf("Sent (%s)\n", delivery.sentence.c_str());
    }
    if (!delivery.beside.empty()) {
        PrintError("note: the mail was sent, but something failed beside it: " + delivery.beside);
        PrintReasons(delivery.code, trace);
    }
    if (g_interrupts > 0 && taken > 0) {
        PrintError("note: it was too late to cancel");
    }
    return status;
}

ExitStatus Send(const HostOptions& options)
{
    WatchInterrupts(&OnInterrupt);
    CHostTrace trace(options.trace);
    std::packaged_task<Delivery()> task([&options] { return Deliver(options); });
    std::future<Delivery> delivery = task.get_future();
    std::thread worker(std::move(task));
    Follow(delivery, options, trace);
    worker.join(); // which closes the thread's trace
    try {
        return PrintDelivery(delivery.get(), options, trace.Read());
    } catch (const CLibraryFailure& failure) {
        PrintError(failure.what());
        PrintReasons(failure.Code(), trace.Read());
        return failure.Status();
    }
}

ExitStatus Run(const HostOptions& options)
{
    if (options.action == HostAction::Send) {
        return Send(options);
    }
    Answer(options);
    return ExitStatus::Sent;
}

} // namespace

int main(int count, char** arguments)
{
    try {
        const ExitStatus status = Run(ReadOptions({arguments + std::min(count, 1), arguments + count}));
        if (std::fflush(stdout) != 0) {
            throw CHostFailure("the output cannot be written: " + std::generic_category().message(errno));
        }
        return static_cast<int>(status);
    } catch (const CHostFailure& failure) {
        PrintError(failure.what());
        return static_cast<int>(failure.Status());
    } catch (const std::exception& failure) {
        PrintError(failure.what());
    }
    return static_cast<int>(ExitStatus::NotBuilt);
}
