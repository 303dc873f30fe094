#include "files.h"

#include <fstream>
#include <iterator>
#include <random>

CTempFolder::CTempFolder()
    : m_path(std::filesystem::temp_directory_path() /
             ("velmail-test-" + std::to_string(std::random_device()())))
{
    std::filesystem::create_directory(m_path);
}

CTempFolder::~CTempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string CTempFolder::Write(std::string_view name, std::string_view content) const
{
    std::ofstream(m_path / name, std::ios::binary) << content;
    return Path(name);
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
