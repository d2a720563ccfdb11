// The strategy plug-in: libPolicyProbe.dylib beside the bundle, created once and asked to start.
#include "EasyLog.h"
#include "JLibrary.h"
#include "LogTexts.h"
#include "PolicyPlugin.h"
#include "ravel.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QtDebug>

#include <new>

namespace {
// The path has always been the whole line, used as its format. Where that is defined, "%%" shows
// one "%", and so it still does; any other "%" would read an argument that is not there (or, for
// "%n", write through one), so it shows as it stands.
QByteArray AsFormatShows(const QByteArray& path) {
    QByteArray shown;
    shown.reserve(path.size());
    for (qsizetype i = 0; i < path.size(); ++i) {
        shown += path[i];
        if (path[i] == '%' && i + 1 < path.size() && path[i + 1] == '%')
            ++i;
    }
    return shown;
}
} // namespace

JLibrary* hModule = nullptr;
IPolicyPlugin* (*fnCreatePlugin)() = nullptr;
IPolicyPlugin* g_pRegister = nullptr;

void DropPluginLibrary() {
    if (hModule) {
        hModule->unload();
        delete hModule;
        hModule = nullptr;
    }
}

void* GetRegisterInstance() {
    if (!fnCreatePlugin) {
        if (!hModule) {
            // Three folders up from ravel.app/Contents/MacOS: the folder holding the bundle.
            const QByteArray path =
                (QCoreApplication::applicationDirPath() + "/../../../PolicyProbe").toLocal8Bit();
            hModule = new (std::nothrow) JLibrary(path.toStdString());
            qDebug(logtext::kPluginPath, path.constData());
            RAVEL_LOG("%s", AsFormatShows(path).constData());
            if (!hModule) {
                RAVEL_LOG(logtext::kPluginFail);
                return nullptr;
            }
        }
        fnCreatePlugin = reinterpret_cast<CreatePluginFn>(hModule->resolve("CreatePlugin"));
        if (!fnCreatePlugin) {
            RAVEL_LOG(logtext::kPluginFail2);
            DropPluginLibrary();
            return nullptr;
        }
    }
    return fnCreatePlugin();
}

void InitAgent() {
    RAVEL_LOG(logtext::kPluginEnter);
    if (!g_pRegister) {
        g_pRegister = static_cast<IPolicyPlugin*>(GetRegisterInstance());
    }
    if (!g_pRegister) {
        RAVEL_LOG(logtext::kPluginFail3);
        return;
    }
    if (g_pRegister->Init() == 0) {
        RAVEL_LOG(logtext::kPluginInitFailed);
    }
    RAVEL_LOG(logtext::kPluginLeave);
}
