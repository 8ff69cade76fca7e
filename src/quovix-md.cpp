// Molecular dynamics of the mobile ions: the run record, Langevin velocity-Verlet integration,
// observables, conduction properties, the two phases with their logs, and the --md chain.
//
// Equations of motion of a free ion (mass m, force f, friction zeta, target temperature T):
// the Langevin velocity-Verlet step of Brunger, Brooks and Karplus (Chem. Phys. Lett. 105, 495
// (1984)) in its split form,
//   v <- v + dt/2 (f/m - zeta v) + sqrt(zeta k_B T dt / m) r      (r a unit normal deviate)
//   x <- x + dt v,  new forces,  the same half step again with new deviates,
// whose noise amplitude per half step, sqrt(2 zeta k_B T (dt/2) / m), balances the friction
// (fluctuation-dissipation), so that the ions relax to the target temperature. With zeta = 0
// it is the plain velocity-Verlet step, which conserves the total energy.
#include "quovix-md.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <string>
#include <vector>

#include "quovix-import.hpp"
#include "quovix-la.hpp"

namespace {

constexpr double nan_value = std::numeric_limits<double>::quiet_NaN();
constexpr double max_temperature = 1.0e6;  // K; hotter requests are errors
// A run writes at most this many lines of structures (frames x atoms).
constexpr double max_xyz_lines = 1.0e8;

bool check_steps(double t, double dt) {
    const double n = t / dt;
    return n <= static_cast<double>(QUOVIX_MD_MAX_STEPS);  // false for NaN
}

bool valid(const QUOVIX_MD *md) {
    return md != nullptr && md->cell != nullptr && md->ppt != nullptr && md->state != nullptr &&
           md->m != nullptr && md->x != nullptr && md->x0 != nullptr && md->x_p1 != nullptr &&
           md->v != nullptr && md->v_nh != nullptr && md->f != nullptr && md->r != nullptr;
}

// Time step, phase lengths and sampling interval set (by quovix_md_init_vv).
bool ready(const QUOVIX_MD *md) {
    return md->dt > 0.0 && md->step_log >= 1 && check_steps(md->t_end, md->dt) &&
           check_steps(md->t_equil, md->dt);
}

int not_initialized() {
    std::fputs("Error: QUOVIX_MD has not been properly initialized.\n", stderr);
    return 1;
}

// True when a step returned 0; otherwise prints "Error: <call> returns non-zero.".
[[nodiscard]] bool step_ok(int status, const char *call) {
    if (status == 0) return true;
    std::fprintf(stderr, "Error: %s returns non-zero.\n", call);
    return false;
}

// The forces of the current positions; false after the error line.
[[nodiscard]] bool force_ok(QUOVIX_MD *md) {
    if (quovix_md_calculate_force(md) != nullptr) return true;
    std::fputs("Error: quovix_md_calculate_force() returns NULL.\n", stderr);
    return false;
}

// Zero-filled array of n rows of three doubles (at least one row), or null.
double (*rows3(long n))[3] {
    return static_cast<double(*)[3]>(
        std::calloc(static_cast<std::size_t>(std::max(n, 1L)), sizeof(double[3])));
}

// "<name><suffix>" from at most 1000 characters of the name.
void file_name(char out[QUOVIX_PATH_LEN], const char *name, const char *suffix) {
    std::snprintf(out, QUOVIX_PATH_LEN, "%.1000s%s", name, suffix);
}

// Number of time steps of a phase: t / dt rounded, at least 1.
long phase_steps(double t, double dt) {
    const double n = std::nearbyint(t / dt);
    return n < 1.0 ? 1L : static_cast<long>(n);
}

// Prints the progress marks due after `done` of `total` steps (20 marks for the whole phase).
void progress(long done, long total, int &printed) {
    const int due =
        static_cast<int>((20.0 * static_cast<double>(done)) / static_cast<double>(total));
    const int target = std::min(due, 20);
    if (target <= printed) return;
    for (; printed < target; ++printed) std::fputc('-', stdout);
    std::fflush(stdout);
}

// Conducting species of the run, or null.
const QUOVIX_PROPERTY_UNITARY *conducting_species(const QUOVIX_MD *md) {
    const QUOVIX_PROPERTY *ppt = md->ppt;
    if (ppt->conducting < 0 || ppt->conducting >= ppt->total || ppt->uni == nullptr) return nullptr;
    return &ppt->uni[ppt->conducting];
}

bool is_conducting_ion(const QUOVIX_MD *md, long i) {
    const QUOVIX_PROPERTY_UNITARY *u = conducting_species(md);
    const QUOVIX_ATOM &a = md->cell->atom[i];
    return u != nullptr && !a.ignored && a.os == u->os &&
           std::strncmp(a.type, u->type, QUOVIX_TYPE_LEN) == 0;
}

// Mobility and conductivity per unit of diffusivity (the factors of the conduction formulas).
void conduction_factors(const QUOVIX_MD *md, long n, double &mobility, double &conductivity) {
    const QUOVIX_PROPERTY_UNITARY *u = conducting_species(md);
    const double os = u != nullptr ? static_cast<double>(u->os) : nan_value;
    mobility = os / md->temperature_ave * QUOVIX_E_OVER_KB;
    conductivity =
        mobility * (static_cast<double>(n) / md->volume) * os * QUOVIX_ELEMENTARY_CHARGE * 10.0;
}

// ------------------------------------------------------------------------------- result files
int write_log_headers(QUOVIX_MD *md) {
    if (md->log != nullptr) {
        std::fprintf(md->log,
                     "%10s, %15s, %12s, %12s, %12s, %7s, %7s, %12s, %12s, %12s, %7s, %7s\n", "step",
                     "t", "en", "en_k", "en_p", "T", "P", "en_ave", "en_k_ave", "en_p_ave", "T_ave",
                     "P_ave");
    }
    if (md->trj != nullptr) {
        std::vector<long> ions;
        for (long i = 0; i < md->cell->total; ++i)
            if (is_conducting_ion(md, i)) ions.push_back(i);
        std::fputs("t, d_ave,", md->trj);
        for (std::size_t k = 0; k < ions.size(); ++k) {
            std::fprintf(md->trj, "d_%ld_%s%s", ions[k], md->cell->atom[ions[k]].name,
                         k + 1 < ions.size() ? "," : "\n");
        }
        if (ions.empty()) std::fputs("\n", md->trj);
    }
    return 0;
}

void write_sample(QUOVIX_MD *md) {
    constexpr double gpa = QUOVIX_MD_EV_A3_TO_GPA;
    if (md->log != nullptr) {
        std::fprintf(md->log,
                     "%10ld, %15.6lf, %12.6lf, %12.6lf, %12.6lf, %7.3lf, %7.3lf, %12.6lf, %12.6lf, "
                     "%12.6lf, %7.3lf, %7.3lf\n",
                     md->step, md->t, md->en, md->en_k, md->en_p, md->temperature,
                     md->pressure * gpa, md->en_ave, md->en_k_ave, md->en_p_ave,
                     md->temperature_ave, md->pressure_ave * gpa);
    }
    if (md->xyz != nullptr) {
        std::fprintf(md->xyz, "%ld\n", md->cell->total);
        std::fprintf(md->xyz, "%ld %12.6lf\n", md->step, md->t);
        for (long i = 0; i < md->cell->total; ++i) {
            const QUOVIX_ATOM &a = md->cell->atom[i];
            std::fprintf(md->xyz, "%s %lf %lf %lf\n", a.type, a.x[0], a.x[1], a.x[2]);
        }
    }
    if (md->trj != nullptr) {
        std::vector<double> d;
        for (long i = 0; i < md->cell->total; ++i) {
            if (!is_conducting_ion(md, i)) continue;
            double s = 0.0;
            for (int c = 0; c < 3; ++c)
                s += (md->x[i][c] - md->x0[i][c]) * (md->x[i][c] - md->x0[i][c]);
            d.push_back(std::sqrt(s));
        }
        double mean = nan_value;
        if (!d.empty()) {
            double s = 0.0;
            for (double v : d) s += v;
            mean = s / static_cast<double>(d.size());
        }
        std::fprintf(md->trj, "%lf, %lf,", md->t, mean);
        for (std::size_t k = 0; k < d.size(); ++k)
            std::fprintf(md->trj, "%lf%s", d[k], k + 1 < d.size() ? "," : "\n");
        if (d.empty()) std::fputs("\n", md->trj);
    }
}

// ------------------------------------------------------------------------- block averages
// Diffusivity of the block that ends now: mean squared displacement of the conducting ions
// since the block started, over 6 times its duration.
void close_block(QUOVIX_MD *md, double duration) {
    quovix_md_state &s = *md->state;
    double sum = 0.0;
    long n = 0;
    for (long i = 0; i < md->cell->total; ++i) {
        if (!is_conducting_ion(md, i)) continue;
        for (int c = 0; c < 3; ++c) {
            const double d = md->x[i][c] - s.block_start[3 * i + c];
            sum += d * d;
        }
        ++n;
    }
    if (duration > 0.0)
        s.block_d.push_back(n > 0 ? sum / static_cast<double>(n) / (6.0 * duration) : nan_value);
    for (long i = 0; i < md->cell->total; ++i)
        for (int c = 0; c < 3; ++c) s.block_start[3 * i + c] = md->x[i][c];
}

// Standard error of the mean of the block diffusivities (NaN with fewer than two blocks).
double block_standard_error(const std::vector<double> &d) {
    const std::size_t b = d.size();
    if (b < 2) return nan_value;
    double mean = 0.0;
    for (double v : d) mean += v;
    mean /= static_cast<double>(b);
    double ss = 0.0;
    for (double v : d) ss += (v - mean) * (v - mean);
    return std::sqrt(ss / (static_cast<double>(b) * static_cast<double>(b - 1)));
}

// One step of a phase; stops the run on divergence.
int phase_step(QUOVIX_MD *md) {
    if (quovix_md_update_vv_langevin(md) != 0) {
        std::fputs("Error: quovix_md_update_vv_langevin() returns non-zero.\n", stderr);
        return 1;
    }
    ++md->step;
    md->t = static_cast<double>(md->step) * md->dt;
    return 0;
}

// Largest number of steps accepted for a phase, with the message naming the parameter.
bool check_phase(const char *name, double t, double dt) {
    const double n = t / dt;
    if (!(n <= static_cast<double>(QUOVIX_MD_MAX_STEPS))) {
        std::fprintf(stderr,
                     "Error: %s = %g ps with dt = %g ps is %.3g time steps, more than %ld.\n", name,
                     t, dt, n, QUOVIX_MD_MAX_STEPS);
        return false;
    }
    return true;
}

}  // namespace

// ===================================================================================== records

/// New run on copies of the cell and parameter set: per-atom arrays, positions from the cell,
/// pair table and free-atom list. `name` gives the result files "<name>.md.txt" (observables),
/// "<name>.md.xyz" (structures) and "<name>.md.trj" (displacements).
QUOVIX_MD *quovix_md_new(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, const char *name) {
    if (cell == nullptr || cell->atom == nullptr || cell->total <= 0) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    if (ppt == nullptr || ppt->uni == nullptr || ppt->bin == nullptr || ppt->total <= 0) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return nullptr;
    }
    quovix_md_ptr md{static_cast<QUOVIX_MD *>(std::calloc(1, sizeof(QUOVIX_MD)))};
    if (!md) {
        std::fputs("Error: unable to allocate QUOVIX_MD.\n", stderr);
        return nullptr;
    }
    md->cell = quovix_cell_copy(cell);
    if (md->cell == nullptr) {
        std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
        return nullptr;
    }
    md->ppt = quovix_property_copy(ppt);
    if (md->ppt == nullptr) {
        std::fputs("Error: quovix_property_copy() returns NULL.\n", stderr);
        return nullptr;
    }
    const long n = cell->total;
    md->m = static_cast<double *>(std::calloc(static_cast<std::size_t>(n), sizeof(double)));
    if (md->m == nullptr) {
        std::fputs("Error: unable to allocate md->m.\n", stderr);
        return nullptr;
    }
    struct {
        double (**field)[3];
        const char *message;
    } arrays[] = {{&md->x, "Error: unable to allocate md->x.\n"},
                  {&md->x0, "Error: unable to allocate md->x0.\n"},
                  {&md->x_p1, "Error: unable to allocate md->x_p1.\n"},
                  {&md->v, "Error: unable to allocate md->v.\n"},
                  {&md->v_nh, "Error: unable to allocate md->v_nh.\n"},
                  {&md->f, "Error: unable to allocate md->f.\n"},
                  {&md->r, "Error: unable to allocate md->r.\n"}};
    for (auto &a : arrays) {
        *a.field = rows3(n);
        if (*a.field == nullptr) {
            std::fputs(a.message, stderr);
            return nullptr;
        }
    }
    md->state = quovix_guard("QUOVIX_MD", [] { return new quovix_md_state(); });
    if (md->state == nullptr) return nullptr;
    for (long i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c) {
            md->x[i][c] = md->cell->atom[i].x[c];
            md->x0[i][c] = md->x_p1[i][c] = md->x[i][c];
        }
    }
    if (quovix_md_prepare_interaction(md.get()) != 0) {
        std::fputs("Error: quovix_md_prepare_interaction() returns non-zero.\n", stderr);
        return nullptr;
    }
    md->total_free = static_cast<long>(md->state->free.size());
    md->volume = quovix_cell_calculate_volume(md->cell);
    md->zeta = -0.1;
    md->t_log = -0.1;
    if (name != nullptr) {
        file_name(md->logname, name, ".md.txt");
        file_name(md->xyzname, name, ".md.xyz");
        file_name(md->trjname, name, ".md.trj");
    }
    return md.release();
}

void quovix_md_free(QUOVIX_MD *md) {
    if (md == nullptr) return;
    delete md->state;  // closes (and discards) result files that were not committed
    quovix_cell_free(md->cell);
    quovix_property_free(md->ppt);
    std::free(md->m);
    for (double(*a)[3] : {md->x, md->x0, md->x_p1, md->v, md->v_nh, md->f, md->r}) std::free(a);
    std::free(md);
}

/// Diagnostic print: the short status, then step, time and conduction properties.
void quovix_md_print(QUOVIX_MD *md) {
    if (md == nullptr) {
        std::printf("MD: (not allocated)\n");
        return;
    }
    quovix_md_print_short(md);
    std::printf("MD: step = %ld, t = %lf\n", md->step, md->t);
    std::printf("MD: displacement = %lf, diffusivity = %e, mobility = %e, conductivity = %e\n",
                md->displacement, md->diffusivity, md->mobility, md->conductivity);
}

/// Status block printed before the equilibration (pressure in GPa).
void quovix_md_print_short(QUOVIX_MD *md) {
    if (md == nullptr) {
        std::printf("MD: (not allocated)\n");
        return;
    }
    std::printf("MD: total atoms = %ld, free atoms = %ld\n", md->cell ? md->cell->total : 0L,
                md->total_free);
    std::printf("MD: t_end = %lf, t_equil = %lf, dt = %lf, t_log = %lf\n", md->t_end, md->t_equil,
                md->dt, md->t_log);
    std::printf("MD: en = %lf, en_k = %lf, en_p = %lf\n", md->en, md->en_k, md->en_p);
    std::printf("MD: T = %.3lf, T_int = %.3lf, T_target = %.3lf\n", md->temperature,
                md->temperature_init, md->temperature_target);
    std::printf("MD: P = %lf\n", md->pressure * QUOVIX_MD_EV_A3_TO_GPA);
    std::printf("MD: V = %.2lf\n", md->volume);
    std::printf("MD: zeta = %.3lf\n", md->zeta);
    std::printf("MD: center of mass at (%.3lf, %.3lf, %.3lf).\n", md->x_com[0], md->x_com[1],
                md->x_com[2]);
}

// ============================================================================ initialisation

/// Defaults (each applied when the stored value is not positive), sampling interval, result
/// files, masses, initial velocities, first forces and observables.
int quovix_md_init_vv(QUOVIX_MD *md, bool open_files) {
    if (!valid(md)) return not_initialized();
    if (!(md->temperature_init > 0.0)) md->temperature_init = QUOVIX_MD_DEFAULT_TEMPERATURE_INIT;
    if (!(md->temperature_target > 0.0)) md->temperature_target = QUOVIX_MD_DEFAULT_TEMPERATURE;
    if (!(md->dt > 0.0)) md->dt = QUOVIX_MD_DEFAULT_DT;
    if (!(md->zeta > 0.0)) md->zeta = QUOVIX_MD_DEFAULT_ZETA;
    if (!(md->t_end > 0.0)) md->t_end = QUOVIX_MD_DEFAULT_T_END;
    if (!(md->t_equil > 0.0)) md->t_equil = QUOVIX_MD_DEFAULT_T_EQUIL;
    for (double t : {md->temperature_init, md->temperature_target}) {
        if (!(t <= max_temperature)) {
            std::fprintf(stderr, "Error: temperature %g K is out of range (at most %g K).\n", t,
                         max_temperature);
            return 1;
        }
    }
    if (!std::isfinite(md->zeta) || !std::isfinite(md->dt)) {
        std::fputs("Error: time step or friction is not finite.\n", stderr);
        return 1;
    }
    if (!check_phase("t_end", md->t_end, md->dt) || !check_phase("t_equil", md->t_equil, md->dt))
        return 1;
    // Sampling: the integer part of t_log / dt steps, 100 when that is below 1.
    const double q = md->t_log / md->dt;
    md->step_log = q >= 1.0 ? static_cast<long>(std::min(q, 1e15)) : QUOVIX_MD_DEFAULT_STEP_LOG;
    md->t_log = static_cast<double>(md->step_log) * md->dt;
    const double frames =
        std::floor(static_cast<double>(phase_steps(md->t_end, md->dt)) / md->step_log) + 1.0;
    if (open_files && frames * static_cast<double>(md->cell->total + 2) > max_xyz_lines) {
        std::fprintf(stderr,
                     "Error: %.0f samples of %ld atoms exceed the size limit of the structure "
                     "file; sample less often (t_log).\n",
                     frames, md->cell->total);
        return 1;
    }
    md->volume = quovix_cell_calculate_volume(md->cell);
    if (open_files) {
        quovix_md_state &s = *md->state;
        const int status = quovix_guard("result files", [&]() -> int {
            s.log = std::make_unique<quovix_output_file>(md->logname);
            s.xyz = std::make_unique<quovix_output_file>(md->xyzname);
            s.trj = std::make_unique<quovix_output_file>(md->trjname);
            return 0;
        });
        if (status != 0) return 1;
        const std::pair<quovix_output_file *, const char *> files[] = {
            {s.log.get(), md->logname}, {s.xyz.get(), md->xyzname}, {s.trj.get(), md->trjname}};
        for (const auto &[file, name] : files) {
            if (!*file) {
                std::fprintf(stderr, "Error: unable to write to %s.\n", name);
                return 1;
            }
        }
        md->log = s.log->get();
        md->xyz = s.xyz->get();
        md->trj = s.trj->get();
    }
    const bool ok =
        step_ok(quovix_md_calculate_mass(md), "quovix_md_calculate_mass()") &&
        step_ok(quovix_md_calculate_vi_vv(md), "quovix_md_calculate_vi_vv()") && force_ok(md) &&
        step_ok(quovix_md_calculate_observables(md), "quovix_md_calculate_observables()");
    return ok ? 0 : 1;
}

/// Masses of all atoms: the species mass (amu) times 0.000103642699 eV ps^2 / A^2. A free atom
/// without a positive mass is an error.
int quovix_md_calculate_mass(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    for (long i = 0; i < md->cell->total; ++i) {
        const int sp = md->state->species[i];
        md->m[i] = md->ppt->uni[sp].m * QUOVIX_MD_AMU;
        if (!md->cell->atom[i].ignored && !(md->m[i] > 0.0)) {
            const QUOVIX_ATOM &a = md->cell->atom[i];
            std::fprintf(stderr, "Error: no mass for %s%d%c.\n", a.type, quovix_abs_os(a.os),
                         quovix_sign_char(a.os));
            return 1;
        }
    }
    return 0;
}

/// Initial velocities of the free atoms: normal deviates of spread k_B T_init / m per axis
/// (that value itself, not its square root, as the program has always done), then the mean
/// momentum per free atom removed. Fixed atoms get zero velocity.
int quovix_md_calculate_vi_vv(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    const QUOVIX_CELL *cell = md->cell;
    double p[3] = {0.0, 0.0, 0.0};
    long n = 0;
    for (long i = 0; i < cell->total; ++i) {
        for (int c = 0; c < 3; ++c) md->v[i][c] = 0.0;
        if (cell->atom[i].ignored) continue;
        const double spread = QUOVIX_BOLTZMANN * md->temperature_init / md->m[i];
        for (int c = 0; c < 3; ++c) {
            md->v[i][c] = quovix_random_normal(0.0, spread);
            p[c] += md->m[i] * md->v[i][c];
        }
        ++n;
    }
    if (n == 0) return 0;
    for (double &c : p) c /= static_cast<double>(n);
    for (long i = 0; i < cell->total; ++i) {
        if (cell->atom[i].ignored) continue;
        for (int c = 0; c < 3; ++c) md->v[i][c] -= p[c] / md->m[i];
    }
    return 0;
}

// ================================================================================ integration

/// Half step of the velocities of the free atoms with friction and noise (deviates in md->r).
int quovix_md_calculate_v_vv_langevin(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    const double dt = md->dt, zeta = md->zeta;
    for (long i : md->state->free) {
        const double noise =
            std::sqrt(zeta * md->temperature_target * dt * QUOVIX_BOLTZMANN / md->m[i]);
        for (int c = 0; c < 3; ++c) {
            md->v[i][c] +=
                0.5 * dt * (md->f[i][c] / md->m[i] - zeta * md->v[i][c]) + noise * md->r[i][c];
        }
    }
    return 0;
}

/// Half step of the velocities of the free atoms without friction.
int quovix_md_calculate_v_vv(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    for (long i : md->state->free)
        for (int c = 0; c < 3; ++c) md->v[i][c] += 0.5 * md->dt * md->f[i][c] / md->m[i];
    return 0;
}

/// Drift of the free atoms: x <- x + dt v (x unwrapped), then the cell follows. An ion that
/// moves more than QUOVIX_MD_MAX_MOVE in one step means the integration has diverged (or the
/// time step is far too long): the run stops with a message instead of producing numbers.
int quovix_md_calculate_x_vv(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    for (long i : md->state->free) {
        double move2 = 0.0;
        for (int c = 0; c < 3; ++c) {
            md->x_p1[i][c] = md->x[i][c];
            const double dx = md->dt * md->v[i][c];
            md->x[i][c] += dx;
            move2 += dx * dx;
        }
        if (!(move2 <= QUOVIX_MD_MAX_MOVE * QUOVIX_MD_MAX_MOVE)) {
            std::fprintf(stderr,
                         "Error: atom %ld moved %g A in one time step of %g ps at step %ld: the "
                         "dynamics diverged (time step too long?).\n",
                         i, std::sqrt(move2), md->dt, md->step + 1);
            return 1;
        }
    }
    if (quovix_md_update_cell(md) != 0) {
        std::fputs("Error: quovix_md_update_cell() returns non-zero.\n", stderr);
        return 1;
    }
    return 0;
}

/// One Langevin velocity-Verlet step (used by equilibration and production).
int quovix_md_update_vv_langevin(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    const long n = md->cell->total;
    constexpr const char *half_kick = "quovix_md_calculate_v_vv_langevin()";
    quovix_matrixn3_double_random_normal(md->r, n, 0.0, 1.0);
    if (!step_ok(quovix_md_calculate_v_vv_langevin(md), half_kick) ||
        !step_ok(quovix_md_calculate_x_vv(md), "quovix_md_calculate_x_vv()") || !force_ok(md)) {
        return 1;
    }
    quovix_matrixn3_double_random_normal(md->r, n, 0.0, 1.0);
    return step_ok(quovix_md_calculate_v_vv_langevin(md), half_kick) ? 0 : 1;
}

/// One plain velocity-Verlet step (no friction, no noise).
int quovix_md_update_vv(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    constexpr const char *half_kick = "quovix_md_calculate_v_vv()";
    const bool ok = step_ok(quovix_md_calculate_v_vv(md), half_kick) &&
                    step_ok(quovix_md_calculate_x_vv(md), "quovix_md_calculate_x_vv()") &&
                    force_ok(md) && step_ok(quovix_md_calculate_v_vv(md), half_kick);
    return ok ? 0 : 1;
}

// ================================================================================ observables

/// Kinetic energy 0.5 sum occ m v^2 of the free atoms (eV).
double quovix_md_calculate_en_k(QUOVIX_MD *md) {
    if (!valid(md)) {
        not_initialized();
        return nan_value;
    }
    double e = 0.0;
    for (long i : md->state->free) {
        const double v2 =
            md->v[i][0] * md->v[i][0] + md->v[i][1] * md->v[i][1] + md->v[i][2] * md->v[i][2];
        e += 0.5 * md->cell->atom[i].occ * md->m[i] * v2;
    }
    return e;
}

/// Temperature 2 E_k / (3 N_free k_B) of md->en_k (K); NaN without free atoms.
double quovix_md_calculate_temperature(QUOVIX_MD *md) {
    if (!valid(md)) {
        not_initialized();
        return nan_value;
    }
    if (md->total_free <= 0) return nan_value;
    return 2.0 * md->en_k / (3.0 * static_cast<double>(md->total_free) * QUOVIX_BOLTZMANN);
}

/// Kinetic, potential and total energy, temperature, pressure and centre of mass of the free
/// atoms. Pressure (virial theorem, eV/A^3): P = (2.0 E_k + W) / (3.0 V), W the virial of all
/// pairs of the crystal within the cut-off (0.5 sum over ordered pairs of -d phi'(d)).
int quovix_md_calculate_observables(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    double en_p = 0.0, virial = 0.0;
    if (quovix_md_calculate_interaction(md, nullptr, &en_p, &virial) != 0) {
        std::fputs("Error: quovix_md_calculate_interaction() returns non-zero.\n", stderr);
        return 1;
    }
    const double framework = quovix_md_calculate_virial_framework(md);
    if (std::isnan(framework)) {
        std::fputs("Error: quovix_md_calculate_virial_framework() returns NaN.\n", stderr);
        return 1;
    }
    md->en_k = quovix_md_calculate_en_k(md);
    md->en_p = en_p;
    md->en = md->en_k + md->en_p;
    md->temperature = quovix_md_calculate_temperature(md);
    md->pressure = (2.0 * md->en_k + virial + framework) / (3.0 * md->volume);
    double mass = 0.0, com[3] = {0.0, 0.0, 0.0};
    for (long i : md->state->free) {
        mass += md->m[i];
        for (int c = 0; c < 3; ++c) com[c] += md->m[i] * md->x[i][c];
    }
    for (int c = 0; c < 3; ++c) md->x_com[c] = mass > 0.0 ? com[c] / mass : nan_value;
    return 0;
}

/// Displacement (A), diffusivity (A^2/ps), mobility and conductivity (S/cm) of the free ions of
/// the conducting species at time t of the production (only when t > 0): with d the distance
/// of each ion from its start and n the number of ions, <d>, <d^2> / (6 t), D os / T_ave
/// e/k_B, and mobility (n / V) os e 10. Not a number when there are no such ions.
int quovix_md_calculate_conduction_property(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    md->displacement = md->diffusivity = md->mobility = md->conductivity = 0.0;
    if (!(md->t > 0.0)) return 0;
    double sum = 0.0, sum2 = 0.0;
    long n = 0;
    for (long i = 0; i < md->cell->total; ++i) {
        if (!is_conducting_ion(md, i)) continue;
        double d2 = 0.0;
        for (int c = 0; c < 3; ++c)
            d2 += (md->x[i][c] - md->x0[i][c]) * (md->x[i][c] - md->x0[i][c]);
        sum += std::sqrt(d2);
        sum2 += d2;
        ++n;
    }
    if (n == 0) {
        md->displacement = md->diffusivity = md->mobility = md->conductivity = nan_value;
        return 0;
    }
    md->displacement = sum / static_cast<double>(n);
    md->diffusivity = (sum2 / static_cast<double>(n)) / (6.0 * md->t);
    double mobility = 0.0, conductivity = 0.0;
    conduction_factors(md, n, mobility, conductivity);
    md->mobility = md->diffusivity * mobility;
    md->conductivity = md->diffusivity * conductivity;
    return 0;
}

// ===================================================================================== phases

/// Equilibration: Langevin steps for t_equil, with the progress bar.
int quovix_md_equilibrate(QUOVIX_MD *md) {
    if (!valid(md) || !ready(md)) return not_initialized();
    const long steps = phase_steps(md->t_equil, md->dt);
    std::printf("MD: equilibration phase\n");
    std::printf("MD: target  : --------------------\n");
    std::printf("MD: progress:");
    std::fflush(stdout);
    md->step = 0;
    md->t = 0.0;
    int marks = 0;
    for (long k = 1; k <= steps; ++k) {
        if (phase_step(md) != 0) {
            std::printf("\n");
            return 1;
        }
        progress(k, steps, marks);
    }
    std::printf("\n");
    return 0;
}

/// Production: Langevin steps for t_end from positions taken as the start; at every sampling
/// step (every step_log steps, and the last step) the observables, running averages and
/// conduction properties are computed and the three logs written. The production is also cut
/// into QUOVIX_MD_BLOCKS blocks whose diffusivities give the standard error.
int quovix_md_run(QUOVIX_MD *md) {
    if (!valid(md) || !ready(md)) return not_initialized();
    return quovix_guard("production", [&]() -> int {
        quovix_md_state &s = *md->state;
        const long steps = phase_steps(md->t_end, md->dt);
        const long n = md->cell->total;
        md->step = 0;
        md->t = 0.0;
        md->samples = 0;
        md->en_ave = md->en_k_ave = md->en_p_ave = md->temperature_ave = md->pressure_ave = 0.0;
        md->displacement = md->diffusivity = md->mobility = md->conductivity = 0.0;
        for (long i = 0; i < n; ++i)
            for (int c = 0; c < 3; ++c) md->x0[i][c] = md->x[i][c];
        s.block_start.assign(static_cast<std::size_t>(3 * n), 0.0);
        for (long i = 0; i < n; ++i)
            for (int c = 0; c < 3; ++c) s.block_start[3 * i + c] = md->x[i][c];
        s.block_d.clear();
        int block = 1;
        long block_begin = 0;
        write_log_headers(md);
        std::printf("MD: production phase\n");
        std::printf("MD: target  : --------------------\n");
        std::printf("MD: progress:");
        std::fflush(stdout);
        int marks = 0;
        for (long k = 1; k <= steps; ++k) {
            if (phase_step(md) != 0) {
                std::printf("\n");
                return 1;
            }
            // Block b ends at step round(b steps / B).
            while (block <= QUOVIX_MD_BLOCKS &&
                   k == static_cast<long>(std::nearbyint(static_cast<double>(block) * steps /
                                                         QUOVIX_MD_BLOCKS))) {
                if (k > block_begin) close_block(md, static_cast<double>(k - block_begin) * md->dt);
                block_begin = k;
                ++block;
            }
            if (k % md->step_log == 0 || k == steps) {
                if (quovix_md_calculate_observables(md) != 0) {
                    std::fputs("Error: quovix_md_calculate_observables() returns non-zero.\n",
                               stderr);
                    std::printf("\n");
                    return 1;
                }
                ++md->samples;
                const double w = 1.0 / static_cast<double>(md->samples);
                md->en_ave += (md->en - md->en_ave) * w;
                md->en_k_ave += (md->en_k - md->en_k_ave) * w;
                md->en_p_ave += (md->en_p - md->en_p_ave) * w;
                md->temperature_ave += (md->temperature - md->temperature_ave) * w;
                md->pressure_ave += (md->pressure - md->pressure_ave) * w;
                quovix_md_calculate_conduction_property(md);
                write_sample(md);
            }
            progress(k, steps, marks);
        }
        std::printf("\n");
        // Standard errors from the block diffusivities.
        long ions = 0;
        for (long i = 0; i < n; ++i) ions += is_conducting_ion(md, i) ? 1 : 0;
        md->diffusivity_se = block_standard_error(s.block_d);
        double mobility = 0.0, conductivity = 0.0;
        conduction_factors(md, ions, mobility, conductivity);
        md->conductivity_se = md->diffusivity_se * conductivity;
        return 0;
    });
}

/// Flushes the three result files to disk and moves them under their names.
int quovix_md_commit_files(QUOVIX_MD *md) {
    if (!valid(md)) return not_initialized();
    quovix_md_state &s = *md->state;
    for (auto *file : {s.log.get(), s.xyz.get(), s.trj.get()}) {
        if (file == nullptr || file->commit() != 0) return 1;
    }
    md->log = md->xyz = md->trj = nullptr;
    return 0;
}

// ====================================================================================== chain

/// --md: reads the CIF and its fixed flags, builds the parameter set, frees every atom of the
/// conducting species (unless flagged fixed) and fixes all others, runs equilibration and
/// production, prints the conduction properties with their standard errors and writes the
/// logs and the final structure ("<cif>.md.cif"). 0, or -1 on failure.
int quovix_md_conduction_from_file(const char *cif, const char *type, int os, double sf,
                                   double temperature, double t_end, double t_equil, double dt,
                                   double t_log, const char *dir_binary, const char *dir_unitary,
                                   const char *dir_symcards) {
    if (cif == nullptr || type == nullptr) {
        std::fputs("Error: no input file or conducting type.\n", stderr);
        return -1;
    }
    QUOVIX_CELL *raw_cell = nullptr;
    QUOVIX_SYMMETRY *raw_sym = nullptr;
    const int read =
        quovix_cell_import_cif_from_file(&raw_cell, &raw_sym, cif, dir_symcards, dir_unitary);
    quovix_cell_ptr cell{raw_cell};
    quovix_symmetry_free(raw_sym);
    if (read != 0) {
        std::fputs("Error: quovix_cell_import_cif_from_file() returns non-zero.\n", stderr);
        return -1;
    }
    if (quovix_cell_import_cif_read_constraint(cell.get(), cif) != 0) {
        std::fputs("Error: quovix_cell_import_cif_read_constraint() returns non-zero.\n", stderr);
        return -1;
    }
    // The dynamics moves whole ions: a conducting site that is partly occupied or shared with
    // another species has to be resolved first (--gen-cif-assign).
    for (long i = 0; i < cell->total; ++i) {
        const QUOVIX_ATOM &a = cell->atom[i];
        if (a.os == os && std::strncmp(a.type, type, QUOVIX_TYPE_LEN) == 0 &&
            !(std::fabs(a.occ - 1.0) <= 1e-3)) {
            std::fprintf(stderr,
                         "Error: conducting ion %s (%s%d%c) has occupancy %f; partial occupancy "
                         "of conducting ions is not supported (resolve it with "
                         "--gen-cif-assign).\n",
                         a.name, type, quovix_abs_os(os), quovix_sign_char(os), a.occ);
            return -1;
        }
    }
    if (quovix_cell_partial_occ_at_conducting_site(cell.get(), type, os)) {
        std::fprintf(stderr,
                     "Error: conducting ions (%s%d%c) share sites with other atoms; resolve them "
                     "with --gen-cif-assign.\n",
                     type, quovix_abs_os(os), quovix_sign_char(os));
        return -1;
    }
    quovix_property_ptr ppt{
        quovix_property_import_from_cell(cell.get(), nullptr, 0, sf, dir_unitary, dir_binary)};
    if (!ppt) {
        std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
        return -1;
    }
    for (long i = 0; i < cell->total; ++i) {
        QUOVIX_ATOM &a = cell->atom[i];
        if (a.os != os || std::strncmp(a.type, type, QUOVIX_TYPE_LEN) != 0) a.ignored = true;
    }
    if (quovix_property_set_conducting(ppt.get(), type, os) != 0) {
        std::fputs("Error: quovix_property_set_conducting() returns non-zero.\n", stderr);
        return -1;
    }
    quovix_md_ptr md{quovix_md_new(cell.get(), ppt.get(), cif)};
    cell.reset();
    ppt.reset();
    if (!md) {
        std::fputs("Error: quovix_md_new() returns NULL.\n", stderr);
        return -1;
    }
    char cifname[QUOVIX_PATH_LEN];
    file_name(cifname, cif, ".md.cif");
    for (const char *name :
         std::initializer_list<const char *>{md->logname, md->xyzname, md->trjname, cifname}) {
        if (quovix_output_check(name, cif) != 0) {
            std::fputs("Error: quovix_output_check() returns non-zero.\n", stderr);
            return -1;
        }
    }
    md->temperature_target = temperature;
    md->t_end = t_end;
    md->t_equil = t_equil;
    md->dt = dt;
    md->t_log = t_log;
    md->zeta = -0.1;
    if (quovix_md_init_vv(md.get(), true) != 0) {
        std::fputs("Error: quovix_md_init_vv() returns non-zero.\n", stderr);
        return -1;
    }
    quovix_md_print_short(md.get());
    if (quovix_md_equilibrate(md.get()) != 0) {
        std::fputs("Error: quovix_md_equilibrate() returns non-zero.\n", stderr);
        return -1;
    }
    if (quovix_md_run(md.get()) != 0) {
        std::fputs("Error: quovix_md_run() returns non-zero.\n", stderr);
        return -1;
    }
    if (quovix_md_commit_files(md.get()) != 0) {
        std::fputs("Error: quovix_md_commit_files() returns non-zero.\n", stderr);
        return -1;
    }
    std::printf("MD: displacement = %lf\n", md->displacement);
    std::printf("MD: diffusivity = %e\n", md->diffusivity);
    std::printf("MD: mobility = %e\n", md->mobility);
    std::printf("MD: conductivity = %e\n", md->conductivity);
    std::printf("MD: diffusivity standard error = %e\n", md->diffusivity_se);
    std::printf("MD: conductivity standard error = %e\n", md->conductivity_se);
    std::printf("Message: observables saved to %s\n", md->logname);
    std::printf("Message: displacements saved to %s\n", md->trjname);
    std::printf("Message: structures saved to %s\n", md->xyzname);
    quovix_symmetry_ptr p1{quovix_symmetry_new_p1()};
    if (!p1) {
        std::fputs("Error: quovix_symmetry_new_p1() returns NULL.\n", stderr);
        return -1;
    }
    if (quovix_cell_export_cif_to_file(cifname, md->cell, p1.get()) != 0) {
        std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
        return -1;
    }
    return 0;
}

// ======================================================================== helpers of the chain

/// Marks the species (type, os) as the conducting one.
int quovix_property_set_conducting(QUOVIX_PROPERTY *ppt, const char *type, int os) {
    if (ppt == nullptr) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    const int index = quovix_property_find_index(ppt, type, os);
    if (index < 0) {
        std::fputs("Error: quovix_property_find_index() returns negative value.\n", stderr);
        return 1;
    }
    ppt->conducting = index;
    return 0;
}

/// n x 3 normal deviates, row by row, from the run's one generator.
void quovix_matrixn3_double_random_normal(double (*r)[3], long n, double ave, double sd) {
    if (r == nullptr) return;
    for (long i = 0; i < n; ++i)
        for (int c = 0; c < 3; ++c) r[i][c] = quovix_random_normal(ave, sd);
}
