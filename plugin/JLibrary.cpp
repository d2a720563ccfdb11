#include "JLibrary.h"

#include <dlfcn.h>

namespace {

// "dir/Name" -> "dir/libName.dylib"; a name without folder stays relative.
std::string LibraryFileName(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    const std::string folder =
        slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    return folder + "lib" + base + ".dylib";
}

} // namespace

JLibrary::JLibrary(const std::string& path)
    : m_bLoaded(0), m_hHandle(nullptr), m_strPath(LibraryFileName(path)) {}

JLibrary::~JLibrary() {
    unload();
}

bool JLibrary::load() {
    if (m_bLoaded || m_hHandle) {
        return true;
    }
    m_hHandle = dlopen(m_strPath.c_str(), RTLD_LAZY);
    if (!m_hHandle) {
        return false;
    }
    m_bLoaded = 1;
    return true;
}

bool JLibrary::isLoaded() const {
    return m_bLoaded != 0;
}

void* JLibrary::resolve(const char* symbol) {
    if (!m_bLoaded && !m_hHandle && !load()) {
        return nullptr;
    }
    return dlsym(m_hHandle, symbol);
}

bool JLibrary::unload() {
    if (!m_bLoaded || !m_hHandle) {
        return true;
    }
    if (dlclose(m_hHandle) != 0) {
        return false;
    }
    m_bLoaded = 0;
    m_hHandle = nullptr;
    return true;
}
