// A file's content, mapped and brought into memory.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

class MappedFile
{
public:
    explicit MappedFile(const std::string& name)
    {
        const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status = {};
        fstat(file, &status);
        m_size = static_cast<std::size_t>(status.st_size);
        m_data = mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file, 0);
        close(file);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile() { munmap(m_data, m_size); }

    [[nodiscard]] std::string_view View() const { return {static_cast<const char*>(m_data), m_size}; }

private:
    void* m_data = nullptr;
    std::size_t m_size = 0;
};
