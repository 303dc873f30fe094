// Writes the message of the job that its arguments tell, KEY=VALUE, to its output; ends with the error's
// code.
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "src-baselib/error.h"
#include "standardjob.h"

int main(int count, char** arguments)
{
    StandardJob job;
    std::int32_t only = -1;
    for (int i = 1; i < count; ++i) {
        const std::string argument = arguments[i];
        const std::string key = argument.substr(0, argument.find('='));
        const std::string value = argument.substr(key.size() + 1);
        const std::string name =
            value.substr(std::min(value.find('|'), value.size() - 1) + 1); // MAILBOX|NAME
        const std::string mailbox = value.substr(0, value.find('|'));
        if (key == "from") {
            job.Sender() = CMailAddress(mailbox.c_str(), name.c_str());
        } else if (key == "reply") {
            job.ReplyTo() = CMailAddress(mailbox.c_str(), name.c_str());
        } else if (key == "to" || key == "cc" || key == "bcc") {
            job.Add(key == "to" ? job.To() : key == "cc" ? job.Cc() : job.Bcc(), mailbox, name);
        } else if (key == "many") {
            for (int n = 0; n < std::stoi(value); ++n) {
                job.Add(job.To(), "r" + std::to_string(n) + "@host.example",
                        "Recipient " + std::to_string(n));
            }
        } else if (key == "subject") {
            job.SetSubject(value.c_str());
        } else if (key == "charset") {
            job.SetCharset(value.c_str());
        } else if (key == "header") {
            job.SetAdditionalHeader(value.c_str());
        } else if (key == "type") {
            job.Text().SetContentType(value.c_str());
        } else if (key == "only") {
            only = std::stoi(value);
        } else if (key == "text" || key == "content") { // from a file
            std::ifstream file(value, std::ios::binary);
            const std::string content((std::istreambuf_iterator<char>(file)), {});
            CMailDocument& document = key == "text" ? static_cast<CMailDocument&>(job.Text())
                                                    : *job.Attachments().At(job.Attachments().GetCount() - 1);
            job.SetContent(document, content);
        } else if (key == "attach") { // NAME|TYPE
            job.Attach(mailbox, name == mailbox ? "" : name.c_str());
        }
    }
    CStandardComposer composer;
    if (!composer.Prepare(job, "id@host.example")) {
        return 1;
    }
    composer.SetOnlyRecipient(only);
    const std::int64_t most = composer.EstimateSize();
    const Composed whole(composer, job, 65536);
    for (const std::int32_t room : {1000, 1001, 1079, 1092, 4099}) {
        if (Composed(composer, job, room).masked != whole.masked) {
            return 2;
        }
    }
    std::cout << whole.text;
    return whole.state != PullState::End ? 3 : most < static_cast<std::int64_t>(whole.text.size()) ? 4 : 0;
}
