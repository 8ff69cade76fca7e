// Front end: path splitting, type reading, text mode, argument helper and output names.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "quovix-alloc.hpp"
#include "quovix-cmd.hpp"

namespace {

// argv built from string literals, kept alive for the test.
struct Argv {
    std::vector<std::string> store;
    std::vector<char *> ptrs;
    explicit Argv(std::vector<std::string> words) : store(std::move(words)) {
        for (auto &s : store) ptrs.push_back(s.data());
        ptrs.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(store.size()); }
    char **argv() { return ptrs.data(); }
};

using opt_ptr = quovix_owner<QUOVIX_CMD_OPT, quovix_cmd_opt_free>;

opt_ptr make_opt(Argv &a) {
    testing::internal::CaptureStdout();  // data-file warnings
    opt_ptr opt{quovix_cmd_opt_init(a.argc(), a.argv())};
    testing::internal::GetCapturedStdout();
    return opt;
}

std::string text_of(Argv &a) {
    opt_ptr opt = make_opt(a);
    quovix_text_ptr text{quovix_cmd_opt_cat_tail(opt.get())};
    return text ? std::string(text->content) : std::string("<null>");
}

}  // namespace

TEST(SplitPath, SplitsAtLastSeparatorOrFallsBackToCurrentDir) {
    for (auto [path, want_dir, want_name] :
         {std::tuple{"/opt/quovix/bin/quovix.x", "/opt/quovix/bin/", "quovix.x"},
          std::tuple{"quovix.x", "./", "quovix.x"}, std::tuple{"./quovix.x", "./", "quovix.x"}}) {
        char *dir = nullptr;
        char *name = nullptr;
        quovix_cmd_opt_split_path(&dir, &name, path);
        EXPECT_STREQ(dir, want_dir);
        EXPECT_STREQ(name, want_name);
        std::free(dir);
        std::free(name);
    }
    char *dir = nullptr;
    quovix_cmd_opt_split_path(&dir, nullptr, "./quovix.x");  // the name is not wanted
    EXPECT_STREQ(dir, "./");
    std::free(dir);
}

// The data paths beside the executable and the warnings for absent files are pinned by the
// e2e cases cmd-print-sys and cmd-missing-data-files.
TEST(CmdOpt, RejectsOverlongExecutablePath) {
    Argv a({std::string(1000, 'x')});
    testing::internal::CaptureStderr();
    opt_ptr opt{quovix_cmd_opt_init(a.argc(), a.argv())};
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: executable path too long.\n");
    EXPECT_FALSE(opt);
}

TEST(GetType, KeepsAtMostTwoCharacters) {
    char type[3] = {'?', '?', '?'};
    for (auto [word, want] :
         {std::pair{"Li", "Li"}, std::pair{"Na1+", "Na"}, std::pair{"O", "O"}}) {
        quovix_cmd_opt_get_type(type, word);
        EXPECT_STREQ(type, want);
    }
}

// Joining words and "-:nl" is pinned by the e2e case text-cal-bv-NaCl.
TEST(TextMode, LastKeyPhraseWinsAndFinalWordIsNotExamined) {
    Argv twice({"quovix.x", "--text-cal-bv", "-:text", "a", "-:text", "b"});
    EXPECT_EQ(text_of(twice), " b");

    Argv last({"quovix.x", "--text-cal-bv", "a", "-:text"});
    testing::internal::CaptureStderr();
    EXPECT_EQ(text_of(last), "<null>");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: text-mode key phrase not found.\n");
}

TEST(Args, ReadsNumbersFlagsAndWords) {
    Argv a({"quovix.x", "--gen-cube", "x.cif", "Li", "1", "0.75", "abc", "false", "yes", "T"});
    opt_ptr opt = make_opt(a);
    quovix_args args(opt.get());
    ASSERT_EQ(args.count(), 8u);
    EXPECT_EQ(args.str(0), "x.cif");
    int os = 0;
    EXPECT_TRUE(args.read_int(2, os));
    EXPECT_EQ(os, 1);
    double sf = -1.0;
    EXPECT_TRUE(args.read_double(3, sf));
    EXPECT_DOUBLE_EQ(sf, 0.75);
    double bad = -1.0;
    EXPECT_FALSE(args.read_double(4, bad));  // "abc": refused, the value kept
    EXPECT_DOUBLE_EQ(bad, -1.0);

    bool on = true;
    args.read_flag(5, on);  // "false"
    EXPECT_FALSE(on);
    bool stays = true;
    args.read_flag(6, stays);  // "yes" leaves the default
    EXPECT_TRUE(stays);
    bool off = false;
    args.read_flag(7, off);  // "T"
    EXPECT_TRUE(off);
}

TEST(Args, NoWordsAfterTheCommand) {
    Argv a({"quovix.x", "--cal-bv"});
    opt_ptr opt = make_opt(a);
    quovix_args args(opt.get());
    EXPECT_EQ(args.count(), 0u);
    EXPECT_FALSE(args.has(0));
    EXPECT_EQ(args.c_str(0), nullptr);
}

TEST(OutputNames, AppendOrReplaceTheLastFourCharacters) {
    char out[QUOVIX_PATH_LEN];
    quovix_cmd_name_append(out, "Li2O.cif", ".cif");
    EXPECT_STREQ(out, "Li2O.cif.cif");
    quovix_cmd_name_replace_ext(out, "Li2O.cif", ".cube");
    EXPECT_STREQ(out, "Li2O.cube");
    quovix_cmd_name_replace_ext(out, "abc", ".cube");
    EXPECT_STREQ(out, "abc.cube");
    std::string longname(1500, 'a');
    quovix_cmd_name_append(out, longname.c_str(), ".p1.cif");
    EXPECT_EQ(std::string(out), std::string(1000, 'a') + ".p1.cif");
}

// The CIF reader shared by the handlers: success and the failure chain are pinned by the e2e
// cases cal-bv-NaCl and cal-bv-missing-file (the sanitizer build runs them for leaks).

TEST(CommandTable, EveryOptionIsFoundAtItsOwnRow) {
    // A repeated option would leave its second row unreachable.
    for (const quovix_command &c : quovix_cmd_table()) {
        ASSERT_NE(c.handler, nullptr) << c.option;
        EXPECT_EQ(quovix_cmd_find(c.option), &c) << c.option;
    }
    EXPECT_EQ(quovix_cmd_find("--no-such-command"), nullptr);
}
