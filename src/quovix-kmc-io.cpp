// Kinetic Monte Carlo output: printers, trajectory logs and occupancy cells.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "quovix-alloc.hpp"
#include "quovix-import.hpp"
#include "quovix-kmc.hpp"

namespace {

void print_to(std::FILE *out, QUOVIX_KMC *kmc, bool full) {
    if (kmc == nullptr || kmc->graph == nullptr) {
        std::fputs("KMC: (not allocated)\n", out);
        return;
    }
    const QUOVIX_GRAPH *g = kmc->graph;
    std::fprintf(out,
                 "KMC: total_v = %ld; total_e = %ld; ions = %ld; step = %ld; t = %.3e ps; "
                 "t_total = %.3e ps; rate = %.3e /ps\n",
                 g->total_v, g->total_e, kmc->total_ion, kmc->step, kmc->t, kmc->t_total,
                 kmc->tree ? kmc->tree[1] : 0.0);
    if (!full) return;
    std::fprintf(out,
                 "KMC: temperature = %.2lf K; t_limit = %.3e ps; step_limit = %ld; step_log = "
                 "%ld; step_equil = %ld\n",
                 kmc->temperature, kmc->t_limit, kmc->step_limit, kmc->step_log, kmc->step_equil);
    for (long i = 0; i < g->total_v; ++i) {
        const QUOVIX_KMC_VERTEX &v = kmc->kv[i];
        std::fprintf(out,
                     "KMC: v[%ld] %-10s en = %9.4lf; occupied = %d; init = %d; origin = %ld; "
                     "neighbours = %d; edges = %d\n",
                     i, v.v ? v.v->name : "", v.en, v.occupied ? 1 : 0, v.init ? 1 : 0, v.origin,
                     v.total_v, v.total_e);
    }
    for (long i = 0; i < g->total_e; ++i) {
        const QUOVIX_KMC_EDGE &e = kmc->ke[i];
        std::fprintf(out,
                     "KMC: e[%ld] %ld -> %ld; en = %9.4lf; l = %.3lf; f = %.3e; r = %.3e; "
                     "saddle neighbours = %d\n",
                     i, e.e ? e.e->v_i->index : -1L, e.e ? e.e->v_f->index : -1L, e.en, e.l, e.f,
                     e.r, e.total_v);
    }
}

/// Time-averaged occupancy of vertex i (the current one before any production time).
double average_occ(const QUOVIX_KMC *kmc, long i) {
    if (kmc->t > 0.0) return kmc->kv[i].t / kmc->t;
    return kmc->kv[i].occupied ? 1.0 : 0.0;
}

void set_mobile_atom(QUOVIX_ATOM &atom, const QUOVIX_KMC *kmc, long i, double occ) {
    const QUOVIX_GRAPH *g = kmc->graph;
    std::memset(&atom, 0, sizeof atom);
    std::snprintf(atom.name, sizeof atom.name, "%s", g->v[i].name);
    if (atom.name[0] == '\0') {
        char name[48];
        std::snprintf(name, sizeof name, "%s%ld", g->type, i);
        std::memcpy(atom.name, name, sizeof atom.name - 1);  // at most 11 characters
    }
    std::snprintf(atom.type, sizeof atom.type, "%s", g->type);
    atom.os = g->os;
    atom.occ = occ;
    for (int k = 0; k < 3; ++k) atom.x[k] = g->v[i].x[k];
}

QUOVIX_CELL *finish_cell(QUOVIX_CELL *cell, const double a[3][3]) {
    std::memcpy(cell->a, a, sizeof cell->a);
    cell->Z = 1;
    quovix_cell_update_fractional(cell);
    quovix_cell_bound_fractional(cell);
    quovix_cell_update_cartesion(cell);
    quovix_cell_update_name(cell);
    return cell;
}

}  // namespace

void quovix_kmc_print(QUOVIX_KMC *kmc) { print_to(stdout, kmc, true); }

void quovix_kmc_print_short(QUOVIX_KMC *kmc) { print_to(stdout, kmc, false); }

void quovix_kmc_print_result(QUOVIX_KMC *kmc) {
    if (kmc == nullptr || kmc->graph == nullptr) {
        std::printf("KMC: (not allocated)\n");
        return;
    }
    const QUOVIX_GRAPH *g = kmc->graph;
    const double *dp = kmc->displacement;
    const double *df = kmc->diffusivity;
    const double *mu = kmc->mobility;
    const double *sg = kmc->conductivity;
    std::printf("KMC: temperature = %.3lf\n", kmc->temperature);
    std::printf("KMC: conducting species: %s%d%c\n", g->type, quovix_abs_os(g->os),
                quovix_sign_char(g->os));
    // The simulation runs in ps; the time line is printed in fs as labelled.
    std::printf("KMC: time = %.1e / %.1e (time_total = %.1e) fs\n", kmc->t * 1000.0,
                kmc->t_limit * 1000.0, kmc->t_total * 1000.0);
    std::printf("KMC: step = %ld / %ld; step_log = %ld\n", kmc->step, kmc->step_limit,
                kmc->step_log);
    std::printf("KMC: displacement = %lf, (%lf, %lf, %lf) A\n", dp[3], dp[0], dp[1], dp[2]);
    std::printf("KMC: diffusivity = %.2e, (%.2e, %.2e, %.2e) E-8 m^2/s\n", df[3], df[0], df[1],
                df[2]);
    std::printf("KMC: mobility = %.2e, (%.2e, %.2e, %.2e) E-8 m^2/(V*s)\n", mu[3], mu[0], mu[1],
                mu[2]);
    std::printf("KMC: conductivity = %.2e, (%.2e, %.2e, %.2e) S/cm\n", sg[3], sg[0], sg[1], sg[2]);
    std::printf("KMC: total site = %ld\n", g->total_v);
    std::printf("KMC: summary of site-averaged occupancy:\n");
    std::vector<std::string> names;
    std::vector<double> sum;
    std::vector<long> count;
    double total = 0.0;
    for (long i = 0; i < g->total_v; ++i) {
        const std::string name = g->v[i].name;
        std::size_t k = 0;
        while (k < names.size() && names[k] != name) ++k;
        if (k == names.size()) {
            names.push_back(name);
            sum.push_back(0.0);
            count.push_back(0);
        }
        const double occ = average_occ(kmc, i);
        sum[k] += occ;
        ++count[k];
        total += occ;
    }
    for (std::size_t k = 0; k < names.size(); ++k)
        std::printf("KMC: [%8s] %.3lf (multiplicity = %4ld)\n", names[k].c_str(), sum[k] / count[k],
                    count[k]);
    std::printf("KMC: [%8s] %.3lf / %.3lf\n", "total", total, g->total_occ);
    if (kmc->logname[0] != '\0')
        std::printf("KMC: displacement information saved to %s\n", kmc->logname);
    if (kmc->xyzname[0] != '\0')
        std::printf("KMC: trajectory information saved to %s\n", kmc->xyzname);
    if (kmc->total_block >= 2 && std::isfinite(kmc->diffusivity_se[3])) {
        const double *e = kmc->diffusivity_se;
        const double *m = kmc->mobility_se;
        const double *c = kmc->conductivity_se;
        std::printf(
            "KMC: diffusivity standard error = %.2e, (%.2e, %.2e, %.2e) E-8 m^2/s (%d blocks)\n",
            e[3], e[0], e[1], e[2], kmc->total_block);
        std::printf(
            "KMC: mobility standard error = %.2e, (%.2e, %.2e, %.2e) E-8 m^2/(V*s) (%d blocks)\n",
            m[3], m[0], m[1], m[2], kmc->total_block);
        std::printf(
            "KMC: conductivity standard error = %.2e, (%.2e, %.2e, %.2e) S/cm (%d blocks)\n", c[3],
            c[0], c[1], c[2], kmc->total_block);
    } else {
        std::printf("Message: too few blocks for a standard error (%d).\n", kmc->total_block);
    }
}

// ======================================================================= logs

int quovix_kmc_log(QUOVIX_KMC *kmc) {
    if (kmc == nullptr) return 1;
    if (kmc->step_log <= 0 || kmc->step % kmc->step_log != 0) return 0;
    if (quovix_kmc_log_trj(kmc) != 0) {
        std::fputs("Error: quovix_kmc_log_trj() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_kmc_log_xyz(kmc) != 0) {
        std::fputs("Error: quovix_kmc_log_xyz() returns non-zero.\n", stderr);
        return 1;
    }
    return 0;
}

int quovix_kmc_log_trj(QUOVIX_KMC *kmc) {
    if (kmc == nullptr) return 1;
    std::FILE *out = kmc->log;
    if (out == nullptr) return 0;
    if (std::ftell(out) == 0) {
        std::fputs("step,t", out);
        for (long n = 0; n < kmc->total_ion; ++n)
            std::fprintf(out, ",site%ld_dx,site%ld_dy,site%ld_dz", kmc->ion[n], kmc->ion[n],
                         kmc->ion[n]);
        std::fputs("\n", out);
    }
    std::fprintf(out, "%ld,%lf", kmc->step, kmc->t);
    for (long n = 0; n < kmc->total_ion; ++n) {
        const double *d = kmc->kv[kmc->ion[n]].d;
        std::fprintf(out, ",%lf,%lf,%lf", d[0], d[1], d[2]);
    }
    return std::fputs("\n", out) < 0 ? 1 : 0;
}

int quovix_kmc_log_xyz(QUOVIX_KMC *kmc) {
    if (kmc == nullptr) return 1;
    std::FILE *out = kmc->xyz;
    if (out == nullptr) return 0;
    // Unwrapped positions (origin + displacement), one line per ion in a fixed order, so a
    // viewer follows each ion across the periodic boundaries.
    std::fprintf(out, "%ld\n", kmc->total_ion);
    std::fprintf(out, "%ld %12.6lf\n", kmc->step, kmc->t);
    for (long n = 0; n < kmc->total_ion; ++n) {
        const long o = kmc->ion[n];
        const double *x = kmc->graph->v[o].x;
        const double *d = kmc->kv[o].d;
        std::fprintf(out, "%s %lf %lf %lf\n", kmc->graph->type, x[0] + d[0], x[1] + d[1],
                     x[2] + d[2]);
    }
    return std::ferror(out) ? 1 : 0;
}

// ======================================================================= cells

QUOVIX_CELL *quovix_kmc_export_to_cell(QUOVIX_KMC *kmc) {
    if (kmc == nullptr || kmc->graph == nullptr || kmc->kv == nullptr) {
        std::fputs("Error: QUOVIX_KMC has not been properly initialized.\n", stderr);
        return nullptr;
    }
    const QUOVIX_GRAPH *g = kmc->graph;
    long n = 0;
    for (long i = 0; i < g->total_v; ++i) n += kmc->kv[i].occupied ? 1 : 0;
    QUOVIX_CELL *cell = quovix_cell_new(n);
    if (cell == nullptr) {
        std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
        return nullptr;
    }
    long k = 0;
    for (long i = 0; i < g->total_v; ++i)
        if (kmc->kv[i].occupied) set_mobile_atom(cell->atom[k++], kmc, i, 1.0);
    return finish_cell(cell, g->a);
}

QUOVIX_CELL *quovix_kmc_export_occ_to_cell(QUOVIX_KMC *kmc, QUOVIX_CELL *cell) {
    if (kmc == nullptr || kmc->graph == nullptr || kmc->kv == nullptr || cell == nullptr ||
        (cell->total > 0 && cell->atom == nullptr)) {
        std::fputs("Error: QUOVIX_KMC or QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    const QUOVIX_GRAPH *g = kmc->graph;
    // Vertices shown down to the printed precision of an occupancy.
    constexpr double occ_min = 0.0005;
    long n = 0;
    for (long i = 0; i < cell->total; ++i)
        n += (std::strcmp(cell->atom[i].type, g->type) == 0 && cell->atom[i].os == g->os) ? 0 : 1;
    for (long i = 0; i < g->total_v; ++i) n += average_occ(kmc, i) >= occ_min ? 1 : 0;
    QUOVIX_CELL *out = quovix_cell_new(n);
    if (out == nullptr) {
        std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
        return nullptr;
    }
    long k = 0;
    for (long i = 0; i < cell->total; ++i)
        if (!(std::strcmp(cell->atom[i].type, g->type) == 0 && cell->atom[i].os == g->os))
            out->atom[k++] = cell->atom[i];
    for (long i = 0; i < g->total_v; ++i) {
        const double occ = average_occ(kmc, i);
        if (occ >= occ_min) set_mobile_atom(out->atom[k++], kmc, i, occ);
    }
    return finish_cell(out, cell->a);
}
