// CIF reader: single values, loop blocks, the atom-site readers, mixed valence, default
// oxidation states, the whole reading sequence and its failure chains.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "import_test_helpers.hpp"
#include "temp_dir.hpp"

using namespace test_import;

namespace {

std::string grep(const std::string &text, const char *key) {
    Rows rows(text);
    char *v = quovix_cell_import_cif_grep_keyword(key, rows.rows(), rows.count());
    std::string out = v ? std::string("[") + v + "]" : "NULL";
    std::free(v);
    return out;
}

struct Loop {
    char ***cells = nullptr;
    long rows = 0, cols = 0;
    int status = 1;
    Captured log;
    ~Loop() { quovix_array_char_3D_free(cells, rows, cols); }
    std::string at(long i, long j) const { return cells[i][j] ? cells[i][j] : "NULL"; }
};

void grep_loop(Loop &l, const std::string &text, const char *key) {
    Rows rows(text);
    l.log = capture([&] {
        l.status = quovix_cell_import_cif_grep_loop(&l.cells, &l.rows, &l.cols, key, rows.rows(),
                                                    rows.count());
    });
}

// A small valid CIF whose pieces the failure tests replace.
struct CifParts {
    std::string lattice =
        "_cell_length_a 4.0\n_cell_length_b 4.0\n_cell_length_c 4.0\n"
        "_cell_angle_alpha 90\n_cell_angle_beta 90\n_cell_angle_gamma 90\n_cell_formula_units_Z "
        "1\n";
    std::string symmetry = "loop_\n_symmetry_equiv_pos_as_xyz\n'x, y, z'\n'-x, -y, -z'\n\n";
    std::string sites =
        "loop_\n_atom_site_label\n_atom_site_type_symbol\n_atom_site_fract_x\n_atom_site_fract_y\n"
        "_atom_site_fract_z\n_atom_site_occupancy\nLi1 Li+ 0.25 0.25 0.25 1.0\nO1 O2- 0 0 0 1\n";
    std::string text() const { return "data_test\n" + lattice + symmetry + sites; }
};

}  // namespace

// ------------------------------------------------------------------ single values

TEST(GrepKeyword, QuotesTokensAndSemicolonFields) {
    EXPECT_EQ(grep("_cell_length_a   5.64(2) \r\n", "_cell_length_a"), "[5.64(2)]");
    EXPECT_EQ(grep("_name 'Sodium chloride'\n", "_name"), "[Sodium chloride]");
    EXPECT_EQ(grep("_name ''\n", "_name"), "[]");
    EXPECT_EQ(grep("_name 'it's odd'\n", "_name"), "[it's odd]");  // first to last quote
    EXPECT_EQ(grep("_name \"a b\"\n", "_name"), "[\"a]");          // no double quotes
    EXPECT_EQ(grep("_name it's\n", "_name"), "[it's]");            // one quote: token rule
    EXPECT_EQ(grep("_name   \r\n", "_name"), "NULL");
    EXPECT_EQ(grep("_other 1\n", "_name"), "NULL");
    // Substring match: the first row containing the key, wherever the key sits.
    EXPECT_EQ(grep("x_cell_length_ab 7\n_cell_length_a 5\n", "_cell_length_a"), "[b]");
    EXPECT_EQ(grep("_title\n;\r\nfirst row\r\nsecond\r\n;\r\n_x 1\n", "_title"),
              "[first rowsecond]");
    EXPECT_EQ(grep("_title\n;opening text is dropped\nbody\n;\n", "_title"), "[body]");
    EXPECT_EQ(grep("_title\n;\nno closing row\n_x 1\n", "_title"), "NULL");
    // A key in one of the last two rows never reads a text field.
    EXPECT_EQ(grep("_title 'v'\n;", "_title"), "[v]");
    EXPECT_EQ(grep("_title 'v'\n;\n", "_title"), "NULL");  // three rows: an unclosed text field
    Rows none("");
    EXPECT_EQ(quovix_cell_import_cif_exist_keyword("_x", none.rows(), none.count()), 0);
    Rows some("a\n b_xy\n");
    EXPECT_EQ(quovix_cell_import_cif_exist_keyword("_x", some.rows(), some.count()), 1);
}

// ------------------------------------------------------------------ loop blocks

TEST(GrepLoop, BlocksEndWhereTheRulesSay) {
    {
        Loop l;  // last block of the text, no blank row after it
        grep_loop(l, "loop_\n_a\n_b\n1 2\n3 4", "_b");
        ASSERT_EQ(l.status, 0);
        EXPECT_EQ(l.rows, 3);
        EXPECT_EQ(l.cols, 2);
        EXPECT_EQ(l.at(0, 0), "_a");
        EXPECT_EQ(l.at(2, 1), "4");
    }
    {
        Loop l;  // a comment row ends the block; rows after it are not records
        grep_loop(l, "loop_\n _a\n1\n# note\n2\n", "_a");
        ASSERT_EQ(l.status, 0);
        EXPECT_EQ(l.rows, 2);
    }
    {
        Loop l;  // consecutive loops; a '_' row after data ends the block
        grep_loop(l, "loop_\n_x\n1\nloop_\n_y\n_z\n'a b' c d\n_w 5\n", "_z");
        ASSERT_EQ(l.status, 0);
        EXPECT_EQ(l.rows, 2);
        EXPECT_EQ(l.at(1, 0), "a b");
        EXPECT_EQ(l.at(1, 1), "c");  // the extra token "d" is dropped
    }
    {
        Loop l;  // short records leave null cells; quotes end tokens whatever follows
        grep_loop(l, "loop_\n_a\n_b\n_c\n'x'y\n\n", "_c");
        ASSERT_EQ(l.status, 0);
        EXPECT_EQ(l.at(1, 0), "x");
        EXPECT_EQ(l.at(1, 1), "y");
        EXPECT_EQ(l.at(1, 2), "NULL");
    }
}

TEST(GrepLoop, MissingBlocksAndOpenQuotes) {
    Loop a;
    grep_loop(a, "loop_\n_a\n1\n", "_b");
    EXPECT_EQ(a.status, 1);
    EXPECT_EQ(a.log.out, "Warning: _loop block containing _b not found.\n");
    Loop b;  // the wanted block has no data row
    grep_loop(b, "loop_\n_b\n\n", "_b");
    EXPECT_EQ(b.status, 1);
    EXPECT_EQ(b.log.out, "Warning: _loop block containing _b not found.\n");
    Loop c;
    grep_loop(c, "loop_\n_b\n'ok'\n'open\n", "_b");
    EXPECT_EQ(c.status, 1);
    EXPECT_EQ(c.log.err, "Error: open single quotation mark detected at row 2.\n");
    Loop d;  // a CR before the closing quote leaves it open
    grep_loop(d, "loop_\n_b\n'x\r'\n", "_b");
    EXPECT_EQ(d.status, 1);
    EXPECT_EQ(d.log.err, "Error: open single quotation mark detected at row 1.\n");
}

// ------------------------------------------------------------------ atom-site readers

TEST(ReadAtom, TypesAndOxidationStatesFromSymbols) {
    Loop l;
    grep_loop(
        l,
        "loop_\n_atom_site_label\n_atom_site_type_symbol\nA Fe3+\nB O2-\nC O-2\nD Li+\nE Fe2.5+\n",
        "_atom_site_label");
    ASSERT_EQ(l.status, 0);
    QUOVIX_ATOM atom[5] = {};
    ASSERT_EQ(quovix_cell_import_cif_read_atom_name(atom, l.cells, l.rows, l.cols), 0);
    ASSERT_EQ(quovix_cell_import_cif_read_atom_type(atom, l.cells, l.rows, l.cols), 0);
    const char *type[] = {"Fe", "O", "O", "Li", "Fe"};
    const double value[] = {3, -2, 2, 99, 2.5};  // O-2 reads +2: the sign must follow the digits
    for (int i = 0; i < 5; ++i) {
        EXPECT_STREQ(atom[i].type, type[i]) << i;
        EXPECT_EQ(atom[i].value, value[i]) << i;
    }
    Loop bad;
    grep_loop(bad, "loop_\n_atom_site_label\n_atom_site_type_symbol\nA 2+\n", "_atom_site_label");
    QUOVIX_ATOM one[1] = {};
    Captured c = capture([&] {
        EXPECT_EQ(quovix_cell_import_cif_read_atom_type(one, bad.cells, bad.rows, bad.cols), 1);
    });
    EXPECT_EQ(c.err, "Error: invalid field content 2+.\n");
}

TEST(ReadAtom, ElementSymbolsFromLabels) {
    QUOVIX_ATOM atom[4] = {};
    std::strcpy(atom[0].name, "Oa1");
    std::strcpy(atom[1].name, "LI1");
    std::strcpy(atom[2].name, "1Na");
    std::strcpy(atom[3].name, "X");
    std::strcpy(atom[3].type, "Cu");  // already typed: left alone
    ASSERT_EQ(quovix_atom_name_to_type(atom, 4), 0);
    EXPECT_STREQ(atom[0].type, "Oa");
    EXPECT_STREQ(atom[1].type, "LI");
    EXPECT_STREQ(atom[2].type, "Na");
    EXPECT_STREQ(atom[3].type, "Cu");
    QUOVIX_ATOM digits[1] = {};
    std::strcpy(digits[0].name, "123");
    Captured c = capture([&] { EXPECT_EQ(quovix_atom_name_to_type(digits, 1), 1); });
    EXPECT_EQ(c.err, "Error: unable to read atom.type from atom.name.\n");
}

TEST(ReadAtom, OxidationStatesFromTheTypeLoopNeedExactSymbols) {
    Loop site, type;
    grep_loop(site, "loop_\n_atom_site_label\n_atom_site_type_symbol\nA Cu2+\nB O2-\n",
              "_atom_site_label");
    grep_loop(type, "loop_\n_atom_type_symbol\n_atom_type_oxidation_number\nCu2+ 2.332\nO2- ?\n",
              "_atom_type_symbol");
    QUOVIX_ATOM atom[2] = {};
    quovix_cell_import_cif_read_atom_name(atom, site.cells, site.rows, site.cols);
    ASSERT_EQ(quovix_cell_import_cif_read_atom_typeos(atom, site.cells, site.rows, site.cols,
                                                      type.cells, type.rows, type.cols),
              0);
    EXPECT_EQ(atom[0].value, 2.332);
    EXPECT_EQ(atom[1].value, 99.0);  // "?" is not a number: unknown
    Loop other;
    grep_loop(other, "loop_\n_atom_type_symbol\n_atom_type_oxidation_number\ncu2+ 2\nO2- -2\n",
              "_atom_type_symbol");
    Captured c = capture([&] {
        EXPECT_EQ(quovix_cell_import_cif_read_atom_typeos(atom, site.cells, site.rows, site.cols,
                                                          other.cells, other.rows, other.cols),
                  1);
    });
    EXPECT_EQ(c.err, "Error: invalid field.\n");
}

TEST(ReadAtom, CoordinatesAreWrappedAndOccupancyIsCompulsory) {
    Loop l;
    grep_loop(
        l,
        "loop_\n_atom_site_label\n_atom_site_fract_x\n_atom_site_fract_y\n_atom_site_fract_z\n"
        "_atom_site_occupancy\nA 0.25(3) -0.25 1.0 .5(1)\nB -0.0 2.75 -1e-17 1\n",
        "_atom_site_label");
    QUOVIX_ATOM atom[2] = {};
    ASSERT_EQ(quovix_cell_import_cif_read_atom(atom, l.cells, l.rows, l.cols), 0);
    EXPECT_EQ(atom[0].x_f[0], 0.25);
    EXPECT_EQ(atom[0].x_f[1], 0.75);
    EXPECT_EQ(atom[0].x_f[2], 0.0);
    EXPECT_EQ(atom[0].occ, 0.5);
    EXPECT_FALSE(std::signbit(atom[1].x_f[0]));
    EXPECT_EQ(atom[1].x_f[1], 0.75);
    EXPECT_EQ(atom[1].x_f[2], 0.0);

    Loop noocc;
    grep_loop(noocc,
              "loop_\n_atom_site_label\n_atom_site_fract_x\n_atom_site_fract_y\n_atom_site_fract_"
              "z\nA 0 0 0\n",
              "_atom_site_label");
    Captured c = capture([&] {
        EXPECT_EQ(quovix_cell_import_cif_read_atom(atom, noocc.cells, noocc.rows, noocc.cols), 1);
    });
    EXPECT_EQ(c.err, "Error: invalid keywords.\n");
    const char *bad[] = {"A 0 nan 0 1\n", "A 0 0 0 inf\n"};
    const char *msg[] = {"y", nullptr};
    for (int k = 0; k < 2; ++k) {
        Loop b;
        grep_loop(b,
                  std::string("loop_\n_atom_site_label\n_atom_site_fract_x\n_atom_site_fract_y\n_"
                              "atom_site_fract_z\n"
                              "_atom_site_occupancy\n") +
                      bad[k],
                  "_atom_site_label");
        c = capture(
            [&] { EXPECT_EQ(quovix_cell_import_cif_read_atom(atom, b.cells, b.rows, b.cols), 1); });
        EXPECT_EQ(c.err, msg[k] ? std::string("Error: unable to read fractional ") + msg[k] + ".\n"
                                : std::string("Error: unable to read occupancy.\n"));
    }
}

TEST(ReadAtom, ConstraintFlags) {
    Loop l;
    grep_loop(l, "loop_\n_atom_site_label\n_atom_site_quovix_fixed\nA true\nB F\nC T\n",
              "_atom_site_label");
    QUOVIX_ATOM atom[3] = {};
    atom[1].ignored = true;
    ASSERT_EQ(quovix_cell_import_cif_read_atom_constraint(atom, l.cells, l.rows, l.cols), 0);
    EXPECT_TRUE(atom[0].ignored);
    EXPECT_FALSE(atom[1].ignored);
    EXPECT_TRUE(atom[2].ignored);
    Loop none;
    grep_loop(none, "loop_\n_atom_site_label\nA\n", "_atom_site_label");
    Captured c = capture([&] {
        EXPECT_EQ(
            quovix_cell_import_cif_read_atom_constraint(atom, none.cells, none.rows, none.cols), 1);
    });
    EXPECT_EQ(c.err, "Error: unable to find keyword '_atom_site_quovix_fixed'.\n");
}

// ------------------------------------------------------------------ oxidation states

TEST(ForkOs, MixedValenceSplitsAndRounding) {
    QUOVIX_ATOM *atom = quovix_atom_new(4);
    long total = 4;
    const double value[] = {2.5, 2.05, 99.0, -1.5};
    for (int i = 0; i < 4; ++i) {
        atom[i].value = value[i];
        atom[i].occ = 1.0;
        std::strcpy(atom[i].type, "Fe");
    }
    ASSERT_EQ(quovix_atom_fork_os(&atom, &total), 0);
    ASSERT_EQ(total, 6);
    EXPECT_EQ(atom[0].os, 3);
    EXPECT_DOUBLE_EQ(atom[0].occ, 0.5);
    EXPECT_EQ(atom[4].os, 2);  // the copy of the first atom, appended
    EXPECT_DOUBLE_EQ(atom[4].occ, 0.5);
    EXPECT_EQ(atom[1].os, 2);
    EXPECT_EQ(atom[2].os, 99);
    EXPECT_EQ(atom[3].os, -1);
    EXPECT_EQ(atom[5].os, -2);
    for (long i = 0; i < total; ++i) EXPECT_EQ(atom[i].value, 0.0);
    quovix_atom_free(atom);
}

TEST(DefaultOs, FirstRowOfTheElementTable) {
    const std::string table =
        write_temp("unitary.dat",
                   "free text Li 9 9 9\nDATA_START\n3 Li 1 1 6.9\n8 O -2 -2 16\n"
                   "bad row\n3 Li 2 7 6.9\n26 Fe 2 3\nDATA_END\n29 Cu 1 1\n");
    QUOVIX_ATOM atom[4] = {};
    const char *type[] = {"Li", "Fe", "Cu", "O"};
    for (int i = 0; i < 4; ++i) {
        std::strcpy(atom[i].type, type[i]);
        atom[i].os = 99;
    }
    atom[3].os = -1;  // known states are kept
    ASSERT_EQ(quovix_atom_update_default_os(atom, 4, table.c_str()), 0);
    EXPECT_EQ(atom[0].os, 1);
    EXPECT_EQ(atom[1].os, 3);
    EXPECT_EQ(atom[2].os, 99);  // after DATA_END: not in the table
    EXPECT_EQ(atom[3].os, -1);
    const std::string none = test_tmp::dir() + "no_unitary.dat";
    Captured c =
        capture([&] { EXPECT_EQ(quovix_atom_update_default_os(atom, 4, none.c_str()), 1); });
    EXPECT_EQ(c.err, "Error: unable to open " + none + "\n");
}

// ------------------------------------------------------------------ reading sequence

TEST(ReadCif, SmallStructureWithItsMessages) {
    CifParts p;
    Loaded l = load_text(p.text());
    ASSERT_EQ(l.status, 0) << l.log.err;
    EXPECT_EQ(l.log.err, "");
    // The message sequence is pinned by the e2e case print-cell-NaCl.
    EXPECT_NE(l.log.out.find("Message: calculated cell volume = 64.000000\n"), std::string::npos);
    ASSERT_EQ(l.cell->total, 3);  // Li at +-1/4 and O at the origin
    EXPECT_STREQ(l.cell->name, "Li1+:2.000 O2-:1.000 ");
    EXPECT_DOUBLE_EQ(l.cell->atom[1].x[2], 3.0);
}

TEST(ReadCif, TypesFromLabelsAndStatesFromTheElementTable) {
    CifParts p;
    p.lattice.erase(p.lattice.find("_cell_formula_units_Z"));
    p.sites =
        "loop_\n_atom_site_label\n_atom_site_fract_x\n_atom_site_fract_y\n_atom_site_fract_z\n"
        "_atom_site_occupancy\nLi1 0.25 0.25 0.25 1\nO1 0 0 0 1\nXx2 0.5 0.5 0.5 1\n";
    Loaded l = load_text(p.text());
    ASSERT_EQ(l.status, 0) << l.log.err;
    EXPECT_NE(l.log.out.find("Message: unable to find keyword '_atom_site_type_symbol'.\n"),
              std::string::npos);
    EXPECT_NE(l.log.out.find("Warning: _cell_formula_units_Z is not available. \n"),
              std::string::npos);
    EXPECT_STREQ(l.cell->name, "Li1+:2.000 O2-:1.000 Xx99+:1.000 ");  // Xx is no element
}

TEST(ReadCif, MixedValenceAndLongLabels) {
    CifParts p;
    p.sites =
        "loop_\n_atom_type_symbol\n_atom_type_oxidation_number\nFe2.5+ 2.5\nO2- -2\n\n"
        "loop_\n_atom_site_label\n_atom_site_type_symbol\n_atom_site_fract_x\n_atom_site_fract_y\n"
        "_atom_site_fract_z\n_atom_site_occupancy\n'Fe long label' Fe2.5+ 0.5 0.5 0.5 1\nO1 O2- 0 "
        "0 0 1\n";
    Loaded l = load_text(p.text());
    ASSERT_EQ(l.status, 0) << l.log.err;
    EXPECT_STREQ(l.cell->name, "Fe2+:0.500 Fe3+:0.500 O2-:1.000 ");
    EXPECT_STREQ(l.cell->atom[0].name, "Fe long lab");  // cut to 11 characters
}

// Each malformed input fails with one clean chain, no output cell and (under the sanitizer
// build) no leak.
TEST(ReadCif, MalformedInputGivesTheErrorChain) {
    const CifParts p;
    // The small CIF with `from` replaced by `to` in one of its parts.
    const auto with = [&](std::string CifParts::*part, const std::string &from,
                          const std::string &to) {
        CifParts q = p;
        std::string &text = q.*part;
        text.replace(text.find(from), from.size(), to);
        return q.text();
    };
    const std::string lattice = "Error: quovix_cell_import_cif_read_lattice() returns non-zero.\n";
    const std::string atom = "Error: quovix_cell_import_cif_read_atom() returns non-zero.\n";
    const std::string no_label =
        "Error: unable to find compulsory keyword '_atom_site_label' in cif file.\n";
    const std::string header =
        "loop_\n_atom_site_label\n_atom_site_type_symbol\n_atom_site_fract_x\n"
        "_atom_site_fract_y\n_atom_site_fract_z\n_atom_site_occupancy\n";
    CifParts huge = p;  // 6000 sites times 192 operations
    huge.symmetry = "_symmetry_space_group_name_H-M 'F m -3 m'\n";
    huge.sites = header;
    for (int i = 0; i < 6000; ++i) huge.sites += "Li1 Li+ 0.1 0.2 0.3 1\n";
    static const char junk[] =
        "\x7f"
        "ELF\x01\x02\x03\xff\xfe loop_ \x80\x81\n\x90_atom";
    const std::string t = p.text();
    const struct {
        const char *what;
        std::string text, err;
    } cases[] = {
        {"no atom loop", with(&CifParts::sites, p.sites, ""), no_label},
        {"no symmetry", with(&CifParts::symmetry, p.symmetry, ""),
         "Error: quovix_symmetry_import_from_array_char_2D() returns NULL.\n"},
        {"no occupancy column", with(&CifParts::sites, "_atom_site_occupancy\n", ""),
         "Error: invalid keywords.\n" + atom},
        {"zero length", with(&CifParts::lattice, "4.0", "0"),
         "Error: invalid lattice: _cell_length_a = 0.000000 must be positive.\n" + lattice},
        {"NaN length", with(&CifParts::lattice, "4.0", "nan"),
         "Error: unable to read _cell_length_a from 'nan'.\n" + lattice},
        {"flat cell",
         with(&CifParts::lattice, "alpha 90\n_cell_angle_beta 90",
              "alpha 170\n_cell_angle_beta 10"),
         "Error: invalid lattice: angles 170.000000 10.000000 90.000000 give no volume.\n" +
             lattice},
        {"missing length", with(&CifParts::lattice, "_cell_length_c 4.0\n", ""),
         "Error: quovix_cell_import_cif_grep_keyword() returns NULL.\n" + lattice},
        {"open quote", with(&CifParts::sites, "Li1 Li+", "'Li1 Li+"),
         "Error: open single quotation mark detected at row 1.\n" + no_label},
        {"symbol without letters", with(&CifParts::sites, "O1 O2-", "O1 ?"),
         "Error: invalid field content ?.\n"
         "Error: quovix_cell_import_cif_read_atom_type() returns non-zero.\n"},
        {"label without letters",
         with(&CifParts::sites, p.sites,
              "loop_\n_atom_site_label\n_atom_site_fract_x\n_atom_site_fract_y\n"
              "_atom_site_fract_z\n_atom_site_occupancy\nLi1 0.25 0.25 0.25 1\n99 0 0 0 1\n"),
         "Error: unable to read atom.type from atom.name.\n"
         "Error: quovix_atom_name_to_typeos() returns non-zero.\n"},
        {"huge expansion", huge.text(),
         "Error: 6000 atoms times 192 operations exceed the limit of 1000000 atoms.\n"
         "Error: quovix_atom_spawn_by_symmetry() returns non-zero.\n"},
        {"binary junk", std::string(junk, sizeof junk - 1),
         "Error: quovix_symmetry_import_from_array_char_2D() returns NULL.\n"},
        {"truncated", t.substr(0, t.find("O1 O2-") + 4),
         "Error: unable to read occupancy.\n" + atom},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Loaded l = load_text(c.text);
        EXPECT_EQ(l.status, 1);
        EXPECT_FALSE(l.cell);
        EXPECT_FALSE(l.sym);
        EXPECT_EQ(l.log.err, c.err);  // the file-level line is added by _from_file
    }
}

// An empty or missing file: see the e2e cases print-cell-empty and print-cell-missing-file.
TEST(ReadCif, SettingsFileMissing) {
    // A structure that needs the settings file when it is not there.
    QUOVIX_CELL *c = nullptr;
    QUOVIX_SYMMETRY *s = nullptr;
    const std::string nosettings = test_tmp::dir() + "none_symcards.dat";
    Captured log = capture([&] {
        EXPECT_EQ(
            quovix_cell_import_cif_from_file(&c, &s, data_file("CuCrP2Se6_HM_only.cif").c_str(),
                                             nosettings.c_str(), unitary().c_str()),
            1);
    });
    EXPECT_EQ(log.err, "Error: unable to open " + nosettings +
                           "\nquovix_symmetry_import_by_keyword_HM() returns NULL.\n"
                           "Error: quovix_symmetry_import_from_array_char_2D() returns NULL.\n"
                           "Error: quovix_cell_import_cif_from_text() returns NULL.\n");
    EXPECT_EQ(c, nullptr);
    EXPECT_EQ(s, nullptr);
}

TEST(ReadCif, SeriesOfFilesByPrefix) {
    CifParts p;
    const std::string prefix = test_tmp::dir() + "series";
    for (int i = 0; i < 2; ++i) {
        std::ofstream(prefix + "." + std::to_string(i) + ".cif", std::ios::binary) << p.text();
    }
    QUOVIX_CELL **cells = nullptr;
    capture([&] {
        cells = quovix_cells_import_cif_from_file(prefix.c_str(), 2, symcards().c_str(),
                                                  unitary().c_str());
    });
    ASSERT_NE(cells, nullptr);
    EXPECT_EQ(cells[1]->total, 3);
    for (int i = 0; i < 2; ++i) quovix_cell_free(cells[i]);
    std::free(cells);
    // A missing file of the series: see the e2e case rx-neb-images-missing.
    Captured c = capture([&] {
        EXPECT_EQ(quovix_cells_import_cif_from_file(prefix.c_str(), 0, nullptr, nullptr), nullptr);
    });
    EXPECT_EQ(c.err, "Error: number of cells must be larger than zero.\n");
}
