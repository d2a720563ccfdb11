// What the agent expects of a strategy plug-in: an exported factory without arguments, and an
// object whose first virtual operation initialises it and returns non-zero on success.
#pragma once

class IPolicyPlugin {
public:
    virtual int Init() = 0;
    virtual ~IPolicyPlugin() = default;
};

extern "C" {
typedef IPolicyPlugin* (*CreatePluginFn)();
}
