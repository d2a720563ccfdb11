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
            // The path is the whole line, format and all.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif
            RAVEL_LOG(path.constData());
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
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
