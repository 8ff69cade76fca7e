// Result files written atomically: complete and flushed under their name, or not there at all.
#pragma once

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

/// A result file under construction. The content goes to a temporary file in the same
/// directory ("<path>.tmp-XXXXXX"); commit() flushes it to disk and renames it over `path`
/// in one step. Until then, and if commit() is never reached (an error, an early return, a
/// killed process), readers see the previous file under `path` untouched; the destructor
/// removes an uncommitted temporary file. Concurrent writers of one name each replace the
/// whole file, so a reader never sees a mixture.
class quovix_output_file {
   public:
    /// Opens the temporary file; on failure get() is null and nothing has been printed.
    explicit quovix_output_file(const char *path);
    ~quovix_output_file();
    quovix_output_file(const quovix_output_file &) = delete;
    quovix_output_file &operator=(const quovix_output_file &) = delete;

    std::FILE *get() const { return file_; }
    explicit operator bool() const { return file_ != nullptr; }
    /// Flushes, syncs, closes and renames. 0 on success; 1 after printing
    /// "Error: unable to write %s.\n" (the temporary file is removed, `path` untouched).
    int commit();

   private:
    std::FILE *file_ = nullptr;
    char path_[1024] = {};
    char temp_[1024 + 16] = {};
    bool committed_ = false;
};

/// Result files that belong together (a landscape and the cell it was computed on). While a
/// group exists, quovix_output_file::commit() completes and syncs its temporary file but
/// leaves the rename to the group: commit() renames every file of the group under an
/// exclusive lock on the directory of the first one, so that concurrent runs writing the
/// same names never leave one run's file beside another run's partner. A group destroyed
/// without commit() removes the temporary files. One group at a time.
class quovix_output_group {
   public:
    quovix_output_group();
    ~quovix_output_group();
    quovix_output_group(const quovix_output_group &) = delete;
    quovix_output_group &operator=(const quovix_output_group &) = delete;
    /// 0 when every file is in place; 1 after printing "Error: unable to write %s.\n" (the
    /// files not yet renamed are removed).
    int commit();

   private:
    friend class quovix_output_file;
    static quovix_output_group *current_;
    std::vector<std::pair<std::string, std::string>> pending_;  // (temporary, target)
    bool committed_ = false;
};

/// Checks before a long calculation that `path` can be written: its directory exists and is
/// writable, `path` is not a directory, and it is not the same file as `input` (may be null).
/// 0 when it can; 1 after printing "Error: unable to write to %s.\n" or
/// "Error: output file %s would overwrite the input file.\n".
int quovix_output_check(const char *path, const char *input);
