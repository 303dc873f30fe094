// Which mail client the registry names as the user's, and whether it offers Simple MAPI.
#pragma once

#include "src/mapi/mapiplatform.h"

// Whether the default mail client can be used; traces what it finds.
[[nodiscard]] bool HasUsableDefaultClient(CMapiPlatform& platform);
