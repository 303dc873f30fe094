#include "src/mapi/mapicall.h"

#include <clocale>

#include "src/numericlocale.h"

CMapiCall::CMapiCall() : m_numericLocale(CurrentLocale(LC_NUMERIC))
{
    m_directory.RememberPlace();
    std::fegetenv(&m_floatingPoint);
}

CMapiCall::~CMapiCall()
{
    std::fesetenv(&m_floatingPoint);
    UseNumericLocale(m_numericLocale.CStr());
    m_directory.NoticeMove();
}
