// The C runtime's locale, which belongs to the process: read and changed under one lock, since a change frees
// the name that another thread may be reading.
#pragma once

#include "src-baselib/cestring.h"

// The name of the current locale of `category` (LC_ALL, LC_NUMERIC, ...).
[[nodiscard]] CEString CurrentLocale(int category);
// Sets the numeric locale where that changes something. Needs no memory of ours; an unknown name changes
// nothing.
void UseNumericLocale(const char* name);
