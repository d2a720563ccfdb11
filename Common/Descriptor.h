// POSIX file descriptors for the store's frequent reads: owned, and read in full.
#pragma once

#include <cerrno>
#include <cstddef>
#include <unistd.h>

// Owns a descriptor (or -1 for none) and closes it when it goes out of scope.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// Reads up to `size` bytes into `buffer` and returns how many were read: fewer only at the end
// of the file or on an error (a folder, for one), after which nothing more is read; `failed`
// tells which. EINTR is retried.
inline size_t ReadFully(int fd, void* buffer, size_t size, bool& failed) {
    size_t got = 0;
    failed = false;
    while (got < size) {
        const ssize_t n = ::read(fd, static_cast<char*>(buffer) + got, size - got);
        if (n < 0 && errno == EINTR)
            continue;
        failed = n < 0;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    return got;
}

// As above, for callers to whom an error and the end of the file are alike.
inline size_t ReadFully(int fd, void* buffer, size_t size) {
    bool failed = false;
    return ReadFully(fd, buffer, size, failed);
}
