// The working calls that make and end the thread's delivery service.
#pragma once

#include "src/callframe.h"

// Both run as the body of an export and return its result.
int RunConnect(CCallFrame& frame);
int RunDisconnect(CCallFrame& frame);
