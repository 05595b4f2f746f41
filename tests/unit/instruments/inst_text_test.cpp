// Field texts of the instrument groups: splitting replies, and joining fields without ever writing
// past the buffer or losing the column count.
#include <gtest/gtest.h>

#include <cstring>

#include "instruments/inst_text.h"

namespace {

TEST(InstText, SplitCountsFieldsAndStopsPastTheLimit) {
    char line[] = "  a\t\tb  c \t";
    char* f[4];
    ASSERT_EQ(inst_split(line, " \t", f, 4), 3u);
    EXPECT_STREQ(f[0], "a");
    EXPECT_STREQ(f[2], "c");

    char many[] = "1 2 3 4 5";
    EXPECT_EQ(inst_split(many, " ", f, 3), 4u);
    char exact[] = " 1 \t 2 ";
    ASSERT_TRUE(inst_split_exact(exact, "\t", f, 2));
    EXPECT_STREQ(f[0], "1");
    EXPECT_STREQ(f[1], "2");
    char empty[] = "";
    EXPECT_EQ(inst_split(empty, " ", f, 3), 0u);
}

TEST(InstText, JoinKeepsTheColumnCountWhenItDoesNotFit) {
    const char* fields[] = {"12.5", nullptr, "x"};
    char buf[16];
    ASSERT_TRUE(inst_join_fields(buf, sizeof buf, fields, 3));
    EXPECT_STREQ(buf, "12.5\t\tx");

    char tiny[6] = "zzzzz";
    const char* wide[] = {"1234", "5678", "9"};
    EXPECT_FALSE(inst_join_fields(tiny, sizeof tiny, wide, 3));
    EXPECT_STREQ(tiny, "\t\t");

    char two[2];
    inst_blank_fields(two, sizeof two, 5); // bounded: as many tabs as fit
    EXPECT_STREQ(two, "\t");
}

TEST(InstText, NumbersAreWholeAndFinite) {
    EXPECT_TRUE(inst_is_number(" -1.5e3 "));
    EXPECT_FALSE(inst_is_number("\f350.00")); // strtod would skip the form feed
    EXPECT_FALSE(inst_is_integer(" \v12"));
    EXPECT_TRUE(inst_is_integer("+42"));
    for (const char* bad : {"", "nan", "inf", "1.5x", "-", "1e999"}) {
        EXPECT_FALSE(inst_is_number(bad)) << bad;
    }
    EXPECT_FALSE(inst_is_integer("4.2"));
}

} // namespace
