// What another account tries against an agent's files and its off switch, each with plain system
// calls: the result is the errno of the first call that failed, 0 when every call succeeded. Run
// them through TryAs (Accounts.h), so that they are the other account's own calls.
#pragma once

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace attempt {

// Writes `bytes` whole to an open descriptor and closes it.
inline int WriteAndClose(int fd, const std::string& bytes) {
    if (fd < 0)
        return errno;
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    const int error = written == ssize_t(bytes.size()) ? 0 : (written < 0 ? errno : EIO);
    return close(fd) != 0 && error == 0 ? errno : error;
}

// Makes the new file `path` holding `bytes`, with mode `mode` (a file already there is refused).
inline int Create(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
    const int error = WriteAndClose(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, mode), bytes);
    return error == 0 && chmod(path.c_str(), mode) != 0 ? errno : error;
}

// Replaces the content of the existing file `path` with `bytes`, in place.
inline int Overwrite(const std::string& path, const std::string& bytes) {
    return WriteAndClose(open(path.c_str(), O_WRONLY | O_TRUNC), bytes);
}

// The whole content of `path` into `bytes`.
inline int Read(const std::string& path, std::string& bytes) {
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return errno;
    char buffer[65536];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        bytes.append(buffer, size_t(n));
    const int error = n < 0 ? errno : 0;
    close(fd);
    return error;
}

// Reads `from` and makes the new file `to` of its bytes, with mode `mode`.
inline int Copy(const std::string& from, const std::string& to, mode_t mode = 0644) {
    std::string bytes;
    const int error = Read(from, bytes);
    return error != 0 ? error : Create(to, bytes, mode);
}

// Makes the folder `path`, open to everyone (0777).
inline int MakeOpenFolder(const std::string& path) {
    return mkdir(path.c_str(), 0777) != 0 || chmod(path.c_str(), 0777) != 0 ? errno : 0;
}

// Makes a symbolic link at `at` that points at `target`.
inline int Link(const std::string& target, const std::string& at) {
    return symlink(target.c_str(), at.c_str()) != 0 ? errno : 0;
}

// Connects to `address` (of `size` bytes) as a stream socket of `family`, then closes.
inline int Connect(int family, const sockaddr* address, socklen_t size) {
    const int fd = socket(family, SOCK_STREAM, 0);
    if (fd < 0)
        return errno;
    const int error = connect(fd, address, size) != 0 ? errno : 0;
    close(fd);
    return error;
}

// Connects to 127.0.0.1:`port`.
inline int ConnectTcp(unsigned short port) {
    sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    return Connect(AF_INET, reinterpret_cast<sockaddr*>(&address), sizeof address);
}

// Connects to the local socket at `path` (ENAMETOOLONG for a path longer than the system's).
inline int ConnectLocal(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return ENAMETOOLONG;
    path.copy(address.sun_path, path.size());
    return Connect(AF_UNIX, reinterpret_cast<sockaddr*>(&address), sizeof address);
}

} // namespace attempt
