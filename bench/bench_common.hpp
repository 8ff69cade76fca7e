// Setup shared by the benchmarks: data-file paths, a guard that silences standard output, and
// the shared test structures read into owned cell and symmetry.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>

#include "quovix-alloc.hpp"
#include "quovix-import.hpp"

namespace bench {

inline const std::string kUnitary = std::string(QUOVIX_DATA_DIR) + "/database_unitary.dat";
inline const std::string kBinary = std::string(QUOVIX_DATA_DIR) + "/database_binary.dat";
inline const std::string kSymcards = std::string(QUOVIX_DATA_DIR) + "/database_symcards.dat";

/// Keeps the messages of the readers, fits and searches out of the benchmark report: standard
/// output goes to /dev/null while the guard lives.
class quiet_stdout {
   public:
    quiet_stdout() : saved_(dup(1)) {
        std::fflush(stdout);
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, 1);
            close(null);
        }
    }
    ~quiet_stdout() {
        std::fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, 1);
            close(saved_);
        }
    }
    quiet_stdout(const quiet_stdout &) = delete;
    quiet_stdout &operator=(const quiet_stdout &) = delete;

   private:
    int saved_;
};

/// Whole content of a file of tests/data (empty when it cannot be read).
inline std::string read_test_file(const std::string &name) {
    std::ifstream in(std::string(QUOVIX_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    return std::string{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// The faujasite file has no occupancy column, which the CIF reader requires; one of 1.0 is
/// added to every site row of the atom loop, so that the largest shared structure (576 atoms)
/// can be used.
inline std::string with_occupancy(const std::string &text) {
    std::string out;
    bool in_sites = false;
    for (std::size_t pos = 0; pos < text.size();) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(pos, end - pos);
        if (in_sites && !line.empty() && line[0] == ' ') line += "  1.0";
        out += line + "\n";
        if (line.rfind("_atom_site_fract_z", 0) == 0) {
            out += "_atom_site_occupancy\n";
            in_sites = true;
        }
        pos = end + 1;
    }
    return out;
}

/// A structure read from CIF text: both null when the reader fails.
struct structure {
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
};

/// Reads CIF text with the shipped data files, messages silenced.
inline structure read_cif_text(const std::string &content) {
    structure s;
    quiet_stdout quiet;
    quovix_text_ptr text{quovix_text_new(content.c_str())};
    QUOVIX_CELL *cell = nullptr;
    QUOVIX_SYMMETRY *sym = nullptr;
    if (quovix_cell_import_cif_from_text(&cell, &sym, text.get(), kSymcards.c_str(),
                                         kUnitary.c_str()) == 0) {
        s.cell.reset(cell);
        s.sym.reset(sym);
    } else {
        quovix_cell_free(cell);
        quovix_symmetry_free(sym);
    }
    return s;
}

/// Reads a structure of tests/data; the faujasite file ("FAU...") gets its occupancy column.
inline structure read_test_cif(const std::string &name) {
    std::string text = read_test_file(name);
    if (name.rfind("FAU", 0) == 0) text = with_occupancy(text);
    return read_cif_text(text);
}

/// The four largest shared structures, in the order of the benchmark arguments 0..3.
inline const char *const kLargeStructures[] = {"FAU_faujasite_SiO2.cif", "Li4B7O12Cl_boracite.cif",
                                               "Na3PS4_cubic_2x2x2_P1.cif",
                                               "Li6PS5Cl_argyrodite.cif"};

/// A cell with its parameter set.
struct system {
    quovix_cell_ptr cell;
    quovix_property_ptr ppt;
};

/// A structure of tests/data and its parameter set (sf 0.75, no mobile species), read once
/// per name; with `flag_sites` the atoms get their site numbers first. `ppt` stays null when
/// any step fails.
inline system &load_system(const std::string &name, bool flag_sites) {
    static std::map<std::pair<std::string, bool>, system> cache;
    const auto key = std::make_pair(name, flag_sites);
    auto found = cache.find(key);
    if (found != cache.end()) return found->second;
    structure read = read_test_cif(name);
    quiet_stdout quiet;
    system s;
    s.cell = std::move(read.cell);
    if (s.cell &&
        (!flag_sites || quovix_cell_flag_site_by_symmetry(s.cell.get(), read.sym.get()) == 0)) {
        s.ppt.reset(quovix_property_import_from_cell(s.cell.get(), nullptr, 0, 0.75,
                                                     kUnitary.c_str(), kBinary.c_str()));
    }
    return cache.emplace(key, std::move(s)).first->second;
}

}  // namespace bench
