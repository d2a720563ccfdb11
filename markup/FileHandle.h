// An owned C stream, closed when its owner goes out of scope, whichever way it leaves. Standard
// library only, so that every layer above can use the one guard.
#ifndef RAVEL_FILE_HANDLE_H
#define RAVEL_FILE_HANDLE_H

#include <cstdio>
#include <memory>

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// Empty when the file could not be opened.
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

// Opens `path` with std::fopen's `mode`; empty for a null path or when fopen fails. Creates or
// truncates the file as the mode says; permissions follow the process's umask.
inline FileHandle OpenFile(const char* path, const char* mode) {
    return FileHandle(path ? std::fopen(path, mode) : nullptr);
}

// Closes the stream now. True when everything buffered reached the file; false on a write error
// or an empty handle. The handle is empty afterwards.
inline bool CloseFile(FileHandle& file) {
    return file && std::fclose(file.release()) == 0;
}

#endif
