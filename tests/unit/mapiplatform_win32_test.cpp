#include "src/mapi/mapidefaultclient.h"

#include <windows.h>

#include "tests/unit/helpers.h"

namespace {

constexpr const char* kTestKey = "SOFTWARE\\VEL mail test";

TEST(MapiPlatform, ReadsTheRegistryAndFindsFunctions)
{
    const auto platform = MakeMapiPlatform();
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, kTestKey); // left by a run that was broken off
    ASSERT_FALSE(platform->HasRegistryKey(kTestKey));
    const auto set = [](const char* name, DWORD type, const std::string& bytes) {
        EXPECT_EQ(RegSetKeyValueA(HKEY_LOCAL_MACHINE, kTestKey, name, type, bytes.data(),
                                  static_cast<DWORD>(bytes.size())),
                  ERROR_SUCCESS);
    };
    set(nullptr, REG_SZ, std::string("Pegasus\0", 8));
    set("DLLPath", REG_SZ, std::string(255, 'p') + '\0');
    set("long", REG_SZ, std::string(256, 'p') + '\0');
    set("SMapi", REG_DWORD, std::string("\0\1\0\0", 4));
    set("open", REG_BINARY, "xy"); // without a terminator
    const auto read = [&](const char* name) {
        return std::string(platform->ReadRegistry(kTestKey, name).value_or(CEString("none")).CStr());
    };
    EXPECT_TRUE(platform->HasRegistryKey(kTestKey));
    EXPECT_EQ(read(nullptr), "Pegasus");
    EXPECT_EQ(read("DLLPath"), std::string(255, 'p'));
    EXPECT_EQ(read("long") + read("missing") + read("open"), "nonenonexy");
    EXPECT_EQ(platform->ReadRegistry(kTestKey, "SMapi").value_or("none").View(),
              std::string_view("\0\1\0\0", 4));
    EXPECT_EQ(RegDeleteKeyA(HKEY_LOCAL_MACHINE, kTestKey), ERROR_SUCCESS);
    EXPECT_EQ(read(nullptr), "none");

    EXPECT_EQ(Failed({platform->GetOsVersion().ntFamily, platform->GetOsVersion().majorVersion >= 5}), 0);
}

} // namespace
