// A product laid out from docs/integrating.md alone: the samples are taken from the page itself,
// written as they stand, and the agent deploys itself and launches the updater from them. The
// clock runs a day a second (libfaketime), so that the first cycle, which starts at the first
// check, ends within seconds.
#include "AgentHarness.h"
#include "Isolation.h"

#include <QRegularExpression>
#include <gmock/gmock.h>
#include <regex>
#include <sys/stat.h>

using ::testing::HasSubstr;
using ::testing::Not;

namespace {
// Shared: the data root the installer makes. Per-user: the account's own (AgentPlace reads "~/"
// as the account's home), which the agent makes itself.
const QString kDataRoot = kPerUser ? "~/.local/share/" : "/usr/local/zq_kt_userdata/";
const QString kDataFolder = kDataRoot + "Acme_Product/"; // from the sample's display name

// Every fenced sample of the page: its path ("installed/..." or "data/...") and its text.
std::map<QString, std::string> Samples() {
    QFile page(RAVEL_SOURCE_DIR "/docs/integrating.md");
    EXPECT_TRUE(page.open(QIODevice::ReadOnly)) << "docs/integrating.md";
    const QString text = QString::fromUtf8(page.readAll());
    std::map<QString, std::string> samples;
    const QRegularExpression block("```xml ([^\\n]+)\\n(.*?)```",
                                   QRegularExpression::DotMatchesEverythingOption);
    for (auto match = block.globalMatch(text); match.hasNext();) {
        const QRegularExpressionMatch m = match.next();
        samples[m.captured(1)] = m.captured(2).toStdString();
    }
    return samples;
}

// The updater launched: its stand-in writes a line per run beside its bundle.
bool Launched(const AgentPlace& place) {
    return QFile::exists(place.inst + "Tidewater.args");
}

// Runs the installed copy as a login would, on a clock that runs a day a second.
int RunFast(AgentPlace& place) {
    // In the sanitizer build the preloaded clock comes before the ASan runtime, which is fine
    // for it but refused by the runtime's own check unless told otherwise.
    const char* asan = getenv("ASAN_OPTIONS");
    const std::string asanBefore = asan ? asan : "";
    const std::string asanWith =
        (asanBefore.empty() ? "" : asanBefore + ":") + "verify_asan_link_order=0";
    setenv("ASAN_OPTIONS", asanWith.c_str(), 1);
    setenv("LD_PRELOAD", LIBFAKETIME, 1);
    setenv("FAKETIME", "+0 x86400", 1);
    const int status = place.RunInstalled();
    unsetenv("LD_PRELOAD");
    unsetenv("FAKETIME");
    if (asan) {
        setenv("ASAN_OPTIONS", asanBefore.c_str(), 1);
    } else {
        unsetenv("ASAN_OPTIONS");
    }
    return status;
}

// The product as the page describes it: the agent, the stand-in updater and the samples, and the
// data root the installer makes. `edit` changes one sample's text first.
void LayOut(AgentPlace& place, const std::function<void(std::map<QString, std::string>&)>& edit) {
    std::map<QString, std::string> samples = Samples();
    ASSERT_EQ(samples.size(), 4u) << "Tidewater.dat, UpdateInfo.dat, Config.xml, UserInfo.dat";
    edit(samples);
    CopyExecutable(RAVEL_EXE_BUILT, QString::fromStdString(place.installedExe));
    CopyExecutable(TIDEWATER_EXE_BUILT, QString::fromStdString(place.updater));
    if (!kPerUser) {
        ASSERT_TRUE(QDir().mkpath(kDataRoot)); // install -d -m 0777 /usr/local/zq_kt_userdata
        chmod(QFile::encodeName(kDataRoot).constData(), 0777);
    }
    for (const auto& [path, text] : samples) {
        const bool installed = path.startsWith("installed/");
        ASSERT_TRUE(installed || path.startsWith("data/")) << path.toStdString();
        WriteAll((installed ? place.inst : place.data) + path.section('/', 1), text);
    }
}

void Replace(std::string& text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos) << from;
    text.replace(at, from.size(), to);
}
} // namespace

TEST(Integrating, AProductLaidOutFromThePageDeploysAndLaunches) {
    RAVEL_REQUIRE_ISOLATION(); // the default data root under /usr/local
    for (const char* autoCheckNow : {"1", "0"}) {
        SCOPED_TRACE(std::string("AutoCheckNow ") + autoCheckNow);
        AgentPlace place(kDataFolder);
        LayOut(place, [&](std::map<QString, std::string>& samples) {
            Replace(samples["installed/Tidewater.dat"], "<AutoCheckNow>1<",
                    std::string("<AutoCheckNow>") + autoCheckNow + "<");
        });
        ASSERT_EQ(RunFast(place), 0) << ReadAll(place.errFile);
        EXPECT_TRUE(WaitUntil([&] { return Launched(place); }))
            << ReadAll(place.data + "log/ravel.log");
        // Every run with "auto". At a day a second the next check comes 42 ms after a launch:
        // when the updater has not recorded its run by then (a loaded machine), the agent
        // launches again, as it is meant to.
        const std::string runs = ReadAll(place.inst + "Tidewater.args");
        EXPECT_TRUE(std::regex_match(runs, std::regex("(auto\n)+"))) << runs;
        EXPECT_EQ(ReadAll(place.dup + "Brightwell Data/Config.xml"),
                  Samples()["installed/Brightwell Data/Config.xml"]);
        EXPECT_EQ(
            GetConfigure("DupInfo", "DuplicatePath", "", place.inst + "Tidewater.dat").toString(),
            kPerUser ? QString() : kDataFolder)
            << "the data folder the agent made, stored by the shared agent only";
        EXPECT_FALSE(QFile::exists(place.dup + "UpdateInfo.dat")) << "not copied";
        EXPECT_FALSE(QFile::exists(place.dup + "Tidewater.app")) << "not copied";
        std::vector<std::string> logged{"Time is used up, ravel will check if delay time is ok"};
        logged.push_back(*autoCheckNow == '1' ? "AutoCheckNow = 1" : "Sleep 60 Minutes");
        logged.push_back("Time is Ready, Try to Launch(" + place.updater + ")");
        EXPECT_TRUE(place.Logged(logged));
        if (*autoCheckNow == '0') { // a delay drawn first
            EXPECT_THAT(ReadAll(place.data + "log/ravel.log"), HasSubstr("[Delay to Time ("));
        }
        EXPECT_EQ(place.EndResident(place.WaitForDuplicate()), 0);
    }
}

// The trap the page warns of: with AutoCheckNow 0 and no "DelayTime", the updater never runs.
TEST(Integrating, WithoutDelayTimeAutoCheckNow0NeverLaunches) {
    RAVEL_REQUIRE_ISOLATION();
    AgentPlace place(kDataFolder);
    LayOut(place, [](std::map<QString, std::string>& samples) {
        Replace(samples["installed/Tidewater.dat"], "<AutoCheckNow>1<", "<AutoCheckNow>0<");
        Replace(samples["data/Brightwell/UserInfo.dat"], "    <DelayTime>0</DelayTime>\n", "");
    });
    ASSERT_EQ(RunFast(place), 0) << ReadAll(place.errFile);
    // Ten days of checks: the cycle ends after seven, and then every check is held.
    const QString log = place.data + "log/ravel.log";
    EXPECT_TRUE(WaitUntil([&] {
        return QString::fromStdString(ReadAll(log)).count("[Time is used up") >= 72;
    })) << ReadAll(log);
    EXPECT_FALSE(Launched(place));
    EXPECT_THAT(ReadAll(log), Not(HasSubstr("Delay to Time")));
    EXPECT_EQ(place.EndResident(place.WaitForDuplicate()), 0);
}
