// Jobs for the composer of standard messages, and what it makes of them.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "src/submission/standardmessage.h"

struct StandardJob : CMail
{
    std::vector<std::unique_ptr<std::string>> contents;

    StandardJob()
    {
        Sender() = CMailAddress("me@host.example", "");
        SetSubject("s");
        SetContent(Text(), "text\r\n");
    }
    static void Add(CMail::Addresses& list, const std::string& mailbox, const std::string& name = "")
    {
        list.Add(std::make_unique<CMailAddress>(mailbox.c_str(), CEString(std::string_view(name))));
    }
    void SetContent(CMailDocument& document, const std::string& content)
    {
        const std::string& kept = *contents.emplace_back(std::make_unique<std::string>(content));
        document.SetMemory((std::to_string(reinterpret_cast<std::uintptr_t>(kept.data())) + ";" +
                            std::to_string(kept.size()))
                               .c_str());
    }
    CMailAttachment& Attach(const std::string& name, const char* type = "")
    {
        CMailAttachment& attachment = *Attachments().Add(std::make_unique<CMailAttachment>());
        attachment.SetName(name.c_str());
        attachment.SetMimeType(type);
        SetContent(attachment, "");
        return attachment;
    }
};

// The message pulled in rooms of that size, with its state at the end; what no two messages share is masked.
struct Composed
{
    PullState state = PullState::More;
    std::string text;
    std::string masked;

    Composed(CStandardComposer& composer, CMail& job, std::int32_t size)
    {
        composer.Begin(job);
        std::string room(static_cast<std::size_t>(size) + 1, '#');
        while (state == PullState::More) {
            const Pulled pulled = composer.Next(room.data(), size);
            text.append(room, 0, static_cast<std::size_t>(pulled.count));
            state = room.back() != '#' || (pulled.count == 0 && pulled.state == PullState::More)
                        ? PullState::Failed
                        : pulled.state;
        }
        masked = text;
        for (std::size_t at = masked.find("=_velmail_"); at < masked.size();
             at = masked.find("=_velmail_", at + 1)) {
            masked.replace(at + 10, 16, "");
        }
        masked.erase(0, std::min(masked.find("From:"), masked.size())); // and the date
    }
};
