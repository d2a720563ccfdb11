// The installed folder as a product ships it: started at login through its autostart entry, its
// login entries read by real parsers and registered for a user, and its archive.
#include "AgentHarness.h"

#include <QDirIterator>
#include <gmock/gmock.h>
#include <set>
#include <tuple>

using namespace ::testing;

namespace {

using Output = std::pair<int, std::string>; // exit status, standard output and error

Output Shell(const QString& command) {
    FILE* pipe = popen((command + " 2>&1").toLocal8Bit().constData(), "r");
    std::string output;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, n);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// The command's step, its status and its output when it fails.
AssertionResult Succeeds(const QString& command) {
    const auto [status, output] = Shell(command);
    if (status == 0)
        return AssertionSuccess();
    return AssertionFailure() << command.toStdString() << "\nended with " << status << ":\n"
                              << output;
}

QString Quoted(QString text) { // one shell word
    return "'" + text.replace("'", R"('\'')") + "'";
}

// The Exec line of a desktop entry split as a session splits it: the string escapes (\s \n \t \r
// \\) first, then words at blanks outside double quotes, where \ takes the next character as it
// is; %% is a percent sign.
std::vector<std::string> ExecWords(const std::string& entry) {
    static const std::map<char, char> escapes{{'s', ' '}, {'n', '\n'}, {'t', '\t'}, {'r', '\r'}};
    std::istringstream lines(entry);
    std::string line, value;
    while (std::getline(lines, line) && line.rfind("Exec=", 0) != 0) {
    }
    for (size_t i = 5; i < line.size(); ++i) { // empty without an Exec line
        const char c = line[i], next = i + 1 < line.size() ? line[i + 1] : '\0';
        if (c != '\\' || !next) {
            value += c;
            continue;
        }
        value += escapes.count(next) ? escapes.at(next) : next;
        ++i;
    }
    std::vector<std::string> words;
    bool quoted = false, inWord = false;
    for (size_t i = 0; i < value.size(); ++i) {
        const char c = value[i], next = i + 1 < value.size() ? value[i + 1] : '\0';
        if (c == ' ' && !quoted) {
            inWord = false;
            continue;
        }
        if (!inWord)
            words.emplace_back(), inWord = true;
        if (c == '"')
            quoted = !quoted;
        else if ((quoted && c == '\\' && next) || (c == '%' && next == '%'))
            words.back() += next, ++i;
        else
            words.back() += c;
    }
    return words;
}

class Shipped : public ::testing::Test {
protected:
    AssertionResult Install(const QString& args) {
        return Succeeds(CMAKE_COMMAND " --install " BUILD_DIR " " + args);
    }

    AgentPlace place;
    // Blanks and characters that both entries must escape.
    const QString prefix = place.root + "Acme Apps $1 & Co/", entry = prefix + "login/" LOGIN_LABEL;
    const std::string agent = (prefix + "ravel.app/Contents/MacOS/ravel").toStdString();
};

TEST_F(Shipped, TheAutostartEntryStartsTheInstalledCopyWhichHandsOver) {
    for (const char* component : {"agent", "examples"})
        ASSERT_TRUE(Install("--prefix " + Quoted(prefix) + " --component " + component));
    EXPECT_EQ(
        Shell("readelf -d " + Quoted(QString::fromStdString(agent)) +
              " | grep -o 'Library r[a-z]*path: .*'"),
        (LIBS_BESIDE_BUNDLE ? Output{0, "Library runpath: [$ORIGIN/../../..]\n"} : Output{1, ""}));

    // The product's settings beside the bundle, the data folder in a temporary place, and a
    // schedule that makes the updater due.
    WriteSettings(prefix + "Tidewater.dat", {{"DupInfo", {{"DuplicatePath", place.data}}},
                                             {"UpdateSetting", {{"TimerMinutes", "600"}}}});
    WriteAll(prefix + "Brightwell Data/Config.xml", "<item value=\"1\"/>");
    WriteSettings(place.dup + "UserInfo.dat",
                  {{"UpdateStrategy", {{"Strategy", "cycle"}, {"UpdateCycle", "1"}}},
                   {"UpdateRecord", {{"LastLaunchTime", "2000-01-01 00:00:00"}}},
                   {"UpdateInfo", {{"LastStatus", "ready"}}}});

    const std::vector<std::string> exec = ExecWords(ReadAll(entry + ".desktop"));
    ASSERT_EQ(exec, std::vector{agent});
    EXPECT_EQ(place.Reap(place.Start(exec[0], exec)), 0);
    const pid_t pid = place.WaitForDuplicate();
    ASSERT_NE(pid, 0);
    EXPECT_EQ(CommandLineOf(pid), (std::vector{place.duplicateExe, prefix.toStdString()}));
    ASSERT_TRUE(
        WaitUntil([&] { return QFile::exists(prefix + "Tidewater.args") && place.Settled(); }));
    EXPECT_EQ(ReadAll(prefix + "Tidewater.args"), "auto\n");
    EXPECT_EQ(ReadAll(place.dup + "PolicyProbe.trace"),
              "Init in process " + std::to_string(pid) + "\n");
    EXPECT_TRUE(place.Logged({"Enter111111111 InitAgent() ...qstrSrcPath=" + prefix.toStdString(),
                              "File path is: " + place.duplicateExe, "Enter InitAgent() ...",
                              "Leave InitAgent() ..."}));
    EXPECT_EQ(place.EndResident(pid), 0);
}

TEST_F(Shipped, EntriesReadByRealParsersRegisterForAUserAndArchiveAsInstalled) {
    ASSERT_TRUE(Install("--prefix " + Quoted(prefix) + " --component agent"));
    const QString asJson =
        "python3 -c 'import json, plistlib, sys; "
        "print(json.dumps(plistlib.load(open(sys.argv[1], \"rb\")), sort_keys=True))' ";
    EXPECT_EQ(Shell(asJson + Quoted(entry + ".plist")),
              (Output{0, R"({"AbandonProcessGroup": true, "Label": ")" LOGIN_LABEL
                         R"(", "LimitLoadToSessionType": "Aqua", "ProcessType": "Background", )"
                         R"("ProgramArguments": [")" +
                             agent +
                             R"("], "RunAtLoad": true})"
                             "\n"}));
    EXPECT_EQ(
        Shell(asJson + Quoted(prefix + "ravel.app/Contents/Info.plist")),
        (Output{0,
                R"({"CFBundleDevelopmentRegion": "en", "CFBundleExecutable": "ravel", )"
                R"("CFBundleIdentifier": ")" BUNDLE_IDENTIFIER
                R"(", "CFBundleInfoDictionaryVersion": "6.0", "CFBundleName": "ravel", )"
                R"("CFBundlePackageType": "APPL", "CFBundleShortVersionString": ")" PROJECT_VERSION
                R"(", "CFBundleVersion": ")" PROJECT_VERSION R"(", "LSUIElement": true})"
                "\n"}));
    EXPECT_EQ(Shell("desktop-file-validate " + Quoted(entry + ".desktop")), (Output{0, ""}));

    // Root (this test) is refused unless it insists: the entry would start the agent as root.
    const QString script = Quoted(prefix + "login/register-login.sh"), home = place.root + "home",
                  session = "env -u XDG_CONFIG_HOME HOME=" + Quoted(home) + " ",
                  autostart = home + "/.config/autostart/" LOGIN_LABEL ".desktop",
                  asRoot = " --allow-root";
    const auto says = [](int status, const QString& text) {
        return Output{status, "register-login.sh: " + text.toStdString() + "\n"};
    };
    for (const char* args : {"", " --remove"})
        EXPECT_EQ(Shell(session + script + args),
                  says(1, "refusing to run as root: run it as the user whose session should "
                          "start the agent (--allow-root registers for root all the same)"))
            << "without --allow-root:" << args;
    EXPECT_FALSE(QFileInfo::exists(home)) << "nothing registered for root";

    // Registered twice, removed twice, in a temporary home; refused for a folder without ravel.
    for (const auto& [args, said] :
         std::vector<std::pair<QString, QString>>{{"", "registered "},
                                                  {"", "registered "},
                                                  {" --remove", "removed "},
                                                  {" --remove", "not registered: "}}) {
        EXPECT_EQ(Shell(session + script + asRoot + args), says(0, said + autostart));
        EXPECT_EQ(ReadAll(autostart), args.isEmpty() ? ReadAll(entry + ".desktop") : "");
    }
    EXPECT_EQ(Shell("XDG_CONFIG_HOME=" + Quoted(home + "/xdg") + " " + script + asRoot + " " +
                    Quoted(prefix)),
              says(0, "registered " + home + "/xdg/autostart/" LOGIN_LABEL ".desktop"));
    EXPECT_EQ(
        Shell(session + script + asRoot + " " + Quoted(home)),
        says(1, home + " is not an installed ravel folder: no ravel.app/Contents/MacOS/ravel"));

    // An account of its own needs no --allow-root.
    const Account alice{4242, 4242, (place.root + "alice").toStdString()};
    ASSERT_TRUE(OpenToAccounts(place.root.toStdString()) && MakeHome(alice));
    const QString alicesHome = QString::fromStdString(alice.home), said = alicesHome + "/said",
                  alicesEntry = alicesHome + "/.config/autostart/" LOGIN_LABEL ".desktop";
    EXPECT_EQ(TryAs(alice,
                    [&] {
                        const QString command = script + " >" + Quoted(said) + " 2>&1";
                        return WEXITSTATUS(std::system(command.toLocal8Bit().constData()));
                    }),
              0)
        << ReadAll(said);
    EXPECT_EQ(ReadAll(said), says(0, "registered " + alicesEntry).second);
    EXPECT_EQ(ReadAll(alicesEntry), ReadAll(entry + ".desktop"));

    // The archive unpacked is what `cmake --install` puts into the configured prefix.
    const QString packages = place.root + "packages/", staged = place.root + "staged",
                  unpacked = place.root + "unpacked";
    ASSERT_TRUE(
        Succeeds(CPACK_COMMAND " --config " BUILD_DIR "/CPackConfig.cmake -B " + Quoted(packages)));
    ASSERT_TRUE(Succeeds("DESTDIR=" + Quoted(staged) + " " CMAKE_COMMAND " --install " BUILD_DIR));
    // The archive's name tells the profile.
    ASSERT_TRUE(Succeeds("mkdir " + Quoted(unpacked) + " && tar -xzf " + Quoted(packages) +
                         "ravel-" PROJECT_VERSION "-" PROFILE "-Linux.tar.gz -C " +
                         Quoted(unpacked)));
    const QString listing = " && find . -printf '%p %M %s\\n' | sort";
    const Output files = Shell("cd " + Quoted(staged) + listing);
    EXPECT_THAT(files.second,
                HasSubstr("." INSTALL_PREFIX "/ravel.app/Contents/MacOS/ravel -rwxr-xr-x"));
    EXPECT_EQ(files.second.find("/libPolicyProbe.dylib ") != std::string::npos, EXAMPLES_INSTALLED);
    EXPECT_EQ(Shell("cd " + Quoted(unpacked) + listing), files);
    EXPECT_EQ(Shell("diff -r " + Quoted(staged) + " " + Quoted(unpacked)), (Output{0, ""}));
}

// The rules that link the agent in a configured build folder: its "build" statement and the
// variables below it in build.ninja.
std::string AgentLinkRules(const QString& build) {
    const std::string ninja = ReadAll(build + "/build.ninja");
    const size_t start = ninja.find("\nbuild ravel.app/Contents/MacOS/ravel:");
    return start == std::string::npos ? std::string()
                                      : ninja.substr(start, ninja.find("\n\n", start) - start);
}

// The package preset, configured against Debian's Qt, leaves the run-time path out of the agent,
// at link and at install time; asked for, it is there.
TEST_F(Shipped, ThePackageBuildOnTheSystemsQtHasNoRunTimePath) {
    for (const auto& [row, setting, runPath] : std::vector<std::tuple<QString, QString, bool>>{
             {"package", "", false}, {"package-asked", " -DRAVEL_LIBS_BESIDE_BUNDLE=ON", true}}) {
        const QString build = place.root + row;
        ASSERT_TRUE(Succeeds(CMAKE_COMMAND " -S " SOURCE_DIR " --preset package -B " +
                             Quoted(build) + setting));
        const std::string link = AgentLinkRules(build);
        ASSERT_THAT(link, HasSubstr("libQt6Core.so")) << row.toStdString();
        EXPECT_EQ(link.find("-rpath") != std::string::npos, runPath) << row.toStdString() << ":\n"
                                                                     << link;
        EXPECT_THAT(ReadAll(build + "/Src/cmake_install.cmake"),
                    HasSubstr(runPath ? R"(RPATH "\$ORIGIN/../../..")" : "RPATH \"\")"))
            << row.toStdString() << ": the installed agent's run-time path";
    }
}

// Every file below the installed folder, relative to it, and every folder with a "/".
std::set<std::string> Tree(const QString& folder) {
    std::set<std::string> tree;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        tree.insert(path.mid(folder.size()).toStdString() + (it.fileInfo().isDir() ? "/" : ""));
    }
    return tree;
}

// The administrators' simulator is installed only on request; the uninstall script beside the
// agent takes away what every install run put there, and the folders it leaves empty, and
// nothing of the product's.
TEST_F(Shipped, ComponentsAndTheUninstallScript) {
    ASSERT_TRUE(Install("--prefix " + Quoted(prefix)));
    EXPECT_FALSE(QFile::exists(prefix + "ravel-fleet")) << "not in the default install";
    EXPECT_TRUE(QFile::exists(prefix + "ravel-schedule"));
    ASSERT_TRUE(Install("--prefix " + Quoted(prefix) + " --component admin"));
    EXPECT_TRUE(QFile::exists(prefix + "ravel-fleet"));
    ASSERT_TRUE(Install("--prefix " + Quoted(prefix) + " --component examples"));
    EXPECT_THAT(ReadAll(entry + ".desktop"), HasSubstr("\nName=ravel\n"));
    WriteAll(prefix + "Tidewater.dat", "the product's own");
    WriteAll(prefix + "docs/read.me", "the product's own");
    EXPECT_TRUE(Succeeds(Quoted(prefix + "login/uninstall.sh")));
    EXPECT_EQ(Tree(prefix), (std::set<std::string>{"Tidewater.dat", "docs/", "docs/read.me"}));
    QFile::remove(prefix + "Tidewater.dat");
    QDir(prefix + "docs").removeRecursively();
    ASSERT_TRUE(Install("--prefix " + Quoted(prefix) + " --component agent"));
    EXPECT_TRUE(Succeeds(Quoted(prefix + "login/uninstall.sh")));
    EXPECT_FALSE(QFileInfo::exists(prefix)) << "an installed folder left empty goes too";
}

} // namespace
