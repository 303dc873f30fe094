// What a host application does, for tests at the ten exports.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "files.h"

using Settings = std::map<std::string, std::string>;

void Set(const Settings& settings);
// The property's text.
[[nodiscard]] std::string Get(const char* name);
// The code of the last working call, 0 for none.
[[nodiscard]] int LastError();
// Sends and disconnects; the code of the failure, wherever it surfaces, 0 after a success.
[[nodiscard]] int SendAndDisconnect();
// The same, after the mail is described and connected for.
[[nodiscard]] int Deliver(const Settings& mail);
// A mail that can be sent to the server at `port`, of these settings and, where they say nothing, a text in
// memory that lives as long as the process.
[[nodiscard]] Settings SmallMail(const std::string& port, Settings more = {});
// "address;length" of a text that outlives the call.
[[nodiscard]] std::string Block(std::string_view content);

// Runs `body` on a new thread that traces to a file, and returns that trace. The level follows the file's
// name.
std::string RunTraced(const std::function<void()>& body, const std::string& level = "DEBUG");
// How often `text` stands in `whole`.
[[nodiscard]] std::size_t CountOf(std::string_view whole, std::string_view text);

// Of a received message: the boundary, and the value of a field, empty where there is none.
[[nodiscard]] std::string BoundaryOf(const std::string& message);
[[nodiscard]] std::string FieldOf(const std::string& message, const std::string& name);
