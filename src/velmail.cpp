#include "velmail.h"

#include <cstring>

#include "src-baselib/property.h"
#include "src/callframe.h"
#include "src/connect.h"
#include "src/errortexts.h"
#include "src/sendpipeline.h"
#include "version.h"

namespace {

bool SetProperty(CCallFrame& frame, const char* name, const char* value)
{
    if (name == nullptr || *name == '\0') {
        frame.Mail().ResetProperties();
        return true;
    }
    CProperty* const property = frame.Mail().Live().Find(name);
    if (property == nullptr) {
        frame.Error().Info("SetProperty %s failed", name);
        return false;
    }
    return property->SetValue(value);
}

bool GetProperty(CCallFrame& frame, const char* name, void* buffer, unsigned int size)
{
    frame.Error().Info("Getting Property \"%s\"", name == nullptr ? "" : name);
    if (name == nullptr) {
        frame.Error().Info("<null> GetProperty failed");
        return false;
    }
    CProperty* const property = frame.Mail().Live().Find(name);
    if (property == nullptr) {
        frame.Error().Info("GetProperty %s failed", name);
        return false;
    }
    return property->GetValue(buffer, static_cast<std::int32_t>(size));
}

int GetErrorText(const CCallFrame& frame, int code, char* buffer, int size)
{
    const bool german = frame.Mail().GetLanguage() == "German";
    const char* const text = FindErrorText(german ? kGermanTexts : kEnglishTexts, code);
    buffer[0] = '\0';
    if (size < 1 || text == nullptr || std::strlen(text) >= static_cast<std::size_t>(size)) {
        return 0;
    }
    std::memcpy(buffer, text, std::strlen(text) + 1);
    buffer[size - 1] = '\0';
    return 1;
}

} // namespace

int VelMailSetProperty(const char* name, const char* value)
{
    return WorkingCall("VelMailSetProperty",
                       [=](CCallFrame& frame) { return frame.End(SetProperty(frame, name, value)); });
}

int VelMailGetProperty(const char* name, void* buffer, unsigned int size)
{
    const auto body = [=](CCallFrame& frame) { return frame.End(GetProperty(frame, name, buffer, size)); };
    const bool aside = name != nullptr && std::strcmp(name, "MailDeliveryReport") == 0;
    return aside ? AsideCall("VelMailGetProperty", body) : WorkingCall("VelMailGetProperty", body);
}

int VelMailGetLastError(int* code)
{
    return GuardedCall("VelMailGetLastError", [=](CCallFrame& frame) {
        if (!frame.Enter() || code == nullptr) {
            return 0;
        }
        if (frame.Error().GetLast() != 0) { // otherwise it is left untouched
            *code = frame.Error().GetLast();
        }
        return 1;
    });
}

int VelMailGetErrorText(int code, char* buffer, int size)
{
    return GuardedCall("VelMailGetErrorText", [=](CCallFrame& frame) {
        return frame.Enter() && buffer != nullptr ? GetErrorText(frame, code, buffer, size) : 0;
    });
}

int VelMailGetLastErrorText(char* buffer, unsigned int size)
{
    int code = 0;
    return VelMailGetLastError(&code) == 1 ? VelMailGetErrorText(code, buffer, static_cast<int>(size)) : 0;
}

int VelMailGetVersion(unsigned int* version)
{
    if (version == nullptr) {
        return 0;
    }
    *version = VELMAIL_VERSION_NUMBER;
    return 1;
}

int VelMailGetVersionText(char* buffer, size_t size)
{
    if (buffer == nullptr || size == 0) {
        return 0;
    }
    std::strncpy(buffer, VELMAIL_VERSION_TEXT, size); // fills the rest with zeros
    buffer[size - 1] = '\0';
    return 1;
}

int VelMailConnect(void)
{
    return GuardedCall("VelMailConnect", RunConnect);
}

int VelMailSend(void)
{
    return GuardedCall("VelMailSend", RunSend);
}

int VelMailDisconnect(void)
{
    return WorkingCall("VelMailDisconnect", RunDisconnect);
}
