// The program around each sender of the benchmark.
//
// peer_NAME --port N --text FILE [--attachment FILE] --composed FILE [--chunking 1]
//           [--memory 1] [--attachment-memory 1] [--protocol SUBMISSION] [--tls PEMFILE] [--recipients N]
//           [--threads N] [--mails N] [--seconds S] [--connect each|once]
//
// Each thread sends N mails, or fewer when the time is over: with a connection for each mail ("each"), or all
// within one ("once"). Prints one line of JSON: mails, seconds, processor seconds, peak resident memory, for
// "each" how many mails were so slow that an acknowledgement must have been waited for, and for "once" what
// a send took, likewise the first and the last hundred sends, and the resident memory after each of them.
// With 0 mails the program only starts and shows what an idle process holds.
#include "harness.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <map>
#include <string_view>
#include <thread>
#include <vector>

#include <unistd.h>

#include "processor.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kSlowSeconds = 0.035; // systems delay an acknowledgement by 40 ms or more
constexpr std::size_t kGroup = 100; // sends that are compared with each other, at the beginning and the end

struct Plan
{
    Mail mail;
    int threads = 1;
    std::size_t mails = 1;
    double seconds = 3600;
    bool connectOnce = false;
};

// What the first thread of a "once" run has seen.
struct Growth
{
    std::vector<double> sendSeconds;
    long residentEarly = 0;
    long residentLate = 0;
};

struct Shared
{
    explicit Shared(int threads) : ready(threads), go(1), sent(threads) {}

    std::latch ready;
    std::latch go;
    std::latch sent;
    std::atomic<std::size_t> mails = 0;
    std::atomic<std::size_t> slow = 0;
    std::atomic<bool> failed = false;
    Growth growth;
};

long ResidentKilobytes()
{
    std::ifstream status("/proc/self/statm");
    long size = 0;
    long resident = 0;
    status >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long PeakKilobytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "VmHWM:") {
            long peak = 0;
            status >> peak;
            return peak;
        }
    }
    return 0;
}

double Since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

bool SendOnEachConnection(Peer& peer, const Plan& plan, Shared& shared)
{
    const Clock::time_point start = Clock::now();
    for (std::size_t i = 0; i < plan.mails && Since(start) < plan.seconds; ++i) {
        const Clock::time_point begin = Clock::now();
        if (!peer.Connect() || !peer.Send() || !peer.Disconnect()) {
            return false;
        }
        shared.slow += Since(begin) >= kSlowSeconds ? 1U : 0U;
        ++shared.mails;
    }
    return true;
}

bool SendOnOneConnection(Peer& peer, const Plan& plan, Shared& shared, Growth& growth)
{
    growth.sendSeconds.reserve(plan.mails);
    const Clock::time_point start = Clock::now();
    if (!peer.Connect()) {
        return false;
    }
    for (std::size_t i = 0; i < plan.mails && Since(start) < plan.seconds; ++i) {
        const Clock::time_point begin = Clock::now();
        if (!peer.Send()) {
            return false;
        }
        growth.sendSeconds.push_back(Since(begin));
        ++shared.mails;
        if (i + 1 == kGroup) {
            growth.residentEarly = ResidentKilobytes();
        }
    }
    growth.residentLate = ResidentKilobytes();
    return peer.Disconnect();
}

void Work(const Plan& plan, Shared& shared, int thread)
{
    const std::unique_ptr<Peer> peer = plan.mails > 0 ? MakePeer(plan.mail) : nullptr;
    shared.ready.count_down();
    shared.go.wait();
    Growth own;
    if (plan.mails > 0) {
        const bool sent =
            peer != nullptr &&
            (plan.connectOnce ? SendOnOneConnection(*peer, plan, shared, thread == 0 ? shared.growth : own)
                              : SendOnEachConnection(*peer, plan, shared));
        shared.failed = shared.failed || !sent;
    }
    shared.sent.count_down();
}

double MedianMicroseconds(std::vector<double> seconds)
{
    std::sort(seconds.begin(), seconds.end());
    return seconds[seconds.size() / 2] * 1e6;
}

void PrintGrowth(const Growth& growth)
{
    const std::vector<double>& times = growth.sendSeconds;
    if (times.empty()) {
        return;
    }
    std::printf(", \"send_us\": %.3f", MedianMicroseconds(times));
    if (times.size() < 2 * kGroup) {
        return; // too few to compare
    }
    constexpr auto kStep = static_cast<std::ptrdiff_t>(kGroup);
    std::printf(
        ", \"first_us\": %.3f, \"last_us\": %.3f, \"resident_early_kb\": %ld, \"resident_late_kb\": %ld",
        MedianMicroseconds({times.begin(), times.begin() + kStep}),
        MedianMicroseconds({times.end() - kStep, times.end()}), growth.residentEarly, growth.residentLate);
}

int Run(const Plan& plan)
{
    Shared shared(plan.threads);
    std::vector<std::thread> threads;
    for (int i = 0; i < plan.threads; ++i) {
        threads.emplace_back(Work, std::cref(plan), std::ref(shared), i);
    }
    shared.ready.wait();
    const double processor = ProcessorSeconds();
    const Clock::time_point start = Clock::now();
    shared.go.count_down();
    shared.sent.wait();
    const double seconds = Since(start);
    const double used = ProcessorSeconds() - processor;
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (shared.failed) {
        return 1;
    }
    std::printf("{\"mails\": %zu, \"slow\": %zu, \"seconds\": %.6f, \"processor\": %.6f, \"peak_kb\": %ld",
                shared.mails.load(), shared.slow.load(), seconds, used, PeakKilobytes());
    PrintGrowth(shared.growth);
    std::printf("}\n");
    return 0;
}

// Every option has a value.
std::map<std::string, std::string> ReadOptions(int argc, char** argv)
{
    std::map<std::string, std::string> options;
    for (int i = 1; i + 1 < argc; i += 2) {
        options[argv[i]] = argv[i + 1];
    }
    return options;
}

} // namespace

std::vector<std::string> Recipients(const Mail& mail)
{
    std::vector<std::string> addresses = {kRecipient};
    for (int i = 1; i < mail.recipients; ++i) {
        addresses.push_back("bob" + std::to_string(i) + "@example.net");
    }
    return addresses;
}

std::string ReadWholeFile(const std::string& name)
{
    // In one piece: the peak of memory that is measured must be the sender's.
    std::ifstream file(name, std::ios::binary);
    std::string content(std::filesystem::file_size(name), '\0');
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    return content;
}

std::string MakeMessageId()
{
    static std::atomic<unsigned> counter = 0;
    return "bench." + std::to_string(getpid()) + "." + std::to_string(++counter) + "@example.org";
}

int main(int argc, char** argv)
{
    auto options = ReadOptions(argc, argv);
    const auto number = [&options](const char* name, double otherwise) {
        return options.contains(name) ? std::strtod(options[name].c_str(), nullptr) : otherwise;
    };
    Plan plan;
    plan.mail = {options["--port"],
                 options["--text"],
                 options["--attachment"],
                 options["--composed"],
                 number("--chunking", 0) != 0,
                 number("--memory", 0) != 0,
                 number("--attachment-memory", 0) != 0,
                 options["--protocol"],
                 options["--tls"],
                 static_cast<int>(number("--recipients", 1))};
    plan.threads = static_cast<int>(number("--threads", 1));
    plan.mails = static_cast<std::size_t>(number("--mails", 1));
    plan.seconds = number("--seconds", plan.seconds);
    plan.connectOnce = options["--connect"] == "once";
    return Run(plan);
}
