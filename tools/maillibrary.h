// The mail library as a host sees it that loads it at run time: its functions, and what the host makes of
// their results. The library keeps everything for each thread: one thread does all of a mail.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "include/velmail.h"
#include "tools/hostlibrary.h"
#include "tools/hostoutcome.h"

// The environment variable that names the library's trace.
constexpr const char* kTraceVariable = "VEL_MAILTRACE";
[[nodiscard]] std::string EnvironmentText(const char* name);

// A failure inside the library, of which its trace tells more.
class CLibraryFailure : public CHostFailure
{
public:
    CLibraryFailure(const std::string& text, int code) : CHostFailure(text, StatusOf(code)), m_code(code) {}
    [[nodiscard]] int Code() const { return m_code; }

private:
    int m_code;
};

// The 24 bytes that the library writes and reads while it sends, and how far the host has come. Any thread.
struct SendProgress
{
    enum class Phase : std::uint8_t
    {
        Before,
        Sending,
        After
    };
    alignas(8) std::uint64_t block[3] = {}; // bytes in all, bytes read, cancel
    std::atomic<Phase> phase = Phase::Before;
    std::atomic<bool> known = false; // to the library

    [[nodiscard]] std::uint64_t Total() { return Load(0); }
    [[nodiscard]] std::uint64_t Read() { return Load(1); }
    void Cancel() { std::atomic_ref(block[2]).store(1, std::memory_order_relaxed); }

private:
    std::uint64_t Load(std::size_t word)
    {
        return std::atomic_ref(block[word]).load(std::memory_order_relaxed);
    }
};

// What became of a send.
struct Delivery
{
    std::string failure;  // "send failed: error 664: Dropped connection"; empty when the result was 1
    int code = 0;         // of the failure, or of what went wrong beside a send whose result was 1
    std::string sentence; // "error 0: All operations completed successfully"
    std::string beside;   // the same for what went wrong beside it
    std::string report;   // MailDeliveryReport; empty from a library that has none
};

class CMailLibrary
{
public:
    // Throws when the library cannot be loaded or is not a mail library.
    explicit CMailLibrary(const std::string& path);

    [[nodiscard]] const std::string& Path() const { return m_path; }
    [[nodiscard]] std::string VersionText() const;

    // Fails when the library cannot serve this thread at all.
    void CheckUsable() const { (void)LastError(); }
    // The code of the last working call, 0 for none.
    [[nodiscard]] int LastError() const;
    // "error 664: Dropped connection"
    [[nodiscard]] std::string ErrorSentence(int code) const;
    // The same for what failed, where code 0 is not success but a failure that came without one.
    [[nodiscard]] std::string FailureSentence(int code) const;

    void Set(const std::string& name, const std::string& value) const;
    [[nodiscard]] std::string Get(const std::string& name) const;
    // Connects, sends and disconnects.
    [[nodiscard]] Delivery Deliver(SendProgress& progress) const;

private:
    template<typename Function>
    void Bind(HostLibrary library, const char* name, Function& function);
    [[nodiscard]] bool OfferProgress(SendProgress& progress) const;
    [[nodiscard]] bool HasReport() const;
    [[nodiscard]] int EndService() const;
    [[nodiscard]] bool Read(const std::string& name, void* buffer, std::size_t size) const;
    [[nodiscard]] std::string GetText(const std::string& name) const;

    std::string m_path;
    decltype(&::VelMailSetProperty) m_setProperty = nullptr;
    decltype(&::VelMailGetProperty) m_getProperty = nullptr;
    decltype(&::VelMailGetLastError) m_getLastError = nullptr;
    decltype(&::VelMailGetErrorText) m_getErrorText = nullptr;
    decltype(&::VelMailGetVersion) m_getVersion = nullptr;
    decltype(&::VelMailGetVersionText) m_getVersionText = nullptr;
    decltype(&::VelMailConnect) m_connect = nullptr;
    decltype(&::VelMailSend) m_send = nullptr;
    decltype(&::VelMailDisconnect) m_disconnect = nullptr;
};
