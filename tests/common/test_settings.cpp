// Settings files: exact bytes written, values read back, and agreement with libxml2.
#include "CommonFunctions.h"
#include "StoreTestUtil.h"

#include <QProcess>

namespace {

class StoreSettings : public TempFolderTest {
protected:
    QString file = Path("UserInfo.dat");
    QVariant Get(const QString& section, const QString& key, const QVariant& fallback = "dflt") {
        return GetConfigure(section, key, fallback, file);
    }
    // What libxml2 makes of the file at this XPath.
    QString Xpath(const QString& expression) {
        QProcess lint;
        lint.start(XMLLINT, {"--xpath", expression, file});
        EXPECT_TRUE(lint.waitForFinished());
        EXPECT_EQ(lint.exitCode(), 0) << lint.readAllStandardError().constData();
        return QString::fromUtf8(lint.readAllStandardOutput()).trimmed();
    }
};

const QByteArray kTwoSections = kMark + kDeclaration +
                                "<root>\r\n"
                                "<UpdateStrategy>\r\n<Strategy>cycle</Strategy>\r\n"
                                "</UpdateStrategy>\r\n"
                                "<DelayInfo>\r\n<DelayTimes>2</DelayTimes>\r\n</DelayInfo>\r\n"
                                "</root>\r\n";

TEST_F(StoreSettings, NewFileHasTheSharedLayoutByteForByte) {
    WriteConfigure("UpdateStrategy", "Strategy", "cycle", file);
    WriteConfigure("DelayInfo", "DelayTimes", 2u, file);
    EXPECT_EQ(ReadBytes(file), kTwoSections);
    EXPECT_EQ(Mode(file), 0777u);
    EXPECT_EQ(Get("DelayInfo", "DelayTimes").toUInt(), 2u);
}

TEST_F(StoreSettings, WritesKeepOtherSectionsAndKeysInOrder) {
    WriteBytes(file, kTwoSections);
    WriteConfigure("UpdateStrategy", "Strategy", "a&b<c>", file);
    WriteConfigure("UpdateStrategy", "UpdateCycle", 7, file);
    EXPECT_EQ(ReadBytes(file), kMark + kDeclaration +
                                   "<root>\r\n<UpdateStrategy>\r\n"
                                   "<Strategy>a&amp;b&lt;c&gt;</Strategy>\r\n"
                                   "<UpdateCycle>7</UpdateCycle>\r\n</UpdateStrategy>\r\n"
                                   "<DelayInfo>\r\n<DelayTimes>2</DelayTimes>\r\n</DelayInfo>\r\n"
                                   "</root>\r\n");
    EXPECT_EQ(Get("UpdateStrategy", "Strategy").toString(), "a&b<c>");
}

TEST_F(StoreSettings, ValuesAreTextAndDefaultsComeBackUnchanged) {
    EXPECT_EQ(Get("S", "K", 42).typeId(), QMetaType::Int); // missing file
    WriteConfigure("S", "Flag", true, file);
    WriteConfigure("S", "Big", qint64(-5000000000), file);
    WriteConfigure("S", "Name", QString::fromUtf8("Grüße"), file);
    WriteConfigure("S", "Empty", QString(), file);
    const QVariant flag = Get("S", "Flag");
    EXPECT_EQ(flag.typeId(), QMetaType::QString);
    EXPECT_EQ(flag.toString(), "true");
    EXPECT_EQ(Get("S", "Big").toLongLong(), -5000000000);
    EXPECT_EQ(Get("S", "Name").toString(), QString::fromUtf8("Grüße"));
    EXPECT_TRUE(ReadBytes(file).contains("<Empty/>"));
    EXPECT_EQ(Get("S", "Empty"), QVariant("dflt"));
    EXPECT_EQ(Get("S", "Missing"), QVariant("dflt"));
    EXPECT_EQ(Get("Other", "Flag", 7), QVariant(7));
}

TEST_F(StoreSettings, SectionRootIsWrittenUnderRootButNotFoundThere) {
    WriteConfigure("root", "Direct", "1", file);
    EXPECT_EQ(ReadBytes(file),
              kMark + kDeclaration + "<root>\r\n<Direct>1</Direct>\r\n</root>\r\n");
    EXPECT_EQ(Get("root", "Direct").toString(), "dflt");
}

TEST_F(StoreSettings, FirstOfTwoSameNamedSectionsIsReadAndWritten) {
    const QByteArray text = "<root><S><K>1</K></S><S><K>2</K></S></root>";
    WriteBytes(file, kMark + text);
    EXPECT_EQ(Get("S", "K").toString(), "1");
    WriteConfigure("S", "K", "9", file);
    EXPECT_EQ(ReadBytes(file), kMark + "<root><S><K>9</K></S><S><K>2</K></S></root>");
}

TEST_F(StoreSettings, FileWithoutRootIsReplacedWhole) {
    for (const QByteArray& old : {QByteArray("plain words"), QByteArray("<config><S/></config>"),
                                  QByteArray("<root><unclosed></root>")}) {
        WriteBytes(file, old);
        WriteConfigure("S", "K", "v", file);
        EXPECT_EQ(ReadBytes(file),
                  kMark + kDeclaration + "<root>\r\n<S>\r\n<K>v</K>\r\n</S>\r\n</root>\r\n");
    }
}

TEST_F(StoreSettings, MissingFolderLosesTheValueSilently) {
    file = Path("no/such/folder/x.dat");
    WriteConfigure("S", "K", "v", file);
    EXPECT_FALSE(QFile::exists(file));
    EXPECT_EQ(Get("S", "K").toString(), "dflt");
}

TEST_F(StoreSettings, LibxmlReadsWhatIsWritten) {
    const QString tricky = QString::fromUtf8("x < y & \"z\" > 'w' é");
    WriteConfigure("UpdateStrategy", "Strategy", "cycle", file);
    WriteConfigure("DelayInfo", "Note", tricky, file);
    WriteConfigure("root", "Top", 5, file);
    EXPECT_EQ(Xpath("string(/root/UpdateStrategy/Strategy)"), "cycle");
    EXPECT_EQ(Xpath("string(/root/DelayInfo/Note)"), tricky);
    EXPECT_EQ(Xpath("string(/root/Top)"), "5");
    EXPECT_EQ(Xpath("count(/root/*)"), "3");
    EXPECT_EQ(Xpath("count(/root/*/*)"), "2");
}

TEST_F(StoreSettings, HandWrittenFileIsUpdatedInPlace) {
    const QByteArray text = "<?xml version=\"1.0\"?>\n<root>\n  <S>\n    <K>old</K>\n  </S>\n"
                            "  <T>\n    <K>t</K>\n  </T>\n</root>\n";
    WriteBytes(file, text);
    EXPECT_EQ(Get("S", "K").toString(), "old");
    WriteConfigure("S", "K", "new", file);
    EXPECT_EQ(ReadBytes(file), kMark + QByteArray(text).replace("old", "new"));
    WriteConfigure("S", "Added", "a", file);
    EXPECT_EQ(Xpath("string(/root/S/Added)"), "a");
    EXPECT_EQ(Xpath("string(/root/S/K)"), "new");
    EXPECT_EQ(Get("T", "K").toString(), "t");
}

} // namespace
