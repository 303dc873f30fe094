// What the unit tests share. They write their files into the current folder.
#pragma once

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <regex>

#include "src-baselib/error.h"

inline int TakeError()
{
    const int error = PendingError();
    ClearPendingError();
    return error;
}
