// Symmetry operations, settings-file lookups, expansion, equality, sorting, reduction,
// validation and the space-group search.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "import_test_helpers.hpp"
#include "quovix-reference.hpp"
#include "temp_dir.hpp"

using namespace test_import;

namespace {

QUOVIX_CARD parse(const char *text, int *status = nullptr) {
    QUOVIX_CARD card{};
    const int s = quovix_card_set_by_text(&card, text);
    if (status) *status = s;
    return card;
}

struct CardCase {
    const char *text;
    double r[3][3];
    double t[3];
};

// One operation as a comparable key: rotation entries and translation modulo 1 in 1/24.
using OpKey = std::tuple<int, int, int, int, int, int, int, int, int, int, int, int>;
std::set<OpKey> op_set(const QUOVIX_SYMMETRY *sym) {
    std::set<OpKey> out;
    for (int c = 0; c < sym->total; ++c) {
        const QUOVIX_CARD &k = sym->card[c];
        int t[3];
        for (int i = 0; i < 3; ++i) {
            double v = k.t_f[i] - std::floor(k.t_f[i]);
            t[i] = static_cast<int>(std::lround(v * 24.0)) % 24;
        }
        const auto r = [&](int i, int j) { return static_cast<int>(std::lround(k.r_f[i][j])); };
        out.emplace(r(0, 0), r(0, 1), r(0, 2), r(1, 0), r(1, 1), r(1, 2), r(2, 0), r(2, 1), r(2, 2),
                    t[0], t[1], t[2]);
    }
    return out;
}

const char kMiniSettings[] =
    "mini settings file\n"
    "DATA_START\n"
    "#\n1\n'P 1'\n'P 1' 'P1'\n1\nx, y, z\n"
    "#\n2\n'-P 1'\n'P -1'\n2\nx, y, z\n-x, -y, -z\n"
    "#\n12\n'-C 2y'\n'C 1 2/m 1' 'C 2/m'\n8\n"
    "x, y, z\n-x, y, -z\n-x, -y, -z\nx, -y, z\n"
    "x+1/2, y+1/2, z\n-x+1/2, y+1/2, -z\n-x+1/2, -y+1/2, -z\nx+1/2, -y+1/2, z\n"
    "DATA_END\n"
    "#\n99\n'X'\n'X'\n1\nx, y, z\n";

}  // namespace

// ------------------------------------------------------------------ operation text

TEST(CardSetByText, ReadsRotationsTranslationsAndTheirQuirks) {
    const CardCase cases[] = {
        {"-x+1/2, -y, z+1/2", {{-1, 0, 0}, {0, -1, 0}, {0, 0, 1}}, {0.5, 0, 0.5}},
        // Decimal translations count only in front of the component.
        {"x+0.25, y, z", {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, {0, 0, 0}},
        {"0.5+x, 0.25+y, z", {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, {0.5, 0.25, 0}},
        // Sign from the second character before the '/' onwards.
        {"x-1/2, -y-1/2, 1/2-z", {{1, 0, 0}, {0, -1, 0}, {0, 0, -1}}, {-0.5, -0.5, 0.5}},
        {"-1/4+x, 3/4+y, 5/6-z", {{1, 0, 0}, {0, 1, 0}, {0, 0, -1}}, {-0.25, 0.75, 5.0 / 6.0}},
        {"x-y, x, z+1/3", {{1, -1, 0}, {1, 0, 0}, {0, 0, 1}}, {0, 0, 1.0 / 3.0}},
        {"'+X', '+Y', '-Z'", {{1, 0, 0}, {0, 1, 0}, {0, 0, -1}}, {0, 0, 0}},
        {" y ,\tz\r, x\n", {{0, 1, 0}, {0, 0, 1}, {1, 0, 0}}, {0, 0, 0}},
        // Translations are brought into [-1, 1].
        {"x+3/2, y, z", {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, {0.5, 0, 0}},
    };
    for (const CardCase &c : cases) {
        SCOPED_TRACE(c.text);
        int status = -1;
        const QUOVIX_CARD card = parse(c.text, &status);
        ASSERT_EQ(status, 0);
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) EXPECT_EQ(card.r_f[i][j], c.r[i][j]) << i << j;
            EXPECT_NEAR(card.t_f[i], c.t[i], 1e-12) << i;
        }
    }
}

TEST(CardSetByText, KeepsTextAndRejectsNonOperations) {
    QUOVIX_CARD card{};
    const std::string longop = "  x + 1/2  ,   y + 1/2  ,   z + 1/2  ";
    ASSERT_EQ(quovix_card_set_by_text(&card, longop.c_str()), 0);
    EXPECT_EQ(std::string(card.text), longop.substr(0, 35));

    Captured c = capture([&] { EXPECT_EQ(quovix_card_set_by_text(&card, nullptr), 1); });
    EXPECT_EQ(c.err, "Error: unable to set QUOVIX_CARD->text.\n");
    for (const char *bad : {"x, y", "a, b, c", "x, x, z", "x, y, z, x", "x/0, y, z"}) {
        SCOPED_TRACE(bad);
        c = capture([&] { EXPECT_EQ(quovix_card_set_by_text(&card, bad), 1); });
        EXPECT_EQ(c.err, std::string("Error: invalid symmetry operation '") + bad + "'.\n");
    }
}

// ------------------------------------------------------------------ settings lookups

TEST(SymmetryLookup, NamesFromTheRightPlace) {
    const std::string path = write_temp("mini.dat", kMiniSettings);
    EXPECT_EQ(quovix_symmetry_count_settings(path.c_str()), 3);  // rows after DATA_END ignored

    // Which entry each spelling finds is checked on the shipped file below; here which
    // names a found entry takes (the given text for the searched field, the file's rows for
    // the others).
    quovix_symmetry_ptr hm(quovix_symmetry_import_by_keyword_HM("2/m", path.c_str()));
    ASSERT_TRUE(hm);
    EXPECT_STREQ(hm->sg_HM, "2/m");
    EXPECT_STREQ(hm->sg_Hall, "-C 2y");
    EXPECT_EQ(hm->sg_id, 12);
    EXPECT_EQ(hm->card[5].t_f[0], 0.5);

    quovix_symmetry_ptr hall(quovix_symmetry_import_by_keyword_Hall("C 2", path.c_str()));
    ASSERT_TRUE(hall);
    EXPECT_STREQ(hall->sg_Hall, "C 2");
    EXPECT_STREQ(hall->sg_HM, "C 1 2/m 1");
}

TEST(SymmetryLookup, ReportsWhatWasNotFound) {
    const std::string path = write_temp("mini_missing.dat", kMiniSettings);
    const std::string in = " in " + path + ".\n";
    Captured c = capture([&] {
        EXPECT_EQ(quovix_symmetry_import_by_keyword_HM("F m -3 m", path.c_str()), nullptr);
    });
    EXPECT_EQ(c.err, "Error: unable to find keyword H-M F m -3 m" + in);
    c = capture(
        [&] { EXPECT_EQ(quovix_symmetry_import_by_internal_no(4, path.c_str()), nullptr); });
    EXPECT_EQ(c.err, "Error: unable to find required space group No.4" + in);
    const std::string none = test_tmp::dir() + "no_such_settings.dat";
    c = capture(
        [&] { EXPECT_EQ(quovix_symmetry_import_by_keyword_HM("P 1", none.c_str()), nullptr); });
    EXPECT_EQ(c.err, "Error: unable to open " + none + "\n");
    EXPECT_EQ(quovix_symmetry_count_settings(none.c_str()), -1);

    const std::string broken =
        write_temp("broken.dat", "DATA_START\n#\n1\n'P 1'\n'P 1'\n2\nx, y, z\n");
    c = capture(
        [&] { EXPECT_EQ(quovix_symmetry_import_by_internal_no(1, broken.c_str()), nullptr); });
    EXPECT_EQ(c.err, "Error: invalid space group entry No.1 in " + broken + ".\n");
    const std::string badop = write_temp("badop.dat", "DATA_START\n#\n1\n'P 1'\n'P 1'\n1\nx, y\n");
    c = capture(
        [&] { EXPECT_EQ(quovix_symmetry_import_by_internal_no(1, badop.c_str()), nullptr); });
    EXPECT_EQ(
        c.err,
        "Error: invalid symmetry operation 'x, y'.\nquovix_card_set_by_text() returns non-zero.\n");
}

// Every spelling of every entry of the shipped settings file finds the entry the lookup
// rule names (the first whose row contains the spelling) and, through it, the operations
// of that entry. Where that is an earlier entry the spelling is "shadowed": C 2 2 2
// (group 21) is part of C 2 2 21 (group 20) and the Hall symbol P 2 of P 2y. Such names
// are read as the earlier setting, by the substring rule; they are counted and listed.
TEST(SymmetryLookup, EveryShippedSpellingFindsItsOperations) {
    std::ifstream in(symcards());
    ASSERT_TRUE(in.good());
    std::vector<std::string> rows;
    bool started = false;
    for (std::string line; std::getline(in, line);) {
        if (!started) {
            started = line.find("DATA_START") != std::string::npos;
            continue;
        }
        if (line.find("DATA_END") != std::string::npos) break;
        rows.push_back(line);
    }
    std::vector<std::size_t> entry;
    for (std::size_t r = 0; r < rows.size(); ++r) {
        if (rows[r].find('#') != std::string::npos) entry.push_back(r);
    }
    const std::string path = symcards();
    if (entry.size() != 530) GTEST_SKIP() << "settings file not complete yet: " << entry.size();
    const auto quoted = [](const std::string &row) {
        std::vector<std::string> out;
        for (std::size_t p = row.find('\''); p != std::string::npos;) {
            const std::size_t q = row.find('\'', p + 1);
            if (q == std::string::npos) break;
            out.push_back(row.substr(p + 1, q - p - 1));
            p = row.find('\'', q + 1);
        }
        return out;
    };
    std::vector<std::set<OpKey>> sets;
    for (std::size_t k = 0; k < entry.size(); ++k) {
        quovix_symmetry_ptr sym(
            quovix_symmetry_import_by_internal_no(static_cast<int>(k) + 1, path.c_str()));
        ASSERT_TRUE(sym) << k + 1;
        sets.push_back(op_set(sym.get()));
        EXPECT_EQ(static_cast<int>(sets.back().size()), sym->total)
            << "repeated operation in " << k + 1;
    }
    // First entry (up to k) whose row at `offset` contains `text`.
    const auto first_holder = [&](std::size_t k, std::size_t offset, const std::string &text) {
        for (std::size_t e = 0; e < k; ++e) {
            if (rows[entry[e] + offset].find(text) != std::string::npos) return e;
        }
        return k;
    };
    std::vector<std::string> shadowed;
    for (std::size_t k = 0; k < entry.size(); ++k) {
        const std::size_t r = entry[k];
        SCOPED_TRACE("entry " + std::to_string(k + 1) + ": " + rows[r]);
        const auto check = [&](std::size_t offset, const std::string &text, const char *what) {
            const std::size_t expect = first_holder(k, offset, text);
            if (expect != k)
                shadowed.push_back(std::string(what) + " '" + text + "' -> entry " +
                                   std::to_string(expect + 1));
            QUOVIX_SYMMETRY *s = nullptr;
            if (offset == 3) s = quovix_symmetry_import_by_keyword_HM(text.c_str(), path.c_str());
            if (offset == 1) s = quovix_symmetry_import_by_keyword_id(text.c_str(), path.c_str());
            if (offset == 2) s = quovix_symmetry_import_by_keyword_Hall(text.c_str(), path.c_str());
            quovix_symmetry_ptr sym(s);
            ASSERT_TRUE(sym) << what << " " << text;
            EXPECT_EQ(op_set(sym.get()), sets[expect]) << what << " " << text;
        };
        for (const std::string &hm : quoted(rows[r + 3])) check(3, hm, "H-M");
        if (first_holder(k, 1, rows[r + 1]) == k) check(1, rows[r + 1], "number");
        for (const std::string &hall : quoted(rows[r + 2])) check(2, hall, "Hall");
    }
    std::string list;
    for (const std::string &s : shadowed) list += s + "\n";
    RecordProperty("shadowed_spellings", static_cast<int>(shadowed.size()));
    std::printf("%zu spellings are read as an earlier setting:\n%s", shadowed.size(), list.c_str());
}

// ------------------------------------------------------------------ symmetry of a CIF

TEST(SymmetryFromCif, TakesTheFirstSourcePresent) {
    const std::string path = write_temp("mini_cif.dat", kMiniSettings);
    const std::string loop = "loop_\n_symmetry_equiv_pos_as_xyz\n'x, y, z'\n'-x, -y, -z'\n\n";
    const std::string hm = "_symmetry_space_group_name_H-M 'C 2/m'\n";
    const std::string id = "_symmetry_Int_Tables_number 2\n";
    const std::string hall = "_symmetry_space_group_name_Hall '-P 1'\n";
    const auto run = [&](const std::string &text, Captured &c) {
        Rows rows(text);
        QUOVIX_SYMMETRY *s = nullptr;
        c = capture([&] {
            s = quovix_symmetry_import_from_array_char_2D(rows.rows(), rows.count(), path.c_str());
        });
        return quovix_symmetry_ptr(s);
    };
    // Operations first (either loop name), then H-M, number and Hall symbol; the number of
    // operations tells which source was read (2 from the loop, 8 for C 2/m and No. 12).
    const struct {
        std::string text;
        int total;
        const char *source;
    } cases[] = {
        {hm + id + loop, 2, "_symmetry_equiv_pos_as_xyz/_space_group_symop_operation_xyz"},
        {"loop_\n_space_group_symop_id\n_space_group_symop_operation_xyz\n1 x,y,z\n", 1,
         "_symmetry_equiv_pos_as_xyz/_space_group_symop_operation_xyz"},
        {id + hm, 8, "H-M symbol"},
        {hall + "_space_group_IT_number 12\n", 8, "IT id"},
        {hall, 2, "Hall symbol"},
    };
    Captured c;
    quovix_symmetry_ptr s;
    for (const auto &k : cases) {
        s = run(k.text, c);
        ASSERT_TRUE(s) << k.source;
        EXPECT_EQ(s->total, k.total) << k.source;
        EXPECT_NE(
            c.out.find("Message: determining symmetry from " + std::string(k.source) + " ...\n"),
            std::string::npos)
            << c.out;
    }
    s = run("_cell_length_a 3\n", c);
    EXPECT_FALSE(s);
    EXPECT_EQ(c.err, "");

    s = run("_symmetry_space_group_name_H-M 'F m -3 m'\n", c);
    EXPECT_FALSE(s);
    EXPECT_EQ(c.err, "Error: unable to find keyword H-M F m -3 m in " + path +
                         ".\nquovix_symmetry_import_by_keyword_HM() returns NULL.\n");
}

// ------------------------------------------------------------------ equality and sorting

TEST(AtomEqual, ToleranceAcrossThePeriodicBoundary) {
    QUOVIX_ATOM a{}, b{};
    std::strcpy(a.type, "Li");
    std::strcpy(b.type, "Li");
    a.os = b.os = 1;
    a.occ = b.occ = 0.5;
    a.x_f[0] = 0.001;
    b.x_f[0] = 0.999;
    EXPECT_TRUE(quovix_atom_equal(&a, &b));
    b.occ = 0.53;
    EXPECT_FALSE(quovix_atom_equal(&a, &b));
    b.occ = 0.519;
    b.x_f[0] = 0.9949;  // 0.0051 apart across the boundary
    EXPECT_FALSE(quovix_atom_equal(&a, &b));
    b.x_f[0] = 0.0059;  // 0.0049 apart directly
    EXPECT_TRUE(quovix_atom_equal(&a, &b));
    b.x_f[0] = 0.001;
    std::strcpy(b.type, "LI");
    EXPECT_FALSE(quovix_atom_equal(&a, &b));
}

// The binned duplicate search looks only at the bins that the equality window reaches: atoms
// on and beside bin edges (2000 atoms: 10 bins of 0.1 per axis) and across 0/1, with partners
// just inside and just outside the window, must give the all-pairs result.
TEST(AtomEqual, BinnedDuplicateSearchAtBinEdges) {
    const double base[] = {0.0, 1e-12, 0.1, 0.1 - 1e-12, 0.2 + 0.0049, 0.3 - 0.0051, 0.999, 0.5};
    const double step[] = {0.0, 0.0049, -0.0049, 0.004999999, 0.0051, -0.0051, 1.0, -0.999};
    std::vector<QUOVIX_ATOM> atoms;
    std::srand(7);
    while (atoms.size() < 2000) {
        QUOVIX_ATOM a{};
        std::strcpy(a.type, "O");
        a.os = -2;
        a.occ = 1.0;
        for (double &x : a.x_f) {
            x = base[std::rand() % 8] + step[std::rand() % 8];
            x -= std::floor(x);
        }
        atoms.push_back(a);
    }
    QUOVIX_ATOM *a = quovix_atom_new(2000), *b = quovix_atom_new(2000);
    std::copy(atoms.begin(), atoms.end(), a);
    std::copy(atoms.begin(), atoms.end(), b);
    long na = 2000, nb = 2000;
    ASSERT_EQ(quovix_atom_remove_duplicate(&a, &na), 0);
    ASSERT_EQ(quovix_atom_remove_duplicate_plain(&b, &nb), 0);
    EXPECT_TRUE(same_atoms(a, na, b, nb)) << na << " vs " << nb;
    EXPECT_LT(na, 1000);
    quovix_atom_free(a);
    quovix_atom_free(b);
}

TEST(AtomSort, LabelsInNaturalOrderWithinEqualSpecies) {
    EXPECT_LT(quovix_atom_name_compare("Li2", "Li10"), 0);
    EXPECT_LT(quovix_atom_name_compare("O", "O1"), 0);      // shorter first
    EXPECT_LT(quovix_atom_name_compare("O1", "Oa"), 0);     // digit before non-digit
    EXPECT_GT(quovix_atom_name_compare("Li02", "Li2"), 0);  // equal numbers: by position

    auto cell = cubic_cell(4.0, {{"Li10", "Li", 1, 0.1, 0, 0, 1.0},
                                 {"O1", "O", -2, 0.2, 0, 0, 1.0},
                                 {"Li2", "Li", 1, 0.3, 0, 0, 1.0},
                                 {"Li3", "Li", 1, 0.4, 0, 0, 0.5},
                                 {"Li4", "Li", 2, 0.5, 0, 0, 1.0}});
    quovix_atom_sort(cell->atom, cell->total);
    const char *order[] = {"Li3", "Li2", "Li10", "Li4", "O1"};  // occ 0.5 first; os 2 after os 1
    for (int i = 0; i < 5; ++i) EXPECT_STREQ(cell->atom[i].name, order[i]) << i;
}

// The shipped sort reproduces the exchange sort's permutation, ties included (the order of
// equal-key atoms shows in every printed or written cell).
TEST(AtomSort, FastSortGivesTheExchangeSortPermutation) {
    std::srand(12345);
    const char *types[] = {"O", "Li", "Na"};
    const char *names[] = {"X1", "X2", "X10", "X02", "X1"};
    for (int trial = 0; trial < 40; ++trial) {
        const long n = 1 + std::rand() % 300;
        std::vector<QUOVIX_ATOM> a(static_cast<std::size_t>(n));
        for (auto &at : a) {
            at = QUOVIX_ATOM{};
            std::strcpy(at.type, types[std::rand() % 3]);
            at.os = std::rand() % 3 - 1;
            at.occ = (std::rand() % 3) * 0.25;
            // Odd trials: many distinct labels, whose exchange sort takes long swap chains.
            if (trial % 2) {
                std::snprintf(at.name, sizeof at.name, "X%d", std::rand() % 400);
            } else {
                std::strcpy(at.name, names[std::rand() % 5]);
            }
            at.x_f[0] = std::rand() / static_cast<double>(RAND_MAX);  // tells equal keys apart
        }
        std::vector<QUOVIX_ATOM> b = a;
        quovix_atom_sort(a.data(), n);
        quovix_atom_sort_plain(b.data(), n);
        ASSERT_TRUE(same_atoms(a.data(), n, b.data(), n)) << "trial " << trial;
    }
}

// ------------------------------------------------------------------ expansion on real files

namespace {

struct Expanded {
    std::string file;
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
};

}  // namespace

class RealStructures : public testing::Test {
   protected:
    static void SetUpTestSuite() {
        for (const char *f :
             {"NaCl_rocksalt.cif", "Li6PS5Cl_argyrodite.cif", "La2Zr2O7_pyrochlore_origin1.cif",
              "Li10GeP2S12_LGPS.cif", "PMN-PT_cubic_mixed_sites.cif", "Li4B7O12Cl_boracite.cif",
              "Ferrierite_Na_zeolite.cif", "YBa2Cu3O7.cif", "TiO2_rutile.cif"}) {
            Loaded l = load(data_file(f));
            ASSERT_EQ(l.status, 0) << f << l.log.err;
            all().push_back({f, std::move(l.cell), std::move(l.sym)});
        }
    }
    static void TearDownTestSuite() { all().clear(); }
    static std::vector<Expanded> &all() {
        static std::vector<Expanded> v;
        return v;
    }
};

TEST_F(RealStructures, BinnedPartnerSearchesMatchThePlainOnes) {
    for (Expanded &e : all()) {
        SCOPED_TRACE(e.file);
        QUOVIX_CELL *c = e.cell.get();
        // Duplicate removal on the raw expansion of the whole cell.
        const long n = c->total * e.sym->total;
        std::vector<QUOVIX_ATOM> raw(static_cast<std::size_t>(n));
        for (long i = 0; i < c->total; ++i) {
            for (int k = 0; k < e.sym->total; ++k) {
                raw[static_cast<std::size_t>(i * e.sym->total + k)] =
                    quovix_atom_spawn_by_card(&c->atom[i], &e.sym->card[k]);
            }
        }
        QUOVIX_ATOM *a = quovix_atom_new(n);
        QUOVIX_ATOM *b = quovix_atom_new(n);
        std::copy(raw.begin(), raw.end(), a);
        std::copy(raw.begin(), raw.end(), b);
        long na = n, nb = n;
        ASSERT_EQ(quovix_atom_remove_duplicate(&a, &na), 0);
        ASSERT_EQ(quovix_atom_remove_duplicate_plain(&b, &nb), 0);
        EXPECT_TRUE(same_atoms(a, na, b, nb));
        EXPECT_EQ(na, c->total);  // the cell is closed under its own symmetry
        quovix_atom_free(a);
        quovix_atom_free(b);

        quovix_cell_ptr r1(quovix_cell_reduce_by_symmetry(c, e.sym.get()));
        quovix_cell_ptr r2(quovix_cell_reduce_by_symmetry_plain(c, e.sym.get()));
        ASSERT_TRUE(r1 && r2);
        EXPECT_TRUE(same_atoms(r1->atom, r1->total, r2->atom, r2->total));
        for (long i = 0; i < c->total; ++i) EXPECT_FALSE(c->atom[i].ignored);

        ASSERT_EQ(quovix_cell_flag_site_by_symmetry(c, e.sym.get()), 0);
        std::vector<long> f1;
        for (long i = 0; i < c->total; ++i) f1.push_back(c->atom[i].flag);
        ASSERT_EQ(quovix_cell_flag_site_by_symmetry_plain(c, e.sym.get()), 0);
        for (long i = 0; i < c->total; ++i)
            EXPECT_EQ(c->atom[i].flag, f1[static_cast<std::size_t>(i)]);
        // One site number per orbit: as many numbers as atoms in the reduced cell.
        EXPECT_EQ(*std::max_element(f1.begin(), f1.end()), r1->total);

        for (double tol : {0.001, 0.01, 0.2}) {
            const bool v1 = quovix_cell_validate_by_symmetry(c, e.sym.get(), tol);
            std::vector<bool> m1;
            for (long i = 0; i < c->total; ++i) m1.push_back(c->atom[i].ignored);
            const bool v2 = quovix_cell_validate_by_symmetry_plain(c, e.sym.get(), tol);
            EXPECT_EQ(v1, v2) << tol;
            for (long i = 0; i < c->total; ++i)
                EXPECT_EQ(c->atom[i].ignored, m1[static_cast<std::size_t>(i)]);
        }
        quovix_cell_refresh(c);
    }
}

// The expanded rock salt cell is pinned by the e2e case print-cell-NaCl, the limit on the
// expanded atoms by the case "huge expansion" of ReadCif.MalformedInputGivesTheErrorChain.

TEST(GridForm, IndicesWrapIntoTheGrid) {
    quovix_symmetry_ptr sym(quovix_symmetry_new(1));
    ASSERT_EQ(quovix_card_set_by_text(&sym->card[0], "-x+1/2, y, z-1/4"), 0);
    const long n[3] = {20, 20, 30};
    ASSERT_EQ(quovix_symmetry_fill_card_discrete(sym.get(), n), 0);
    EXPECT_EQ(sym->card[0].r_i[0][0], -1);
    EXPECT_EQ(sym->card[0].t_i[0], 10);
    EXPECT_EQ(sym->card[0].t_i[2], -8);  // lround(-7.5)
    long out[3];
    const long in[3] = {11, -1, 0};
    quovix_card_transform_vector3_long(out, in, n, &sym->card[0]);
    EXPECT_EQ(out[0], 19);  // -11 + 10 = -1 -> 19
    EXPECT_EQ(out[1], 19);
    EXPECT_EQ(out[2], 22);
}

// ------------------------------------------------------------------ validation and search

TEST(Validation, ToleranceIsCartesianAndNotPeriodic) {
    quovix_symmetry_ptr inv(quovix_symmetry_new(1));
    ASSERT_EQ(quovix_card_set_by_text(&inv->card[0], "-x, -y, -z"), 0);
    // Atoms at +-0.1 along a of a 10 A cell: images coincide.
    auto cell = cubic_cell(
        10.0, {{"A1", "Li", 1, 0.1, 0.5, 0.5, 1.0}, {"A2", "Li", 1, 0.9, 0.5, 0.5, 1.0}});
    EXPECT_TRUE(quovix_cell_validate_by_symmetry(cell.get(), inv.get(), 0.01));
    cell->atom[1].x[0] += 0.009;  // image 0.009 A away: inside 0.01, outside 0.005
    EXPECT_TRUE(quovix_cell_validate_by_symmetry(cell.get(), inv.get(), -1.0));
    EXPECT_FALSE(quovix_cell_validate_by_symmetry(cell.get(), inv.get(), 0.005));
    for (long i = 0; i < cell->total; ++i)
        EXPECT_FALSE(cell->atom[i].ignored);  // cleared on failure
    cell->atom[1].occ = 0.9996;               // occupancies must agree within 0.0005
    EXPECT_TRUE(quovix_cell_validate_by_symmetry(cell.get(), inv.get(), 0.01));
    cell->atom[1].occ = 0.999;
    EXPECT_FALSE(quovix_cell_validate_by_symmetry(cell.get(), inv.get(), 0.01));
    // An atom 0.0005 A from the origin: its image is 0.001 A away through the boundary, but
    // periodic images are not tried, so the stored atom is 10 A from the wrapped image.
    auto edge = cubic_cell(10.0, {{"B1", "O", -2, 0.00005, 0.5, 0.5, 1.0}});
    EXPECT_FALSE(quovix_cell_validate_by_symmetry(edge.get(), inv.get(), 0.01));
    edge->atom[0].x_f[0] = 0.0;
    quovix_cell_update_cartesion(edge.get());
    EXPECT_TRUE(quovix_cell_validate_by_symmetry(edge.get(), inv.get(), 0.01));
}

TEST(SpaceGroupSearch, P1RockSaltKeepsTheLastFittingSetting) {
    auto cell = cubic_cell(5.62, {{"Na1", "Na", 1, 0, 0, 0, 1},
                                  {"Na1", "Na", 1, 0, 0.5, 0.5, 1},
                                  {"Na1", "Na", 1, 0.5, 0, 0.5, 1},
                                  {"Na1", "Na", 1, 0.5, 0.5, 0, 1},
                                  {"Cl1", "Cl", -1, 0.5, 0.5, 0.5, 1},
                                  {"Cl1", "Cl", -1, 0.5, 0, 0, 1},
                                  {"Cl1", "Cl", -1, 0, 0.5, 0, 1},
                                  {"Cl1", "Cl", -1, 0, 0, 0.5, 1}});
    QUOVIX_SYMMETRY *found = nullptr;
    Captured c = capture(
        [&] { found = quovix_symmetry_calculate_from_cell(cell.get(), -1.0, symcards().c_str()); });
    quovix_symmetry_ptr owner(found);
    ASSERT_TRUE(found) << c.err;
    EXPECT_EQ(found->sg_id, 225);
    EXPECT_STREQ(found->sg_HM, "F m -3 m");
    EXPECT_NE(c.out.find("Message: structure fits to symmetry P m -3 m.\n"), std::string::npos);
    const std::string tail =
        "Message: structure fits to symmetry F m -3 m.\nMessage: determined space group: F m -3 "
        "m\n";
    EXPECT_EQ(c.out.substr(c.out.size() - tail.size()), tail);

    QUOVIX_SYMMETRY *plain = nullptr;
    Captured c2 = capture([&] {
        plain = quovix_symmetry_calculate_from_cell_plain(cell.get(), -1.0, symcards().c_str());
    });
    quovix_symmetry_ptr plain_owner(plain);
    EXPECT_EQ(c2.out, c.out);

    const std::string none = test_tmp::dir() + "absent_symcards.dat";
    c = capture([&] {
        EXPECT_EQ(quovix_symmetry_calculate_from_cell(cell.get(), 0.01, none.c_str()), nullptr);
    });
    EXPECT_EQ(c.out, "Error: unable to open " + none + ".\n");
}
