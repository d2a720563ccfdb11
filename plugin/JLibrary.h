// A thin wrapper over the system's dynamic loader.
#pragma once

#include <string>

class JLibrary {
public:
    // "dir/Name" becomes "dir/libName.dylib"; nothing is opened yet.
    explicit JLibrary(const std::string& path);
    ~JLibrary();
    JLibrary(const JLibrary&) = delete;
    JLibrary& operator=(const JLibrary&) = delete;

    bool load();
    bool isLoaded() const;
    void* resolve(const char* symbol);
    bool unload();
    const std::string& path() const { return m_strPath; }

private:
    int m_bLoaded;
    void* m_hHandle;
    std::string m_strPath;
};
