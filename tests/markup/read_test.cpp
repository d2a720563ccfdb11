// Navigation, name matching, attributes, data and unescaping.
#include "MarkupProbe.h"

#include <gtest/gtest.h>

#include <string>

namespace {
std::string DataOf(const std::string& content) {
    CMarkupSTL doc(("<k>" + content + "</k>").c_str());
    EXPECT_TRUE(doc.FindElem());
    return doc.GetData();
}
} // namespace

TEST(MarkupRead, UnescapesEntitiesAndCharacterReferences) {
    EXPECT_EQ(DataOf("&#65;&#x42;&#233;&bogus;"), "AB\xC3\xA9&bogus;");
    EXPECT_EQ(DataOf("&lt;&amp;&gt;&apos;&quot;"), "<&>'\"");
    EXPECT_EQ(DataOf("&amp &lt"), "&amp &lt");
    EXPECT_EQ(DataOf("&#127;&#128;&#2047;&#2048;"), "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80");
    EXPECT_EQ(DataOf("&#65601;"), "\xE0\x81\x81");   // 0x10041 keeps its low 16 bits
    EXPECT_EQ(DataOf("&#1114111;"), "\xEF\xBF\xBF"); // seven digits still read
    EXPECT_EQ(DataOf("&#12345678;"), "&#12345678;");
    EXPECT_EQ(DataOf("&#-1;"), "\xFF");
    EXPECT_EQ(DataOf("&#;"), std::string(1, '\0'));
    EXPECT_EQ(DataOf("&#x;&#x1g;&#X41;"), std::string("\0\x01\0", 3)); // upper-case X is decimal
    EXPECT_EQ(DataOf("&#65 &#"), "&#65 &#");
    EXPECT_EQ(DataOf("a&#"), "a&#");

    MarkupProbe cut("<k>&lt;</k>");
    EXPECT_EQ(cut.TextFromDoc(3, 6), "<");
    EXPECT_EQ(cut.TextFromDoc(3, 5), "&lt"); // the entity must end within the range
    EXPECT_EQ(cut.TextFromDoc(5, 4), "");
}

TEST(MarkupRead, DataOfCdataEmptyAndParentElements) {
    EXPECT_EQ(DataOf(" <![CDATA[a<b&amp;]]> tail"), "a<b&amp;");
    EXPECT_EQ(DataOf("<![CDATA[]]>"), "");
    EXPECT_EQ(DataOf("x<![CDATA[y]]>&lt;"), "x<![CDATA[y]]><");
    EXPECT_EQ(DataOf(""), "");
    CMarkupSTL doc("<p>text<c>x</c></p>");
    doc.FindElem();
    EXPECT_EQ(doc.GetData(), "");
    doc.FindChildElem();
    EXPECT_EQ(doc.GetChildData(), "x");
    doc.SetDoc("<e/>");
    doc.FindElem();
    EXPECT_EQ(doc.GetData(), "");
}

TEST(MarkupRead, TagNamesMatchByPrefixRule) {
    CMarkupSTL doc("<r><items/><ite/><a/><Item/><item x='1'/></r>");
    ASSERT_TRUE(doc.FindElem("r"));
    EXPECT_TRUE(doc.FindChildElem("item"));
    EXPECT_EQ(doc.GetChildAttrib("x"), "1");
    doc.ResetChildPos();
    EXPECT_TRUE(doc.FindChildElem("a b"));
    EXPECT_EQ(doc.GetChildTagName(), "a");
    doc.ResetChildPos();
    EXPECT_TRUE(doc.FindChildElem("a[2]"));
    EXPECT_FALSE(doc.FindChildElem("a")); // searches after the current child
    doc.ResetChildPos();
    EXPECT_FALSE(doc.FindChildElem("it"));
    EXPECT_FALSE(doc.FindChildElem("ITEM"));
    EXPECT_EQ(doc.GetChildTagName(), "");
}

TEST(MarkupRead, AttributesNeedQuotedValues) {
    CMarkupSTL doc("<e a=\"1\" b='&lt;2' c=3 v=1 path=\"/usr\"/>");
    ASSERT_TRUE(doc.FindElem());
    EXPECT_EQ(doc.GetAttrib("a"), "1");
    EXPECT_EQ(doc.GetAttrib("b"), "<2");
    EXPECT_EQ(doc.GetAttrib("b x"), "<2");
    EXPECT_EQ(doc.GetAttrib("bb"), "");
    EXPECT_EQ(doc.GetAttrib("c"), "");
    EXPECT_EQ(doc.GetAttrib("v"), "");
    EXPECT_EQ(doc.GetAttrib("path"), ""); // a value starting with '/' ends the search
    EXPECT_EQ(doc.GetAttrib(nullptr), "");
    EXPECT_EQ(doc.GetAttrib(""), "a"); // an empty name stops at the first attribute name
    doc.SetDoc("<e a=\"1\" b='2' c=3 d=\"4\"/>");
    doc.FindElem();
    EXPECT_EQ(doc.GetAttribName(0), "a");
    EXPECT_EQ(doc.GetAttribName(1), "b");
    EXPECT_EQ(doc.GetAttribName(2), "c");
    EXPECT_EQ(doc.GetAttribName(3), "3"); // an unquoted value reads as a name
    EXPECT_EQ(doc.GetAttribName(4), "");
    EXPECT_EQ(doc.GetAttribName(-1), "");
    doc.ResetPos();
    EXPECT_EQ(doc.GetAttrib("a"), "");
    EXPECT_EQ(doc.GetAttribName(0), "");
}

TEST(MarkupRead, CursorMovesAndSavedPositions) {
    MarkupProbe doc("<r><a><x/></a><b/></r>");
    EXPECT_TRUE(doc.FindChildElem("a")); // finds the root first
    EXPECT_EQ(doc.GetTagName(), "r");
    EXPECT_TRUE(doc.IntoElem());
    EXPECT_EQ(doc.GetTagName(), "a");
    EXPECT_TRUE(doc.SavePos("at a"));
    EXPECT_TRUE(doc.FindElem());
    EXPECT_EQ(doc.GetTagName(), "b");
    EXPECT_TRUE(doc.IntoElem());
    EXPECT_EQ(doc.NodeType(), 0);
    EXPECT_FALSE(doc.IntoElem());
    EXPECT_FALSE(doc.FindElem());
    EXPECT_TRUE(doc.OutOfElem());
    EXPECT_EQ(doc.GetTagName(), "b");
    EXPECT_TRUE(doc.OutOfElem());
    EXPECT_EQ(doc.GetTagName(), "r");
    EXPECT_EQ(doc.GetChildTagName(), "b");
    EXPECT_FALSE(doc.OutOfElem());

    EXPECT_FALSE(doc.SavePos(nullptr));
    EXPECT_FALSE(doc.RestorePos(nullptr));
    EXPECT_FALSE(doc.RestorePos("unknown"));
    ASSERT_TRUE(doc.RestorePos("at a"));
    EXPECT_EQ(doc.GetTagName(), "a");
    EXPECT_TRUE(doc.FindChildElem("x"));
    EXPECT_TRUE(doc.RemoveElem());
    EXPECT_FALSE(doc.RestorePos("at a")); // the element is gone
    doc.SetDoc("<r/>");
    EXPECT_FALSE(doc.RestorePos("at a")); // cleared by SetDoc
}

TEST(MarkupRead, SubDocTakesTheFollowingLineBreak) {
    CMarkupSTL doc("<r>\r\n<a k='v'>1</a>\r\n<b/> x\r\n</r>");
    doc.FindElem();
    doc.FindChildElem();
    EXPECT_EQ(doc.GetChildSubDoc(), "<a k='v'>1</a>\r\n");
    doc.FindChildElem();
    EXPECT_EQ(doc.GetChildSubDoc(), "<b/>");
    EXPECT_EQ(doc.GetSubDoc(), doc.GetDoc());
}
