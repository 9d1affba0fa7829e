// Plain text out of RTF, as word processors and browsers put it on the clipboard.
// A reader that went quadratic or looped would run into the test's time-out.
#include "clipboard/RtfText.h"

#include <gtest/gtest.h>


using namespace zuv;

TEST(RtfText, textBreaksAndEscapesComeThroughAndTheRestStaysOut)
{
    const QByteArray document =
        "{\\rtf1\\ansi\\ansicpg1252\\cocoartf2639{\\fonttbl\\f0\\fswiss Helvetica;}{\\colortbl;\\red255\\green0\\blue0;}"
        "{\\*\\expandedcolortbl;;}{\\*\\generator Writer;}{\\info{\\author Someone}}"
        "\\f0\\fs24 Caf\\'e9 costs \\'80 5\\par\r\nSecond\\tab line\\line end "
        "\\{braces\\} and \\\\ back{\\field{\\*\\fldinst HYPERLINK \"x\"}{\\fldrslt link}}"
        "\\u8364?\\uc0\\u8364 \\uc2\\u-10179??\\u-8704??!}";
    EXPECT_EQ(RtfText::plain(document),
              QString::fromUtf8("Café costs € 5\nSecond\tline\nend {braces} and \\ backlink€€😀!"));
    EXPECT_EQ(RtfText::plain("{\\rtf1 a\\emdash b\\~c\\ldblquote d\\rdblquote}"), QString::fromUtf8("a—b\u00a0c“d”"));
    EXPECT_EQ(RtfText::plain("\\uc1\\u65\\u66?x"), "ABx") << "a \\u is never the fallback of the one before";
}

TEST(RtfText, brokenAndHostileInputEndsQuicklyWithoutACrash)
{
    for (const char *broken : {"", "{", "}", "\\", "{\\rtf1 \\'", "{\\rtf1 \\'4", "\\u", "\\u-", "{\\*", "}}}}a{{",
                               "\\uc999999999999\\u65 x", "\\ucabc", "{\\rtf1\\fonttbl{x}}}text"})
        (void)RtfText::plain(broken);
    EXPECT_EQ(RtfText::plain("}}}}a{{b"), "ab");

    const QByteArray bomb = QByteArray(2'000'000, '{') + "deep" + QByteArray(2'000'000, '}') + "after";
    EXPECT_EQ(RtfText::plain(bomb), "deepafter");
    const QByteArray words = QByteArray("\\abcdefghijklmnopqrstuvwxyzabcdefghij1234567890123 ").repeated(50'000);
    EXPECT_TRUE(RtfText::plain(words).contains("123")) << "over-long parameters spill into text, harmlessly";
    const QByteArray unicode = QByteArray("{\\uc16\\u65").repeated(100'000);
    EXPECT_EQ(RtfText::plain(unicode).size(), 100'000);
}
