// Helpers shared by the fuzz targets.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// Ends the run with a finding, naming the rule that broke and the input, when ok is false.
inline void Require(bool ok, const char* rule, const std::string& input = std::string()) {
    if (!ok) {
        std::fprintf(stderr, "fault: %s\n%s\n", rule, input.c_str());
        std::abort();
    }
}

// Path of a file named `name` in a private folder made on first use under $TMPDIR
// (scripts/fuzz.sh points it into memory); the file holds the bytes.
inline std::string ScratchFile(const char* name, const uint8_t* data, size_t size) {
    static const std::string folder = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/ravel-fuzz-XXXXXX";
        Require(mkdtemp(&pattern[0]) != nullptr, "a scratch folder can be made", pattern);
        return pattern;
    }();
    const std::string path = folder + "/" + name;
    FILE* file = std::fopen(path.c_str(), "wb");
    Require(file && std::fwrite(data, 1, size, file) == size && std::fclose(file) == 0,
            "the scratch file can be written", path);
    return path;
}
