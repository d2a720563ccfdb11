// Navigation, name matching, attributes, data and unescaping.
#include "MarkupProbe.h"

#include <gtest/gtest.h>

namespace {
std::string DataOf(const std::string& content) {
    CMarkupSTL doc(("<k>" + content + "</k>").c_str());
    doc.FindElem();
    return doc.GetData();
}
} // namespace

TEST(MarkupRead, UnescapesEntitiesAndCharacterReferences) {
    const std::string cases[][2] = {
        {"&#65;&#x42;&#233;&bogus;", "AB\xC3\xA9&bogus;"},
        {"&lt;&amp;&gt;&apos;&quot;", "<&>'\""},
        {"&amp &lt", "&amp &lt"},
        {"&#127;&#128;&#2047;&#2048;", "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80"},
        {"&#65601;", "\xE0\x81\x81"},   // 0x10041 keeps its low 16 bits
        {"&#1114111;", "\xEF\xBF\xBF"}, // seven digits still read
        {"&#12345678;", "&#12345678;"},
        {"&#-1;", "\xFF"},
        {"&#x;&#x1g;&#X41;", std::string("\0\x01\0", 3)}, // "&#;" is 0; "X" is not hex
        {"&#65 &#", "&#65 &#"},
        {" <![CDATA[a<b&amp;]]> tail", "a<b&amp;"},
        {"<![CDATA[]]>", ""},
        {"x<![CDATA[y]]>&lt;", "x<![CDATA[y]]><"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(DataOf(c[0]), c[1]) << c[0];
    MarkupProbe cut("<k>&lt;</k>");
    EXPECT_EQ(cut.TextFromDoc(3, 6), "<");
    EXPECT_EQ(cut.TextFromDoc(3, 5), "&lt"); // the entity must end within the range
    EXPECT_EQ(cut.TextFromDoc(5, 4), "");
}

TEST(MarkupRead, NoDataForParentsOrEmptyElements) {
    CMarkupSTL doc("<p>text<c>x</c><e/></p>");
    doc.FindElem();
    EXPECT_EQ(doc.GetData(), "");
    EXPECT_TRUE(doc.FindChildElem());
    EXPECT_EQ(doc.GetChildData(), "x");
    EXPECT_TRUE(doc.FindChildElem());
    EXPECT_EQ(doc.GetChildData(), "");
}

TEST(MarkupRead, TagNamesMatchByPrefixRule) {
    CMarkupSTL doc("<r><items/><ite/><a/><Item/><item x='1'/></r>");
    ASSERT_TRUE(doc.FindChildElem("item"));
    EXPECT_EQ(doc.GetChildAttrib("x"), "1");
    for (const char* name : {"a b", "a[2]", "a=1", "a/"}) {
        doc.ResetChildPos();
        EXPECT_TRUE(doc.FindChildElem(name));
        EXPECT_EQ(doc.GetChildTagName(), "a");
    }
    EXPECT_FALSE(doc.FindChildElem("a")); // searches after the current child
    doc.ResetChildPos();
    EXPECT_FALSE(doc.FindChildElem("it") || doc.FindChildElem("ITEM") || doc.FindChildElem("ab"));
    EXPECT_EQ(doc.GetChildTagName(), "");
}

TEST(MarkupRead, AttributesNeedQuotedValues) {
    CMarkupSTL doc("<e a=\"1\" b='&lt;2' c=3 v=1 path=\"/usr\"/>");
    doc.FindElem();
    const char* const cases[][2] = {{"a", "1"}, {"b", "<2"}, {"b x", "<2"}, {"bb", ""},
                                    {"c", ""},  {"v", ""},   {"path", ""}, // '/' ends the search
                                    {"", "a"}};
    for (const auto& c : cases)
        EXPECT_EQ(doc.GetAttrib(c[0]), c[1]) << c[0];
    EXPECT_EQ(doc.GetAttrib(nullptr), "");
    doc.SetDoc("<e a=\"1\" b='2' c=3 d=\"4\"/>");
    doc.FindElem();
    std::string names;
    for (int n = -1; n < 6; ++n)
        names += doc.GetAttribName(n) + ",";
    EXPECT_EQ(names, ",a,b,c,3,,,"); // an unquoted value reads as a name
    doc.ResetPos();
    EXPECT_EQ(doc.GetAttrib("a") + doc.GetAttribName(0), "");
}

TEST(MarkupRead, CursorMovesAndSavedPositions) {
    MarkupProbe doc("<r><a><x/></a><b/></r>");
    EXPECT_TRUE(doc.FindChildElem("a")); // finds the root first
    EXPECT_EQ(doc.GetTagName(), "r");
    EXPECT_TRUE(doc.IntoElem() && doc.SavePos("at a"));
    EXPECT_EQ(doc.GetTagName(), "a");
    EXPECT_TRUE(doc.FindElem() && doc.IntoElem());
    EXPECT_EQ(doc.NodeType(), 0);
    EXPECT_FALSE(doc.IntoElem() || doc.FindElem());
    EXPECT_TRUE(doc.OutOfElem() && doc.OutOfElem());
    EXPECT_EQ(doc.GetTagName() + doc.GetChildTagName(), "rb");
    EXPECT_FALSE(doc.OutOfElem());

    EXPECT_FALSE(doc.SavePos(nullptr) || doc.RestorePos(nullptr) || doc.RestorePos("unknown"));
    ASSERT_TRUE(doc.RestorePos("at a"));
    EXPECT_EQ(doc.GetTagName(), "a");
    EXPECT_TRUE(doc.RemoveElem());
    EXPECT_FALSE(doc.RestorePos("at a")); // the element is gone
    EXPECT_TRUE(doc.SavePos("root") && doc.OutOfElem());
    doc.SetDoc("<r/>");
    EXPECT_FALSE(doc.RestorePos("root")); // cleared by SetDoc
}

TEST(MarkupRead, SubDocTakesTheFollowingLineBreak) {
    CMarkupSTL doc("<r>\r\n<a k='v'>1</a>\r\n<b/> x\r\n</r>");
    EXPECT_TRUE(doc.FindChildElem());
    EXPECT_EQ(doc.GetChildSubDoc(), "<a k='v'>1</a>\r\n");
    EXPECT_TRUE(doc.FindChildElem());
    EXPECT_EQ(doc.GetChildSubDoc(), "<b/>");
    EXPECT_EQ(doc.GetSubDoc(), doc.GetDoc());
}
