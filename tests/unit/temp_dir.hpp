// A temporary directory of this test process alone, removed when the process ends.
// CTest runs discovered tests as separate processes, two at a time; a fixed name in the shared
// temporary directory would let them read each other's half-written files.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>  // mkdtemp

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace test_tmp {

/// Path of the process's own directory, with a trailing '/'.
inline const std::string &dir() {
    static const std::string path = [] {
        std::string templ = testing::TempDir() + "quovix-test-XXXXXX";
        if (!mkdtemp(templ.data())) {
            ADD_FAILURE() << "mkdtemp failed for " << templ;
            return testing::TempDir();
        }
        static std::string made = templ;
        std::atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(made, ec);
        });
        return templ + "/";
    }();
    return path;
}

/// Whole content of a file as bytes ("" when it cannot be read).
inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// Writes `text` to `path` (replacing it) and returns the path.
inline std::string write_file(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

}  // namespace test_tmp
