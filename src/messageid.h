// The name of a message that no other one has.
#pragma once

#include "src-baselib/cestring.h"

// Without angle brackets; `host` is this machine's name.
[[nodiscard]] CEString MakeMessageId(const CEString& host);
