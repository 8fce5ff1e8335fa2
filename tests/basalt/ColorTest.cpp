#include "Basalt/Color.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

using Basalt::Color;
using Basalt::ColorPMA;

TEST(Color, ParsesHexAndNumberForms) {
    Color c;
    EXPECT_TRUE(c.set("#ff8000"));
    EXPECT_EQ(c, Color(1.0f, 128 / 255.0f, 0.0f, 1.0f));
    EXPECT_TRUE(c.set("  #00FF0080 "));
    EXPECT_EQ(c, Color(0.0f, 1.0f, 0.0f, 128 / 255.0f));
    EXPECT_TRUE(c.set("0.1 0.2 0.3"));
    EXPECT_EQ(c, Color(0.1f, 0.2f, 0.3f, 1.0f));
    EXPECT_TRUE(c.set("0.5,0.25,1,0"));
    EXPECT_EQ(c, Color(0.5f, 0.25f, 1.0f, 0.0f));
    EXPECT_TRUE(c.set("1, 2 ,\t3   -4e-1"));
    EXPECT_EQ(c, Color(1.0f, 2.0f, 3.0f, -0.4f));

    const Color before(0.1f, 0.2f, 0.3f, 0.4f);
    for (const char* bad : {"", "#", "#ff80", "#ff800", "#gg0000", "#ff8000801", "1 2", "1 2 3 4 5",
                            "a b c", "1 2 3x", "0.1;0.2;0.3", "1,,2"}) {
        c = before;
        EXPECT_FALSE(c.set(bad)) << bad;
        EXPECT_EQ(c, before) << bad;
    }
}

TEST(Color, ToStringIsShortestAndRoundTripsExactly) {
    EXPECT_EQ(Color(0.1f, 0.2f, 0.3f, 1.0f).toString(), QByteArray("0.1 0.2 0.3 1"));
    EXPECT_EQ(Color(0.0f, -0.5f, 1e-10f, 3.0f).toString(), QByteArray("0 -0.5 1e-10 3"));

    std::mt19937 random(7);
    std::uniform_real_distribution<float> unit(-2.0f, 2.0f);
    for (int i = 0; i < 1000; ++i) {
        const Color original(unit(random), unit(random), unit(random), unit(random));
        Color back;
        ASSERT_TRUE(back.set(original.toString())) << original.toString().constData();
        EXPECT_EQ(std::memcmp(&back, &original, sizeof back), 0) << original.toString().constData();
    }
}

TEST(ColorPMA, ParsesTheSameFormsAndPremultiplies) {
    ColorPMA p;
    EXPECT_TRUE(p.set("0.25 0.5 0.125 0.5"));
    EXPECT_EQ(p, ColorPMA(0.25f, 0.5f, 0.125f, 0.5f));
    EXPECT_EQ(p.toString(), QByteArray("0.25 0.5 0.125 0.5"));
    EXPECT_TRUE(p.set("#ffffff"));
    EXPECT_EQ(p, ColorPMA(1, 1, 1, 1));
    EXPECT_FALSE(p.set("nope"));
    EXPECT_EQ(ColorPMA::fromColor(Color(1.0f, 0.5f, 0.25f, 0.5f)),
              ColorPMA(0.5f, 0.25f, 0.125f, 0.5f));
}
