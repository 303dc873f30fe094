#include "src/mailaddress.h"

#include "tests/unit/helpers.h"

TEST(MailAddress, IsABareMailbox)
{
    const std::string label(63, 'l');
    const std::string domain = "a@" + label + "." + label + "." + label + "." + label; // of 255 characters
    std::vector<std::string> cases = {
        label + "x@b",  "a@" + label,  domain, // the first seven are accepted
        ".x..y.@b",     "a@b3-.c--9",  "a@b.c.",    "azAZ09.!#$%&'*+-/=?^_`{|}~@b",
        label + "xx@b", "a@l" + label, domain + "."};
    for (const char* const text : {"",      "@b",       "a",           "a@",     "a@b@c",   "a@.b",  "a@b..c",
                                   "a@b..", "a@3com.b", "a@[1.2.3.4]", "a@b.-c", "a@b_c",   "a b@c", "a@b ",
                                   "a,b@c", "a@b\r\n",  "\"a\"@b",     "\xE4@b", "a@b\xE4", "<a@b>"}) {
        cases.emplace_back(text);
    }
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(CMailAddress::IsValidAddress(cases[i].c_str()), i < 7) << cases[i];
    }
}
