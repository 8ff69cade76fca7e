// Structure relaxation on the bond-valence energy.
//
// Steepest descent: free atoms move along their forces, the longest move capped; a step that
// raises the energy is undone and halved (so the energy never rises), an accepted one grows by
// 1.2. With the lattice, the diagonal stress strains each lattice vector in the same step.
//
// Nudged elastic band (G. Henkelman, B. P. Uberuaga, H. Jonsson, J. Chem. Phys. 113 (2000)
// 9901; tangent: G. Henkelman, H. Jonsson, J. Chem. Phys. 113 (2000) 9978): the images between
// two fixed ends feel the true force perpendicular to the path and a spring force along it;
// the highest image then climbs to the saddle point with its force along the path inverted.
// The band moves by quick-min (damped dynamics that keeps only the velocity along the force),
// which converges in far fewer steps than plain steepest descent.
// Images are stored unwrapped so that path vectors never jump across the cell; each energy is
// taken on the image wrapped into the cell, which the periodic energy does not see.
#include "quovix-rx-relax.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quovix-import.hpp"
#include "quovix-rx.hpp"

namespace {

constexpr double grow = 1.2, shrink = 0.5, max_scale = 20.0;
constexpr double min_move = 1e-6;      // A: smaller steps end the descent
constexpr double move_rate = 0.05;     // A per eV/A: position step before scaling and capping
constexpr double strain_rate = 1.0;    // A^3/eV: strain per stress before scaling and capping
constexpr double stress_tol = 1e-4;    // eV/A^3
constexpr double neb_max_move = 0.05;  // A per step and atom
constexpr double neb_dt = 0.2;         // time step of the quick-min descent (unit masses)

// Cartesian positions `x` into the cell: wrapped into [0, 1) in fractional coordinates.
void place(QUOVIX_CELL *cell, const double (*x)[3]) {
    for (long k = 0; k < cell->total; ++k)
        for (int c = 0; c < 3; ++c) cell->atom[k].x[c] = x[k][c];
    quovix_cell_update_coordinate_fractional(cell);
    quovix_cell_bound_fractional(cell);
    quovix_cell_update_coordinate_cartesion(cell);
}

struct force_rows {
    std::vector<double> flat;
    std::vector<double *> rows;
    explicit force_rows(long n) : flat(static_cast<std::size_t>(3 * n)), rows(n) {
        for (long k = 0; k < n; ++k) rows[k] = &flat[static_cast<std::size_t>(3 * k)];
    }
    double *operator[](long k) { return rows[k]; }
};

bool forces(force_rows &f, QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    if (quovix_cell_calculate_force(f.rows.data(), cell, ppt) != 0) {
        std::fputs("Error: quovix_cell_calculate_force() returns non-zero.\n", stderr);
        return false;
    }
    return true;
}

bool same_species(const QUOVIX_ATOM &a, const QUOVIX_ATOM &b) {
    return a.os == b.os && std::strncmp(a.type, b.type, QUOVIX_TYPE_LEN) == 0;
}

double dot(const double *a, const double *b, long n) {
    double s = 0.0;
    for (long i = 0; i < n; ++i) s += a[i] * b[i];
    return s;
}

}  // namespace

int quovix_rx_sd_run(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, const bool *fixed, long steps,
                     bool relax_lattice, double f_tol, double max_move) {
    if (!cell || !cell->atom || cell->total < 1 || !ppt) {
        std::fputs("Error: QUOVIX_CELL or QUOVIX_PROPERTY has not been properly initialized.\n",
                   stderr);
        return 1;
    }
    if (steps < 0 || !(f_tol > 0.0) || !(max_move > 0.0) || !std::isfinite(max_move)) {
        std::fputs("Error: wrong relaxation settings.\n", stderr);
        return 1;
    }
    return quovix_guard("relaxation arrays", [&]() -> int {
        const long n = cell->total;
        force_rows f(n);
        std::vector<double> saved_x(static_cast<std::size_t>(3 * n));
        double saved_a[3][3];
        double energy = quovix_cell_calculate_total_energy_eam(cell, ppt);
        double scale = 1.0;  // grows and shrinks with the accepted and undone steps
        for (long step = 0;; ++step) {
            if (!forces(f, cell, ppt)) return 1;
            double fmax = 0.0;
            for (long k = 0; k < n; ++k) {
                if (fixed && fixed[k]) continue;
                fmax = std::max(fmax, std::sqrt(dot(f[k], f[k], 3)));
            }
            double stress[3] = {0.0, 0.0, 0.0}, smax = 0.0;
            if (relax_lattice) {
                if (quovix_cell_calculate_stress_diagonal(stress, cell, ppt) != 0) {
                    std::fputs("Error: quovix_cell_calculate_stress_diagonal() returns non-zero.\n",
                               stderr);
                    return 1;
                }
                for (double s : stress) smax = std::max(smax, std::fabs(s));
            }
            if (!std::isfinite(energy) || !std::isfinite(fmax) || !std::isfinite(smax)) {
                std::fputs("Error: the energy or the forces are not finite.\n", stderr);
                return 1;
            }
            std::printf("RX: step %5ld  E = %.6f eV  max force = %.6f eV/A", step, energy, fmax);
            if (relax_lattice) std::printf("  max stress = %.6f eV/A^3", smax);
            std::printf("\n");
            if (fmax < f_tol && (!relax_lattice || smax < stress_tol)) {
                std::printf("RX: converged after %ld steps.\n", step);
                return 0;
            }
            if (step >= steps) {
                std::printf("RX: not converged within %ld steps.\n", steps);
                return 0;
            }
            // Trial step; undone and halved while the energy rises.
            for (long k = 0; k < n; ++k)
                for (int c = 0; c < 3; ++c) saved_x[3 * k + c] = cell->atom[k].x[c];
            std::memcpy(saved_a, cell->a, sizeof saved_a);
            for (;;) {
                if (relax_lattice && smax > 0.0) {
                    // Strain of each axis against its stress, at most max_move on the shortest
                    // lattice vector.
                    double shortest = HUGE_VAL;
                    for (int k = 0; k < 3; ++k) shortest = std::min(shortest, cell->parameter[k]);
                    const double mu = std::min(scale * strain_rate, max_move / shortest / smax);
                    double strain[3][3] = {};
                    for (int k = 0; k < 3; ++k) strain[k][k] = -mu * stress[k];
                    if (quovix_cell_deform(cell, strain) != 0) return 1;
                }
                // Positions along the forces, the longest move at most max_move.
                const double lambda =
                    fmax > 0.0 ? std::min(scale * move_rate, max_move / fmax) : 0.0;
                std::vector<double> x(static_cast<std::size_t>(3 * n));
                for (long k = 0; k < n; ++k) {
                    for (int c = 0; c < 3; ++c) {
                        x[3 * k + c] = cell->atom[k].x[c];
                        if (!(fixed && fixed[k])) x[3 * k + c] += lambda * f[k][c];
                    }
                }
                place(cell, reinterpret_cast<const double(*)[3]>(x.data()));
                const double trial = quovix_cell_calculate_total_energy_eam(cell, ppt);
                if (std::isfinite(trial) && trial <= energy) {
                    energy = trial;
                    scale = std::min(scale * grow, max_scale);
                    break;
                }
                std::memcpy(cell->a, saved_a, sizeof saved_a);
                quovix_cell_update_lattice_fractional(cell);  // lengths and angles from a
                place(cell, reinterpret_cast<const double(*)[3]>(saved_x.data()));
                scale *= shrink;
                if (scale * move_rate * std::max(fmax, f_tol) < min_move) {
                    std::printf("RX: no lower energy within %g A; stopped after %ld steps.\n",
                                min_move, step);
                    return 0;
                }
            }
        }
    });
}

QUOVIX_RX_NEB *quovix_rx_neb_new(QUOVIX_CELL *const *cells, long count, long total) {
    if (!cells || count < 2 || (count != 2 && count != total) || total < 3 || total > 1000) {
        std::fputs("Error: a band needs two ends (or every image) and 3 to 1000 images.\n", stderr);
        return nullptr;
    }
    for (long m = 0; m < count; ++m) {
        if (!cells[m] || !cells[m]->atom || cells[m]->total < 1) {
            std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
            return nullptr;
        }
    }
    const QUOVIX_CELL *start = cells[0];
    const long atoms = start->total;
    for (long m = 1; m < count; ++m) {
        const QUOVIX_CELL *c = cells[m];
        if (c->total != atoms) {
            std::fprintf(stderr, "Error: image %ld has %ld atoms, image 0 has %ld.\n", m, c->total,
                         atoms);
            return nullptr;
        }
        for (long k = 0; k < atoms; ++k) {
            if (!same_species(c->atom[k], start->atom[k])) {
                std::fprintf(
                    stderr, "Error: atom %ld of image %ld is %s%d, not %s%d as in image 0.\n", k, m,
                    c->atom[k].type, c->atom[k].os, start->atom[k].type, start->atom[k].os);
                return nullptr;
            }
        }
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                if (!(std::fabs(c->a[i][j] - start->a[i][j]) <= 1e-6)) {
                    std::fprintf(stderr, "Error: image %ld has another lattice than image 0.\n", m);
                    return nullptr;
                }
            }
        }
    }
    auto *neb = static_cast<QUOVIX_RX_NEB *>(std::calloc(1, sizeof(QUOVIX_RX_NEB)));
    if (!neb) {
        std::fputs("Error: unable to allocate QUOVIX_RX_NEB.\n", stderr);
        return nullptr;
    }
    neb->total = total;
    neb->atoms = atoms;
    neb->climbing = -1;
    neb->cell = static_cast<QUOVIX_CELL **>(
        std::calloc(static_cast<std::size_t>(total), sizeof(QUOVIX_CELL *)));
    neb->x = static_cast<double(*)[3]>(
        std::calloc(static_cast<std::size_t>(total * atoms), sizeof(double[3])));
    neb->en = static_cast<double *>(std::calloc(static_cast<std::size_t>(total), sizeof(double)));
    neb->s = static_cast<double *>(std::calloc(static_cast<std::size_t>(total), sizeof(double)));
    if (!neb->cell || !neb->x || !neb->en || !neb->s) {
        std::fputs("Error: unable to allocate QUOVIX_RX_NEB arrays.\n", stderr);
        quovix_rx_neb_free(neb);
        return nullptr;
    }
    // Fractional displacement of each image from the start, taken to the nearest periodic image
    // atom by atom, so that a band never crosses the cell the long way.
    std::vector<double> df(static_cast<std::size_t>(count * atoms * 3), 0.0);
    for (long m = 1; m < count; ++m) {
        for (long k = 0; k < atoms; ++k) {
            for (int c = 0; c < 3; ++c) {
                double d = cells[m]->atom[k].x_f[c] - start->atom[k].x_f[c];
                d -= std::nearbyint(d);
                df[(m * atoms + k) * 3 + c] = d;
            }
        }
    }
    for (long m = 0; m < total; ++m) {
        neb->cell[m] = quovix_cell_copy(const_cast<QUOVIX_CELL *>(cells[count == total ? m : 0]));
        if (!neb->cell[m]) {
            std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
            quovix_rx_neb_free(neb);
            return nullptr;
        }
        const double t = static_cast<double>(m) / static_cast<double>(total - 1);
        for (long k = 0; k < atoms; ++k) {
            double f[3];
            for (int c = 0; c < 3; ++c) {
                const double d =
                    count == total ? df[(m * atoms + k) * 3 + c] : t * df[(atoms + k) * 3 + c];
                f[c] = start->atom[k].x_f[c] + d;
            }
            for (int c = 0; c < 3; ++c)
                neb->x[m * atoms + k][c] =
                    f[0] * start->a[0][c] + f[1] * start->a[1][c] + f[2] * start->a[2][c];
        }
        place(neb->cell[m], neb->x + m * atoms);
    }
    return neb;
}

void quovix_rx_neb_free(QUOVIX_RX_NEB *neb) {
    if (!neb) return;
    if (neb->cell)
        for (long m = 0; m < neb->total; ++m) quovix_cell_free(neb->cell[m]);
    std::free(neb->cell);
    std::free(neb->x);
    std::free(neb->en);
    std::free(neb->s);
    std::free(neb);
}

void quovix_rx_neb_print(const QUOVIX_RX_NEB *neb) {
    if (!neb) {
        std::puts("NEB: (not allocated)");
        return;
    }
    std::printf("NEB: %ld images of %ld atoms; climbing image %ld\n", neb->total, neb->atoms,
                neb->climbing);
    std::printf("NEB: image       s (A)      E - E0 (eV)\n");
    for (long m = 0; m < neb->total; ++m)
        std::printf("NEB: %5ld %11.6f %16.6f%s\n", m, neb->s[m], neb->en[m] - neb->en[0],
                    m == neb->climbing ? "  (climbing)" : "");
}

int quovix_rx_neb_run(QUOVIX_RX_NEB *neb, QUOVIX_PROPERTY *ppt, const bool *free, long steps,
                      double f_tol, double spring) {
    if (!neb || !ppt || !free) {
        std::fputs("Error: QUOVIX_RX_NEB has not been properly initialized.\n", stderr);
        return 1;
    }
    if (steps < 0 || !(f_tol > 0.0) || !(spring > 0.0) || !std::isfinite(spring)) {
        std::fputs("Error: wrong band settings.\n", stderr);
        return 1;
    }
    return quovix_guard("band arrays", [&]() -> int {
        const long n = neb->atoms, total = neb->total, dim = 3 * n;
        force_rows f(n);
        std::vector<double> force(static_cast<std::size_t>(total * dim), 0.0);
        std::vector<double> tau(static_cast<std::size_t>(dim));
        std::vector<double> velocity(static_cast<std::size_t>(total * dim), 0.0);
        auto x = [&](long m) { return &neb->x[m * n][0]; };
        auto evaluate = [&](long m, bool with_force) {
            place(neb->cell[m], neb->x + m * n);
            neb->en[m] = quovix_cell_calculate_total_energy(neb->cell[m], ppt);
            if (!with_force) return std::isfinite(neb->en[m]);
            if (!forces(f, neb->cell[m], ppt)) return false;
            for (long k = 0; k < n; ++k)
                for (int c = 0; c < 3; ++c) force[m * dim + 3 * k + c] = free[k] ? f[k][c] : 0.0;
            return std::isfinite(neb->en[m]);
        };
        auto path_length = [&]() {
            neb->s[0] = 0.0;
            for (long m = 1; m < total; ++m) {
                double d2 = 0.0;
                for (long i = 0; i < dim; ++i)
                    d2 += (x(m)[i] - x(m - 1)[i]) * (x(m)[i] - x(m - 1)[i]);
                neb->s[m] = neb->s[m - 1] + std::sqrt(d2);
            }
        };
        if (!evaluate(0, false) || !evaluate(total - 1, false)) {
            std::fputs("Error: the energy of an end image is not finite.\n", stderr);
            return 1;
        }
        const long climb_after = steps / 4;
        for (long step = 0;; ++step) {
            for (long m = 1; m + 1 < total; ++m) {
                if (!evaluate(m, true)) {
                    std::fputs("Error: the energy of an image is not finite.\n", stderr);
                    return 1;
                }
            }
            // Neb forces of the inner images.
            double worst = 0.0;
            std::vector<double> step_force(static_cast<std::size_t>(total * dim), 0.0);
            for (long m = 1; m + 1 < total; ++m) {
                const double e0 = neb->en[m - 1], e1 = neb->en[m], e2 = neb->en[m + 1];
                // Upwind tangent; at an extremum a mix weighted by the energy differences.
                const double dp = e2 - e1, dm = e1 - e0;
                for (long i = 0; i < dim; ++i) {
                    const double tp = x(m + 1)[i] - x(m)[i], tm = x(m)[i] - x(m - 1)[i];
                    if (dp > 0 && dm > 0) {
                        tau[i] = tp;
                    } else if (dp < 0 && dm < 0) {
                        tau[i] = tm;
                    } else {
                        const double big = std::max(std::fabs(dp), std::fabs(dm));
                        const double small = std::min(std::fabs(dp), std::fabs(dm));
                        tau[i] = e2 > e0 ? tp * big + tm * small : tp * small + tm * big;
                    }
                }
                for (long k = 0; k < n; ++k)
                    if (!free[k]) tau[3 * k] = tau[3 * k + 1] = tau[3 * k + 2] = 0.0;
                const double norm = std::sqrt(dot(tau.data(), tau.data(), dim));
                if (norm > 0.0)
                    for (double &t : tau) t /= norm;
                const double *fm = &force[m * dim];
                const double along = dot(fm, tau.data(), dim);
                double *out = &step_force[m * dim];
                if (m == neb->climbing) {
                    for (long i = 0; i < dim; ++i) out[i] = fm[i] - 2.0 * along * tau[i];
                } else {
                    double lp = 0.0, lm = 0.0;
                    for (long i = 0; i < dim; ++i) {
                        lp += (x(m + 1)[i] - x(m)[i]) * (x(m + 1)[i] - x(m)[i]);
                        lm += (x(m)[i] - x(m - 1)[i]) * (x(m)[i] - x(m - 1)[i]);
                    }
                    const double fs = spring * (std::sqrt(lp) - std::sqrt(lm));
                    for (long i = 0; i < dim; ++i) out[i] = fm[i] - along * tau[i] + fs * tau[i];
                }
                for (long k = 0; k < n; ++k)
                    worst = std::max(worst, std::sqrt(dot(out + 3 * k, out + 3 * k, 3)));
            }
            path_length();
            if (step % 10 == 0) {
                double top = neb->en[0];
                for (long m = 0; m < total; ++m) top = std::max(top, neb->en[m]);
                std::printf("NEB: step %5ld  barrier = %.6f eV  max force = %.6f eV/A\n", step,
                            top - neb->en[0], worst);
            }
            if (!std::isfinite(worst)) {
                std::fputs("Error: the band forces are not finite.\n", stderr);
                return 1;
            }
            const bool relaxed = worst < f_tol;
            if (relaxed && neb->climbing >= 0) {
                std::printf("NEB: converged after %ld steps.\n", step);
                return 0;
            }
            if (neb->climbing < 0 && (step >= climb_after || worst < 10.0 * f_tol)) {
                long top = 1;
                for (long m = 1; m + 1 < total; ++m)
                    if (neb->en[m] > neb->en[top]) top = m;
                neb->climbing = top;
                std::fill(velocity.begin(), velocity.end(), 0.0);
                continue;  // forces of the climbing image first
            }
            if (step >= steps) {
                std::printf("NEB: not converged within %ld steps.\n", steps);
                return 0;
            }
            // Quick-min: velocities along the force only while they point with it.
            const double power = dot(velocity.data(), step_force.data(), total * dim);
            const double f2 = dot(step_force.data(), step_force.data(), total * dim);
            for (std::size_t i = 0; i < velocity.size(); ++i) {
                velocity[i] = power > 0.0 && f2 > 0.0 ? power / f2 * step_force[i] : 0.0;
                velocity[i] += neb_dt * step_force[i];
            }
            for (long m = 1; m + 1 < total; ++m) {
                for (long k = 0; k < n; ++k) {
                    if (!free[k]) continue;
                    double *v = &velocity[m * dim + 3 * k];
                    const double len = neb_dt * std::sqrt(dot(v, v, 3));
                    const double scale = len > neb_max_move ? neb_max_move / len : 1.0;
                    for (int c = 0; c < 3; ++c) x(m)[3 * k + c] += scale * neb_dt * v[c];
                }
            }
        }
    });
}
