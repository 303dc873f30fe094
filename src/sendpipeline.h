// VelMailSend: builds one mail from the thread's properties, with every check in its fixed order, and hands
// it to the delivery service. The first failed check ends the send.
#pragma once

#include "src/callframe.h"

// Runs as the body of the export and returns its result.
int RunSend(CCallFrame& frame);
