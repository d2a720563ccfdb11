// The configuration store: settings files, sealed files, component data helpers, crash safety.
#include "CommonFunctions.h"
#include "Isolation.h"
#include "MarkupSTL.h"
#include "Profile.h"

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <utime.h>

inline void PrintTo(const QByteArray& bytes, std::ostream* out) {
    *out << '"' << bytes.toPercentEncoding(" <>/=?!:;&'\"").constData() << '"';
}

namespace {

const QByteArray kMark("\xEF\xBB\xBF");
const QByteArray kHead = kMark + "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n";
const std::string kPass(SEAL_PASS_PHRASE);
// What the store makes: open to everyone (shared), the owner's alone (per-user).
const unsigned kFile = S_IFREG | (kPerUser ? 0600 : 0777),
               kDir = S_IFDIR | (kPerUser ? 0700 : 0777);
const unsigned kExecutable = S_IFREG | (kPerUser ? 0700 : 0777);
const std::string kStamp = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]: \\.\\./Common/CommonFunctions: ";

QByteArray ReadBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
void WriteBytes(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}
unsigned Mode(const QString& path) {
    struct stat info = {};
    lstat(QFile::encodeName(path).constData(), &info);
    return info.st_mode & (07777 | S_IFMT);
}
testing::Matcher<std::string> Logged(const std::string& text) {
    return testing::MatchesRegex(text.empty() ? "" : kStamp + text + "\\.\n");
}
template <class Call> auto WithStderr(Call call) {
    ::testing::internal::CaptureStderr();
    auto result = call();
    return std::make_pair(result, ::testing::internal::GetCapturedStderr());
}

class Store : public ::testing::Test {
protected:
    QString Path(const QString& name) const { return dir.filePath(name); }
    QString Get(const char* s, const char* k) {
        return GetConfigure(s, k, "dflt", file).toString();
    }
    QString Xpath(const QString& expression) {
        QProcess lint;
        lint.start(XMLLINT, {"--xpath", expression, file});
        EXPECT_TRUE(lint.waitForFinished(-1) && lint.exitCode() == 0) << expression.toStdString();
        return QString::fromUtf8(lint.readAllStandardOutput()).trimmed();
    }
    int Read(std::string& out, bool unseal = false) {
        return CCommonFunctions::ReadXMLFile(file.toStdWString(), out, unseal);
    }
    int Save(const char* text, bool seal = false) {
        CMarkupSTL document(text);
        return CCommonFunctions::SaveXmlFile(file.toStdWString(), document, seal);
    }
    // Runs store_writer with `arguments` under strace, which makes the calls on `path` fail as
    // `inject` (its --inject) says: store_writer's exit status. The trace is not kept.
    int RunFailing(const QString& path, const char* inject, const QStringList& arguments) {
        const QString trace = dir.path() + ".strace";
        QProcess strace;
        QStringList environment = QProcess::systemEnvironment();
        // The sanitizers' leak check cannot run in a process that strace traces.
        environment << "ASAN_OPTIONS=" + qEnvironmentVariable("ASAN_OPTIONS") + ":detect_leaks=0";
        strace.setEnvironment(environment);
        strace.start(STRACE, QStringList{"-o", trace, "-P", path, QString("--inject=") + inject,
                                         STORE_WRITER} +
                                 arguments);
        EXPECT_TRUE(strace.waitForFinished(-1)) << strace.readAllStandardError().toStdString();
        EXPECT_THAT(ReadBytes(trace).toStdString(), testing::HasSubstr("(INJECTED)"));
        QFile::remove(trace);
        return strace.exitCode();
    }
    QTemporaryDir dir;
    QString file = Path("UserInfo.dat");
};

TEST_F(Store, Settings) {
    WriteConfigure("UpdateStrategy", "Strategy", "cycle", file);
    WriteConfigure("DelayInfo", "DelayTimes", 2u, file);
    EXPECT_EQ(ReadBytes(file), kHead +
                                   "<root>\r\n<UpdateStrategy>\r\n<Strategy>cycle</Strategy>\r\n"
                                   "</UpdateStrategy>\r\n<DelayInfo>\r\n"
                                   "<DelayTimes>2</DelayTimes>\r\n</DelayInfo>\r\n</root>\r\n");
    EXPECT_EQ(Mode(file), kFile);
    WriteConfigure("UpdateStrategy", "Strategy", "a&b<c>", file);
    WriteConfigure("UpdateStrategy", "UpdateCycle", 7, file);
    EXPECT_EQ(ReadBytes(file), kHead + "<root>\r\n<UpdateStrategy>\r\n"
                                       "<Strategy>a&amp;b&lt;c&gt;</Strategy>\r\n"
                                       "<UpdateCycle>7</UpdateCycle>\r\n</UpdateStrategy>\r\n"
                                       "<DelayInfo>\r\n<DelayTimes>2</DelayTimes>\r\n"
                                       "</DelayInfo>\r\n</root>\r\n");
    EXPECT_EQ(Get("UpdateStrategy", "Strategy"), "a&b<c>");
    // Section "root" is written under the root but not found there.
    WriteBytes(file, "");
    WriteConfigure("root", "Direct", "1", file);
    EXPECT_EQ(ReadBytes(file), kHead + "<root>\r\n<Direct>1</Direct>\r\n</root>\r\n");
    EXPECT_EQ(Get("root", "Direct"), "dflt");
    // Values are text; defaults come back unchanged.
    EXPECT_EQ(GetConfigure("S", "K", 42, Path("none")).typeId(), QMetaType::Int);
    WriteConfigure("S", "Flag", true, file);
    WriteConfigure("S", "Big", qint64(-5000000000), file);
    WriteConfigure("S", "Name", QString::fromUtf8("Grüße"), file);
    WriteConfigure("S", "Empty", QString(), file);
    EXPECT_EQ(GetConfigure("S", "Flag", 0, file), QVariant("true"));
    EXPECT_EQ(Get("S", "Big") + Get("S", "Name"), QString::fromUtf8("-5000000000Grüße"));
    EXPECT_TRUE(ReadBytes(file).contains("<Empty/>"));
    EXPECT_EQ(Get("S", "Empty") + Get("S", "Missing"), "dfltdflt");
    EXPECT_EQ(GetConfigure("Other", "Flag", 7, file), QVariant(7));
    WriteConfigure("S", "K", "v", Path("no/x.dat")); // the value is lost silently
    EXPECT_FALSE(QFile::exists(Path("no")));
    // The first of two same-named sections counts; a file without a root is replaced.
    WriteBytes(file, kMark + "<root><S><K>1</K></S><S><K>2</K></S></root>");
    EXPECT_EQ(Get("S", "K"), "1");
    WriteConfigure("S", "K", "9", file);
    EXPECT_EQ(ReadBytes(file), kMark + "<root><S><K>9</K></S><S><K>2</K></S></root>");
    for (const char* old : {"plain words", "<config><S/></config>", "<root><unclosed></root>"}) {
        WriteBytes(file, old);
        WriteConfigure("S", "K", "v", file);
        EXPECT_EQ(ReadBytes(file), kHead + "<root>\r\n<S>\r\n<K>v</K>\r\n</S>\r\n</root>\r\n");
    }
    file = Path("lint.dat"); // what is written agrees with libxml2
    const QString tricky = QString::fromUtf8("x < y & \"z\" > 'w' é");
    WriteConfigure("UpdateStrategy", "Strategy", "cycle", file);
    WriteConfigure("DelayInfo", "Note", tricky, file);
    WriteConfigure("root", "Top", 5, file);
    EXPECT_EQ(Xpath("concat(/root/UpdateStrategy/Strategy, '|', /root/DelayInfo/Note, '|', "
                    "/root/Top, '|', count(/root/*), count(/root/*/*))"),
              "cycle|" + tricky + "|5|32");
    // A hand-indented file is updated in place.
    const QByteArray text = "<?xml version=\"1.0\"?>\n<root>\n  <S>\n    <K>old</K>\n  </S>\n"
                            "  <T>\n    <K>t</K>\n  </T>\n</root>\n";
    WriteBytes(file, text);
    EXPECT_EQ(Get("S", "K"), "old");
    WriteConfigure("S", "K", "new", file);
    EXPECT_EQ(ReadBytes(file), kMark + QByteArray(text).replace("old", "new"));
    WriteConfigure("S", "Added", "a", file);
    EXPECT_EQ(Xpath("concat(/root/S/Added, /root/S/K)"), "anew");
    EXPECT_EQ(Get("T", "K"), "t");
}

// Whatever the mark, the text comes out as UTF-8 without it; a file without text fails.
TEST_F(Store, ReadXMLFileDecodesEachMark) {
    const std::tuple<const char*, QByteArray, std::string> cases[] = {
        // "kept": the read fails and leaves the output as it was
        {"UTF-8 mark, text up to the NUL", kMark + QByteArray("<r>\xC3\xA9</r>\0tail", 14),
         "<r>é</r>"},
        {"no mark: from the first \"<\"", "junk\r\n<r/>", "<r/>"},
        {"UTF-16LE mark", QByteArray("\xFF\xFE<\0r\0>\0\xE9\0\x3D\xD8\0\xDE<\0/\0r\0>\0", 22),
         "<r>é😀</r>"},
        {"empty", "", "kept"},
        {"no markup at all", "no markup at all", "kept"}};
    std::string out;
    for (const auto& [what, bytes, expected] : cases) {
        WriteBytes(file, bytes);
        out = "kept";
        EXPECT_EQ(Read(out), expected == std::string("kept") ? -1 : 0) << what;
        EXPECT_EQ(out, expected) << what;
    }
    for (const QString& path : {Path("missing"), QString(), dir.path()})
        EXPECT_EQ(CCommonFunctions::ReadXMLFile(path.toStdWString(), out, false), -1)
            << path.toStdString();
    EXPECT_EQ(out, "kept");
}

// The mark is written once; a sealed document reads back; a missing folder is not made.
TEST_F(Store, SaveXmlFileWritesTheMarkOnceAndSeals) {
    std::string out;
    ASSERT_EQ(Save("<r>\r\n<k>v</k>\r\n</r>\r\n"), 0);
    EXPECT_EQ(ReadBytes(file), kMark + "<r>\r\n<k>v</k>\r\n</r>\r\n");
    EXPECT_EQ(Mode(file), kFile);
    ASSERT_EQ(Save("\xEF\xBB\xBF<r/>"), 0);
    EXPECT_EQ(ReadBytes(file), kMark + "<r/>") << "a text that has its own mark";
    // 27 bytes seal to an IV and four blocks: 3 + 16 + 64 bytes.
    const char* text = "<r>\r\n<k>sealed</k>\r\n</r>\r\n";
    ASSERT_EQ(Save(text, true), 0);
    EXPECT_EQ(ReadBytes(file).left(3) + QByteArray::number(ReadBytes(file).size()), kMark + "83");
    ASSERT_EQ(Read(out, true), 0);
    EXPECT_EQ(out, text);
    // The mark test is made before sealing: such a document is stored without one and is lost.
    ASSERT_EQ(Save("\xEF\xBB\xBF<r/>", true), 0);
    EXPECT_FALSE(ReadBytes(file).startsWith(kMark));
    EXPECT_EQ(Read(out, true), -1);
    file = Path("missing/x.dat"); // no folder is made for it
    EXPECT_EQ(Save("<r/>"), -1);
    EXPECT_FALSE(QFile::exists(Path("missing")));
}

// A file sealed by OpenSSL reads back: printf '<plain>\0\0\0' | openssl enc -des-ede3-cbc -nopad
// -iv 0123456789ABCDEF -K <the pass phrase as hex, zero-padded to 24 bytes>.
TEST_F(Store, AFileSealedByOpenSslOpens) {
    const std::string plain = "<root>\r\n<Strategy>cycle</Strategy>\r\n</root>\r\n";
    const std::string cipher = "205BCB7924E62002C2713DBD30A4F24E431B97745DFB1F71"
                               "DD6BD838B5E4021A2E5620519F4BCA983F65890F81EF96FF";
    WriteBytes(file, kMark + QByteArray::fromStdString("0123456789ABCDEF" + cipher));
    std::string out;
    ASSERT_EQ(Read(out, true), 0);
    EXPECT_EQ(out, plain);
}

// Sealed text: its length, its digits, the round trip; only trailing zero bytes are padding.
TEST(Sealing, EncryptAndDecrypt) {
    for (const std::string& plain : {std::string(), std::string("abc"), std::string("12345678"),
                                     std::string("123456789"), std::string(100, 'x')}) {
        const std::string sealed = Encrypt(plain, kPass);
        EXPECT_EQ(sealed.size(), 16 + 16 * ((plain.size() + 7) / 8)) << plain.size() << " bytes";
        EXPECT_EQ(sealed.find_first_not_of("0123456789ABCDEF"), std::string::npos) << sealed;
        EXPECT_EQ(Decrypt(sealed, kPass), plain) << plain.size() << " bytes";
    }
    EXPECT_EQ(Decrypt(Encrypt(std::string("\0a\0\0", 4), kPass), kPass), std::string("\0a", 2));
    EXPECT_EQ(Decrypt("0102", kPass), "") << "shorter than an IV";
}

TEST(Sealing, HexAndRandomBytes) {
    EXPECT_EQ(StrToHex(std::string("\x00\xAB\xFF\x10", 4)), "00ABFF10");
    EXPECT_EQ(HexToStr("4g1"), std::string("\x40\x10", 2)) << "a non-digit, an odd last digit";
    EXPECT_EQ(HexToStr("00abFF"), std::string("\x00\xAB\xFF", 3));
    for (auto [asked, got] : {std::pair(200, 128u), {-1, 0u}, {8, 8u}})
        EXPECT_EQ(GetRandomBytes(asked).size(), got) << asked << " asked";
}

// A file's digest, read in blocks, is that of its bytes (Qt's MD5 as the oracle).
TEST(Digest, Md5FileOfAFileOfManyBlocks) {
    const QByteArray big = ReadBytes(STORE_WRITER);
    EXPECT_GT(big.size(), 51200 * 3);
    EXPECT_EQ(QByteArray::fromStdString(Md5File(STORE_WRITER)),
              QCryptographicHash::hash(big, QCryptographicHash::Md5));
    EXPECT_EQ(QByteArray::fromStdString(Md5Hash("abc")).toHex(),
              "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(Md5File("/no/such/file"), "");
}

TEST_F(Store, CopiesTreesLinksHiddenFilesSkipsIdenticalOnesAndRollsBack) {
    const QString src = Path("src/"), dst = Path("dst/");
    ASSERT_TRUE(QDir().mkpath(src + "sub/deeper"));
    WriteBytes(src + "a.txt", "alpha");
    WriteBytes(src + ".hidden", "secret");
    WriteBytes(src + "sub/b.bin", QByteArray("\0\1\2", 3));
    WriteBytes(src + "sub/run", "#!/bin/sh\n");
    ASSERT_EQ(chmod(QFile::encodeName(src + "sub/run").constData(), 0750), 0);
    ASSERT_TRUE(QFile::link(src + "a.txt", src + "ln") && QFile::link("b.bin", src + "sub/rel"));
    // Neither a dangling link nor a special file is copied.
    ASSERT_TRUE(QFile::link("nowhere", src + "dangling"));
    ASSERT_EQ(mkfifo(QFile::encodeName(src + "sub/fifo").constData(), 0644), 0);
    ASSERT_TRUE(CCommonFunctions::MXPCopyDir(src, dst));
    EXPECT_FALSE(QFileInfo(dst + "dangling").isSymLink());
    EXPECT_FALSE(QFileInfo::exists(dst + "sub/fifo"));
    EXPECT_EQ(Mode(dst + "sub/run"), kExecutable);
    EXPECT_EQ(ReadBytes(dst + "a.txt") + ReadBytes(dst + ".hidden") + ReadBytes(dst + "sub/b.bin"),
              QByteArray("alphasecret\0\1\2", 14));
    EXPECT_EQ(QFileInfo(dst + "ln").symLinkTarget(), QFileInfo(dst + "a.txt").absoluteFilePath());
    EXPECT_EQ(QFileInfo(dst + "sub/rel").symLinkTarget(), dst + "sub/b.bin");
    for (const char* name : {"", "a.txt", "sub", "sub/deeper", "sub/b.bin"})
        EXPECT_EQ(Mode(dst + name), QFileInfo(dst + name).isDir() ? kDir : kFile) << name;
    // An old time stamp shows whether the file was written again.
    const struct utimbuf old = {1000000000, 1000000000};
    ASSERT_EQ(utime(QFile::encodeName(dst + "a.txt").constData(), &old), 0);
    WriteBytes(src + "sub/b.bin", "changed");
    WriteBytes(src + ".hidden", "SECRET"); // same size: only the digests tell
    ASSERT_TRUE(CCommonFunctions::MXPCopyDir(src, dst));
    EXPECT_EQ(QFileInfo(dst + "a.txt").lastModified().toSecsSinceEpoch(), 1000000000);
    EXPECT_EQ(ReadBytes(dst + "sub/b.bin") + ReadBytes(dst + ".hidden"), "changedSECRET");
    EXPECT_EQ(Mode(dst + ".hidden"), kFile);
    EXPECT_FALSE(QFile::exists(dst + "sub/b.bin.old")); // deletable: no backup
    // Running as root, no permission stops a delete; a folder standing where a file is expected
    // cannot be deleted as a file, yet can be moved aside, which is what the backup path needs.
    const QString target = Path("target");
    ASSERT_TRUE(QDir().mkpath(target));
    WriteBytes(target + "/inside", "keep me");
    EXPECT_FALSE(CCommonFunctions::MXPSCopyFile(Path("no-such-source"), target));
    EXPECT_EQ(ReadBytes(target + "/inside"), QByteArray("keep me"));
    EXPECT_FALSE(QFileInfo::exists(target + ".old"));
    WriteBytes(Path("source"), "new content");
    EXPECT_TRUE(CCommonFunctions::MXPSCopyFile(Path("source"), target));
    EXPECT_EQ(ReadBytes(target) + "|" + ReadBytes(target + ".old/inside"), "new content|keep me");
    // An empty source is refused before anything is touched: the destination survives.
    EXPECT_FALSE(CCommonFunctions::MXPSCopyFile("", Path("source")));
    EXPECT_EQ(ReadBytes(Path("source")), QByteArray("new content"));
    ASSERT_TRUE(QFile::link("/some/where", Path("link")));
    EXPECT_TRUE(CCommonFunctions::MXPSCopyFile(Path("link"), Path("copy")));
    EXPECT_EQ(QFileInfo(Path("copy")).symLinkTarget(), "/some/where");
}

TEST_F(Store, CreatePathMainComponentDisplayNameAndSharedDataRoot) {
    const QString oldCurrent = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(dir.path()));
    WriteBytes("file", "x");
    // Path, folder made (none on failure), path left absent, debug line.
    const std::tuple<const wchar_t*, const char*, const char*, const char*> paths[] = {
        {L"./a/b", "a", "a/b", ""},
        {L"./c/d/", "c/d", "", ""},
        {L".\\e\\f\\", "e/f", "", ""},
        {L"c/d", "c/d", "", ""}, // exists already
        {L"abc", "", "abc", "MXPSCreatePath: Path format is wrong"},
        {L"x/y", "", "x", "MXPSCreatePath: Path format is wrong"}, // one slash is not enough
        {L"", "", "", "MXPSCreatePath: Path is empty"},
        {L"./file/sub/", "", "file/sub", "MXPSCreatePath: Make directory failed"},
    };
    for (const auto& [path, made, absent, log] : paths) {
        const auto [result, message] =
            WithStderr([&] { return CCommonFunctions::MXPSCreatePath(path); });
        EXPECT_EQ(result, *made ? 0 : -1) << log;
        EXPECT_TRUE(!*made || QFileInfo(made).isDir()) << made << " was not made";
        EXPECT_TRUE(!*absent || !QFileInfo::exists(absent)) << absent << " was made";
        EXPECT_THAT(message, Logged(log));
    }
    EXPECT_EQ(Mode("c/d"), kDir);
    QDir::setCurrent(oldCurrent);
    const auto in = [](const char* c) {
        return "<root><components><component>" + QByteArray(c) + "</component></components></root>";
    };
    const std::tuple<QByteArray, QString, const char*> names[] = {
        {in("<main>0</main><name>a</name></component><component><main>1</main>"
            "<displayname>Main Ü</displayname><name>b</name></component>"
            "<component><main>1</main><displayname>c</displayname>"),
         QString::fromUtf8("Main Ü"), ""},
        {in("<displayname/><name>n</name><main>1</main>"), "n", ""},
        {in("<main>2</main><name>n</name>"), "", ""},
        {"<root><other/></root>", "", ""},
        {"not xml", "",
         "GetMainComDisplayName: Get main component display name Failed: XML file's format  is "
         "not correct"}};
    for (const auto& [xml, name, log] : names) {
        WriteBytes(file, kMark + xml);
        const auto [got, message] =
            WithStderr([&] { return CCommonFunctions::GetMainComDisplayName(file); });
        EXPECT_EQ(got, name);
        EXPECT_THAT(message, Logged(log));
    }
    // Both data roots run only where the test has /usr and its environment to itself.
    RAVEL_REQUIRE_ISOLATION();
    if (kPerUser)
        return; // the account's own data root: the per-user agent's tests (PerUserTest.cpp)
    // The shared data root: every level of its path is opened to everyone, /usr included
    // (tests/isolated.sh gives the test a /usr of its own).
    const QString made = "/usr/local/zq_kt_userdata/ravel_test_My_App_/";
    EXPECT_EQ(CCommonFunctions::GetCompDataDirectory("ravel test My App "), made);
    for (const QString& level : {QString("/usr"), QString("/usr/local"), made})
        EXPECT_EQ(Mode(level), kDir) << level.toStdString();
}

// A writer killed at any instant leaves the old file or the new one, never a torn one.
TEST_F(Store, KilledWriterLeavesTheOldOrTheNewFile) {
    // A long value makes every save big enough to be caught half-way.
    WriteConfigure("Pad", "Data", QString(32768, 'p'), file);
    WriteConfigure("State", "Value", "new", file);
    const QByteArray newBytes = ReadBytes(file);
    const QByteArray oldBytes = QByteArray(newBytes).replace("<Value>new<", "<Value>old<");
    for (int round = 0; round < 200; ++round) {
        QProcess writer; // ends the writer by its PID if an assertion returns early
        writer.start(STORE_WRITER, {file});
        ASSERT_TRUE(writer.waitForReadyRead(-1)); // "ready": saved once
        usleep(QRandomGenerator::global()->bounded(2001));
        writer.kill(); // SIGKILL to its PID
        ASSERT_TRUE(writer.waitForFinished(-1) && writer.exitStatus() == QProcess::CrashExit);
        ASSERT_THAT(ReadBytes(file), testing::AnyOf(oldBytes, newBytes)) << "round " << round;
        for (const QString& name :
             QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot))
            ASSERT_TRUE(name.startsWith("UserInfo.dat") && (name.size() == 12 || name.size() == 19))
                << name.toStdString(); // Qt's temporary files add six characters
    }
}

// System calls of a write's own read made to fail (strace, counting only the calls on the
// settings file): once, which the read outlasts by trying again, or on every try. A file that is
// there but cannot be read for now keeps all it holds: the write is dropped. EINTR is retried;
// a file this account may not read is replaced whole, as the store's contract has it.
struct ReadFault {
    const char* name;
    const char* inject; // strace's --inject
    const char* after;  // the file's text after the declaration
};
void PrintTo(const ReadFault& row, std::ostream* out) {
    *out << row.name;
}
const char kBefore[] = "<root>\r\n<A>\r\n<a>1</a>\r\n</A>\r\n</root>\r\n";
const char kAdded[] = "<root>\r\n<A>\r\n<a>1</a>\r\n</A>\r\n<C>\r\n<c>3</c>\r\n</C>\r\n</root>\r\n";
const char kAlone[] = "<root>\r\n<C>\r\n<c>3</c>\r\n</C>\r\n</root>\r\n";
const ReadFault kReadFaults[] = {
    {"OpenFailsOnceWithEIO", "openat:error=EIO:when=1", kAdded},
    {"OpenFailsOnceWithEMFILE", "openat:error=EMFILE:when=1", kAdded},
    {"ReadFailsOnceWithEIO", "read:error=EIO:when=1", kAdded},
    {"OpenFailsTwiceWithENOMEM", "openat:error=ENOMEM:when=1..2", kAdded},
    {"OpenFailsEveryTimeWithEIO", "openat:error=EIO:when=1+", kBefore},
    {"OpenFailsEveryTimeWithEMFILE", "openat:error=EMFILE:when=1+", kBefore},
    {"OpenFailsEveryTimeWithENFILE", "openat:error=ENFILE:when=1+", kBefore},
    {"OpenFailsEveryTimeWithENOMEM", "openat:error=ENOMEM:when=1+", kBefore},
    {"ReadFailsEveryTimeWithEIO", "read:error=EIO:when=1+", kBefore},
    {"OpenInterruptedThreeTimes", "openat:error=EINTR:when=1..3", kAdded},
    {"ReadInterrupted", "read:error=EINTR:when=1", kAdded},
    {"OpenRefusedWithEACCES", "openat:error=EACCES:when=1", kAlone},
};

class StoreReadFault : public Store, public ::testing::WithParamInterface<ReadFault> {};

TEST_P(StoreReadFault, AWriteWhoseReadFailsForNowKeepsTheFile) {
    const ReadFault& row = GetParam();
    WriteBytes(file, kHead + kBefore);
    ASSERT_EQ(RunFailing(file, row.inject, {file, "C", "c", "3"}), 0);
    EXPECT_EQ(ReadBytes(file), kHead + row.after);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList{"UserInfo.dat"})
        << "a temporary file left";
}

INSTANTIATE_TEST_SUITE_P(OneCall, StoreReadFault, testing::ValuesIn(kReadFaults),
                         [](const auto& info) { return std::string(info.param.name); });

// A folder of a tree that cannot be listed to its end fails the copy, rather than passing for
// an empty folder; an interrupted opening is tried again.
struct ListFault {
    const char* name;
    const char* inject; // strace's --inject, on the calls on the subfolder
    bool copied;        // whole
};
void PrintTo(const ListFault& row, std::ostream* out) {
    *out << row.name;
}
const ListFault kListFaults[] = {
    {"OpeningFailsWithEIO", "openat:error=EIO:when=1", false},
    {"OpeningFailsWithEMFILE", "openat:error=EMFILE:when=1", false},
    {"OpeningInterrupted", "openat:error=EINTR:when=1", true},
    {"ReadingFailsWithEIO", "getdents64:error=EIO:when=1", false},
};

class StoreListFault : public Store, public ::testing::WithParamInterface<ListFault> {};

TEST_P(StoreListFault, AFolderThatCannotBeListedFailsTheCopy) {
    const ListFault& row = GetParam();
    const QString src = Path("src/"), dst = Path("dst/");
    ASSERT_TRUE(QDir().mkpath(src + "sub"));
    WriteBytes(src + "a.txt", "alpha");
    WriteBytes(src + "sub/b.txt", "beta");
    EXPECT_EQ(RunFailing(src + "sub/", row.inject, {"--copy", src, dst}), row.copied ? 0 : 1)
        << "the copy's result";
    if (row.copied) {
        EXPECT_EQ(ReadBytes(dst + "a.txt") + ReadBytes(dst + "sub/b.txt"), "alphabeta");
    }
}

INSTANTIATE_TEST_SUITE_P(OneCall, StoreListFault, testing::ValuesIn(kListFaults),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
