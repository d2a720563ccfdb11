// Exact text written by the editing operations.
#include "MarkupProbe.h"

#include <gtest/gtest.h>

namespace {
const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";

// A document whose current element is the first one named `name`, depth first.
MarkupProbe At(const char* text, const char* name) {
    MarkupProbe doc(text);
    for (doc.FindElem(); doc.GetTagName() != name;)
        if (doc.FindChildElem())
            doc.IntoElem();
        else
            while (!doc.FindElem() && doc.OutOfElem()) {
            }
    return doc;
}
} // namespace

TEST(MarkupEdit, BuildsFromEmptyWithCrLfAfterEveryElement) {
    MarkupProbe doc;
    ASSERT_TRUE(doc.AddElem("root"));
    EXPECT_EQ(doc.GetDoc(), "<root/>\r\n");
    EXPECT_FALSE(doc.AddElem("second") || doc.InsertElem("second"));
    ASSERT_TRUE(doc.AddChildElem("a", "1") && doc.AddChildElem("b"));
    EXPECT_EQ(doc.GetDoc(), "<root>\r\n<a>1</a>\r\n<b/>\r\n</root>\r\n");
    EXPECT_EQ(doc.GetChildTagName(), "b");
    EXPECT_TRUE(doc.MatchesFreshParse());
    EXPECT_FALSE(doc.AddChildElem(nullptr) || doc.AddChildElem(""));
}

TEST(MarkupEdit, SettingsFileShapeAndUpdateInPlace) {
    MarkupProbe doc;
    EXPECT_FALSE(doc.SetDoc(kDeclaration.c_str()));
    ASSERT_TRUE(doc.AddElem("root") && doc.AddChildElem("Schedule") && doc.IntoElem());
    ASSERT_TRUE(doc.AddChildElem("Cycle", "7") && doc.AddChildElem("Note", "a<b&c"));
    ASSERT_TRUE(doc.OutOfElem() && doc.AddChildElem("Other") && doc.IntoElem());
    ASSERT_TRUE(doc.AddChildElem("k", "v") && doc.OutOfElem());
    const std::string written = kDeclaration + "<root>\r\n<Schedule>\r\n<Cycle>7</Cycle>\r\n"
                                               "<Note>a&lt;b&amp;c</Note>\r\n</Schedule>\r\n"
                                               "<Other>\r\n<k>v</k>\r\n</Other>\r\n</root>\r\n";
    EXPECT_EQ(doc.GetDoc(), written);
    EXPECT_TRUE(doc.MatchesFreshParse());

    MarkupProbe update(written.c_str());
    ASSERT_TRUE(update.FindElem("root") && update.FindChildElem("Schedule") && update.IntoElem());
    ASSERT_TRUE(update.FindChildElem("Cycle") && update.SetChildData("30"));
    ASSERT_TRUE(update.FindChildElem("Note") && update.SetChildData(""));
    ASSERT_TRUE(update.AddChildElem("New", "x"));
    EXPECT_EQ(update.GetDoc(), kDeclaration + "<root>\r\n<Schedule>\r\n<Cycle>30</Cycle>\r\n"
                                              "<Note></Note>\r\n<New>x</New>\r\n</Schedule>\r\n"
                                              "<Other>\r\n<k>v</k>\r\n</Other>\r\n</root>\r\n");
    EXPECT_TRUE(update.MatchesFreshParse());
}

TEST(MarkupEdit, ChildrenIntoEmptyBareAndTextParents) {
    const struct {
        const char *text, *data;
        bool insert;
        const char* result;
    } cases[] = {
        {"<p/>", nullptr, false, "<p>\r\n<c/>\r\n</p>"},
        {"<p x='1' />", "", true, "<p x='1' >\r\n<c/>\r\n</p>"},
        {"<p></p>", "1", true, "<p>\r\n<c>1</c>\r\n</p>"},
        {"<p>text</p>", nullptr, false, "<p>text<c/>\r\n</p>"},
        {"<p>text</p>", nullptr, true, "<p><c/>\r\ntext</p>"},
        {"<p>\r\n<a/>\r\n</p>", nullptr, true, "<p>\r\n<c/>\r\n<a/>\r\n</p>"},
        {"<r><p/><q/></r>", "&", false, "<r><p>\r\n<c>&amp;</c>\r\n</p><q/></r>"},
    };
    for (const auto& c : cases) {
        MarkupProbe doc = At(c.text, "p");
        ASSERT_TRUE(c.insert ? doc.InsertChildElem("c", c.data) : doc.AddChildElem("c", c.data));
        EXPECT_EQ(doc.GetDoc(), c.result);
        EXPECT_EQ(doc.GetChildTagName(), "c");
        EXPECT_TRUE(doc.MatchesFreshParse());
    }
}

TEST(MarkupEdit, SiblingsGoAfterOrBeforeTheCurrentElement) {
    MarkupProbe doc = At("<r>\r\n<a/>\r\n<c/>\r\n</r>", "a");
    ASSERT_TRUE(doc.AddElem("b") && doc.InsertElem("a2"));
    doc.ResetMainPos();
    ASSERT_TRUE(doc.InsertElem("first"));
    doc.ResetMainPos();
    ASSERT_TRUE(doc.AddElem("last"));
    EXPECT_EQ(doc.GetDoc(), "<r>\r\n<first/>\r\n<a/>\r\n<a2/>\r\n<b/>\r\n<c/>\r\n<last/>\r\n</r>");
    EXPECT_TRUE(doc.MatchesFreshParse());
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
    EXPECT_TRUE(doc.MatchesFreshParse());
    doc.ResetPos();
    EXPECT_FALSE(doc.SetData("x") || doc.SetChildData("x"));
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
    EXPECT_TRUE(doc.MatchesFreshParse());
    EXPECT_FALSE(doc.SetChildAttrib("", "v") || doc.SetChildAttrib(nullptr, "v"));

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

    MarkupProbe doc = At("<r>\r\n<a/>\r\n<b>x</b> tail\r\n<c/>\r\n</r>", "b");
    ASSERT_TRUE(doc.RemoveElem());
    EXPECT_EQ(doc.GetDoc(), "<r>\r\n<a/>\r\n tail\r\n<c/>\r\n</r>");
    EXPECT_EQ(doc.GetTagName(), "a");
    ASSERT_TRUE(doc.RemoveElem());
    EXPECT_EQ(doc.Main() + doc.NodeType(), 0);
    EXPECT_FALSE(doc.RemoveElem());
    EXPECT_EQ(doc.GetDoc(), "<r>\r\n\r\n tail\r\n<c/>\r\n</r>");
    EXPECT_TRUE(doc.MatchesFreshParse());

    MarkupProbe root("<?xml?>\r\n<r/>\r\n");
    ASSERT_TRUE(root.FindElem() && root.RemoveElem());
    EXPECT_EQ(root.GetDoc(), "<?xml?>\r\n");
    EXPECT_FALSE(root.IsWellFormed());
    ASSERT_TRUE(root.AddElem("n"));
    EXPECT_EQ(root.GetDoc(), "<?xml?>\r\n<n/>\r\n");
    EXPECT_TRUE(root.MatchesFreshParse());
}

TEST(MarkupEdit, SubDocsInsertRawAndFailCleanly) {
    MarkupProbe doc = At("<r><p/></r>", "p");
    ASSERT_TRUE(doc.AddChildSubDoc("<!-- lead -->\r\n<x a='1'><y/></x>\r\n"));
    EXPECT_EQ(doc.GetChildSubDoc(), "<x a='1'><y/></x>\r\n");
    ASSERT_TRUE(doc.AddSubDoc("<q/>") && doc.InsertSubDoc("<z>1</z>"));
    ASSERT_TRUE(doc.FindElem("q") && doc.InsertChildSubDoc("<w/>"));
    const std::string built = "<r><p>\r\n<x a='1'><y/></x>\r\n</p><z>1</z><q>\r\n<w/></q></r>";
    EXPECT_EQ(doc.GetDoc(), built);
    EXPECT_TRUE(doc.MatchesFreshParse());

    EXPECT_FALSE(doc.AddChildSubDoc("<bad>"));
    EXPECT_EQ(doc.GetError(), "End tag does not correspond to bad");
    EXPECT_FALSE(doc.AddChildSubDoc("just text") || doc.AddChildSubDoc(""));
    EXPECT_FALSE(doc.AddChildSubDoc("<!-- never closed"));
    EXPECT_EQ(doc.GetError(), "Invalid node");
    EXPECT_EQ(doc.GetDoc(), built);
    EXPECT_TRUE(doc.MatchesFreshParse());

    MarkupProbe swallow = At("<r><p><y/></p></r>", "p");
    EXPECT_FALSE(swallow.InsertChildSubDoc("<p>")); // would close with the parent's end tag
    EXPECT_EQ(swallow.GetDoc(), "<r><p><y/></p></r>");
    MarkupProbe empty = At("<r><p/></r>", "p");
    EXPECT_FALSE(empty.AddChildSubDoc("<bad>"));
    EXPECT_EQ(empty.GetDoc(), "<r><p/></r>");
    EXPECT_TRUE(empty.MatchesFreshParse());
    empty.ResetPos();
    EXPECT_FALSE(empty.FindElem() && empty.AddSubDoc("<top/>")); // not at document level
}

TEST(MarkupEdit, AssignmentKeepsTargetErrorAndSavedNames) {
    CMarkupSTL target;
    target.SetDoc("<x>");
    target.SetDoc("<t/>");
    target.FindElem();
    target.SavePos("mine");
    CMarkupSTL source("<s><c/></s>");
    source.SavePos("theirs");
    source.FindChildElem();
    target = source;
    EXPECT_EQ(target.GetDoc(), "<s><c/></s>");
    EXPECT_EQ(target.GetChildTagName(), "c");
    EXPECT_EQ(target.GetError(), "End tag of x element not found");
    EXPECT_FALSE(target.RestorePos("theirs"));
    ASSERT_TRUE(target.RestorePos("mine"));
    EXPECT_EQ(target.GetTagName(), "s");
    EXPECT_EQ(CMarkupSTL(target).GetError(), "");
}

TEST(MarkupEdit, EscapingForContentAndAttributes) {
    EXPECT_EQ(CMarkupSTL::x_TextToDoc("a<b&c>'\"\xC3\xA9"), "a&lt;b&amp;c&gt;'\"\xC3\xA9");
    EXPECT_EQ(CMarkupSTL::x_TextToDoc("<&>'\"", true), "&lt;&amp;&gt;&apos;&quot;");
    EXPECT_EQ(CMarkupSTL::x_TextToDoc(nullptr), "");
}
