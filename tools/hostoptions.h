// What the command line of the mail host asks for, and the properties it knows by name. The library decides
// which properties there are; the table here serves the help text and says which are not plain texts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class PropertyKind : std::uint8_t
{
    Text,
    List,
    Flag,     // read as a 32-bit int
    Blocks,   // memory blocks, given as @FILE
    Secret,   // a text, also given as @FILE
    ReadOnly, // a text that cannot be set
    Host      // a text that the command-line host sets itself
};

struct PropertyInfo
{
    const char* name;
    PropertyKind kind;
    const char* meaning;
};

struct Setting
{
    std::string name;
    std::string value;
};

enum class HostAction : std::uint8_t
{
    Send,
    Get,
    Help,
    Version
};

struct HostOptions
{
    HostAction action = HostAction::Send;
    std::string library; // empty: the program's own
    std::string trace;   // as VEL_MAILTRACE has it; empty: what that says
    bool quiet = false;
    std::vector<Setting> settings;
    std::vector<std::string> queries;
};

// Reads the arguments after the program's name. Throws CHostFailure for a command line that makes no sense.
[[nodiscard]] HostOptions ReadOptions(const std::vector<std::string>& arguments);

// Returns null for a name that is not in the table.
[[nodiscard]] const PropertyInfo* FindProperty(const std::string& name);

[[nodiscard]] std::string HelpText();
