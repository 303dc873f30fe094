// Files of a test.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

// A folder of its own, removed with its content.
class CTempFolder
{
public:
    CTempFolder();
    ~CTempFolder();
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;

    [[nodiscard]] std::string Path(std::string_view name = "") const { return (m_path / name).string(); }
    // Writes a file and returns its path.
    std::string Write(std::string_view name, std::string_view content) const;

private:
    std::filesystem::path m_path;
};

[[nodiscard]] std::string ReadFile(const std::string& path);
