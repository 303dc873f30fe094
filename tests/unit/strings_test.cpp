#include "src-baselib/cestring.h"

#include "tests/unit/helpers.h"

TEST(Strings, TakePartsOfThemselvesGrowAreCutAndSorted)
{
    std::minstd_rand random;
    CEString text("start");
    std::string wanted = "start";
    for (int step = 0; step < 5000; ++step) { // against a reference
        const std::string_view own = text.View().substr(random() % wanted.size(), 1 + random() % 90);
        const std::string_view part = random() % 3 == 0 ? "\xE4z" : own;
        const bool assign = random() % 20 == 0;
        wanted = (assign ? "" : wanted) + std::string(part);
        assign ? text.Assign(part) : text.Append(part);
        ASSERT_EQ(text.CStr(), wanted) << "step " << step;
    }
    text.Format("%s", ""); // frees the buffer
    text.Format("%3000s", "");
    EXPECT_EQ(Failed({text.View() == std::string(2047, ' '), text.Reserve(2052), text.GetCapacity() == 3075}),
              0);
    text = "abcde";
    EXPECT_EQ(Failed({text.Mid(3, 9) == "de", text.Mid(1, 2) == "bc", text.Left(5) == text}), 0);
    EXPECT_EQ(Failed({text.Mid(5, 1) == "", text.Mid(-1, 2) == "", text.Left(-1) == ""}), 0);
    CEString::EncodeBase64((text = "\xFB\xFF\xBF??").CStr(), 4, text); // a part of its own text
    EXPECT_EQ(text, "+/+/Pw==");
    CEStringArray texts;
    for (int i = 0; i < 104; ++i) {
        texts.Add(i % 2 == 0 ? "\xE4" : "b");
        EXPECT_EQ(texts.GetCapacity(), i < 31 ? 31 : i < 46 ? 46 : i < 69 ? 69 : i < 103 ? 103 : 154);
    }
    texts.Add(texts.GetAt(-1)); // one that is not there is empty
    texts.RemoveAt(102);
    texts.Sort(); // by unsigned bytes
    EXPECT_EQ(Failed({texts.GetAt(0) == "", texts.GetAt(52) == "b", texts.GetAt(53) == "\xE4"}), 0);
}
