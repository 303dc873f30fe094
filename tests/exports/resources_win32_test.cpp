// What the module holds for hosts that read it without calling it.
#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "system.h"

namespace {

TEST(Resources, HoldTheOlderTextsInBothLanguages)
{
    void* const module = LoadModule(VELMAIL_LIBRARY);
    const auto text = [module](unsigned id) {
        std::array<char, 256> buffer = {};
        LoadStringA(static_cast<HMODULE>(module), id, buffer.data(), static_cast<int>(buffer.size()));
        return std::string(buffer.data());
    };
    EXPECT_EQ(text(0), "Es ist kein Fehler aufgetreten");
    EXPECT_EQ(text(10000), "All operations completed successfully");
    EXPECT_EQ(text(17), "Kein Zugriff auf Tracedatei");
    EXPECT_EQ(text(10017), "No access to tracefile");
    EXPECT_EQ(text(196), "Fehler bei der Speicherausgabe");
    EXPECT_EQ(text(10196), "Error with memory output");
    EXPECT_EQ(text(650) + text(10650) + text(1) + text(10001), "");
    EXPECT_TRUE(UnloadModule(module));
}

TEST(Resources, TellTheVersion)
{
    DWORD ignored = 0;
    std::vector<char> data(GetFileVersionInfoSizeA(VELMAIL_LIBRARY, &ignored));
    ASSERT_TRUE(!data.empty() &&
                GetFileVersionInfoA(VELMAIL_LIBRARY, 0, static_cast<DWORD>(data.size()), data.data()));
    void* value = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueA(data.data(), "\\", &value, &length));
    const auto* const fixed = static_cast<const VS_FIXEDFILEINFO*>(value);
    EXPECT_EQ(fixed->dwFileVersionMS, 0x00010003U);
    EXPECT_EQ(fixed->dwFileVersionLS, 0x00000002U);
    for (const auto& [name, wanted] : {std::pair("InternalName", "VELMAIL32"),
                                       {"OriginalFilename", "VelMail64.dll"},
                                       {"ProductVersion", "VEL mail 1.3.2.0/mt"}}) {
        const std::string path = std::string("\\StringFileInfo\\040904B0\\") + name;
        ASSERT_TRUE(VerQueryValueA(data.data(), path.c_str(), &value, &length)) << name;
        EXPECT_STREQ(static_cast<const char*>(value), wanted);
    }
}

} // namespace
