// Result files: replaced whole or not at all, never overwritten in place, never left half
// written after a failure; the output-path check before long calculations.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "quovix-io.hpp"
#include "temp_dir.hpp"

namespace {

using test_tmp::read_file;
using test_tmp::write_file;

int write_whole(const std::string &path, const std::string &text) {
    quovix_output_file out(path.c_str());
    if (!out) return 1;
    std::fwrite(text.data(), 1, text.size(), out.get());
    return out.commit();
}

// Files in `dir` other than the expected ones: left-over temporary files.
int entries(const std::string &dir) {
    int n = 0;
    for (const auto &e : std::filesystem::directory_iterator(dir)) n += e.exists() ? 1 : 0;
    return n;
}

std::string fresh_dir(const char *name) {
    const std::string d = test_tmp::dir() + name + "/";
    std::filesystem::create_directories(d);
    return d;
}

}  // namespace

// A second hard link to the old result keeps the old content: the new file is a new inode
// renamed over the name, not the old inode rewritten.
TEST(OutputFile, ReplacesByRenameSoAHardLinkKeepsTheOldContent) {
    const std::string d = fresh_dir("link");
    write_file(d + "out.cube", "old result\n");
    ASSERT_EQ(::link((d + "out.cube").c_str(), (d + "keep.cube").c_str()), 0);
    ASSERT_EQ(write_whole(d + "out.cube", "new result\n"), 0);
    EXPECT_EQ(read_file(d + "out.cube"), "new result\n");
    EXPECT_EQ(read_file(d + "keep.cube"), "old result\n");
    EXPECT_EQ(entries(d), 2);  // no temporary file left
}

// A write that fails midway (file size limit, as on a full disk or quota) reports failure and
// leaves the previous file untouched and no temporary file behind. Run in a child process:
// the limit and the ignored SIGXFSZ must not reach the test runner.
TEST(OutputFile, FailedWriteLeavesTheOldFileIntact) {
    const std::string d = fresh_dir("fsize");
    write_file(d + "out.cif", "old result\n");
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const std::string big(1 << 20, 'x');
        std::fclose(stderr);  // the expected error line is not the test's output
        ::_exit(write_whole(d + "out.cif", big) == 1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the commit did not report the short write";
    EXPECT_EQ(read_file(d + "out.cif"), "old result\n");
    EXPECT_EQ(entries(d), 1);
}

// An output abandoned before commit() (an error, an early return) removes its temporary file.
TEST(OutputFile, AbandonedOutputLeavesNothing) {
    const std::string d = fresh_dir("abandon");
    write_file(d + "out.cif", "old result\n");
    {
        quovix_output_file out((d + "out.cif").c_str());
        ASSERT_TRUE(out);
        std::fputs("half", out.get());
    }
    EXPECT_EQ(read_file(d + "out.cif"), "old result\n");
    EXPECT_EQ(entries(d), 1);
    // A name whose directory does not exist cannot even be started.
    quovix_output_file none((d + "missing/out.cif").c_str());
    EXPECT_FALSE(none);
}

// Files of a group appear together at commit(); a group dropped without commit() leaves the
// old files and no temporary ones.
TEST(OutputFile, GroupPutsItsFilesInPlaceTogether) {
    const std::string d = fresh_dir("group");
    write_file(d + "a.cube", "old a\n");
    write_file(d + "a_assigned.cif", "old b\n");
    {
        quovix_output_group pair;
        ASSERT_EQ(write_whole(d + "a_assigned.cif", "new b\n"), 0);
        ASSERT_EQ(write_whole(d + "a.cube", "new a\n"), 0);
        EXPECT_EQ(read_file(d + "a.cube"), "old a\n");  // not yet in place
        EXPECT_EQ(read_file(d + "a_assigned.cif"), "old b\n");
    }
    EXPECT_EQ(read_file(d + "a.cube"), "old a\n");
    EXPECT_EQ(entries(d), 2);
    {
        quovix_output_group pair;
        ASSERT_EQ(write_whole(d + "a_assigned.cif", "new b\n"), 0);
        ASSERT_EQ(write_whole(d + "a.cube", "new a\n"), 0);
        EXPECT_EQ(pair.commit(), 0);
    }
    EXPECT_EQ(read_file(d + "a.cube"), "new a\n");
    EXPECT_EQ(read_file(d + "a_assigned.cif"), "new b\n");
    EXPECT_EQ(entries(d), 2);
}

// The check before a calculation: a directory, a missing directory and the input itself
// (also under another name, a hard link) are refused; a new file beside the input is fine.
TEST(OutputFile, CheckRefusesUnwritablePathsAndTheInput) {
    const std::string d = fresh_dir("check");
    write_file(d + "in.cif", "data_x\n");
    ASSERT_EQ(::link((d + "in.cif").c_str(), (d + "alias.cif").c_str()), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(quovix_output_check((d + "new.cif").c_str(), (d + "in.cif").c_str()), 0);
    EXPECT_EQ(quovix_output_check(d.c_str(), nullptr), 1);
    EXPECT_EQ(quovix_output_check((d + "no/such/dir.cube").c_str(), nullptr), 1);
    EXPECT_EQ(quovix_output_check((d + "in.cif").c_str(), (d + "in.cif").c_str()), 1);
    EXPECT_EQ(quovix_output_check((d + "alias.cif").c_str(), (d + "in.cif").c_str()), 1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("would overwrite the input file"), std::string::npos) << err;
}

// A job ended by SIGTERM (a scheduler's time limit) in the middle of a write removes its
// temporary file on the way out; the old result stays.
TEST(OutputFile, TerminationRemovesTheTemporaryFile) {
    const std::string d = fresh_dir("sigterm");
    write_file(d + "out.cube", "old result\n");
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        quovix_output_file out((d + "out.cube").c_str());
        std::fputs("half a cube", out.get());
        std::fflush(out.get());
        ::raise(SIGTERM);
        ::_exit(3);  // not reached
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    EXPECT_EQ(read_file(d + "out.cube"), "old result\n");
    EXPECT_EQ(entries(d), 1);
}
