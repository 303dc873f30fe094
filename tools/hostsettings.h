// Applies the settings of a command line to the library.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/hostoptions.h"
#include "tools/maillibrary.h"

// Files handed to the library in memory. They stay where they are until the object ends, which must outlive
// the send.
class CMemoryFiles
{
public:
    // Returns the block as the library wants it: "address;length".
    std::string Add(const std::string& path);

private:
    std::vector<std::unique_ptr<std::string>> m_contents;
};

// Applies the settings of the command line in their order. Files given as "@FILE" become memory blocks; those
// of one property add up, and attachments without names of their own are named after their files.
class CSettingsWriter
{
public:
    CSettingsWriter(const CMailLibrary& library, CMemoryFiles& files) : m_library(library), m_files(files) {}

    void Write(const std::vector<Setting>& settings);

private:
    void WriteBlocks(const Setting& setting);

    const CMailLibrary& m_library;
    CMemoryFiles& m_files;
    std::string m_textBlocks;
    std::string m_attachmentBlocks;
    std::string m_attachmentNames;
};
