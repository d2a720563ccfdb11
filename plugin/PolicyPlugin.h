// What the agent expects of a strategy plug-in: an exported factory without arguments, and an
// object whose first virtual operation initialises it and returns non-zero on success.
#pragma once

// Made by the plug-in's factory and never destroyed by the agent.
class IPolicyPlugin {
public:
    // Called once by the agent; 0 means failure, which the agent logs and otherwise ignores.
    virtual int Init() = 0;
    virtual ~IPolicyPlugin() = default;
};

extern "C" {
// The exported factory "CreatePlugin": a new plug-in object, or null.
typedef IPolicyPlugin* (*CreatePluginFn)();
}
