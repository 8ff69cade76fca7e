// Bond valence sums of a flagged cell: plain loop over all images (reference) against the
// image-bounded, threaded sum, on the largest shared structures.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "quovix-alloc.hpp"
#include "quovix-import.hpp"
#include "quovix-bv.hpp"

namespace {

const std::string kUnitary = std::string(QUOVIX_DATA_DIR) + "/database_unitary.dat";
const std::string kBinary = std::string(QUOVIX_DATA_DIR) + "/database_binary.dat";
const std::string kSymcards = std::string(QUOVIX_DATA_DIR) + "/database_symcards.dat";

// Keeps the messages of the readers and of the fit out of the benchmark report.
class quiet_stdout {
  public:
    quiet_stdout() {
        std::fflush(stdout);
        saved_ = dup(1);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~quiet_stdout() {
        std::fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }

  private:
    int saved_;
};

// The faujasite file has no occupancy column, which the CIF reader requires; one of 1.0 is
// added to every site so that the largest shared structure (576 atoms) can be used.
std::string with_occupancy(const std::string &text) {
    std::string out;
    std::size_t pos = 0;
    bool in_sites = false;
    while (pos < text.size()) {
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

struct system {
    quovix_cell_ptr cell;
    quovix_property_ptr ppt;
};

system &load(const std::string &name) {
    static std::map<std::string, system> cache;
    auto found = cache.find(name);
    if (found != cache.end()) return found->second;
    quiet_stdout quiet;
    std::ifstream in(std::string(QUOVIX_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (name.rfind("FAU", 0) == 0) text = with_occupancy(text);
    quovix_text_ptr buffer{quovix_text_new(text.c_str())};
    QUOVIX_CELL *cell = nullptr;
    QUOVIX_SYMMETRY *sym = nullptr;
    quovix_cell_import_cif_from_text(&cell, &sym, buffer.get(), kSymcards.c_str(),
                                     kUnitary.c_str());
    quovix_symmetry_ptr symmetry{sym};
    system s;
    s.cell.reset(cell);
    if (cell && quovix_cell_flag_site_by_symmetry(cell, sym) == 0) {
        s.ppt.reset(quovix_property_import_from_cell(cell, nullptr, 0, 0.75, kUnitary.c_str(),
                                                     kBinary.c_str()));
    }
    return cache.emplace(name, std::move(s)).first->second;
}

const char *const kStructures[] = {"FAU_faujasite_SiO2.cif", "Li4B7O12Cl_boracite.cif",
                                   "Na3PS4_cubic_2x2x2_P1.cif", "Li6PS5Cl_argyrodite.cif"};

void bv_sum(benchmark::State &state, bool plain) {
    system &s = load(kStructures[state.range(0)]);
    if (!s.ppt) {
        state.SkipWithError("structure not loaded");
        return;
    }
    for (auto _ : state) {
        quovix_bv_ptr bv{plain ? quovix_bv_calculate_from_flagged_cell_reference(s.cell.get(),
                                                                               s.ppt.get())
                               : quovix_bv_calculate_from_flagged_cell(s.cell.get(), s.ppt.get())};
        benchmark::DoNotOptimize(bv.get());
    }
    state.SetLabel(std::string(kStructures[state.range(0)]) + ", " +
                   std::to_string(s.cell->total) + " atoms");
}

void BM_BvSumPlain(benchmark::State &state) { bv_sum(state, true); }
void BM_BvSum(benchmark::State &state) { bv_sum(state, false); }

}  // namespace

BENCHMARK(BM_BvSumPlain)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BvSum)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
