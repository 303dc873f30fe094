// A call into the mail client, which may change what belongs to the whole process or the thread: the current
// directory, the numeric locale, the floating-point state. After the call they are as before.
#pragma once

#include <cfenv>

#include "src-baselib/cepaths.h"

class CMapiCall
{
public:
    CMapiCall();
    ~CMapiCall();
    CMapiCall(const CMapiCall&) = delete;
    CMapiCall& operator=(const CMapiCall&) = delete;

private:
    CEWorkingDir m_directory;
    CEString m_numericLocale;
    std::fenv_t m_floatingPoint = {};
};

// Calls a function of the mail client.
template<class Function, class... Arguments>
auto CallMailClient(Function* function, Arguments... arguments)
{
    const CMapiCall call;
    return function(arguments...);
}
