// The query runtime's operation catalogue.
#include <Velta/VeRT.h>

#include <gtest/gtest.h>

#include <set>

namespace {

bool sameCat(const VeRT::opCat& a, const VeRT::opCat& b) {
    return a.category == b.category && a.code == b.code && a.flag == b.flag && a.count == b.count;
}

TEST(Opcodes, BothTablesHoldTheWholeCatalogue) {
    EXPECT_EQ(VeRT::opCatByName.size(), 81u);
    EXPECT_EQ(VeRT::opNameByCode.size(), 81u);
    EXPECT_TRUE(sameCat(VeRT::opCatByName.at("dummy"), VeRT::opCat{1, 0, 1, 0}));
    EXPECT_TRUE(sameCat(VeRT::opCatByName.at("noop"), VeRT::opCat{1, 0, 0, 0}));
    EXPECT_EQ(VeRT::opNameByCode.at(-1), "dummy");
    EXPECT_EQ(VeRT::opNameByCode.at(100), "noop");
    EXPECT_EQ(VeRT::opNameByCode.at(510), "swap");
    EXPECT_EQ(VeRT::opNameByCode.at(511), "nswap");
    EXPECT_TRUE(sameCat(VeRT::opCatByName.at("swap"), VeRT::opCat{5, 10, 1, 0}));
    EXPECT_TRUE(sameCat(VeRT::opCatByName.at("nswap"), VeRT::opCat{5, 11, 1, 0}));
    EXPECT_TRUE(sameCat(VeRT::opCatByName.at("bindTable"), VeRT::opCat{4, 6, 0, 5}));
    EXPECT_TRUE(sameCat(VeRT::opCatByName.at("iterInit"), VeRT::opCat{6, 7, 1, 3}));
    EXPECT_TRUE(sameCat(VeRT::opCatByName.at("isNullRow"), VeRT::opCat{7, 12, 0, 1}));
}

TEST(Opcodes, CodesAndNamesMapBothWays) {
    std::set<std::string> named;
    for (const auto& [code, name] : VeRT::opNameByCode) {
        ASSERT_EQ(VeRT::opCatByName.count(name), 1u) << name;
        named.insert(name);
        if (name == "dummy") {
            EXPECT_EQ(code, -1);
            continue;
        }
        const VeRT::opCat& c = VeRT::opCatByName.at(name);
        EXPECT_EQ(code, static_cast<int>(100 * c.category + c.code)) << name;
    }
    EXPECT_EQ(named.size(), 81u);  // every name once

    // The code ranges per category, without gaps.
    std::set<int> codes;
    for (const auto& [code, name] : VeRT::opNameByCode) codes.insert(code);
    std::set<int> expected = {-1};
    const int last[] = {0, 120, 203, 302, 420, 511, 611, 712};
    for (int cat = 1; cat <= 7; ++cat) {
        for (int code = cat == 1 ? 100 : 100 * cat + 1; code <= last[cat]; ++code) expected.insert(code);
    }
    EXPECT_EQ(codes, expected);
}

TEST(Opcodes, FlagAndCountRules) {
    const std::set<std::string> flagZero = {"noop", "boolAnd", "boolOr", "not", "copyBytes"};
    for (const auto& [name, c] : VeRT::opCatByName) {
        const bool zero = flagZero.count(name) != 0 || c.category == 4 || c.category == 7;
        EXPECT_EQ(c.flag, zero ? 0 : 1) << name;
        if (c.category <= 3) {
            EXPECT_EQ(c.count, 0) << name;
        }
        EXPECT_LE(c.count, 5) << name;
        EXPECT_GE(c.category, 1u) << name;
        EXPECT_LE(c.category, 7u) << name;
    }
}

}  // namespace
