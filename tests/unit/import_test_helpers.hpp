// Helpers shared by the structure and parameter tests (CIF reader, symmetry, cell operations,
// parameter sets, bond valence sums, energies): data files, captured output, test cells.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "quovix-import.hpp"
#include "temp_dir.hpp"

namespace test_import {

inline std::string data_file(const std::string &name) {
    return std::string(QUOVIX_TEST_DATA_DIR) + "/" + name;
}
inline std::string symcards() { return std::string(QUOVIX_DATA_DIR) + "/database_symcards.dat"; }
inline std::string unitary() { return std::string(QUOVIX_DATA_DIR) + "/database_unitary.dat"; }
inline std::string binary() { return std::string(QUOVIX_DATA_DIR) + "/database_binary.dat"; }

/// Writes `content` to the file `file_name` of the test temp directory and returns its path.
/// Each test program uses its own prefix, so that programs run in parallel never share a file.
inline std::string write_temp_file(const std::string &file_name, const std::string &content) {
    return test_tmp::write_file(test_tmp::dir() + file_name, content);
}
inline std::string write_temp(const std::string &name, const std::string &content) {
    return write_temp_file("quovix_import_" + name, content);
}

/// Rows of a text as the CIF reader sees them (split at LF, CRs kept).
struct Rows {
    std::vector<std::string> text;
    std::vector<char *> ptr;
    explicit Rows(const std::string &all) {
        std::size_t start = 0;
        for (;;) {
            const std::size_t nl = all.find('\n', start);
            text.push_back(
                all.substr(start, nl == std::string::npos ? std::string::npos : nl - start));
            if (nl == std::string::npos) break;
            start = nl + 1;
        }
        for (auto &s : text) ptr.push_back(s.data());
    }
    char **rows() { return ptr.data(); }
    long count() const { return static_cast<long>(ptr.size()); }
};

/// Output of a call, both streams captured.
struct Captured {
    std::string out, err;
};
template <class F>
Captured capture(F &&f) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    f();
    Captured c;
    c.out = testing::internal::GetCapturedStdout();
    c.err = testing::internal::GetCapturedStderr();
    return c;
}

/// A structure read from tests/data with the shipped data files (messages swallowed).
struct Loaded {
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    int status = 1;
    Captured log;
};
inline Loaded load(const std::string &path) {
    Loaded l;
    QUOVIX_CELL *c = nullptr;
    QUOVIX_SYMMETRY *s = nullptr;
    l.log = capture([&] {
        l.status = quovix_cell_import_cif_from_file(&c, &s, path.c_str(), symcards().c_str(),
                                                    unitary().c_str());
    });
    l.cell.reset(c);
    l.sym.reset(s);
    return l;
}
inline Loaded load_text(const std::string &content) {
    Loaded l;
    QUOVIX_CELL *c = nullptr;
    QUOVIX_SYMMETRY *s = nullptr;
    quovix_text_ptr text(quovix_text_new(content.c_str()));
    l.log = capture([&] {
        l.status = quovix_cell_import_cif_from_text(&c, &s, text.get(), symcards().c_str(),
                                                    unitary().c_str());
    });
    l.cell.reset(c);
    l.sym.reset(s);
    return l;
}

struct AtomInit {
    const char *name;
    const char *type;
    int os;
    double x, y, z, occ;
};

/// A cell with the given constants and atoms (Cartesian positions filled in).
inline quovix_cell_ptr make_cell(const double par[3], const double ang[3],
                                 std::span<const AtomInit> atoms) {
    quovix_cell_ptr cell(quovix_cell_new(static_cast<long>(atoms.size())));
    for (int k = 0; k < 3; ++k) {
        cell->parameter[k] = par[k];
        cell->angle[k] = ang[k];
    }
    long i = 0;
    for (const AtomInit &s : atoms) {
        QUOVIX_ATOM &a = cell->atom[i++];
        std::snprintf(a.name, sizeof a.name, "%s", s.name);  // truncated to the field
        std::snprintf(a.type, sizeof a.type, "%s", s.type);
        a.os = s.os;
        a.x_f[0] = s.x;
        a.x_f[1] = s.y;
        a.x_f[2] = s.z;
        a.occ = s.occ;
    }
    quovix_cell_update_cartesion(cell.get());
    return cell;
}
inline quovix_cell_ptr make_cell(const double par[3], const double ang[3],
                                 std::initializer_list<AtomInit> atoms) {
    return make_cell(par, ang, std::span<const AtomInit>(atoms.begin(), atoms.size()));
}

inline quovix_cell_ptr cubic_cell(double a, std::initializer_list<AtomInit> atoms) {
    const double par[3] = {a, a, a}, ang[3] = {90.0, 90.0, 90.0};
    return make_cell(par, ang, atoms);
}

/// One atom of a cubic test cell given by its species.
struct Species {
    const char *type;
    int os;
    double x, y, z, occ;
};
enum class Labels { numbered, none };

/// Cubic cell of edge `a` with the atoms in the given order, labelled by symbol and 1-based
/// position ("Na1", "Cl2") or left without labels.
inline quovix_cell_ptr species_cell(double a, std::initializer_list<Species> sites,
                                    Labels labels = Labels::numbered) {
    std::vector<std::string> names;
    for (const Species &s : sites) {
        names.push_back(labels == Labels::numbered
                            ? std::string(s.type) + std::to_string(names.size() + 1)
                            : std::string());
    }
    std::vector<AtomInit> atoms;
    std::size_t i = 0;
    for (const Species &s : sites) {
        atoms.push_back({names[i++].c_str(), s.type, s.os, s.x, s.y, s.z, s.occ});
    }
    const double par[3] = {a, a, a}, ang[3] = {90.0, 90.0, 90.0};
    return make_cell(par, ang, atoms);
}

/// The parameter set of a cell from the shipped parameter files with a given screening
/// factor (no fit), its messages swallowed; null on failure.
inline quovix_property_ptr quiet_property(QUOVIX_CELL *cell, double sf) {
    testing::internal::CaptureStdout();
    quovix_property_ptr ppt{quovix_property_import_from_cell(cell, nullptr, 0, sf,
                                                             unitary().c_str(), binary().c_str())};
    testing::internal::GetCapturedStdout();
    return ppt;
}

/// Byte-exact comparison of two atom arrays (order, coordinates, labels, marks).
inline bool same_atoms(const QUOVIX_ATOM *a, long na, const QUOVIX_ATOM *b, long nb) {
    if (na != nb) return false;
    for (long i = 0; i < na; ++i) {
        if (std::strcmp(a[i].name, b[i].name) != 0 || std::strcmp(a[i].type, b[i].type) != 0 ||
            a[i].os != b[i].os || a[i].occ != b[i].occ || a[i].flag != b[i].flag ||
            a[i].ignored != b[i].ignored) {
            return false;
        }
        for (int k = 0; k < 3; ++k) {
            if (a[i].x_f[k] != b[i].x_f[k]) return false;
        }
    }
    return true;
}

}  // namespace test_import
