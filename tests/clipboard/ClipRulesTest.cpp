// What a copy becomes, and how the list is ordered and trimmed.
#include "clipboard/ClipRules.h"
#include "clipboard/Swatch.h"

#include <gtest/gtest.h>

using namespace zuv;
using namespace zuv::ClipRules;

namespace {

ClipContent text(const QByteArray &bytes) { return {plainText, bytes}; }
ClipContent png() { return {"image/png", "PNGDATA"}; }

Clip row(qint64 id, double last, std::optional<QString> pin = std::nullopt, double order = 0, qint64 copies = 1,
         double first = 0)
{
    Clip c;
    c.id = id;
    c.last = last;
    c.first = first;
    c.pin = pin;
    c.order = order;
    c.copies = copies;
    return c;
}

std::vector<qint64> ids(const std::vector<Clip> &clips)
{
    std::vector<qint64> out;
    for (const Clip &c : clips)
        out.push_back(c.id);
    return out;
}

} // namespace

TEST(ClipRules, whatIsKeptOfACopyAndWhatVetoesIt)
{
    const Settings all;
    EXPECT_FALSE(read({{text("pw"), {"org.nspasteboard.ConcealedType", ""}}}, all));
    EXPECT_FALSE(read({{text("pw"), {concealed, "secret"}}}, all)) << "a password manager's copy";
    EXPECT_TRUE(read({{text("note"), {concealed, "other"}}}, all));
    Settings custom;
    custom.ignoredTypes = {"application/x-private"};
    custom.ignoredPatterns = {"^\\d{4}-\\d{4}$", "(unclosed"};
    EXPECT_FALSE(read({{text("x"), {"application/x-private", "1"}}}, custom));
    EXPECT_FALSE(read({{text("1234-5678")}}, custom)) << "a pattern vetoes the whole copy";
    EXPECT_TRUE(read({{text("1234 5678")}}, custom)) << "a pattern that does not compile is passed over";

    Settings noImages;
    noImages.saveImages = false;
    EXPECT_FALSE(read({{png()}}, noImages));
    const auto textOnly = read({{text("caption"), png(), {"application/x-private-app", "p"}}}, noImages);
    ASSERT_TRUE(textOnly);
    EXPECT_EQ(textOnly->size(), 2u) << "the image goes, private types stay";
    EXPECT_EQ(describe(*textOnly)->kind, Clip::Kind::text);
    Settings noText;
    noText.saveText = false;
    EXPECT_FALSE(read({{text("plain"), {"application/x-private-app", "p"}}}, noText));
    const auto picture = read({{png(), text("alt")}}, noText);
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->size(), 1u);

    EXPECT_FALSE(read({{text(" \n\t ")}}, all)) << "blank text";
    const auto blankBesideRtf = read({{text("   "), {rtf, "{\\rtf1 styled}"}}}, all);
    ASSERT_TRUE(blankBesideRtf) << "rich text beside a blank string passes";
    EXPECT_FALSE(describe(*blankBesideRtf)) << "but the blank plain string is what describes it";
    EXPECT_TRUE(read({{text(" "), {html, "<b>styled</b>"}}}, all)) << "so does HTML";
    EXPECT_FALSE(read({{text(" "), {html, "<p> </p>"}}}, all));
    EXPECT_EQ(read({{text("x"), {"dyn.ah62d4rv4gu8y", "d"}, {"application/x-file-promise", "p"}}}, all)->size(), 1u)
        << "types that cannot be pasted back are not kept";

    EXPECT_TRUE(read({{text(QByteArray(largestCopy, 'a'))}}, all)) << "exactly 50 MiB is kept";
    EXPECT_FALSE(read({{text(QByteArray(largestCopy - 10, 'a')), {"x-more", QByteArray(11, 'b')}}}, all));
}

TEST(ClipRules, kindTextAndKeyOfACopy)
{
    const auto plain = describe({text("Hello")});
    EXPECT_EQ(plain->kind, Clip::Kind::text);
    EXPECT_EQ(plain->key, "text:185f8db32271fe25f561a6fc938b2e26") << "SHA-256, first 16 bytes in hex";
    EXPECT_EQ(describe({{"text/plain", "Hello"}})->key, plain->key) << "plain text without a charset reads the same";
    EXPECT_EQ(describe({{html, "<b>Hello</b>"}, text("Hello")})->key, plain->key) << "styled and plain are one clip";
    EXPECT_FALSE(describe({{ClipRules::plainText, "caf\xe9"}})) << "UTF-8 cut off at the end is no text";
    EXPECT_EQ(describe({{ClipRules::plainText, "caf\xe9"}, {html, "caf&amp;"}})->text, "caf&") << "the HTML serves then";
    EXPECT_EQ(describe({{html, "<p>a&amp;b&nbsp;&lt;c&gt;</p>"}})->text, " a&b <c> ");
    EXPECT_EQ(describe({{rtf, "{\\rtf1 Caf\\'e9}"}})->text, "Café");
    EXPECT_FALSE(describe({text("\xff\xfe")})) << "text that is no UTF-8 and nothing else";

    const QString longText = QString(5000, 'x');
    const auto first = describe({text(longText.toUtf8())});
    EXPECT_EQ(first->text.size(), 1000);
    const auto second = describe({text((longText + "y").toUtf8())});
    EXPECT_NE(first->key, second->key) << "the key covers the whole text";
    EXPECT_EQ(firstCharacters(QString::fromUtf8("👨‍👩‍👧e\u0301x"), 2), QString::fromUtf8("👨‍👩‍👧e\u0301"))
        << "characters as the person counts them";

    EXPECT_EQ(describe({png(), text("caption")})->kind, Clip::Kind::image) << "a picture wins over its text";
    const auto files = describe({{fileURL, "file:///home/a/one.txt\r\n# comment\nfile:///home/a/two%20words.pdf\n"},
                                 text("ignored")});
    ASSERT_TRUE(files);
    EXPECT_EQ(files->kind, Clip::Kind::files);
    EXPECT_EQ(files->text, "/home/a/one.txt\n/home/a/two words.pdf");
    EXPECT_TRUE(files->key.startsWith("files:"));
    EXPECT_FALSE(describe({{fileURL, "not a url"}})) << "no file and no text";
}

TEST(ClipRules, orderTrimmingAndIgnoredApplications)
{
    std::vector<Clip> clips{row(1, 10, {}, 0, 5, 3), row(2, 30, "b", 2), row(3, 20, {}, 0, 1, 9), row(4, 5, "a", 1),
                            row(5, 40, {}, 0, 5, 1)};
    sort(clips, "last");
    EXPECT_EQ(ids(clips), (std::vector<qint64>{4, 2, 5, 3, 1})) << "pins by their order, then the latest copy";
    sort(clips, "first");
    EXPECT_EQ(ids(clips), (std::vector<qint64>{4, 2, 3, 1, 5}));
    sort(clips, "copies");
    EXPECT_EQ(ids(clips), (std::vector<qint64>{4, 2, 5, 1, 3})) << "equal counts go by the latest copy";
    EXPECT_EQ(beyondLimit(clips, 2), std::vector<qint64>{3});
    EXPECT_EQ(beyondLimit(clips, 0), (std::vector<qint64>{1, 3})) << "a limit below 1 counts as 1";
    EXPECT_EQ(beyondLimit(clips, -5), (std::vector<qint64>{1, 3}));
    EXPECT_TRUE(beyondLimit(clips, 3).empty()) << "pins do not count against the limit";

    EXPECT_TRUE(ignored(QString("org.keepassxc.KeePassXC.desktop"), {"org.keepassxc.KeePassXC.desktop"}, false));
    EXPECT_FALSE(ignored(std::nullopt, {"x"}, false));
    EXPECT_TRUE(ignored(std::nullopt, {"x"}, true)) << "only listed apps: an unknown app is left out";
    EXPECT_FALSE(ignored(QString("x"), {"x"}, true));
    EXPECT_FALSE(persistable("application/x-file-promise-url"));
    EXPECT_TRUE(persistable("application/x-qt-image"));
}

TEST(Swatch, hexColoursAreColoursAndWordsAreNot)
{
    for (const char *colour : {"#abc", "#aabbcc", "aabbcc", "#aabbccdd", "  #aabbccdd\n"})
        EXPECT_TRUE(Swatch::color(colour)) << colour;
    for (const char *word : {"abc", "abcd", "#abcd", "#aabbccddee", "", "#", "#ggg"})
        EXPECT_FALSE(Swatch::color(word)) << word;
    EXPECT_EQ(*Swatch::color("#abc"), QColor(0xaa, 0xbb, 0xcc));
    EXPECT_EQ(*Swatch::color("#11223380"), QColor(0x11, 0x22, 0x33, 0x80));
}
