// A private folder for the files a fuzz target writes, under $TMPDIR (scripts/fuzz.sh points it
// into the build tree), made on first use.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

// Path of a file named `name` in the folder; ends the process when no folder can be made.
inline std::string ScratchFile(const char* name) {
    static const std::string folder = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/ravel-fuzz-XXXXXX";
        if (!mkdtemp(&pattern[0])) {
            std::perror("mkdtemp");
            std::abort();
        }
        return pattern;
    }();
    return folder + "/" + name;
}

// Replaces the file's content with the bytes.
inline void WriteScratch(const std::string& path, const uint8_t* data, size_t size) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
}
