// Helpers shared by the structure tests (CIF reader, symmetry, cell operations).
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include "quovix-import.hpp"

namespace test_import {

inline std::string data_file(const std::string &name) {
    return std::string(QUOVIX_TEST_DATA_DIR) + "/" + name;
}
inline std::string symcards() { return std::string(QUOVIX_DATA_DIR) + "/database_symcards.dat"; }
inline std::string unitary() { return std::string(QUOVIX_DATA_DIR) + "/database_unitary.dat"; }

/// Writes `content` to a fresh file in the test temp directory and returns its path.
inline std::string write_temp(const std::string &name, const std::string &content) {
    const std::string path = testing::TempDir() + "quovix_import_" + name;
    std::ofstream out(path, std::ios::binary);
    out << content;
    return path;
}

/// Rows of a text as the CIF reader sees them (split at LF, CRs kept).
struct Rows {
    std::vector<std::string> text;
    std::vector<char *> ptr;
    explicit Rows(const std::string &all) {
        std::size_t start = 0;
        for (;;) {
            const std::size_t nl = all.find('\n', start);
            text.push_back(all.substr(start, nl == std::string::npos ? std::string::npos : nl - start));
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
                                 std::initializer_list<AtomInit> atoms) {
    quovix_cell_ptr cell(quovix_cell_new(static_cast<long>(atoms.size())));
    for (int k = 0; k < 3; ++k) {
        cell->parameter[k] = par[k];
        cell->angle[k] = ang[k];
    }
    long i = 0;
    for (const AtomInit &s : atoms) {
        QUOVIX_ATOM &a = cell->atom[i++];
        std::strncpy(a.name, s.name, sizeof a.name - 1);
        std::strncpy(a.type, s.type, sizeof a.type - 1);
        a.os = s.os;
        a.x_f[0] = s.x;
        a.x_f[1] = s.y;
        a.x_f[2] = s.z;
        a.occ = s.occ;
    }
    quovix_cell_update_cartesion(cell.get());
    return cell;
}

inline quovix_cell_ptr cubic_cell(double a, std::initializer_list<AtomInit> atoms) {
    const double par[3] = {a, a, a}, ang[3] = {90.0, 90.0, 90.0};
    return make_cell(par, ang, atoms);
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
