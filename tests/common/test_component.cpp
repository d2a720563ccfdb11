// Component data helpers on real trees: copying, links, rollback, folder creation, names.
#include "CommonFunctions.h"
#include "StoreTestUtil.h"

#include <QDir>
#include <QFileInfo>
#include <unistd.h>
#include <utime.h>

using ::testing::MatchesRegex;

namespace {

const char kStamp[] = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]: \\.\\./Common/CommonFunctions: ";

class StoreComponentData : public TempFolderTest {
protected:
    QString src = Path("src/");
    QString dst = Path("dst/");

    void MakeTree() {
        ASSERT_TRUE(QDir().mkpath(src + "sub/deeper"));
        WriteBytes(src + "a.txt", "alpha");
        WriteBytes(src + ".hidden", "secret");
        WriteBytes(src + "sub/b.bin", QByteArray("\0\1\2", 3));
        ASSERT_TRUE(QFile::link(src + "a.txt", src + "ln"));
        ASSERT_TRUE(QFile::link("b.bin", src + "sub/rel"));
    }
};

TEST_F(StoreComponentData, CopiesTreesWithHiddenFilesAndRepointedLinks) {
    MakeTree();
    ASSERT_TRUE(CCommonFunctions::MXPCopyDir(src, dst));
    EXPECT_EQ(ReadBytes(dst + "a.txt"), "alpha");
    EXPECT_EQ(ReadBytes(dst + ".hidden"), "secret");
    EXPECT_EQ(ReadBytes(dst + "sub/b.bin"), QByteArray("\0\1\2", 3));
    EXPECT_TRUE(QFileInfo(dst + "sub/deeper").isDir());
    EXPECT_EQ(QFileInfo(dst + "ln").symLinkTarget(), QFileInfo(dst + "a.txt").absoluteFilePath());
    EXPECT_EQ(QFileInfo(dst + "sub/rel").symLinkTarget(),
              QFileInfo(dst + "sub/b.bin").absoluteFilePath());
    for (const char* name : {"", "a.txt", "sub", "sub/b.bin"})
        EXPECT_EQ(Mode(dst + name), 0777u) << name;
}

TEST_F(StoreComponentData, IdenticalFilesAreNotCopiedAgain) {
    MakeTree();
    ASSERT_TRUE(CCommonFunctions::MXPCopyDir(src, dst));
    // An old time stamp shows whether the file was written again.
    const struct utimbuf old = {1000000000, 1000000000};
    ASSERT_EQ(utime(QFile::encodeName(dst + "a.txt").constData(), &old), 0);
    const ino_t inode = Stat(dst + "a.txt").st_ino;
    WriteBytes(src + "sub/b.bin", "changed");
    ASSERT_TRUE(CCommonFunctions::MXPCopyDir(src, dst));
    EXPECT_EQ(Stat(dst + "a.txt").st_ino, inode);
    EXPECT_EQ(Stat(dst + "a.txt").st_mtime, 1000000000);
    EXPECT_EQ(ReadBytes(dst + "sub/b.bin"), "changed");
    EXPECT_FALSE(QFile::exists(dst + "sub/b.bin.old")); // deletable: no backup
}

// Running as root, no permission stops a delete; a folder standing where a file is expected
// cannot be deleted as a file, yet can be moved aside, which is what the backup path needs.
TEST_F(StoreComponentData, UndeletableDestinationIsRolledBackWhenTheCopyFails) {
    const QString target = Path("target");
    ASSERT_TRUE(QDir().mkpath(target));
    WriteBytes(target + "/inside", "keep me");
    EXPECT_FALSE(CCommonFunctions::MXPSCopyFile(Path("no-such-source"), target));
    EXPECT_EQ(ReadBytes(target + "/inside"), "keep me");
    EXPECT_FALSE(QFileInfo::exists(target + ".old"));

    WriteBytes(Path("source"), "new content");
    EXPECT_TRUE(CCommonFunctions::MXPSCopyFile(Path("source"), target));
    EXPECT_EQ(ReadBytes(target), "new content");
    EXPECT_EQ(ReadBytes(target + ".old/inside"), "keep me"); // the backup stays after success
}

TEST_F(StoreComponentData, CopyFileEdgeCases) {
    EXPECT_FALSE(CCommonFunctions::MXPSCopyFile("", Path("x")));
    EXPECT_FALSE(CCommonFunctions::MXPSCopyFile(Path("x"), ""));
    ASSERT_TRUE(QFile::link("/some/where", Path("link")));
    EXPECT_TRUE(CCommonFunctions::MXPSCopyFile(Path("link"), Path("copy")));
    EXPECT_EQ(QFileInfo(Path("copy")).symLinkTarget(), "/some/where");
}

class StoreCreatePath : public TempFolderTest {
protected:
    void SetUp() override {
        TempFolderTest::SetUp();
        ASSERT_TRUE(QDir::setCurrent(dir.path()));
    }
    void TearDown() override { QDir::setCurrent(oldCurrent); }
    // Result and debug output of one call.
    std::pair<int, std::string> Create(const std::wstring& path) {
        ::testing::internal::CaptureStderr();
        const int result = CCommonFunctions::MXPSCreatePath(path);
        return {result, ::testing::internal::GetCapturedStderr()};
    }
    QString oldCurrent = QDir::currentPath();
};

TEST_F(StoreCreatePath, MakesEveryLevelBeforeTheLastSlash) {
    EXPECT_EQ(Create(L"./a/b").first, 0);
    EXPECT_TRUE(QFileInfo("a").isDir());
    EXPECT_FALSE(QFileInfo::exists("a/b"));
    EXPECT_EQ(Create(L"./c/d/").first, 0);
    EXPECT_TRUE(QFileInfo("c/d").isDir());
    EXPECT_EQ(Mode("c/d"), 0777u);
    EXPECT_EQ(Create(L".\\e\\f\\").first, 0);
    EXPECT_TRUE(QFileInfo("e/f").isDir());
    EXPECT_EQ(Create(L"c/d").first, 0); // exists already
}

TEST_F(StoreCreatePath, FailuresAreReportedOnTheDebugChannel) {
    const std::string stamp = kStamp;
    auto [result, message] = Create(L"abc");
    EXPECT_EQ(result, -1);
    EXPECT_THAT(message, MatchesRegex(stamp + "MXPSCreatePath: Path format is wrong\\.\n"));
    std::tie(result, message) = Create(L"a/b"); // one slash is not enough
    EXPECT_EQ(result, -1);
    EXPECT_FALSE(QFileInfo::exists("a"));
    std::tie(result, message) = Create(L"");
    EXPECT_EQ(result, -1);
    EXPECT_THAT(message, MatchesRegex(stamp + "MXPSCreatePath: Path is empty\\.\n"));
    WriteBytes("file", "x");
    std::tie(result, message) = Create(L"./file/sub/");
    EXPECT_EQ(result, -1);
    EXPECT_THAT(message, MatchesRegex(stamp + "MXPSCreatePath: Make directory failed\\.\n"));
}

class StoreDisplayName : public TempFolderTest {
protected:
    std::pair<QString, std::string> NameOf(const QByteArray& components) {
        WriteBytes(Path("UpdateInfo.dat"), kMark + components);
        ::testing::internal::CaptureStderr();
        const QString name = CCommonFunctions::GetMainComDisplayName(Path("UpdateInfo.dat"));
        return {name, ::testing::internal::GetCapturedStderr()};
    }
};

TEST_F(StoreDisplayName, FirstMainComponentCounts) {
    const auto [name, message] = NameOf("<root><components>"
                                        "<component><main>0</main><name>a</name></component>"
                                        "<component><main>1</main><displayname>Main "
                                        "Ü</displayname><name>b</name></component>"
                                        "<component><main>1</main><displayname>c</displayname>"
                                        "</component></components></root>");
    EXPECT_EQ(name, QString::fromUtf8("Main Ü"));
    EXPECT_EQ(message, "");
}

TEST_F(StoreDisplayName, EmptyDisplayNameFallsBackToName) {
    EXPECT_EQ(NameOf("<root><components><component><displayname/><name>n</name>"
                     "<main>1</main></component></components></root>")
                  .first,
              "n");
    EXPECT_EQ(NameOf("<root><components><component><main>2</main><name>n</name></component>"
                     "</components></root>")
                  .first,
              "");
    EXPECT_EQ(NameOf("<root><other/></root>"), std::make_pair(QString(), std::string()));
}

TEST_F(StoreDisplayName, NoRootIsReported) {
    const auto [name, message] = NameOf("not xml");
    EXPECT_EQ(name, "");
    EXPECT_THAT(message, MatchesRegex(std::string(kStamp) +
                                      "GetMainComDisplayName: Get main component display name "
                                      "Failed: XML file's format  is not correct\\.\n"));
}

// Creating the shared folder opens every level of its path to everyone, /usr included:
// the modes found are put back, and whatever the test made is removed.
class StoreSharedDataRoot : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* path : levels) {
            existed.push_back(QFileInfo::exists(path));
            modes.push_back(Mode(path));
        }
    }
    void TearDown() override {
        QDir(made).removeRecursively();
        if (!existed[2])
            QDir().rmdir(levels[2]);
        for (size_t i = 0; i < levels.size(); ++i)
            if (existed[i])
                chmod(levels[i], modes[i]);
    }
    const std::vector<const char*> levels = {"/usr", "/usr/local", "/usr/local/zq_kt_userdata"};
    std::vector<bool> existed;
    std::vector<unsigned> modes;
    QString made;
};

TEST_F(StoreSharedDataRoot, BlanksBecomeUnderscores) {
    const QString unique = QString("ravel test %1 My App ").arg(getpid());
    made = "/usr/local/zq_kt_userdata/" + QString(unique).replace(' ', '_') + "/";
    ASSERT_FALSE(QFileInfo::exists(made));
    EXPECT_EQ(CCommonFunctions::GetCompDataDirectory(unique), made);
    EXPECT_TRUE(QFileInfo(made).isDir());
    EXPECT_EQ(Mode(made), 0777u);
}

} // namespace
