#include "src-baselib/property.h"
#include "src-baselib/propertyset.h"

#include <map>

#include "tests/unit/helpers.h"

TEST(PropertySet, GrowsAndFindsWhatAMapFinds)
{
    std::map<std::string, std::unique_ptr<CProperty>> wanted;
    CPropertySet set;
    for (unsigned i = 0; i < 1200; ++i) { // the second half replaces the first
        const unsigned n = i % 600;
        std::string name = n % 2 == 0 ? "" : "\x80\xE4" + std::to_string(n);
        for (unsigned bit = 1; n % 2 == 0 && bit <= n; bit *= 2) {
            name += (n & bit) != 0 ? "ab" : "bA"; // two texts with one hash
        }
        wanted[name] = std::make_unique<CStringProperty>(name.c_str(), set);
        ASSERT_EQ(set.GetEntryCount(), wanted.size());
        ASSERT_EQ(set.GetBucketCount(), i < 95    ? 127U
                                        : i < 122 ? 163U
                                        : i < 248 ? 331U
                                        : i < 504 ? 673U
                                                  : 1361U);
    }
    for (const auto& [name, property] : wanted) {
        ASSERT_EQ(set.Find(name.c_str()), property.get()) << testing::PrintToString(name);
    }
    EXPECT_EQ(Failed({set.Find(nullptr) == wanted[""].get(), !set.Contains("AB")}), 0);
}

TEST(Properties, GiveTheirTruthAndParts)
{
    CPropertySet set;
    CStringProperty text("text", set);
    CBoolProperty flag("flag", set, 0x01020304);
    std::int32_t number = 5;
    EXPECT_EQ(Failed({!flag.GetValue(&number, 3), number == 5, TakeError() == 47, flag.GetValue(&number, 4)}),
              0);
    EXPECT_EQ(Failed({number == 0x01020304, !flag.GetValue(nullptr, 4), TakeError() == 29}), 0);
    const std::tuple<const char*, int, int> truths[] = {
        {"yes", 1, 0},    {"Ja", 1, 0},  {"7x", 1, 7},    {"tRuE", 1, 0},   {"no", 0, 0},
        {"0815", 0, 815}, {"", 0, 0},    {"False", 0, 0}, {"falsey", 0, 0}, {"on", 0, 0},
        {"truex", 0, 0},  {"-2", 1, -2}, {" 1", 1, 1},    {nullptr, 0, 0}}; // of a text property, and kept by
                                                                            // a boolean one
    for (const auto& [value, asText, asFlag] : truths) {
        EXPECT_EQ(Failed({text.SetValue(value), text.GetBool() == asText}), 0) << text.GetCString();
        EXPECT_EQ(Failed({flag.SetValue(value), flag.GetBool() == asFlag}), 0) << text.GetCString();
    }
    const std::pair<const char*, const char*> lists[] = {
        {"a;b", "|a|b|"}, {"a;;b", "|a||b|"}, {";a", "||a|"},         {"a;", "|a|"},
        {"", "|"},        {";", "||"},        {" a ; b", "| a | b|"}, {nullptr, "|"}};
    for (const auto& [value, wanted] : lists) {
        CPropertySet source;
        const CStringProperty given("list", source, value);
        const CSeparatedStringProperty list("list", set, "before");
        set.CopyValuesFrom(source);
        std::string all;
        for (std::int32_t i = -1; i < list.GetPartCount(); ++i) { // what lies before the first is empty
            all += list.GetPart(i).CStr() + std::string("|");
        }
        EXPECT_EQ(Failed({all == wanted, list.GetPart(list.GetPartCount()).IsEmpty()}), 0) << all;
    }
}
