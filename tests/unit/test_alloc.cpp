// Text buffer, record allocation and copying. The text functions that no command calls (cat,
// dump, append to file) and the printers of single atoms and discrete cards are not tested.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quovix-alloc.hpp"
#include "temp_dir.hpp"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

using test_tmp::read_file;
using test_tmp::write_file;

std::string temp_path(const char *name) { return test_tmp::dir() + name; }

}  // namespace

// CR bytes are kept, and a file of 1023 bytes needs the next block for its terminator
// (an off-by-one there is a heap overflow the sanitizer build reports).
TEST(TextBuffer, ImportKeepsBytes) {
    const std::string path = temp_path("crlf.txt");
    for (const std::string &bytes :
         {"a\r\nb\r\n" + std::string(1016, 'c'), std::string(1023, 'd')}) {
        write_file(path, bytes);
        quovix_text_ptr text{quovix_text_import_from_file(path.c_str())};
        ASSERT_TRUE(text);
        EXPECT_EQ(std::string(text->content), bytes);
    }
    std::remove(path.c_str());
}

// Empty and missing files: see the e2e cases print-cell-empty and print-cell-missing-file.
TEST(TextBuffer, ImportFailsOnADirectory) {
    // A directory opens but reports an absurd end position.
    const std::string dir = test_tmp::dir();
    CaptureStderr();
    EXPECT_EQ(quovix_text_import_from_file(dir.c_str()), nullptr);
    EXPECT_EQ(GetCapturedStderr(), "Error: failed to read content of " + dir + "\n");
}

TEST(TextBuffer, SplitsRowsAtEverySeparator) {
    struct Case {
        const char *text;
        std::vector<std::string> rows;
    };
    const Case cases[] = {
        {"a\nb", {"a", "b"}},
        {"a\nb\n", {"a", "b", ""}},
        {"a\r\nb\r\n", {"a\r", "b\r", ""}},
        {"a\n\nb", {"a", "", "b"}},
        {"", {""}},
    };
    for (const Case &c : cases) {
        quovix_text_ptr text{quovix_text_new(c.text)};
        ASSERT_TRUE(text);
        char **rows = nullptr;
        long n = 0;
        CaptureStdout();
        ASSERT_EQ(quovix_text_segregate_into_rows(&rows, &n, text.get(), '\n'), 0);
        EXPECT_EQ(GetCapturedStdout(),
                  "Message: total lines in the cif: " + std::to_string(c.rows.size()) + "\n");
        ASSERT_EQ(n, static_cast<long>(c.rows.size())) << c.text;
        for (long i = 0; i < n; i++) EXPECT_EQ(rows[i], c.rows[i]) << c.text << " row " << i;
        quovix_array_char_2D_free(rows, n);
    }
}

// ------------------------------------------------------------------ records

TEST(Records, CellCopyIsDeep) {
    quovix_cell_ptr cell{quovix_cell_new(3)};
    ASSERT_TRUE(cell);
    std::strcpy(cell->name, "test");
    cell->a[2][1] = 1.5;
    for (int i = 0; i < 3; i++) cell->atom[i].occ = 0.1 * (i + 1);
    quovix_cell_ptr copy{quovix_cell_copy(cell.get())};
    ASSERT_TRUE(copy);
    EXPECT_STREQ(copy->name, "test");
    EXPECT_EQ(copy->a[2][1], 1.5);
    cell->atom[2].occ = 9.0;
    EXPECT_DOUBLE_EQ(copy->atom[2].occ, 0.3);

    quovix_cell_ptr empty{quovix_cell_new(0)};
    quovix_cell_ptr empty_copy{quovix_cell_copy(empty.get())};
    ASSERT_TRUE(empty_copy);
    EXPECT_EQ(empty_copy->atom, nullptr);
}

// ------------------------------------------------------------------ parameter sets

// The formatted and raw printers are pinned by the e2e cases print-ppt-NaCl-given-sf and
// print-ppt-full-NaCl-mobile-Li.
TEST(Property, EmptyAndNegativeTotals) {
    quovix_property_ptr ppt{quovix_property_new(0)};
    ASSERT_TRUE(ppt);
    CaptureStdout();
    quovix_property_print(ppt.get());
    EXPECT_EQ(GetCapturedStdout(), "PPT: (not allocated)\n");

    CaptureStderr();
    EXPECT_EQ(quovix_property_copy(ppt.get()), nullptr);
    EXPECT_EQ(quovix_property_new(-1), nullptr);
    EXPECT_EQ(GetCapturedStderr(),
              "Error: QUOVIX_PROPERTY has not been properly initialized.\n"
              "Error: number of counts must not be negative.\n");
}

TEST(Property, CopyIsDeep) {
    quovix_property_ptr ppt{quovix_property_new(2)};
    ASSERT_TRUE(ppt);
    std::strcpy(ppt->type[0], "Li");
    ppt->uni[1].q = -1.5;
    ppt->bin[0][1].r0 = 1.466;
    ppt->sf = 0.75;
    ppt->conducting = 0;
    quovix_property_ptr copy{quovix_property_copy(ppt.get())};
    ASSERT_TRUE(copy);
    ppt->bin[0][1].r0 = 9.0;
    ppt->uni[1].q = 9.0;
    std::strcpy(ppt->type[0], "Na");
    EXPECT_EQ(copy->bin[0][1].r0, 1.466);
    EXPECT_EQ(copy->uni[1].q, -1.5);
    EXPECT_STREQ(copy->type[0], "Li");
    EXPECT_EQ(copy->sf, 0.75);
    EXPECT_EQ(copy->conducting, 0);
}

// Byte sizes beyond the address space fail cleanly instead of overflowing.
TEST(Records, HugeCountsAreRefused) {
    CaptureStderr();
    EXPECT_EQ(quovix_array_double_2D_new(LONG_MAX / 4, 1), nullptr);
    EXPECT_EQ(quovix_atom_new(LONG_MAX / 8), nullptr);
    EXPECT_EQ(quovix_cell_new(LONG_MAX), nullptr);
    EXPECT_EQ(GetCapturedStderr(),
              "Error: unable to allocate QUOVIX_ARRAY_2D.\n"
              "Error: unable to allocate QUOVIX_ATOM.\n"
              "Error: unable to allocate QUOVIX_CELL->QUOVIX_ATOM.\n");
}

// An os of INT_MIN (the word 2147483648 read with "%d") has no magnitude in int: printing it
// must not negate it (undefined behaviour, caught by the sanitizer build).
TEST(SpeciesText, MagnitudeOfTheMostNegativeOs) {
    EXPECT_EQ(quovix_abs_os(-2), 2);
    EXPECT_EQ(quovix_abs_os(INT_MIN), INT_MAX);
    EXPECT_EQ(quovix_sign_char(INT_MIN), '-');
}
