// The spectrometer's calibration file: a whole file in its variations (line ends, comments, keys of
// a newer file, no final line end) and every way a file is refused, with the line it names.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "spectrometer/uvs_cal.h"

namespace {

std::string header() {
    return "# calibration of UVS77\n"
           "H,serial,UVS77\n"
           "H,pixels,256\n"
           "H,lambda,208.0,0.4,-1e-05,0\n"
           "H,cal_temp,20.0\n"
           "H,cal_integration,500\n"
           "H,tcomp,1.1500276,0.0284,-0.3101349,0.001222\n";
}

std::string rows(int first, int count) {
    std::string text;
    for (int p = first; p < first + count; p++) {
        text += "C," + std::to_string(p) + ",1.5e-03,2.0e-02," + std::to_string(20000 + p) + ".0\n";
    }
    return text;
}

uint32_t parse(const std::string& text, UvsCal* cal) {
    return uvs_cal_parse(text.data(), static_cast<uint32_t>(text.size()), cal);
}

} // namespace

TEST(UvsCal, AWholeFileLoads) {
    UvsCal cal{};
    std::string text = header() + "H,firmware,2.0\n\n" + rows(10, 91);
    ASSERT_EQ(parse(text, &cal), 0u);
    EXPECT_STREQ(cal.serial, "UVS77");
    EXPECT_EQ(cal.rows, 91u);
    EXPECT_EQ(cal.first_pixel, 10u);
    EXPECT_EQ(cal.cal_integration, 500u);
    EXPECT_FLOAT_EQ(cal.lambda_coefs[2], -1e-05f);
    EXPECT_FLOAT_EQ(cal.tcomp.d, 0.001222f);
    EXPECT_FLOAT_EQ(cal.reference[90], 20100.0f);

    // CR LF line ends and no line end after the last row.
    std::string crlf;
    for (char c : header() + rows(17, 71)) {
        crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    }
    crlf.resize(crlf.size() - 2);
    ASSERT_EQ(parse(crlf, &cal), 0u);
    EXPECT_EQ(cal.rows, 71u);
    EXPECT_FLOAT_EQ(cal.reference[70], 20087.0f);
}

TEST(UvsCal, AFileIsRefusedAtItsFirstBadLine) {
    UvsCal cal{};
    std::string good = header() + rows(10, 20);
    const int lines = 7 + 20;
    struct Case {
        std::string text;
        uint32_t line;
    } cases[] = {
        {header() + rows(10, 5) + "C,15,1.5e-03,abc,20015.0\n" + rows(16, 10), 13}, // not a number
        {header() + rows(10, 5) + "C,16,1.5e-03,2e-2,20015.0\n", 13},               // a pixel skipped
        {header() + rows(10, 5) + "C,15,1.5e-03,2e-2,0\n", 13},                     // no reference light
        {header() + rows(10, 5) + "C,15,1.5e-03,2e-2\n", 13},                       // a field missing
        {header() + rows(10, 5) + "X,15\n", 13},                                    // unknown record
        {header() + "H,cal_integration,5000\n" + rows(10, 20), 8},                  // out of range
        {header() + "H,lambda,208.0,0.4\n" + rows(10, 20), 8},                      // too few terms
        {header() + "C,1," + std::string(200, '1') + "\n" + rows(11, 20), 8},       // overlong line
        {header() + rows(10, 7), 7 + 7 + 1},                                        // too few rows
        {header() + rows(250, 8), 7 + 6 + 1},                                       // pixel 256
    };
    for (const Case& c : cases) {
        EXPECT_EQ(parse(c.text, &cal), c.line) << c.text.substr(c.text.size() - 40);
    }
    // The serial line is optional; a missing required header is found at the end.
    EXPECT_EQ(parse(good.substr(good.find("H,pixels")), &cal), 0u);
    std::string no_tcomp = good;
    no_tcomp.erase(no_tcomp.find("H,tcomp"), no_tcomp.find("C,10") - no_tcomp.find("H,tcomp"));
    EXPECT_EQ(parse(no_tcomp, &cal), static_cast<uint32_t>(lines - 1 + 1));
}
