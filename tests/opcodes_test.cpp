// The query runtime's operation catalogue.
#include <Velta/VeRT.h>

#include <gtest/gtest.h>

#include <set>

namespace {

// Both tables hold the whole catalogue, name for code and code for name: 100 * category + code,
// each category's codes without gaps, "dummy" at -1; the flag and count follow their category.
TEST(Opcodes, CatalogueIsConsistentBothWays) {
    const std::set<std::string> flagZero = {"noop", "boolAnd", "boolOr", "not", "copyBytes"};
    std::set<int> codes, expected = {-1};
    const int last[] = {0, 120, 203, 302, 420, 511, 611, 712};
    for (int cat = 1; cat <= 7; ++cat)
        for (int code = cat == 1 ? 100 : 100 * cat + 1; code <= last[cat]; ++code) expected.insert(code);
    ASSERT_EQ(VeRT::opCatByName.size(), expected.size());
    for (const auto& [code, name] : VeRT::opNameByCode) {
        codes.insert(code);
        const VeRT::opCat& c = VeRT::opCatByName.at(name);
        EXPECT_EQ(code, name == "dummy" ? -1 : static_cast<int>(100 * c.category + c.code)) << name;
        const bool zero = flagZero.count(name) != 0 || c.category == 4 || c.category == 7;
        EXPECT_EQ(c.flag, zero ? 0 : 1) << name;
        EXPECT_LE(c.count, c.category <= 3 ? 0 : 5) << name;
    }
    EXPECT_EQ(codes, expected);
    EXPECT_EQ(VeRT::opCatByName.at("bindTable").count * 10 + VeRT::opCatByName.at("iterInit").count, 53);
}

}  // namespace
