// Exact text written by the editing operations.
#include "MarkupProbe.h"

#include <gtest/gtest.h>

#include <string>

namespace {
const char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";

// The edited index must be what a fresh parse of the edited text gives.
void ExpectIndexMatchesText(const MarkupProbe& doc) {
    MarkupProbe fresh(doc.GetDoc().c_str());
    EXPECT_EQ(fresh.Tree(), doc.Tree()) << doc.GetDoc();
}

// A document positioned with mainPos on the first element named `name`, searched depth-first.
MarkupProbe At(const char* text, const char* name) {
    MarkupProbe doc(text);
    doc.FindElem();
    while (doc.GetTagName() != name) {
        if (doc.FindChildElem()) {
            doc.IntoElem();
        } else {
            while (!doc.FindElem() && doc.OutOfElem()) {
            }
        }
    }
    return doc;
}
} // namespace

TEST(MarkupEdit, BuildsFromEmptyWithCrLfAfterEveryElement) {
    MarkupProbe doc;
    ASSERT_TRUE(doc.AddElem("root"));
    EXPECT_EQ(doc.GetDoc(), "<root/>\r\n");
    EXPECT_FALSE(doc.AddElem("second"));
    EXPECT_FALSE(doc.InsertElem("second"));
    ASSERT_TRUE(doc.AddChildElem("a", "1"));
    ASSERT_TRUE(doc.AddChildElem("b"));
    EXPECT_EQ(doc.GetDoc(), "<root>\r\n<a>1</a>\r\n<b/>\r\n</root>\r\n");
    EXPECT_EQ(doc.GetChildTagName(), "b");
    ExpectIndexMatchesText(doc);
    EXPECT_FALSE(doc.AddChildElem(nullptr));
    EXPECT_FALSE(doc.AddChildElem(""));
}

TEST(MarkupEdit, SettingsFileShapeAndUpdateInPlace) {
    MarkupProbe doc;
    EXPECT_FALSE(doc.SetDoc(kDeclaration));
    ASSERT_TRUE(doc.AddElem("root"));
    ASSERT_TRUE(doc.AddChildElem("Schedule"));
    ASSERT_TRUE(doc.IntoElem());
    ASSERT_TRUE(doc.AddChildElem("Cycle", "7"));
    ASSERT_TRUE(doc.AddChildElem("Note", "a<b&c"));
    ASSERT_TRUE(doc.OutOfElem());
    ASSERT_TRUE(doc.AddChildElem("Other"));
    ASSERT_TRUE(doc.IntoElem());
    ASSERT_TRUE(doc.AddChildElem("k", "v"));
    ASSERT_TRUE(doc.OutOfElem());
    const std::string written = std::string(kDeclaration) +
                                "<root>\r\n<Schedule>\r\n<Cycle>7</Cycle>\r\n"
                                "<Note>a&lt;b&amp;c</Note>\r\n</Schedule>\r\n"
                                "<Other>\r\n<k>v</k>\r\n</Other>\r\n</root>\r\n";
    EXPECT_EQ(doc.GetDoc(), written);
    ExpectIndexMatchesText(doc);

    MarkupProbe update(written.c_str());
    ASSERT_TRUE(update.FindElem("root"));
    ASSERT_TRUE(update.FindChildElem("Schedule"));
    ASSERT_TRUE(update.IntoElem());
    ASSERT_TRUE(update.FindChildElem("Cycle"));
    ASSERT_TRUE(update.SetChildData("30"));
    ASSERT_TRUE(update.FindChildElem("Note"));
    ASSERT_TRUE(update.SetChildData(""));
    ASSERT_TRUE(update.AddChildElem("New", "x"));
    EXPECT_EQ(update.GetDoc(), std::string(kDeclaration) +
                                   "<root>\r\n<Schedule>\r\n<Cycle>30</Cycle>\r\n"
                                   "<Note></Note>\r\n<New>x</New>\r\n</Schedule>\r\n"
                                   "<Other>\r\n<k>v</k>\r\n</Other>\r\n</root>\r\n");
    ExpectIndexMatchesText(update);
}

TEST(MarkupEdit, ChildrenIntoEmptyBareAndTextParents) {
    const struct {
        const char* text;
        bool insert;
        const char* data;
        const char* result;
    } cases[] = {
        {"<p/>", false, nullptr, "<p>\r\n<c/>\r\n</p>"},
        {"<p x='1' />", true, "", "<p x='1' >\r\n<c/>\r\n</p>"},
        {"<p></p>", true, "1", "<p>\r\n<c>1</c>\r\n</p>"},
        {"<p></p>", false, nullptr, "<p>\r\n<c/>\r\n</p>"},
        {"<p>text</p>", false, nullptr, "<p>text<c/>\r\n</p>"},
        {"<p>text</p>", true, nullptr, "<p><c/>\r\ntext</p>"},
        {"<p>\r\n<a/>\r\n</p>", true, nullptr, "<p>\r\n<c/>\r\n<a/>\r\n</p>"},
        {"<r><p/><q/></r>", false, "&", "<r><p>\r\n<c>&amp;</c>\r\n</p><q/></r>"},
    };
    for (const auto& c : cases) {
        MarkupProbe doc = At(c.text, "p");
        ASSERT_TRUE(c.insert ? doc.InsertChildElem("c", c.data) : doc.AddChildElem("c", c.data));
        EXPECT_EQ(doc.GetDoc(), c.result);
        EXPECT_EQ(doc.GetChildTagName(), "c");
        ExpectIndexMatchesText(doc);
    }
}

TEST(MarkupEdit, SiblingsGoAfterOrBeforeTheCurrentElement) {
    MarkupProbe doc = At("<r>\r\n<a/>\r\n<c/>\r\n</r>", "a");
    ASSERT_TRUE(doc.AddElem("b"));
    ASSERT_TRUE(doc.InsertElem("a2"));
    doc.ResetMainPos();
    ASSERT_TRUE(doc.InsertElem("first"));
    doc.ResetMainPos();
    ASSERT_TRUE(doc.AddElem("last"));
    EXPECT_EQ(doc.GetDoc(), "<r>\r\n<first/>\r\n<a/>\r\n<a2/>\r\n<b/>\r\n<c/>\r\n<last/>\r\n</r>");
    ExpectIndexMatchesText(doc);
    doc.ResetMainPos();
    std::string order;
    while (doc.FindElem())
        order += doc.GetTagName() + " ";
    EXPECT_EQ(order, "first a a2 b c last ");
}

TEST(MarkupEdit, SetDataEscapesOrWritesCdata) {
    MarkupProbe doc("<r><a/><b>old</b><c x='1'/></r>");
    doc.FindElem();
    EXPECT_FALSE(doc.SetData("parent"));
    ASSERT_TRUE(doc.FindChildElem("a") && doc.SetChildData("x<y"));
    ASSERT_TRUE(doc.FindChildElem("b") && doc.SetChildData(""));
    EXPECT_EQ(doc.GetDoc(), "<r><a>x&lt;y</a><b></b><c x='1'/></r>");
    ASSERT_TRUE(doc.SetChildData("]]>", 1));
    ASSERT_TRUE(doc.FindChildElem("c") && doc.SetChildData("a<b", 1));
    EXPECT_EQ(doc.GetDoc(), "<r><a>x&lt;y</a><b>]]&gt;</b><c x='1'><![CDATA[a<b]]></c></r>");
    EXPECT_EQ(doc.GetChildData(), "a<b");
    ExpectIndexMatchesText(doc);
    doc.ResetPos();
    EXPECT_FALSE(doc.SetData("x"));
    EXPECT_FALSE(doc.SetChildData("x"));
}

TEST(MarkupEdit, SetAttribAddsOrReplacesEscapedValues) {
    MarkupProbe doc("<r><a/><b /><c>t</c><d k=\"old\" j='x'/></r>");
    doc.FindElem();
    ASSERT_TRUE(doc.FindChildElem("a") && doc.SetChildAttrib("n", "1"));
    ASSERT_TRUE(doc.FindChildElem("b") && doc.SetChildAttrib("n", 1));
    ASSERT_TRUE(doc.FindChildElem("c") && doc.SetChildAttrib("v", "x\"y'z"));
    ASSERT_TRUE(doc.FindChildElem("d") && doc.SetChildAttrib("j", "<&>"));
    ASSERT_TRUE(doc.SetChildAttrib("k", -5));
    EXPECT_EQ(doc.GetDoc(), "<r><a n=\"1\"/><b  n=\"1\"/><c v=\"x&quot;y&apos;z\">t</c>"
                            "<d k=\"-5\" j='&lt;&amp;&gt;'/></r>");
    EXPECT_EQ(doc.GetChildAttrib("j"), "<&>");
    ExpectIndexMatchesText(doc);
    EXPECT_FALSE(doc.SetChildAttrib("", "v"));
    EXPECT_FALSE(doc.SetChildAttrib(nullptr, "v"));

    MarkupProbe unquoted("<e v=1/>");
    unquoted.FindElem();
    ASSERT_TRUE(unquoted.SetAttrib("v", "2"));
    EXPECT_EQ(unquoted.GetDoc(), "<e v=1 v=\"2\"/>");
    unquoted.ResetPos();
    EXPECT_FALSE(unquoted.SetAttrib("v", "3"));
}

TEST(MarkupEdit, RemoveTakesFollowingWhitespaceOnlyBeforeATag) {
    MarkupProbe only = At("<p>\r\n<c/>\r\n</p>", "p");
    ASSERT_TRUE(only.FindChildElem() && only.RemoveChildElem());
    EXPECT_EQ(only.GetDoc(), "<p>\r\n</p>");
    EXPECT_EQ(only.Child(), 0);
    EXPECT_FALSE(only.RemoveChildElem());
    ExpectIndexMatchesText(only);

    MarkupProbe doc = At("<r>\r\n<a/>\r\n<b>x</b> tail\r\n<c/>\r\n</r>", "b");
    ASSERT_TRUE(doc.RemoveElem());
    EXPECT_EQ(doc.GetDoc(), "<r>\r\n<a/>\r\n tail\r\n<c/>\r\n</r>");
    EXPECT_EQ(doc.GetTagName(), "a");
    ASSERT_TRUE(doc.RemoveElem());
    EXPECT_EQ(doc.Main(), 0);
    EXPECT_EQ(doc.NodeType(), 0);
    EXPECT_FALSE(doc.RemoveElem());
    EXPECT_EQ(doc.GetDoc(), "<r>\r\n\r\n tail\r\n<c/>\r\n</r>");
    ExpectIndexMatchesText(doc);

    MarkupProbe root("<?xml?>\r\n<r/>\r\n");
    root.FindElem();
    ASSERT_TRUE(root.RemoveElem());
    EXPECT_EQ(root.GetDoc(), "<?xml?>\r\n");
    EXPECT_FALSE(root.IsWellFormed());
    ASSERT_TRUE(root.AddElem("n"));
    EXPECT_EQ(root.GetDoc(), "<?xml?>\r\n<n/>\r\n");
    ExpectIndexMatchesText(root);
}

TEST(MarkupEdit, SubDocsInsertRawAndFailCleanly) {
    MarkupProbe doc = At("<r><p/></r>", "p");
    ASSERT_TRUE(doc.AddChildSubDoc("<!-- lead -->\r\n<x a='1'><y/></x>\r\n"));
    EXPECT_EQ(doc.GetDoc(), "<r><p>\r\n<x a='1'><y/></x>\r\n</p></r>");
    EXPECT_EQ(doc.GetChildSubDoc(), "<x a='1'><y/></x>\r\n");
    ExpectIndexMatchesText(doc);
    ASSERT_TRUE(doc.AddSubDoc("<q/>"));
    ASSERT_TRUE(doc.InsertSubDoc("<z>1</z>"));
    ASSERT_TRUE(doc.FindElem("q") && doc.InsertChildSubDoc("<w/>"));
    EXPECT_EQ(doc.GetDoc(), "<r><p>\r\n<x a='1'><y/></x>\r\n</p><z>1</z><q>\r\n<w/></q></r>");
    ExpectIndexMatchesText(doc);

    const std::string before = doc.GetDoc();
    EXPECT_FALSE(doc.AddChildSubDoc("<bad>"));
    EXPECT_EQ(doc.GetError(), "End tag does not correspond to bad");
    EXPECT_FALSE(doc.AddChildSubDoc("just text"));
    EXPECT_FALSE(doc.AddChildSubDoc(""));
    EXPECT_FALSE(doc.AddChildSubDoc("<!-- never closed"));
    EXPECT_EQ(doc.GetError(), "Invalid node");
    EXPECT_EQ(doc.GetDoc(), before);
    ExpectIndexMatchesText(doc);

    MarkupProbe swallow = At("<r><p><y/></p></r>", "p");
    EXPECT_FALSE(swallow.InsertChildSubDoc("<p>")); // would close with the parent's end tag
    EXPECT_EQ(swallow.GetDoc(), "<r><p><y/></p></r>");
    MarkupProbe empty = At("<r><p/></r>", "p");
    EXPECT_FALSE(empty.AddChildSubDoc("<bad>"));
    EXPECT_EQ(empty.GetDoc(), "<r><p/></r>");
    ExpectIndexMatchesText(empty);
    empty.ResetPos();
    empty.FindElem();
    EXPECT_FALSE(empty.AddSubDoc("<top/>")); // not at document level
}

TEST(MarkupEdit, AssignmentKeepsTargetErrorAndSavedNames) {
    CMarkupSTL target;
    target.SetDoc("<x>");
    target.SetDoc("<t/>");
    target.FindElem();
    target.SavePos("mine");
    CMarkupSTL source("<s><c/></s>");
    source.FindElem();
    source.SavePos("theirs");
    source.FindChildElem();
    target = source;
    EXPECT_EQ(target.GetDoc(), "<s><c/></s>");
    EXPECT_EQ(target.GetChildTagName(), "c");
    EXPECT_EQ(target.GetError(), "End tag of x element not found");
    EXPECT_FALSE(target.RestorePos("theirs"));
    ASSERT_TRUE(target.RestorePos("mine"));
    EXPECT_EQ(target.GetTagName(), "s");
    CMarkupSTL copy(target);
    EXPECT_EQ(copy.GetDoc(), target.GetDoc());
    EXPECT_EQ(copy.GetError(), "");
}

TEST(MarkupEdit, EscapingForContentAndAttributes) {
    EXPECT_EQ(CMarkupSTL::x_TextToDoc("a<b&c>'\""), "a&lt;b&amp;c&gt;'\"");
    EXPECT_EQ(CMarkupSTL::x_TextToDoc("a<b&c>'\"", true), "a&lt;b&amp;c&gt;&apos;&quot;");
    EXPECT_EQ(CMarkupSTL::x_TextToDoc(nullptr), "");
    EXPECT_EQ(CMarkupSTL::x_TextToDoc("\xC3\xA9"), "\xC3\xA9");
}
