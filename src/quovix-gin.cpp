// Force-field export for GULP. The bond-valence force field maps onto GULP's potentials:
//   bonding (cation-anion):  E = De [(exp(a (r0 - r)) - 1)^2 - 1] - E(rcut), "morse ener",
//       with De = 7.19982 d0 eV (the pair sum of the cell energy counts each ordered pair with
//       0.5 d0 in units of 14.39964 eV A, i.e. 7.19982 d0 per unordered pair), a = 1/b,
//       r0 = rmin and rcut the pair's cut-off;
//   like charges:            E = 14.39964 q_i q_j erfc(r / rho) / r, "qerfc", rho = sf (rc_i +
//       rc_j), with the species' fractional charges and no Ewald sum ("noelectrostatics").
//       GULP cannot shift qerfc: the program subtracts the value at 10 A, so the energies of a
//       like pair differ by that constant; forces agree. GULP's Coulomb constant is
//       14.3997584 eV A (8e-6 relative above ours).
//   embedding:               E_i = -A_i sqrt(rho_i), "eam_functional square_root", with
//       A_i = 7.19982 f1_i / sqrt(|os_i|) eV and rho_i = sum_j exp(-(r_ij - R0)/b), the bond
//       valence sum, as "eam_density exponential 0" per cation-anion pair. The program fades
//       each bond's density to 0 at the cut-off; GULP's density has no shift, which raises
//       rho by exp((R0 - rcut)/b) per bond: 1e-6 to 1e-3 valence units (NaCl, soft b = 0.61:
//       8e-4, a 0.1-0.7 % higher embedding energy for one bond at 2.4-3.4 A).
// The program's inner quadratic branch (below the distance where a pair energy reaches
// 7.2 eV) is not exported: no ion comes that close in a dynamics run at any sane temperature.
// Files follow the input rules of GULP 6.x: LF line ends, at most 80 characters per line,
// numbered labels, every optional number written, times with their unit.
#include "quovix-gin.hpp"

#include <cctype>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "quovix-import.hpp"

namespace {

constexpr double coulomb_half = QUOVIX_COULOMB_HALF;  // eV A, converts reduced pair energies
constexpr double energy_range_min = 12.0;             // A, like-charge cut-off at least this
constexpr std::size_t max_line = 80;
constexpr double charge_tolerance = 1e-6;

// Text under construction; any unprintable number or over-long line marks it failed.
struct writer {
    std::string text;
    bool ok = true;
    const char *fault = nullptr;

    void line(const char *fmt, ...) __attribute__((format(printf, 2, 3))) {
        char buf[256];
        va_list ap;
        va_start(ap, fmt);
        const int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
        va_end(ap);
        if (n < 0 || static_cast<std::size_t>(n) > max_line) {
            fail("a line longer than 80 characters");
            return;
        }
        text += buf;
        text += '\n';
    }
    // Checks the numbers a line is about to print.
    bool finite(std::initializer_list<double> values) {
        for (double v : values) {
            if (!std::isfinite(v)) {
                fail("a number that is not finite");
                return false;
            }
        }
        return true;
    }
    void fail(const char *why) {
        if (ok) fault = why;
        ok = false;
    }
};

double like_range(const QUOVIX_PROPERTY *ppt) {
    double range = energy_range_min;
    for (int i = 0; i < ppt->total; ++i)
        for (int j = 0; j < ppt->total; ++j)
            if (ppt->bin[i][j].cutoff > range) range = ppt->bin[i][j].cutoff;
    return range;
}

bool valid_set(const QUOVIX_PROPERTY *ppt) {
    return ppt && ppt->total > 0 && ppt->uni && ppt->bin && ppt->type && ppt->os;
}

bool bonded_pair(const QUOVIX_PROPERTY_BINARY &b) {
    return b.os1 > 0 && b.os2 < 0 && b.d0 > 0.0 && b.rmin > 0.0 && b.b > 0.0 && b.cutoff > 0.0;
}

void write_library(writer &w, const QUOVIX_PROPERTY *ppt, bool eam) {
    const int n = ppt->total;
    std::vector<std::string> label(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        char l[8];
        quovix_gin_label(l, ppt, i);
        label[i] = l;
    }
    w.line("# Bond-valence force field (GULP 6.x library), screening factor %.6f", ppt->sf);
    for (int i = 0; i < n; ++i)
        w.line("#   %-5s = %s%d%c", label[i].c_str(), ppt->uni[i].type,
               quovix_abs_os(ppt->uni[i].os), quovix_sign_char(ppt->uni[i].os));
    w.line("# Units: eV, A. Morse energies are shifted to 0 at the cut-off. The screened");
    w.line("# Coulomb terms (qerfc) are not shifted: their energies differ from the");
    w.line("# program's, which subtract the value at 10 A, by a constant per pair.");
    w.line("keyword noelectrostatics");
    w.line("species");
    for (int i = 0; i < n; ++i)
        if (w.finite({ppt->uni[i].q})) w.line("%-5s core %12.9f", label[i].c_str(), ppt->uni[i].q);

    bool any = false;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) any = any || bonded_pair(ppt->bin[i][j]);
    if (any) {
        w.line("# Morse: De (eV) a (1/A) r0 (A) coul rmin rmax (A)");
        w.line("morse ener");
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j) {
                const QUOVIX_PROPERTY_BINARY &b = ppt->bin[i][j];
                if (!bonded_pair(b) || !w.finite({b.d0, b.b, b.rmin, b.cutoff})) continue;
                w.line("%-5s core %-5s core %.6f %.6f %.6f 0.0 0.0 %.6f", label[i].c_str(),
                       label[j].c_str(), b.d0 * coulomb_half, 1.0 / b.b, b.rmin, b.cutoff);
            }
        }
    }
    const double range = like_range(ppt);
    bool like = false;
    for (int i = 0; i < n; ++i)
        for (int j = i; j < n; ++j)
            like = like || static_cast<long>(ppt->uni[i].os) * ppt->uni[j].os > 0;
    if (like) {
        w.line("# Screened Coulomb between like charges: rho (A) rmax (A)");
        w.line("qerfc");
        for (int i = 0; i < n; ++i) {
            for (int j = i; j < n; ++j) {
                if (static_cast<long>(ppt->uni[i].os) * ppt->uni[j].os <= 0) continue;
                const double rho = ppt->sf * (ppt->uni[i].rc + ppt->uni[j].rc);
                if (!(rho > 0.0) || !w.finite({rho, range})) {
                    w.fail("a screening length that is not positive");
                    return;
                }
                w.line("%-5s core %-5s core %.6f %.6f", label[i].c_str(), label[j].c_str(), rho,
                       range);
            }
        }
    }
    if (!eam || !any) return;
    w.line("# Embedding: F(rho) = -A sqrt(rho), rho = sum exp(-(r - R0)/b) over bonds");
    w.line("manybody");
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            if (bonded_pair(ppt->bin[i][j]))
                w.line("%-5s core %-5s core 0.0 %.6f", label[i].c_str(), label[j].c_str(),
                       ppt->bin[i][j].cutoff);
    w.line("eam_density exponential 0");
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            const QUOVIX_PROPERTY_BINARY &b = ppt->bin[i][j];
            if (!bonded_pair(b) || !w.finite({b.r0})) continue;
            w.line("%-5s core %-5s core 1.0 %.6f %.6f", label[i].c_str(), label[j].c_str(),
                   1.0 / b.b, b.r0);
        }
    }
    w.line("eam_functional square_root");
    for (int i = 0; i < n; ++i) {
        const QUOVIX_PROPERTY_UNITARY &u = ppt->uni[i];
        if (u.os == 0) continue;
        if (!std::isfinite(u.f1)) {
            w.fail("an embedding parameter that is not finite (not computed?)");
            return;
        }
        w.line("%-5s core %.6f", label[i].c_str(),
               coulomb_half * u.f1 / std::sqrt(static_cast<double>(quovix_abs_os(u.os))));
    }
}

QUOVIX_TEXT *finish(writer &w) {
    if (!w.ok) {
        std::fprintf(stderr, "Error: the GULP text would contain %s.\n", w.fault);
        return nullptr;
    }
    QUOVIX_TEXT *text = quovix_text_new(w.text.c_str());
    if (!text) std::fputs("Error: quovix_text_new() returns NULL.\n", stderr);
    return text;
}

QUOVIX_TEXT *library(const QUOVIX_PROPERTY *ppt, bool eam) {
    if (!valid_set(ppt)) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("the GULP library text", [&]() -> QUOVIX_TEXT * {
        writer w;
        write_library(w, ppt, eam);
        return finish(w);
    });
}

// A GULP word made of the name: lower-case letters, digits and '_' only, not empty.
std::string gulp_word(const char *name) {
    std::string out;
    for (const char *p = name ? name : ""; *p && out.size() < 40; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        out += std::isalnum(c) ? static_cast<char>(std::tolower(c)) : '_';
    }
    if (out.empty() || !std::isalpha(static_cast<unsigned char>(out[0]))) out = "md_" + out;
    return out;
}

}  // namespace

void quovix_gin_label(char out[8], const QUOVIX_PROPERTY *ppt, int i) {
    int number = 0;
    for (int k = 0; k <= i; ++k)
        if (std::strncmp(ppt->uni[k].type, ppt->uni[i].type, QUOVIX_TYPE_LEN) == 0) ++number;
    const int k = number < 1 ? 1 : number > 999 ? 999 : number;  // GULP's type numbers: 1-999
    std::snprintf(out, 8, "%.2s%d", ppt->uni[i].type, k);
}

QUOVIX_TEXT *quovix_gin_lib_import_from_property(const QUOVIX_PROPERTY *ppt) {
    return library(ppt, false);
}

QUOVIX_TEXT *quovix_gin_lib_eam_import_from_property(const QUOVIX_PROPERTY *ppt) {
    return library(ppt, true);
}

QUOVIX_TEXT *quovix_gin_import_from_cell(const QUOVIX_CELL *cell, const QUOVIX_PROPERTY *ppt,
                                         const char *type, int os, double temperature,
                                         double equilibration, double production,
                                         const char *name) {
    if (!cell || !cell->atom || cell->total < 1) {
        std::fputs("Error: QUOVIX_CELL has not been properly initialized.\n", stderr);
        return nullptr;
    }
    if (!valid_set(ppt) || !type) {
        std::fputs("Error: QUOVIX_PROPERTY has not been properly initialized.\n", stderr);
        return nullptr;
    }
    if (!(temperature >= 1.0 && temperature <= 1e5) || !(equilibration >= 0.0) ||
        !(production > 0.0) || !(equilibration + production <= 1e6)) {
        std::fputs("Error: temperature or times out of range.\n", stderr);
        return nullptr;
    }
    return quovix_guard("the GULP input text", [&]() -> QUOVIX_TEXT * {
        std::vector<int> species(static_cast<std::size_t>(cell->total));
        long mobile = 0;
        double charge = 0.0;
        for (long k = 0; k < cell->total; ++k) {
            const QUOVIX_ATOM &a = cell->atom[k];
            if (std::fabs(a.occ - 1.0) > 1e-6) {
                std::fprintf(stderr,
                             "Error: atom %s has occupancy %f; molecular dynamics in GULP needs "
                             "an ordered cell (resolve it with --gen-cif-assign first).\n",
                             a.name, a.occ);
                return nullptr;
            }
            species[k] =
                quovix_property_find_index(const_cast<QUOVIX_PROPERTY *>(ppt), a.type, a.os);
            if (species[k] < 0) {
                std::fputs("Error: quovix_property_find_index() returns negative value.\n", stderr);
                return nullptr;
            }
            charge += ppt->uni[species[k]].q;
            if (a.os == os && std::strncmp(a.type, type, QUOVIX_TYPE_LEN) == 0) ++mobile;
        }
        if (mobile == 0) {
            std::fprintf(stderr, "Error: no %s%d%c ion in the cell.\n", type, quovix_abs_os(os),
                         quovix_sign_char(os));
            return nullptr;
        }
        if (!(std::fabs(charge) <= charge_tolerance)) {
            std::fprintf(stderr, "Error: the charges of the cell sum to %e, not zero.\n", charge);
            return nullptr;
        }
        const std::string word = gulp_word(name);
        writer w;
        for (int k = 0; k < 3; ++k) w.finite({cell->parameter[k], cell->angle[k]});
        for (long k = 0; k < cell->total; ++k)
            w.finite({cell->atom[k].x_f[0], cell->atom[k].x_f[1], cell->atom[k].x_f[2]});
        w.line("md noelectrostatics");
        w.line("title");
        w.line("mobile-ion dynamics of %.50s", word.c_str());
        w.line("end");
        w.line("cell");
        w.line("%.6f %.6f %.6f %.6f %.6f %.6f 0 0 0 0 0 0", cell->parameter[0], cell->parameter[1],
               cell->parameter[2], cell->angle[0], cell->angle[1], cell->angle[2]);
        w.line("fractional");
        for (long k = 0; k < cell->total; ++k) {
            const QUOVIX_ATOM &a = cell->atom[k];
            char l[8];
            quovix_gin_label(l, ppt, species[k]);
            const bool moves = a.os == os && std::strncmp(a.type, type, QUOVIX_TYPE_LEN) == 0;
            w.line("%-5s core %.6f %.6f %.6f %s", l, a.x_f[0], a.x_f[1], a.x_f[2],
                   moves ? "1 1 1" : "0 0 0");
        }
        write_library(w, ppt, false);
        w.line("ensemble nvt");
        w.line("integrator stochastic");
        w.line("tau_thermostat 0.1 ps");
        w.line("temperature %.3f", temperature);
        w.line("timestep 0.001 ps");
        w.line("equilibration %.6f ps", equilibration);
        w.line("production %.6f ps", production);
        w.line("sample 0.010 ps");
        w.line("write 0.010 ps");
        w.line("output history %s", word.c_str());
        w.line("output movie xyz %s", word.c_str());
        w.line("dump %s.grs", word.c_str());
        return finish(w);
    });
}
