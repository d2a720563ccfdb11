// A thin wrapper over the system's dynamic loader.
#pragma once

#include <string>

// Owns at most one handle from dlopen; the destructor unloads it.
class JLibrary {
public:
    // "dir/Name" becomes "dir/libName.dylib"; nothing is opened yet.
    explicit JLibrary(const std::string& path);
    ~JLibrary();
    JLibrary(const JLibrary&) = delete;
    JLibrary& operator=(const JLibrary&) = delete;

    // Opens the library (RTLD_LAZY) unless already open; false when dlopen fails.
    bool load();
    // True after a successful load().
    bool isLoaded() const;
    // The address of `symbol`, opening the library first when needed; null when the library
    // cannot be opened or lacks the symbol.
    void* resolve(const char* symbol);
    // Closes the library; true when nothing was open or dlclose succeeded (false keeps it open).
    bool unload();
    // The library file name made by the constructor.
    const std::string& path() const { return m_strPath; }

private:
    int m_bLoaded;
    void* m_hHandle;
    std::string m_strPath;
};
