// One settings value read from a typical Tidewater.dat: ours (file read, parse, lookup) against
// the same read made with pugixml.
#include "CommonFunctions.h"

#include <QDir>
#include <QTemporaryDir>
#include <QVariant>
#include <benchmark/benchmark.h>
#include <pugixml.hpp>

namespace {

// Written by the store itself, as the updater's installer leaves it.
QString TypicalSettings(const QTemporaryDir& dir) {
    const QString file = dir.filePath("Tidewater.dat");
    const std::pair<const char*, const char*> keys[] = {{"TimerMinutes", "60"},
                                                        {"RunWithSystem", "1"},
                                                        {"AutoCheckNow", "0"},
                                                        {"TimeRandomRange", "720"},
                                                        {"ConfigCycleDefault", "1"}};
    WriteConfigure("DupInfo", "DuplicatePath", dir.filePath("data/"), file);
    for (const auto& [key, value] : keys)
        WriteConfigure("UpdateSetting", key, value, file);
    WriteConfigure("LOG", "LogSwitch", "1", file);
    return file;
}

QVariant PugiGetConfigure(const QString& section, const QString& key, const QVariant& defaultValue,
                          const QString& file) {
    pugi::xml_document document;
    if (!document.load_file(QFile::encodeName(file).constData()))
        return defaultValue;
    const QString value = QString::fromUtf8(document.child("root")
                                                .child(section.toUtf8().constData())
                                                .child(key.toUtf8().constData())
                                                .child_value());
    return value.isEmpty() ? defaultValue : QVariant(value);
}

template <class Read> void GetConfigureWith(benchmark::State& state, Read read) {
    QTemporaryDir dir;
    const QString file = TypicalSettings(dir);
    if (read("UpdateSetting", "TimeRandomRange", QVariant("x"), file).toString() != "720")
        state.SkipWithError("the settings file does not read back");
    for (auto _ : state)
        benchmark::DoNotOptimize(read("UpdateSetting", "TimeRandomRange", QVariant("x"), file));
}

void Ravel(benchmark::State& state) {
    GetConfigureWith(state, &GetConfigure);
}
void Pugixml(benchmark::State& state) {
    GetConfigureWith(state, &PugiGetConfigure);
}

} // namespace

BENCHMARK(Ravel)->Name("GetConfigure/ravel");
BENCHMARK(Pugixml)->Name("GetConfigure/pugixml");
