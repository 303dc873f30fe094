// A thread's mail state: its properties, its language and its delivery service.
#pragma once

#include <memory>

#include "src/mailservice.h"
#include "src/propmail.h"

class CMailGlobal
{
public:
    // `module` is the handle of the loaded library, null where there is none.
    explicit CMailGlobal(void* module);

    [[nodiscard]] CLiveMailProperties& Live() { return m_live; }
    void ResetProperties();
    // "German" gives German error texts, everything else English ones.
    [[nodiscard]] const CEString& GetLanguage() const { return m_language; }
    void SetLanguage(const char* language) { m_language = language; }

    // Null when not connected.
    [[nodiscard]] CMailService* GetService() const { return m_service.get(); }
    void SetService(std::unique_ptr<CMailService> service) { m_service = std::move(service); }

    [[nodiscard]] void* GetModule() const { return m_module; }

private:
    void* m_module;
    CLiveMailProperties m_live;
    std::unique_ptr<CDefaultMailProperties> m_defaults; // made by the first reset
    CEString m_language;
    std::unique_ptr<CMailService> m_service; // goes first: its end may still report
};
