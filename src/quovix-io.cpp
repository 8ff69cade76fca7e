// Result files written atomically: temporary file beside the target, fsync, rename.
#include "quovix-io.hpp"

#include <fcntl.h>     // open
#include <signal.h>    // sigaction, raise
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

// Temporary files in progress, for the termination handler: a job killed by SIGTERM, SIGINT
// or SIGHUP (a scheduler's time limit, Ctrl-C) removes them before it ends. SIGKILL cannot be
// caught: its temporary file stays, the result under the real name is untouched either way.
constexpr int kMaxActive = 16;
char g_active[kMaxActive][1024 + 16];
volatile sig_atomic_t g_in_use[kMaxActive];

void on_termination(int sig) {
    for (int i = 0; i < kMaxActive; ++i) {
        if (g_in_use[i]) ::unlink(g_active[i]);  // async-signal-safe
    }
    ::signal(sig, SIG_DFL);
    ::raise(sig);
}

// Installs the handler once, for signals whose action is still the default (a signal the
// caller ignores, as nohup does with SIGHUP, stays ignored).
void install_termination_handler() {
    static bool installed = false;
    if (installed) return;
    installed = true;
    for (const int sig : {SIGTERM, SIGINT, SIGHUP}) {
        struct sigaction old {};
        if (::sigaction(sig, nullptr, &old) != 0 || old.sa_handler != SIG_DFL) continue;
        struct sigaction act {};
        act.sa_handler = on_termination;
        ::sigemptyset(&act.sa_mask);
        ::sigaction(sig, &act, nullptr);
    }
}

void track(const char *temp) {
    install_termination_handler();
    for (int i = 0; i < kMaxActive; ++i) {
        if (g_in_use[i]) continue;
        std::snprintf(g_active[i], sizeof g_active[i], "%s", temp);
        g_in_use[i] = 1;
        return;
    }
}

void untrack(const char *temp) {
    for (int i = 0; i < kMaxActive; ++i) {
        if (g_in_use[i] && std::strcmp(g_active[i], temp) == 0) {
            g_in_use[i] = 0;
            return;
        }
    }
}

// Removes a temporary file that will not become a result.
void discard(const char *temp) {
    std::remove(temp);
    untrack(temp);
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
    track(temp_);
    ::fchmod(fd, default_file_mode());
    file_ = ::fdopen(fd, "wb");
    if (!file_) {
        ::close(fd);
        discard(temp_);
        temp_[0] = '\0';
    }
}

quovix_output_file::~quovix_output_file() {
    if (file_) std::fclose(file_);
    if (!committed_ && temp_[0]) discard(temp_);
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
    untrack(temp_);
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
        for (const auto &p : pending_) discard(p.first.c_str());
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
        if (status == 0 && std::rename(p.first.c_str(), p.second.c_str()) == 0) {
            untrack(p.first.c_str());
            continue;
        }
        if (status == 0) std::fprintf(stderr, "Error: unable to write %s.\n", p.second.c_str());
        discard(p.first.c_str());
        status = 1;
    }
    if (dir >= 0) ::close(dir);  // releases the lock
    return status;
}
