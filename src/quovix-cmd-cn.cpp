// Command handlers of the coordination numbers: --cal-cn, --cal-cn-atom, --cal-cn-type,
// --cal-cn-bv and --cal-cn-gui.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "quovix-cmd.hpp"
#include "quovix-cn.hpp"
#include "quovix-import.hpp"

namespace {

constexpr auto print_lines = &quovix_cmd_print_lines;
constexpr double bv_search = 8.0;  // A: reaches every bond that carries valence

const char *const r_max_line = "Command: {r_max}: search radius in A, in (0, 20]. Default 4.0.\n";

// The structure of a command: cell with its sites flagged by symmetry and its parameter set
// (no mobile species; the screening factor plays no part in bond valences, so none is fitted).
struct loaded {
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    quovix_property_ptr ppt;
};

bool load(const QUOVIX_CMD_OPT *opt, const char *path, loaded &s) {
    if (!quovix_cmd_read_cif(opt, path, s.cell, s.sym)) return false;
    if (quovix_cell_flag_site_by_symmetry(s.cell.get(), s.sym.get()) != 0) {
        std::fputs("Error: quovix_cell_flag_site_by_symmetry() returns non-zero.\n", stderr);
        return false;
    }
    s.ppt.reset(quovix_property_import_from_cell(s.cell.get(), nullptr, 0, 0.75, opt->dir_unitary,
                                                 opt->dir_binary));
    if (!s.ppt) {
        std::fputs("Error: quovix_property_import_from_cell() returns NULL.\n", stderr);
        return false;
    }
    return true;
}

// {r_max} at word i: default when absent, else a number in (0, 20].
bool read_r_max(const quovix_args &args, std::size_t i, double &r_max) {
    r_max = QUOVIX_CN_R_MAX_DEFAULT;
    if (!args.has(i)) return true;
    if (!args.read_double(i, r_max) || !(r_max > 0.0 && r_max <= QUOVIX_CN_R_MAX_LIMIT)) {
        std::fputs("Error: wrong parameter r_max; it must lie in (0, 20] A.\n", stderr);
        return false;
    }
    return true;
}

void print_species(const QUOVIX_ATOM &a) {
    std::printf("%s%d%c", a.type, quovix_abs_os(a.os), quovix_sign_char(a.os));
}

// The atom named by word i, or -1 after the error line.
long find_atom(const loaded &s, const quovix_args &args, std::size_t i) {
    const QUOVIX_CELL *cell = s.cell.get();
    const long k = quovix_cn_find_atom(cell, args.c_str(i));
    if (k < 0) {
        std::fprintf(stderr, "Error: no atom named %s in %s.\n", args.c_str(i), args.c_str(0));
        return k;
    }
    // A label shared by several symmetry-distinct sites names the first of them.
    for (long j = 0; j < cell->total; ++j) {
        if (cell->atom[j].flag != cell->atom[k].flag &&
            std::strncmp(cell->atom[j].name, cell->atom[k].name, QUOVIX_ATOM_NAME_LEN) == 0) {
            std::printf("Warning: several sites are named %s; the first one (", cell->atom[k].name);
            print_species(cell->atom[k]);
            std::printf(") is used.\n");
            break;
        }
    }
    return k;
}

quovix_cn_ptr calculate(const loaded &s, long site, double r_max) {
    quovix_cn_ptr cn{quovix_cn_calculate(s.cell.get(), s.ppt.get(), site, r_max)};
    if (!cn) std::fputs("Error: quovix_cn_calculate() returns NULL.\n", stderr);
    return cn;
}

void print_site(const char *what, const QUOVIX_ATOM &a) {
    std::printf("CN: %s %s (", what, a.name);
    print_species(a);
    std::printf(") at [%.6f %.6f %.6f]\n", a.x_f[0], a.x_f[1], a.x_f[2]);
}

void print_neighbour(const QUOVIX_CELL *cell, long k, const QUOVIX_CN_BOND &b) {
    const QUOVIX_ATOM &a = cell->atom[b.atom];
    std::printf("CN: %4ld %5s %2s%d%c %10.6f %5.3f", k + 1, a.name, a.type, quovix_abs_os(a.os),
                quovix_sign_char(a.os), b.d, a.occ);
}

// The words [input.cif] [atom name] | {r_max} of --cal-cn and --cal-cn-atom: reads r_max, the
// structure and the atom, and lists the atom's neighbours; null after the error line.
quovix_cn_ptr site_neighbours(const QUOVIX_CMD_OPT *opt, const quovix_args &args, loaded &s,
                              long &site, double &r_max) {
    if (!read_r_max(args, 2, r_max) || !load(opt, args.c_str(0), s)) return nullptr;
    site = find_atom(s, args, 1);
    if (site < 0) return nullptr;
    return calculate(s, site, r_max);
}

}  // namespace

/// --cal-cn [input.cif] [atom name] | {r_max}: coordination number by the distance shell.
void quovix_cmd_opt_do_cal_cn(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 2) {
        print_lines({"Command: --cal-cn [input.cif] [atom name] | {r_max}\n\n", r_max_line,
                     "Command: calculates the coordination number of the specified atom from its "
                     "counter-ions sorted by distance: the first shell ends at the largest ratio "
                     "of consecutive distances up to r_max, the first counter-ion beyond r_max "
                     "ending the list.\n",
                     "Example: ./quovix.x --cal-cn Li2O.cif Li1\n"});
        return;
    }
    double r_max = 0.0;
    loaded s;
    long site = -1;
    quovix_cn_ptr cn = site_neighbours(opt, args, s, site, r_max);
    if (!cn) return;
    print_site("first shell of", s.cell->atom[site]);
    std::printf("CN:    # name type          d   occ\n");
    long k = 0;
    for (long b = 0; b < cn->total; ++b) {
        if (!cn->bond[b].inner) continue;
        print_neighbour(s.cell.get(), k++, cn->bond[b]);
        std::printf("\n");
    }
    if (cn->shell == 0) {
        std::printf("CN: no counter-ion within r_max = %f A.\n", r_max);
    } else if (cn->next > 0.0) {
        std::printf("CN: first shell closed at %f A; next counter-ion at %f A (ratio %.3f).\n",
                    cn->shell_end, cn->next, cn->next / cn->shell_end);
    } else {
        std::printf("CN: first shell closed at %f A; no further counter-ion within %f A.\n",
                    cn->shell_end, 2.0 * r_max);
    }
    std::printf("CN: coordination number = %ld (occupancy-weighted %.3f)\n", cn->shell,
                cn->shell_occ);
}

/// --cal-cn-atom [input.cif] [atom name] | {r_max}: every neighbour within r_max.
void quovix_cmd_opt_do_cal_cn_atom(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 2) {
        print_lines({"Command: --cal-cn-atom [input.cif] [atom name] | {r_max}\n\n", r_max_line,
                     "Command: prints the coordination shell of the specified atom: every "
                     "neighbour within r_max with label, species, distance (A), occupancy, "
                     "lattice translation and bond valence (v.u., counter-ions only).\n",
                     "Example: ./quovix.x --cal-cn-atom Li2O.cif Li1\n"});
        return;
    }
    double r_max = 0.0;
    loaded s;
    long site = -1;
    quovix_cn_ptr cn = site_neighbours(opt, args, s, site, r_max);
    if (!cn) return;
    print_site("neighbours of", s.cell->atom[site]);
    std::printf("CN: %ld neighbours within %f A\n", cn->total, r_max);
    std::printf("CN:    # name type          d   occ   t1   t2   t3        bv\n");
    for (long b = 0; b < cn->total; ++b) {
        const QUOVIX_CN_BOND &bond = cn->bond[b];
        print_neighbour(s.cell.get(), b, bond);
        std::printf(" %4ld %4ld %4ld", bond.t[0], bond.t[1], bond.t[2]);
        const long prod = static_cast<long>(s.cell->atom[site].os) * s.cell->atom[bond.atom].os;
        if (prod < 0)
            std::printf(" %9.6f\n", bond.s);
        else
            std::printf("         -\n");
    }
}

/// --cal-cn-type [input.cif] [type1] [os1] [type2] [os2] | {r_max}: average coordination
/// number of species 1 by species 2.
void quovix_cmd_opt_do_cal_cn_type(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 5) {
        print_lines({"Command: --cal-cn-type [input.cif] [type1] [os1] [type2] [os2] | {r_max}\n\n",
                     r_max_line,
                     "Command: calculates the averaged coordination number of the specified pair "
                     "of ions: for each atom of species 1, the occupancy of species-2 atoms in "
                     "its first shell (largest ratio of consecutive species-2 distances up to "
                     "r_max), averaged with the occupancies of the species-1 atoms.\n",
                     "Example: ./quovix.x --cal-cn-type Li2O.cif Li 1 O -2\n"});
        return;
    }
    char type1[QUOVIX_TYPE_LEN] = {}, type2[QUOVIX_TYPE_LEN] = {};
    int os1 = 0, os2 = 0;
    if (std::sscanf(args.c_str(1), "%2s", type1) != 1) {
        std::fputs("Error: wrong parameter type1.\n", stderr);
        return;
    }
    if (!args.read_int(2, os1)) {
        std::fputs("Error: wrong parameter os1.\n", stderr);
        return;
    }
    if (std::sscanf(args.c_str(3), "%2s", type2) != 1) {
        std::fputs("Error: wrong parameter type2.\n", stderr);
        return;
    }
    if (!args.read_int(4, os2)) {
        std::fputs("Error: wrong parameter os2.\n", stderr);
        return;
    }
    double r_max = 0.0;
    if (!read_r_max(args, 5, r_max)) return;
    quovix_cell_ptr cell;
    quovix_symmetry_ptr sym;
    if (!quovix_cmd_read_cif(opt, args.c_str(0), cell, sym)) return;
    double average = 0.0;
    long count = 0;
    if (quovix_cn_average_by_type(&average, &count, cell.get(), type1, os1, type2, os2, r_max) !=
        0) {
        std::fputs("Error: quovix_cn_average_by_type() returns non-zero.\n", stderr);
        return;
    }
    if (count == 0) {
        std::fprintf(stderr, "Error: no atom of species %s%d%c in %s.\n", type1, quovix_abs_os(os1),
                     quovix_sign_char(os1), args.c_str(0));
        return;
    }
    std::printf(
        "CN: average coordination number of %s%d%c by %s%d%c = %.3f (%ld atoms, r_max = "
        "%f A)\n",
        type1, quovix_abs_os(os1), quovix_sign_char(os1), type2, quovix_abs_os(os2),
        quovix_sign_char(os2), average, count, r_max);
}

/// --cal-cn-bv [input.cif] [atom name]: the bonds that carry the site's valence.
void quovix_cmd_opt_do_cal_cn_bv(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 2) {
        print_lines({"Command: --cal-cn-bv [input.cif] [atom name]\n\n",
                     "Command: calculates the coordination number of the specified atom by bond "
                     "valence: bonds in decreasing valence until they carry 85% of the bond "
                     "valence sum (bonds within 1% of the last one also count, bonds below 0.05 "
                     "v.u. never), and Hoppe's effective coordination number ECoN.\n",
                     "Example: ./quovix.x --cal-cn-bv Li2O.cif Li1\n"});
        return;
    }
    loaded s;
    if (!load(opt, args.c_str(0), s)) return;
    const long site = find_atom(s, args, 1);
    if (site < 0) return;
    quovix_cn_ptr cn = calculate(s, site, bv_search);
    if (!cn) return;
    print_site("bonds of", s.cell->atom[site]);
    std::printf("CN: bond valence sum = %f\n", cn->bv_sum);
    std::printf("CN:    # name type          d   occ        bv  cumulative\n");
    std::vector<const QUOVIX_CN_BOND *> bonds;
    for (long b = 0; b < cn->total; ++b)
        if (cn->bond[b].s > 0.0) bonds.push_back(&cn->bond[b]);
    std::stable_sort(bonds.begin(), bonds.end(),
                     [](const QUOVIX_CN_BOND *a, const QUOVIX_CN_BOND *b) { return a->s > b->s; });
    double carried = 0.0;
    for (long k = 0; k < cn->cn_bv && k < static_cast<long>(bonds.size()); ++k) {
        carried += bonds[k]->s;
        print_neighbour(s.cell.get(), k, *bonds[k]);
        std::printf(" %9.6f %11.4f\n", bonds[k]->s, cn->bv_sum > 0.0 ? carried / cn->bv_sum : 0.0);
    }
    std::printf(
        "CN: bond valence coordination number = %ld (%.0f%% of the sum, bonds of at least "
        "%.2f v.u.)\n",
        cn->cn_bv, 100.0 * QUOVIX_CN_BV_SHARE, QUOVIX_CN_BV_MIN);
    std::printf("CN: effective coordination number (Hoppe) = %.3f\n", cn->econ);
}

/// --cal-cn-gui [input.cif]: bond-valence and effective coordination numbers of every site.
void quovix_cmd_opt_do_cal_cn_gui(QUOVIX_CMD_OPT *opt) {
    const quovix_args args(opt);
    if (args.count() < 1) {
        print_lines({"Command: --cal-cn-gui [input.cif]\n\n",
                     "Command: calculates coordination numbers of all sites by bond valence "
                     "theory (as --cal-cn-bv) and Hoppe's effective coordination number.\n",
                     "Example: ./quovix.x --cal-cn-gui Li2O.cif\n"});
        return;
    }
    loaded s;
    if (!load(opt, args.c_str(0), s)) return;
    const QUOVIX_CELL *cell = s.cell.get();
    // First atom of each symmetry-distinct site, in site order.
    long sites = 0;
    for (long k = 0; k < cell->total; ++k) sites = std::max(sites, cell->atom[k].flag);
    std::vector<long> first(static_cast<std::size_t>(sites), -1);
    for (long k = cell->total - 1; k >= 0; --k)
        if (cell->atom[k].flag >= 1) first[cell->atom[k].flag - 1] = k;
    std::vector<quovix_cn_ptr> results;
    for (long k : first) {
        if (k < 0) continue;
        quovix_cn_ptr cn = calculate(s, k, bv_search);
        if (!cn) return;
        results.push_back(std::move(cn));
    }
    std::printf("Printing coordination numbers of each site for Quovix-GUI\n");
    std::printf("> Label [  X     Y     Z  ] : CN_bv ECoN\n");
    for (const auto &cn : results) {
        const QUOVIX_ATOM &a = cell->atom[cn->site];
        std::printf("> %5s [%.3f %.3f %.3f] : %ld %.3f\n", a.name, a.x_f[0], a.x_f[1], a.x_f[2],
                    cn->cn_bv, cn->econ);
    }
    std::printf("End of CN calculation for Quovix-GUI\n");
}
