// Parsing, parse errors, the element index, Load and Save.
#include "MarkupProbe.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

using Nodes = std::vector<MarkupProbe::Node>;

TEST(MarkupParse, EveryErrorMessageKeepsTheTextAndNoElement) {
    const char* const cases[][2] = {
        {"just text", "Element tag not found"},
        {"<?xml version=\"1.0\"?>\r\n", "Element tag not found"},
        {"<  \r\n", "Abrupt end within tag"},
        {"<'a'>", "Tag starts with quote"},
        {"<!-- open", "Invalid node"},
        {"< ?pi?><a/>", "Invalid node"},
        {"<!DOCTYPE x [ <!ENTITY e 'v'> ", "Invalid node"},
        {"<a", "End of tag not found"},
        {"<a>", "End tag of a element not found"},
        {"<a><bb>text", "End tag of bb element not found"},
        {"<a><!-- c -->", "Expecting end tag of element a"},
        {"<a><b></a>", "End tag does not correspond to b"},
        {"<a></ab>", "End tag does not correspond to a"},
        {"<a></>", "End tag does not correspond to a"},
        {"<a></a", "End tag not completed for element a"},
        {"<a></", "End tag not completed for element a"},
    };
    for (const auto& c : cases) {
        MarkupProbe doc;
        EXPECT_FALSE(doc.SetDoc(c[0]));
        EXPECT_EQ(doc.GetError(), c[1]) << c[0];
        EXPECT_EQ(doc.GetDoc(), c[0]);
        EXPECT_EQ(doc.NextFree(), 1);
        EXPECT_FALSE(doc.IsWellFormed() || doc.FindElem());
    }
}

TEST(MarkupParse, ErrorSurvivesLaterSuccessAndHoldsLongNames) {
    CMarkupSTL doc;
    EXPECT_FALSE(doc.SetDoc(nullptr) || doc.SetDoc(""));
    EXPECT_EQ(doc.GetError(), "");
    const std::string name(5000, 'n');
    EXPECT_FALSE(doc.SetDoc(("<" + name + ">").c_str()));
    EXPECT_TRUE(doc.SetDoc("<a/>"));
    EXPECT_EQ(doc.GetError(), "End tag of " + name + " element not found");
}

TEST(MarkupParse, IndexRecordsTagOffsetsAndLinks) {
    MarkupProbe doc("<r><a x='1'>t</a><b/><c><d/></c></r>");
    EXPECT_EQ(doc.Tree(), (Nodes{{0, 2, 32, 35, -1, 1, -1},
                                 {3, 11, 13, 16, 0, -1, 2},
                                 {17, 20, 19, 20, 0, -1, 3},
                                 {21, 23, 28, 31, 0, 4, -1},
                                 {24, 27, 26, 27, 3, -1, -1}}));
    EXPECT_EQ(doc.NextFree(), 6); // slots taken for end tags were given back
    MarkupProbe prolog("<?xml version=\"1.0\"?>\r\n<!-- c -->\r\n<root/>");
    EXPECT_EQ(prolog.Tree(), (Nodes{{35, 41, 40, 41, -1, -1, -1}}));
}

TEST(MarkupParse, SkipsNodesAndAcceptsLooseEndTags) {
    CMarkupSTL doc("<!DOCTYPE r [ <!ENTITY e \"x>\"> ]>\n<r><?pi a?><![CDATA[<no/>]]>"
                   "<!-- <no/> --><a[1]>x</a><b></b q>tail</r   ><after/>");
    ASSERT_TRUE(doc.FindElem("r") && doc.FindChildElem());
    EXPECT_EQ(doc.GetChildTagName(), "a[1]");
    ASSERT_TRUE(doc.FindChildElem());
    EXPECT_EQ(doc.GetChildTagName(), "b");
    EXPECT_FALSE(doc.FindChildElem() || doc.FindElem()); // only the first root is indexed
}

TEST(MarkupParse, IndexIsSizedFromTheTextAndGrowsByHalf) {
    EXPECT_EQ(MarkupProbe(std::string(640, ' ').c_str()).IndexSize(), 18u);
    std::string text = "<r>";
    for (int i = 0; i < 28; ++i)
        text += "<e/>";
    text += "</r>";
    text.resize(640, ' ');
    MarkupProbe doc(text.c_str());
    EXPECT_EQ(doc.NextFree(), 30);
    EXPECT_EQ(doc.IndexSize(), 40u); // 18 -> 27 -> 40
    doc.SetDoc("<a/>");
    EXPECT_EQ(doc.IndexSize(), 40u);
}

TEST(MarkupParse, MillionLevelsParseWithoutRecursion) {
    const int depth = 1000000;
    std::string text;
    for (int i = 0; i < depth; ++i)
        text += "<a>";
    MarkupProbe doc;
    EXPECT_FALSE(doc.SetDoc(text.c_str()));
    EXPECT_EQ(doc.GetError(), "End tag of a element not found");
    for (int i = 0; i < depth; ++i)
        text += "</a>";
    ASSERT_TRUE(doc.SetDoc(text.c_str()));
    EXPECT_EQ(doc.NextFree(), depth + 1);
    for (doc.FindElem(); doc.FindChildElem();)
        doc.IntoElem();
    EXPECT_EQ(doc.Elem(doc.Main()).startTagLeft, 3 * (depth - 1));
    ASSERT_TRUE(doc.AddChildElem("b")); // moves the end tag of every ancestor
    EXPECT_TRUE(doc.MatchesFreshParse());
}

TEST(MarkupFiles, LoadAndSaveExactBytes) {
    char pattern[] = "/tmp/markup_test_XXXXXX";
    ASSERT_TRUE(mkdtemp(pattern));
    const std::string dir = pattern;
    auto write = [&](const char* name, const std::string& bytes) {
        std::ofstream(dir + name, std::ios::binary) << bytes;
        return dir + name;
    };
    auto read = [&](const char* name) {
        std::stringstream all;
        all << std::ifstream(dir + name, std::ios::binary).rdbuf();
        return all.str();
    };
    CMarkupSTL doc;
    ASSERT_TRUE(doc.Load(write("/a", "\xEF\xBB\xBF<?xml?>\r\n<root>\r\n</root>\r\n").c_str()));
    ASSERT_TRUE(doc.FindElem("root") && doc.AddChildElem("n", "1"));
    ASSERT_TRUE(doc.Save((dir + "/b").c_str()));
    EXPECT_EQ(read("/b"), "\xEF\xBB\xBF<?xml?>\r\n<root>\r\n<n>1</n>\r\n</root>\r\n");
    EXPECT_FALSE(doc.Save((dir + "/no/such").c_str()));

    EXPECT_TRUE(doc.Load(write("/nul", std::string("<a/>\0<b>", 8)).c_str()));
    EXPECT_EQ(doc.GetDoc(), "<a/>");
    EXPECT_FALSE(doc.Load(write("/bad", "<a>").c_str()));
    EXPECT_EQ(doc.GetDoc(), "<a>");
    EXPECT_TRUE(doc.Save((dir + "/b").c_str()));
    EXPECT_EQ(read("/b"), "<a>");
    for (const std::string& path : {dir + "/missing", write("/empty", ""), dir}) {
        doc.SetDoc("<old/>");
        EXPECT_FALSE(doc.Load(path.c_str()));
        EXPECT_EQ(doc.GetDoc(), "");
    }
    EXPECT_TRUE(doc.Save((dir + "/b").c_str()));
    EXPECT_EQ(read("/b"), "");
    std::system(("rm -rf '" + dir + "'").c_str());
}
