#include "tools/hostsettings.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <system_error>

namespace {

std::string ReadWholeFile(const std::string& path)
{
    std::string content;
    std::vector<char> chunk(65536);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    std::size_t length = 0;
    while (file != nullptr && (length = std::fread(chunk.data(), 1, chunk.size(), file.get())) > 0) {
        content.append(chunk.data(), length);
    }
    if (file == nullptr || std::ferror(file.get()) != 0) {
        throw CHostFailure("cannot read '" + path + "': " + std::generic_category().message(errno));
    }
    return content;
}

void AppendPart(std::string& list, const std::string& part)
{
    list += (list.empty() ? "" : ";") + part;
}

// The library takes a word for 0, and an address means nothing outside the process that it is from.
void CheckValue(const PropertyInfo* property, const Setting& setting)
{
    const std::string digits = setting.value.substr(setting.value.starts_with("-") ? 1 : 0);
    if (property != nullptr && property->kind == PropertyKind::Flag &&
        (digits.find_first_not_of("0123456789") != std::string::npos || digits.empty())) {
        throw CHostFailure("property '" + setting.name + "' takes a number: write " + setting.name +
                               "=1 for yes, " + setting.name + "=0 for no, not '" + setting.value + "'",
                           ExitStatus::Usage);
    }
    if (property != nullptr && property->kind == PropertyKind::Host) {
        throw CHostFailure("property '" + setting.name + "' is set by this program itself",
                           ExitStatus::Usage);
    }
}

} // namespace

std::string CMemoryFiles::Add(const std::string& path)
{
    const std::string& content = *m_contents.emplace_back(std::make_unique<std::string>(ReadWholeFile(path)));
    return std::to_string(reinterpret_cast<std::uintptr_t>(content.data())) + ";" +
           std::to_string(content.size());
}

void CSettingsWriter::Write(const std::vector<Setting>& settings)
{
    bool named = false;
    for (const Setting& setting : settings) {
        named = named || setting.name == "MailAttachmentFilename";
        const PropertyInfo* property = FindProperty(setting.name);
        if (property != nullptr && property->kind == PropertyKind::Blocks) {
            WriteBlocks(setting);
        } else if (property != nullptr && property->kind == PropertyKind::Secret &&
                   setting.value.starts_with("@")) { // not for everybody who lists the processes
            const std::string content = ReadWholeFile(setting.value.substr(1));
            m_library.Set(setting.name, content.substr(0, content.find_first_of("\r\n")));
        } else {
            CheckValue(property, setting);
            m_library.Set(setting.name, setting.value);
        }
    }
    if (!named && !m_attachmentNames.empty()) {
        m_library.Set("MailAttachmentFilename", m_attachmentNames);
    }
}

void CSettingsWriter::WriteBlocks(const Setting& setting)
{
    const bool attachment = setting.name == "MailAttachmentMemoryAddress";
    std::string& blocks = attachment ? m_attachmentBlocks : m_textBlocks;
    if (setting.value.empty()) {
        blocks.clear();
        if (attachment) {
            m_attachmentNames.clear();
        }
    } else if (setting.value.starts_with("@")) {
        const std::string path = setting.value.substr(1);
        AppendPart(blocks, m_files.Add(path));
        if (attachment) {
            std::string name = path.substr(path.find_last_of("/\\") + 1); // as the library does
            std::ranges::replace(name, ';', '_'); // the list has no way to quote its separator
            AppendPart(m_attachmentNames, name);
        }
    } else {
        // An address means nothing outside the process it is from: the library would read at random.
        throw CHostFailure("property '" + setting.name + "' takes a file: " + setting.name + "=@FILE",
                           ExitStatus::Usage);
    }
    m_library.Set(setting.name, blocks);
}
