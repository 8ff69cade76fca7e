// Result files written atomically: temporary file beside the target, fsync, rename.
#include "quovix-io.hpp"

#include <fcntl.h>     // open
#include <stdlib.h>    // mkstemp
#include <sys/file.h>  // flock
#include <sys/stat.h>  // fchmod, stat, umask
#include <unistd.h>    // fsync, access, close

#include <cstdio>
#include <cstring>
#include <string>

namespace {

// Directory part of a path ("." when there is none), for the writability check.
std::string directory_of(const char *path) {
    const char *slash = std::strrchr(path, '/');
    if (!slash) return ".";
    if (slash == path) return "/";
    return std::string(path, static_cast<std::size_t>(slash - path));
}

// Permissions an ordinary fopen would give a new file: 0666 less the process umask.
mode_t default_file_mode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return static_cast<mode_t>(0666 & ~mask);
}

}  // namespace

quovix_output_file::quovix_output_file(const char *path) {
    if (!path || !*path || std::strlen(path) >= sizeof(path_)) return;
    std::snprintf(path_, sizeof(path_), "%s", path);
    std::snprintf(temp_, sizeof(temp_), "%s.tmp-XXXXXX", path);
    const int fd = ::mkstemp(temp_);
    if (fd < 0) {
        temp_[0] = '\0';
        return;
    }
    ::fchmod(fd, default_file_mode());
    file_ = ::fdopen(fd, "wb");
    if (!file_) {
        ::close(fd);
        std::remove(temp_);
        temp_[0] = '\0';
    }
}

quovix_output_file::~quovix_output_file() {
    if (file_) std::fclose(file_);
    if (!committed_ && temp_[0]) std::remove(temp_);
}

int quovix_output_file::commit() {
    if (!file_) {
        std::fprintf(stderr, "Error: unable to write %s.\n", path_[0] ? path_ : "(null)");
        return 1;
    }
    bool ok = std::fflush(file_) == 0 && !std::ferror(file_);
    ok = ok && ::fsync(::fileno(file_)) == 0;
    ok = (std::fclose(file_) == 0) && ok;
    file_ = nullptr;
    if (ok && quovix_output_group::current_ != nullptr) {
        // The group renames it together with its partners.
        quovix_output_group::current_->pending_.emplace_back(temp_, path_);
        committed_ = true;
        return 0;
    }
    ok = ok && std::rename(temp_, path_) == 0;
    if (!ok) {
        std::remove(temp_);
        std::fprintf(stderr, "Error: unable to write %s.\n", path_);
        return 1;
    }
    committed_ = true;
    return 0;
}

int quovix_output_check(const char *path, const char *input) {
    if (!path || !*path) {
        std::fputs("Error: unable to write to (null).\n", stderr);
        return 1;
    }
    struct stat target {};
    const bool exists = ::stat(path, &target) == 0;
    if (exists && S_ISDIR(target.st_mode)) {
        std::fprintf(stderr, "Error: unable to write to %s.\n", path);
        return 1;
    }
    if (::access(directory_of(path).c_str(), W_OK) != 0) {
        std::fprintf(stderr, "Error: unable to write to %s.\n", path);
        return 1;
    }
    struct stat source {};
    if (exists && input && ::stat(input, &source) == 0 && source.st_dev == target.st_dev &&
        source.st_ino == target.st_ino) {
        std::fprintf(stderr, "Error: output file %s would overwrite the input file.\n", path);
        return 1;
    }
    return 0;
}

quovix_output_group *quovix_output_group::current_ = nullptr;

quovix_output_group::quovix_output_group() {
    if (current_ == nullptr) current_ = this;
}

quovix_output_group::~quovix_output_group() {
    if (current_ == this) current_ = nullptr;
    if (!committed_) {
        for (const auto &p : pending_) std::remove(p.first.c_str());
    }
}

int quovix_output_group::commit() {
    if (current_ == this) current_ = nullptr;
    committed_ = true;
    if (pending_.empty()) return 0;
    // Every run writing these names takes the same lock (the directory of the first file),
    // so the renames of two runs never interleave. Without a lock (a file system that has
    // none) the renames still happen, each file still whole.
    const int dir = ::open(directory_of(pending_.front().second.c_str()).c_str(),
                           O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) ::flock(dir, LOCK_EX);
    int status = 0;
    for (const auto &p : pending_) {
        if (status == 0 && std::rename(p.first.c_str(), p.second.c_str()) == 0) continue;
        if (status == 0) std::fprintf(stderr, "Error: unable to write %s.\n", p.second.c_str());
        std::remove(p.first.c_str());
        status = 1;
    }
    if (dir >= 0) ::close(dir);  // releases the lock
    return status;
}
