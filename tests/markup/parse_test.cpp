// Parsing, parse errors, the element index, Load and Save.
#include "MarkupProbe.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

using Node = MarkupProbe::Node;

TEST(MarkupParse, EveryErrorMessageKeepsTheTextAndNoElement) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"just text", "Element tag not found"},
        {"<?xml version=\"1.0\"?>\r\n", "Element tag not found"},
        {"<  \r\n", "Abrupt end within tag"},
        {"<'a'>", "Tag starts with quote"},
        {"<!-- open", "Invalid node"},
        {"<?pi", "Invalid node"},
        {"< ?pi?><a/>", "Invalid node"},
        {"<!DOCTYPE x [ <!ENTITY e 'v'> ", "Invalid node"},
        {"<a", "End of tag not found"},
        {"<a>", "End tag of a element not found"},
        {"<a><bb>text", "End tag of bb element not found"},
        {"<a><!-- c -->", "Expecting end tag of element a"},
        {"<a><b></a>", "End tag does not correspond to b"},
        {"<a></ab>", "End tag does not correspond to a"},
        {"<a></a", "End tag not completed for element a"},
        {"<a></", "End tag not completed for element a"},
        {"<a></>", "End tag does not correspond to a"},
    };
    for (const auto& c : cases) {
        MarkupProbe doc;
        EXPECT_FALSE(doc.SetDoc(c.text)) << c.text;
        EXPECT_EQ(doc.GetError(), c.message) << c.text;
        EXPECT_EQ(doc.GetDoc(), c.text);
        EXPECT_FALSE(doc.IsWellFormed());
        EXPECT_EQ(doc.NextFree(), 1);
        EXPECT_FALSE(doc.FindElem());
    }
}

TEST(MarkupParse, ErrorSurvivesLaterSuccessAndHoldsLongNames) {
    CMarkupSTL doc;
    EXPECT_FALSE(doc.SetDoc(nullptr));
    EXPECT_FALSE(doc.SetDoc(""));
    EXPECT_EQ(doc.GetError(), "");
    const std::string name(5000, 'n');
    EXPECT_FALSE(doc.SetDoc(("<" + name + ">").c_str()));
    EXPECT_EQ(doc.GetError(), "End tag of " + name + " element not found");
    EXPECT_TRUE(doc.SetDoc("<a/>"));
    EXPECT_EQ(doc.GetError(), "End tag of " + name + " element not found");
}

TEST(MarkupParse, IndexRecordsTagOffsetsAndLinks) {
    MarkupProbe doc("<r><a x='1'>t</a><b/><c><d/></c></r>");
    ASSERT_TRUE(doc.IsWellFormed());
    const std::vector<Node> expected = {
        {0, 2, 32, 35, -1, 1, -1},  {3, 11, 13, 16, 0, -1, 2},   {17, 20, 19, 20, 0, -1, 3},
        {21, 23, 28, 31, 0, 4, -1}, {24, 27, 26, 27, 3, -1, -1},
    };
    EXPECT_EQ(doc.Tree(), expected);
    EXPECT_EQ(doc.NextFree(), 6); // slots taken for end tags were given back

    MarkupProbe prolog("<?xml version=\"1.0\"?>\r\n<!-- c -->\r\n<root/>");
    EXPECT_EQ(prolog.Tree(), (std::vector<Node>{{35, 41, 40, 41, -1, -1, -1}}));
}

TEST(MarkupParse, SkipsNodesAndAcceptsLooseEndTags) {
    CMarkupSTL doc("<!DOCTYPE r [ <!ENTITY e \"x>\"> ]>\n<r><?pi a?><![CDATA[<no/>]]>"
                   "<!-- <no/> --><a[1]>x</a><b></b q>tail</r   ><after/>");
    ASSERT_TRUE(doc.FindElem("r"));
    EXPECT_TRUE(doc.FindChildElem());
    EXPECT_EQ(doc.GetChildTagName(), "a[1]");
    EXPECT_TRUE(doc.FindChildElem());
    EXPECT_EQ(doc.GetChildTagName(), "b");
    EXPECT_FALSE(doc.FindChildElem());
    EXPECT_FALSE(doc.FindElem()); // only the first root is indexed
}

TEST(MarkupParse, IndexIsSizedFromTheTextAndGrowsByHalf) {
    MarkupProbe blank(std::string(640, ' ').c_str());
    EXPECT_EQ(blank.IndexSize(), 18u);

    std::string text = "<r>";
    for (int i = 0; i < 28; ++i)
        text += "<e/>";
    text += "</r>";
    text.resize(640, ' ');
    MarkupProbe doc(text.c_str());
    EXPECT_TRUE(doc.IsWellFormed());
    EXPECT_EQ(doc.NextFree(), 30);
    EXPECT_EQ(doc.IndexSize(), 40u); // 18 -> 27 -> 40
    doc.SetDoc("<a/>");
    EXPECT_EQ(doc.IndexSize(), 40u);
}

TEST(MarkupParse, MillionLevelsParseWithoutRecursion) {
    const int depth = 1000000;
    std::string text;
    text.reserve(7 * depth + 2);
    for (int i = 0; i < depth; ++i)
        text += "<a>";
    MarkupProbe doc;
    EXPECT_FALSE(doc.SetDoc(text.c_str()));
    EXPECT_EQ(doc.GetError(), "End tag of a element not found");

    for (int i = 0; i < depth; ++i)
        text += "</a>";
    ASSERT_TRUE(doc.SetDoc(text.c_str()));
    EXPECT_EQ(doc.NextFree(), depth + 1);
    EXPECT_TRUE(doc.FindElem());
    while (doc.FindChildElem())
        doc.IntoElem();
    EXPECT_EQ(doc.Elem(doc.Main()).startTagLeft, 3 * (depth - 1));
    // Every ancestor's end tag moves.
    ASSERT_TRUE(doc.AddChildElem("b"));
    MarkupProbe fresh(doc.GetDoc().c_str());
    EXPECT_EQ(fresh.Tree(), doc.Tree());
}

class MarkupFiles : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/markup_test_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }
    std::string Read(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream all;
        all << in.rdbuf();
        return all.str();
    }
    void Write(const std::string& path, const std::string& bytes) {
        std::ofstream(path, std::ios::binary) << bytes;
    }
    std::string dir;
};

TEST_F(MarkupFiles, LoadSaveRoundTripExactBytes) {
    const std::string path = dir + "/a.xml";
    const std::string text = "\xEF\xBB\xBF<?xml?>\r\n<root>\r\n<k>v</k>\r\n</root>\r\n";
    Write(path, text);
    CMarkupSTL doc;
    ASSERT_TRUE(doc.Load(path.c_str()));
    EXPECT_TRUE(doc.FindElem("root"));
    EXPECT_TRUE(doc.AddChildElem("n", "1"));
    const std::string copy = dir + "/b.xml";
    ASSERT_TRUE(doc.Save(copy.c_str()));
    EXPECT_EQ(Read(copy), "\xEF\xBB\xBF<?xml?>\r\n<root>\r\n<k>v</k>\r\n<n>1</n>\r\n</root>\r\n");
}

TEST_F(MarkupFiles, LoadFailuresAndNulEndTheText) {
    CMarkupSTL doc("<old/>");
    EXPECT_FALSE(doc.Load((dir + "/missing").c_str()));
    EXPECT_EQ(doc.GetDoc(), "");
    Write(dir + "/empty", "");
    EXPECT_FALSE(doc.Load((dir + "/empty").c_str()));
    EXPECT_FALSE(doc.Load(dir.c_str()));
    EXPECT_FALSE(doc.IsWellFormed());
    Write(dir + "/nul", std::string("<a/>\0<b>", 8));
    EXPECT_TRUE(doc.Load((dir + "/nul").c_str()));
    EXPECT_EQ(doc.GetDoc(), "<a/>");
    Write(dir + "/bad", "<a>");
    EXPECT_FALSE(doc.Load((dir + "/bad").c_str()));
    EXPECT_EQ(doc.GetDoc(), "<a>");
}

TEST_F(MarkupFiles, SaveWritesTextOnlyAndReportsFailure) {
    CMarkupSTL empty;
    const std::string path = dir + "/e.xml";
    Write(path, "previous");
    EXPECT_TRUE(empty.Save(path.c_str()));
    EXPECT_EQ(Read(path), "");
    CMarkupSTL broken("<a>");
    EXPECT_TRUE(broken.Save(path.c_str()));
    EXPECT_EQ(Read(path), "<a>");
    EXPECT_FALSE(broken.Save((dir + "/no/such/dir.xml").c_str()));
}
