// The functions of the recording mail client, under the names by which a host looks for them.
#pragma once

#include "src/mapi/simplemapi.h"

extern "C" {
MapiLogonFunction MAPILogon;
MapiResult MAPILogoff(MapiHandle session, MapiHandle window, std::uint32_t flags, std::uint32_t reserved);
MapiSendMailFunction MAPISendMail;
MapiResolveNameFunction MAPIResolveName;
MapiFreeBufferFunction MAPIFreeBuffer;
}

// What each call does to the process that it finds.
void SpoilHost();
