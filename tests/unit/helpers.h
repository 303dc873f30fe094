// What the unit tests share. They write their files into the current folder.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <initializer_list>
#include <random>
#include <regex>

#include "src-baselib/error.h"

inline int TakeError()
{
    const int error = PendingError();
    ClearPendingError();
    return error;
}

// Which condition is the first that does not hold, from 1; 0 when all do.
inline int Failed(std::initializer_list<bool> conditions)
{
    const auto* const found = std::find(conditions.begin(), conditions.end(), false);
    return found == conditions.end() ? 0 : static_cast<int>(found - conditions.begin()) + 1;
}
