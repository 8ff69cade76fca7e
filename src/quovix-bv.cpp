// Bond valence sums of the symmetry-inequivalent sites of a cell and the global instability
// index (GII).
//
// A bond of length d between a cation and an anion carries s = exp((r0 - d) / b) valence units
// (r0, b: the pair's bond-valence parameters, b the effective b of the parameter set), counted
// for 0.2 A <= d < cutoff and weighted by the neighbour's occupancy. A site's sum adds the bonds
// to all neighbours over the lattice images -n..n per axis, n = trunc(2 + R / |a_k|) with R the
// largest pair cut-off. Anion sums are negative, so GII compares them with the signed state.
//
// The plain loop over sites, atoms and all images is kept as
// quovix_bv_calculate_from_flagged_cell_reference. The shipped sum walks only the images that
// can reach the cut-off (quovix-images.hpp), in the plain order, and distributes the sites over
// threads: each site is summed by one thread in that order, so its sum is the same to the last
// bit and does not depend on the number of threads; warnings are printed afterwards in site
// order.
#include "quovix-bv.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quovix-images.hpp"
#include "quovix-import.hpp"
#include "quovix-reference.hpp"

namespace {

constexpr double close_contact = QUOVIX_MIN_CONTACT;
constexpr double default_cutoff = 12.0;       // A, cut-off of the default-cutoff variant
constexpr double overlap_warning_occ = 1.01;  // occupancy sum above which an overlap is reported
constexpr long parallel_pairs = 10000;        // site-atom pairs above which sites are threaded
constexpr double gii_stable = 0.15, gii_average = 0.3, gii_unreasonable = 1.0;

// Sign character of the BV table: '-' for os < 1 (so os = 0 prints '-').
char table_sign(int os) { return os < 1 ? '-' : '+'; }

enum class mode { plain, fast };

// Sums of the flagged cell; `fixed_cutoff` > 0 replaces every pair's cut-off (and silences the
// overlap warning).
QUOVIX_BV *calculate(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, double fixed_cutoff, mode how) {
    if (cell == nullptr || cell->total < 1 || cell->atom == nullptr) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    if (quovix_bv_validate_property(ppt) != 0) {
        std::fputs("Error: quovix_bv_validate_property() returns non-zero.\n", stderr);
        return nullptr;
    }
    long total = 0;
    for (long k = 0; k < cell->total; ++k) {
        if (cell->atom[k].flag < 1) {
            std::fputs("Error: QUOVIX_CELL has not been flagged by symmetry.\n", stderr);
            return nullptr;
        }
        if (cell->atom[k].flag > total) total = cell->atom[k].flag;
    }
    quovix_bv_ptr bv{quovix_bv_new(total)};
    if (!bv) {
        std::fputs("Error: quovix_bv_new() returns NULL.\n", stderr);
        return nullptr;
    }
    for (long k = cell->total - 1; k >= 0; --k) {  // backwards: the first atom of a site wins
        const long s = cell->atom[k].flag - 1;
        bv->atom[s] = cell->atom[k];
        ++bv->multi[s];
    }

    double range = fixed_cutoff;
    if (range <= 0.0) {
        for (int i = 0; i < ppt->total; ++i)
            for (int j = 0; j < ppt->total; ++j)
                if (ppt->bin[i][j].cutoff > range) range = ppt->bin[i][j].cutoff;
    }
    quovix_images::frame f;
    if (!quovix_images::make_frame(cell, range, f)) return nullptr;

    const bool ok = quovix_guard("bond valence tables", [&]() -> bool {
        // Species of the sites and atoms, looked up once.
        std::vector<int> atom_species(static_cast<std::size_t>(cell->total));
        std::vector<int> site_species(static_cast<std::size_t>(total), -1);
        for (long k = 0; k < cell->total; ++k) {
            atom_species[k] = quovix_property_find_index(ppt, cell->atom[k].type, cell->atom[k].os);
        }
        for (long s = 0; s < total; ++s) {
            if (bv->multi[s] > 0)
                site_species[s] = quovix_property_find_index(ppt, bv->atom[s].type, bv->atom[s].os);
        }
        for (long s = 0; s < total; ++s) {
            const QUOVIX_ATOM &site = bv->atom[s];
            for (long t = 0; t < cell->total; ++t) {
                const long prod = static_cast<long>(site.os) * cell->atom[t].os;
                if (prod < 0 && (site_species[s] < 0 || atom_species[t] < 0)) {
                    std::fputs("Error: quovix_property_find_index() returns negative value.\n",
                               stderr);
                    return false;
                }
            }
        }
        // Overlap warnings of each site, printed in site order once all sums are done. The
        // storage is reserved up front so that the threads never allocate.
        struct overlap {
            double d, occ_site, occ_atom;
        };
        std::vector<std::vector<overlap>> warnings(static_cast<std::size_t>(total));
        if (fixed_cutoff <= 0.0) {
            for (long s = 0; s < total; ++s) {
                long candidates = 0;
                for (long t = 0; t < cell->total; ++t) {
                    const long prod = static_cast<long>(bv->atom[s].os) * cell->atom[t].os;
                    if (prod < 0 && bv->atom[s].occ + cell->atom[t].occ > overlap_warning_occ)
                        ++candidates;
                }
                warnings[s].reserve(static_cast<std::size_t>(candidates));
            }
        }
        // Threads only pay off when there is enough work per call.
        const bool threaded = how == mode::fast && total * cell->total >= parallel_pairs;
#pragma omp parallel for schedule(dynamic, 1) if (threaded)
        for (long s = 0; s < total; ++s) {
            const QUOVIX_ATOM &site = bv->atom[s];
            double sum = 0.0;
            double *value = bv->value[s];
            for (long t = 0; t < cell->total; ++t) {
                const QUOVIX_ATOM &atom = cell->atom[t];
                const long prod = static_cast<long>(site.os) * atom.os;
                if (prod >= 0) continue;  // like signs and os = 0 carry no bond valence
                const QUOVIX_PROPERTY_BINARY &bin =
                    site.os > 0 ? ppt->bin[site_species[s]][atom_species[t]]
                                : ppt->bin[atom_species[t]][site_species[s]];
                const double cutoff = fixed_cutoff > 0.0 ? fixed_cutoff : bin.cutoff;
                if (cutoff <= close_contact) continue;
                auto visit = [&](const double *, double d) {
                    if (d >= close_contact && d < cutoff) {
                        double sv = std::exp((bin.r0 - d) / bin.b) * atom.occ;
                        if (site.os < 0) sv = -sv;
                        sum += sv;
                        value[atom.flag - 1] += sv;
                    } else if (d < close_contact && fixed_cutoff <= 0.0 &&
                               site.occ + atom.occ > overlap_warning_occ) {
                        warnings[s].push_back({d, site.occ, atom.occ});
                    }
                };
                if (how == mode::fast) {
                    quovix_images::for_each_image(f, atom.x, site.x, cutoff, visit);
                } else {
                    for (long k1 = -f.n[0]; k1 <= f.n[0]; ++k1) {
                        for (long k2 = -f.n[1]; k2 <= f.n[1]; ++k2) {
                            for (long k3 = -f.n[2]; k3 <= f.n[2]; ++k3) {
                                double v[3];
                                visit(v,
                                      quovix_images::distance(f.a, atom.x, site.x, k1, k2, k3, v));
                            }
                        }
                    }
                }
            }
            bv->sum[s] = sum;
        }
        for (const auto &list : warnings) {
            for (const overlap &w : list) {
                std::printf("Warning: d=%f, occ1=%f, occ2=%f\n", w.d, w.occ_site, w.occ_atom);
            }
        }
        return true;
    });
    if (!ok) return nullptr;
    return bv.release();
}

// Prints the record of bond valence sums; see quovix_bv_print.
void print_to(std::FILE *out, const QUOVIX_BV *bv) {
    std::fprintf(out, "BV: %6s %4s %6s %9s\n", "name", "type", "occ", "bv_sum");
    for (long s = 0; s < bv->total; ++s) {
        const QUOVIX_ATOM &a = bv->atom[s];
        std::fprintf(out, "BV: %6s %2s%d%c %6.3f %9.6f\n", a.name, a.type, quovix_abs_os(a.os),
                     table_sign(a.os), a.occ, bv->sum[s]);
    }
    std::fprintf(out, "BV:=============================================\n");
    std::fprintf(out, "BV: %4s %4s %6s %4s %4s %6s %9s\n", "nam1", "typ1", "occ1", "nam2", "typ2",
                 "occ1", "bv");
    for (long s = 0; s < bv->total; ++s) {
        const QUOVIX_ATOM &a = bv->atom[s];
        for (long t = 0; t < bv->total; ++t) {
            const QUOVIX_ATOM &b = bv->atom[t];
            std::fprintf(out, "BV: %4s %2s%d%c %6.3f %4s %2s%d%c %6.3f %9.6f\n", a.name, a.type,
                         quovix_abs_os(a.os), table_sign(a.os), a.occ, b.name, b.type,
                         quovix_abs_os(b.os), table_sign(b.os), b.occ, bv->value[s][t]);
        }
    }
}

}  // namespace

/// New zeroed record for `total` sites (all arrays allocated when total > 0); free with
/// quovix_bv_free. Null, with a message, on failure.
QUOVIX_BV *quovix_bv_new(long total) {
    if (total < 0) {
        std::fputs("Error: number of sites must not be negative.\n", stderr);
        return nullptr;
    }
    quovix_bv_ptr bv{static_cast<QUOVIX_BV *>(std::calloc(1, sizeof(QUOVIX_BV)))};
    if (!bv) {
        std::fputs("Error: unable to allocate QUOVIX_BV.\n", stderr);
        return nullptr;
    }
    if (total == 0) return bv.release();
    const auto n = static_cast<std::size_t>(total);
    bv->atom = quovix_atom_new(total);
    if (bv->atom == nullptr) {
        std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
        return nullptr;
    }
    bv->multi = static_cast<int *>(std::calloc(n, sizeof(int)));
    if (bv->multi == nullptr) {
        std::fputs("Error: unable to allocate bv->os.\n", stderr);
        return nullptr;
    }
    bv->sum = static_cast<double *>(std::calloc(n, sizeof(double)));
    if (bv->sum == nullptr) {
        std::fputs("Error: unable to allocate bv->sum.\n", stderr);
        return nullptr;
    }
    bv->value = static_cast<double **>(std::calloc(n, sizeof(double *)));
    if (bv->value == nullptr) {
        std::fputs("Error: unable to allocate bv->value.\n", stderr);
        return nullptr;
    }
    bv->total = total;  // from here on quovix_bv_free walks the rows
    for (std::size_t s = 0; s < n; ++s) {
        bv->value[s] = static_cast<double *>(std::calloc(n, sizeof(double)));
        if (bv->value[s] == nullptr) {
            std::fputs("Error: unable to allocate bv->value[].\n", stderr);
            return nullptr;
        }
    }
    return bv.release();
}

/// Releases the record and its arrays; accepts null.
void quovix_bv_free(QUOVIX_BV *bv) {
    if (bv == nullptr) return;
    if (bv->value != nullptr) {
        for (long s = 0; s < bv->total; ++s) std::free(bv->value[s]);
        std::free(bv->value);
    }
    std::free(bv->sum);
    std::free(bv->multi);
    quovix_atom_free(bv->atom);
    std::free(bv);
}

/// Index of the first site named `name`, or -1.
long quovix_bv_find_index(const QUOVIX_BV *bv, const char *name) {
    if (bv == nullptr || name == nullptr || bv->atom == nullptr) return -1;
    for (long s = 0; s < bv->total; ++s) {
        if (std::strncmp(bv->atom[s].name, name, QUOVIX_ATOM_NAME_LEN) == 0) return s;
    }
    return -1;
}

/// Checks that every cation-anion pair of the set has cutoff, b and r0 > 0; prints the first
/// fault and returns 1.
int quovix_bv_validate_property(const QUOVIX_PROPERTY *ppt) {
    if (ppt == nullptr || (ppt->total > 0 && (ppt->os == nullptr || ppt->bin == nullptr))) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return 1;
    }
    static constexpr quovix_pair_check pair_checks[] = {{"cutoff", &QUOVIX_PROPERTY_BINARY::cutoff},
                                                        {"b", &QUOVIX_PROPERTY_BINARY::b},
                                                        {"r0", &QUOVIX_PROPERTY_BINARY::r0}};
    return quovix_property_validate_pairs(ppt, pair_checks);
}

/// Bond valence sums of a cell whose atoms carry their site numbers in `flag` (1-based), with
/// every pair's own cut-off. Prints "Warning: d=..." for a fully occupied overlap (< 0.2 A).
/// New record (quovix_bv_free) or null.
QUOVIX_BV *quovix_bv_calculate_from_flagged_cell(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt) {
    return calculate(cell, ppt, 0.0, mode::fast);
}

/// The same sums by the plain loop over all images on one thread; the reference of
/// quovix_bv_calculate_from_flagged_cell.
QUOVIX_BV *quovix_bv_calculate_from_flagged_cell_reference(QUOVIX_CELL *cell,
                                                           QUOVIX_PROPERTY *ppt) {
    return calculate(cell, ppt, 0.0, mode::plain);
}

/// As quovix_bv_calculate_from_flagged_cell with a cut-off of 12 A for every pair and no
/// overlap warning.
QUOVIX_BV *quovix_bv_calculate_from_flagged_cell_at_default_cutoff(QUOVIX_CELL *cell,
                                                                   QUOVIX_PROPERTY *ppt) {
    return calculate(cell, ppt, default_cutoff, mode::fast);
}

/// Flags the sites of the cell by symmetry, builds its parameter set (no mobile species,
/// sf = 0.75: no fit) and computes the sums; on success the cell's marks are refreshed. The
/// cell's atoms end up sorted. New record (quovix_bv_free) or null.
QUOVIX_BV *quovix_bv_calculate_from_cell(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym,
                                         const char *dir_unitary, const char *dir_binary) {
    if (quovix_cell_flag_site_by_symmetry(cell, sym) != 0) {
        std::fputs("Error: quovix_cell_flag_site_by_symmetry() returns non-zero.\n", stderr);
        return nullptr;
    }
    quovix_property_ptr ppt{
        quovix_property_import_from_cell(cell, nullptr, 0, 0.75, dir_unitary, dir_binary)};
    if (!ppt) {
        std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
        return nullptr;
    }
    QUOVIX_BV *bv = quovix_bv_calculate_from_flagged_cell(cell, ppt.get());
    if (bv == nullptr) {
        std::fputs("Error: quovix_bv_calculate_from_flagged_cell() returns NULL.\n", stderr);
        return nullptr;
    }
    quovix_cell_refresh(cell);
    return bv;
}

/// Sums restricted to one cation-anion species pair: computed on a copy of the cell that keeps
/// only the atoms of (type1, os1) and (type2, os2). When the cell lacks either species the pair
/// has no bonds and the result is an empty record (no sites). New record or null.
QUOVIX_BV *quovix_bv_calculate_from_cell_with_type(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym,
                                                   const char *type1, int os1, const char *type2,
                                                   int os2, const char *dir_unitary,
                                                   const char *dir_binary) {
    if (cell == nullptr || cell->atom == nullptr || type1 == nullptr || type2 == nullptr) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    quovix_cell_ptr copy{quovix_cell_copy(cell)};
    if (!copy) {
        std::fputs("Error: quovix_cell_copy() returns NULL.\n", stderr);
        return nullptr;
    }
    char t1[QUOVIX_TYPE_LEN] = {}, t2[QUOVIX_TYPE_LEN] = {};
    std::strncpy(t1, type1, QUOVIX_TYPE_LEN - 1);
    std::strncpy(t2, type2, QUOVIX_TYPE_LEN - 1);
    auto matches = [](const QUOVIX_ATOM &a, const char *type, int os) {
        return a.os == os && std::strncmp(a.type, type, QUOVIX_TYPE_LEN) == 0;
    };
    long kept = 0, first = 0, second = 0;
    for (long k = 0; k < copy->total; ++k) {
        const bool m1 = matches(copy->atom[k], t1, os1);
        const bool m2 = matches(copy->atom[k], t2, os2);
        first += m1 ? 1 : 0;
        second += m2 ? 1 : 0;
        kept += (m1 || m2) ? 1 : 0;
    }
    if (first == 0 || second == 0) return quovix_bv_new(0);
    QUOVIX_ATOM *atoms = quovix_atom_new(kept);
    if (atoms == nullptr) {
        std::fputs("Error: quovix_atom_new() returns NULL.\n", stderr);
        return nullptr;
    }
    long n = 0;
    for (long k = 0; k < copy->total; ++k) {
        if (matches(copy->atom[k], t1, os1) || matches(copy->atom[k], t2, os2))
            atoms[n++] = copy->atom[k];
    }
    quovix_atom_free(copy->atom);
    copy->atom = atoms;
    copy->total = kept;
    return quovix_bv_calculate_from_cell(copy.get(), sym, dir_unitary, dir_binary);
}

/// GII = sqrt(sum_s multi_s occ_s (sum_s - os_s)^2 / sum_s multi_s occ_s), without messages;
/// 0 for a record without sites, -1 for null.
double quovix_gii_calculate_from_bv_no_msg(const QUOVIX_BV *bv) {
    if (bv == nullptr) {
        std::fputs("Error: QUOVIX_BV has not been properly initialized.\n", stderr);
        return -1.0;
    }
    double num = 0.0, den = 0.0;
    for (long s = 0; s < bv->total; ++s) {
        const double w = bv->multi[s] * bv->atom[s].occ;
        const double dev = bv->sum[s] - bv->atom[s].os;
        num += w * dev * dev;
        den += w;
    }
    if (!(den > 0.0)) return 0.0;
    return std::sqrt(num / den);
}

/// GII of the sums, printed with its verdict: stable below 0.15, average up to 0.3 (and for a
/// GII of exactly 0), unstable up to 1.0, unreasonable from 1.0 on. -1 for null.
double quovix_gii_calculate_from_bv(const QUOVIX_BV *bv) {
    const double gii = quovix_gii_calculate_from_bv_no_msg(bv);
    if (bv == nullptr) return gii;
    std::printf("GII: Global instability index = %f\n", gii);
    if (gii > 0.0 && gii < gii_stable) {
        std::printf("GII: suggested stability: stable.\n");
    } else if (gii <= 0.0 || (gii >= gii_stable && gii < gii_average)) {
        std::printf("GII: suggested stability: average.\n");
    } else if (gii >= gii_average && gii < gii_unreasonable) {
        std::printf("GII: suggested stability: unstable.\n");
    } else {
        std::printf("GII: unreasonable value.\n");
        std::printf("GII: there might be an error in input structure or calculation.\n");
    }
    return gii;
}

/// Bond valence sums of the cell (quovix_bv_calculate_from_cell), then the GII with its verdict.
/// Returns -1 on failure.
double quovix_gii_calculate_from_cell(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym,
                                      const char *dir_unitary, const char *dir_binary) {
    quovix_bv_ptr bv{quovix_bv_calculate_from_cell(cell, sym, dir_unitary, dir_binary)};
    if (!bv) {
        std::fputs("Error: quovix_bv_calculate_from_cell() returns NULL.\n", stderr);
        return -1.0;
    }
    return quovix_gii_calculate_from_bv(bv.get());
}

/// Prints the sums per site and the contribution of every site pair to standard output
/// ("BV: " lines); null prints "BV: (not allocated)" to standard error.
void quovix_bv_print(const QUOVIX_BV *bv) {
    if (bv == nullptr) {
        std::fputs("BV: (not allocated)\n", stderr);
        return;
    }
    print_to(stdout, bv);
}

/// Prints the compact block read by the graphical front end: per site its label, fractional
/// coordinates and sum.
void quovix_bv_print_gui(const QUOVIX_BV *bv) {
    if (bv == nullptr) {
        std::fputs("BV: (not allocated)\n", stderr);
        return;
    }
    std::printf("Printing bond valence sum of each site for Quovix-GUI\n");
    std::printf("> Label [  X     Y     Z  ] : BV_sum\n");
    for (long s = 0; s < bv->total; ++s) {
        const QUOVIX_ATOM &a = bv->atom[s];
        std::printf("> %5s [%.3f %.3f %.3f] : %.6f\n", a.name, a.x_f[0], a.x_f[1], a.x_f[2],
                    bv->sum[s]);
    }
    std::printf("End of BV sum calculation for Quovix-GUI\n");
}

/// The sums as text with CR LF line ends (new QUOVIX_TEXT, freed with quovix_text_free), or
/// null.
QUOVIX_TEXT *quovix_bv_export_to_text(const QUOVIX_BV *bv) {
    if (bv == nullptr) {
        std::fputs("Error: QUOVIX_BV has not been properly initialized.\n", stderr);
        return nullptr;
    }
    QUOVIX_TEXT *text = quovix_text_new(nullptr);
    if (text == nullptr) {
        std::fputs("Error: quovix_text_new() returns NULL.\n", stderr);
        return nullptr;
    }
    // quovix_text_append frees the text itself when it fails.
    auto append = [&text](const char *line) {
        if (quovix_text_append(text, line) != 0) {
            std::fputs("Error: quovix_text_append() returns non-zero.\n", stderr);
            text = nullptr;
            return false;
        }
        return true;
    };
    const char *rule = "=================================================================\r\n";
    char line[256];
    if (!append("Bond valence sum:\r\n")) return nullptr;
    std::snprintf(line, sizeof line, "Total inequivalent sites: %ld\r\n", bv->total);
    if (!append(line) || !append(rule)) return nullptr;
    for (long s = 0; s < bv->total; ++s) {
        const QUOVIX_ATOM &a = bv->atom[s];
        std::snprintf(line, sizeof line, "%4s(%s%d%c)(occ=%5.3f) bv_sum = %9.6f\r\n", a.name,
                      a.type, quovix_abs_os(a.os), quovix_sign_char(a.os), a.occ, bv->sum[s]);
        if (!append(line)) return nullptr;
    }
    if (!append(rule)) return nullptr;
    for (long s = 0; s < bv->total; ++s) {
        const QUOVIX_ATOM &a = bv->atom[s];
        for (long t = 0; t < bv->total; ++t) {
            const QUOVIX_ATOM &b = bv->atom[t];
            std::snprintf(
                line, sizeof line, "%4s(%s%d%c)(occ=%5.3f) %4s(%s%d%c)(occ=%5.3f) bv = %9.6f\r\n",
                a.name, a.type, quovix_abs_os(a.os), quovix_sign_char(a.os), a.occ, b.name, b.type,
                quovix_abs_os(b.os), quovix_sign_char(b.os), b.occ, bv->value[s][t]);
            if (!append(line)) return nullptr;
        }
    }
    if (!append(rule)) return nullptr;
    return text;
}
