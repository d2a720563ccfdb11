// Byte strings written as hex in the tests.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

inline Bytes FromHex(const std::string& hex) {
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back((unsigned char)std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

inline std::string ToHex(const unsigned char* p, size_t n) {
    std::string out;
    char two[3];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(two, sizeof two, "%02x", p[i]);
        out += two;
    }
    return out;
}

inline std::string ToHex(const Bytes& b) {
    return ToHex(b.data(), b.size());
}

inline Bytes Slice(const Bytes& b, size_t at, size_t n = std::string::npos) {
    size_t end = n == std::string::npos || at + n > b.size() ? b.size() : at + n;
    return Bytes(b.begin() + at, b.begin() + end);
}

inline Bytes Join(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline Bytes FromText(const std::string& text) {
    return Bytes(text.begin(), text.end());
}
