// Core records shared by every module, physical constants and ownership helpers.
#pragma once

#include <climits>
#include <cstdio>
#include <exception>
#include <memory>
#include <type_traits>

// ---------------------------------------------------------------------------
// Constants. The digits are the ones the program has always used; do not
// replace them by "more exact" values, printed numbers depend on them.
// ---------------------------------------------------------------------------
inline constexpr double QUOVIX_COULOMB = 14.39964;  // e^2/(4 pi eps0), eV*A
inline constexpr double QUOVIX_COULOMB_HALF =
    7.19982;  // half of it, for double sums over ordered pairs
inline constexpr double QUOVIX_DEG_TO_RAD =
    0.0174532925;  // degrees to radians (truncated on purpose)
inline constexpr double QUOVIX_BOLTZMANN = 8.6173324e-05;       // eV/K
inline constexpr double QUOVIX_E_OVER_KB = 11604.52;            // K/V
inline constexpr double QUOVIX_ELEMENTARY_CHARGE = 1.60217662;  // x 1e-19 C
inline constexpr double QUOVIX_ANGSTROM_TO_BOHR = 1.889725989;
inline constexpr double QUOVIX_SQRT_PI = 1.7724538498928541;
inline constexpr double QUOVIX_MIN_CONTACT = 0.2;  // closer contacts never count as bonds (A)

// Field widths of the fixed-size text fields (including the terminator).
inline constexpr int QUOVIX_ATOM_NAME_LEN = 12;
inline constexpr int QUOVIX_TYPE_LEN = 3;
inline constexpr int QUOVIX_CELL_NAME_LEN = 128;
inline constexpr int QUOVIX_SG_LEN = 16;
inline constexpr int QUOVIX_CARD_TEXT_LEN = 36;
inline constexpr int QUOVIX_PATH_LEN = 1024;  // file-name buffers

// ---------------------------------------------------------------------------
// Records. Plain structures allocated zero-filled by their _new function and
// released by the matching _free, which accepts null. On this platform `long`
// is 64-bit; nothing relies on it being 32-bit.
// ---------------------------------------------------------------------------

/// Growable NUL-terminated text. `allocated` is a multiple of 1024 and always
/// greater than `length`.
struct QUOVIX_TEXT {
    char *content;
    long length;
    long allocated;
};

/// One atom or site.
struct QUOVIX_ATOM {
    char name[QUOVIX_ATOM_NAME_LEN];  // site label
    char type[QUOVIX_TYPE_LEN];       // element symbol, at most two letters
    int os;                           // oxidation state; 99 = unknown
    double x[3];                      // Cartesian position (A)
    double x_f[3];                    // fractional position, in [0, 1)
    double occ;                       // site occupancy
    long flag;                        // integer mark (site number, ...)
    double value;                     // real-valued scratch slot
    bool ignored;                     // left out of calculations / scratch mark
};

/// A crystal cell: lattice plus the full (P1) list of atoms.
struct QUOVIX_CELL {
    char name[QUOVIX_CELL_NAME_LEN];
    long total;
    QUOVIX_ATOM *atom;
    double a[3][3];       // rows are the lattice vectors (A)
    double parameter[3];  // a, b, c (A)
    double angle[3];      // alpha, beta, gamma (degrees)
    int Z;
};

/// One symmetry operation x' = r_f x + t_f.
struct QUOVIX_CARD {
    char text[QUOVIX_CARD_TEXT_LEN];
    double r_f[3][3];
    double t_f[3];
    double r[3][3];
    double t[3];
    int r_i[3][3];
    long t_i[3];
};

struct QUOVIX_SYMMETRY {
    char sg_HM[QUOVIX_SG_LEN];
    char sg_Hall[QUOVIX_SG_LEN];
    int sg_id;
    int total;
    QUOVIX_CARD *card;
};

/// Parameters of one species (element symbol + oxidation state).
struct QUOVIX_PROPERTY_UNITARY {
    char type[QUOVIX_TYPE_LEN];
    int os;
    double soft;  // softness (1/eV)
    double rc;    // radius for the Coulomb screening length (A)
    double m;     // mass (amu)
    int an;       // atomic number
    int n;        // period
    int g;        // group
    int b;        // block index 0..3
    int c;        // block class derived from b
    double q;     // fractional charge
    double f1;    // embedding parameter
};

/// Parameters of one ordered species pair (cation first for bonded pairs).
struct QUOVIX_PROPERTY_BINARY {
    char type1[QUOVIX_TYPE_LEN];
    int os1;
    char type2[QUOVIX_TYPE_LEN];
    int os2;
    double b, b_old, r0, cutoff, cn, d0, rmin, r_bc, r_cc, bv_s, en_s, f_s, a0, a1, a2, f0;
};

/// The parameter set of one structure.
struct QUOVIX_PROPERTY {
    int total;
    char (*type)[QUOVIX_TYPE_LEN];
    int *os;
    double *count;
    QUOVIX_PROPERTY_UNITARY *uni;
    QUOVIX_PROPERTY_BINARY **bin;
    double sf;
    int conducting;
};

// ---------------------------------------------------------------------------
// Ownership helpers: a handler owns each record it creates through
// quovix_owner, whose deleter is the record's _free, so every path frees.
// ---------------------------------------------------------------------------
template <auto FreeFn>
struct quovix_deleter {
    template <class T>
    void operator()(T *p) const noexcept {
        FreeFn(p);
    }
};
template <class T, auto FreeFn>
using quovix_owner = std::unique_ptr<T, quovix_deleter<FreeFn>>;

/// Closes a FILE* (C++20 leaves the address of std::fclose unspecified).
struct quovix_file_closer {
    void operator()(std::FILE *f) const noexcept {
        if (f) std::fclose(f);
    }
};
using quovix_file_ptr = std::unique_ptr<std::FILE, quovix_file_closer>;

/// Runs `body` and turns any escaping exception (std::bad_alloc from a vector
/// sized by absurd input, ...) into an error line and a failure value: null
/// for pointer results, 1 for status results.
template <class F>
auto quovix_guard(const char *what, F &&body) noexcept -> decltype(body()) {
    try {
        return body();
    } catch (const std::exception &) {
        std::fprintf(stderr, "Error: unable to allocate %s.\n", what);
    } catch (...) {
        std::fprintf(stderr, "Error: unexpected failure in %s.\n", what);
    }
    if constexpr (std::is_pointer_v<decltype(body())>) {
        return nullptr;
    } else if constexpr (std::is_same_v<decltype(body()), bool>) {
        return false;
    } else {
        return 1;
    }
}

/// Species sign character used in most messages: '-' for anions, '+' otherwise.
inline char quovix_sign_char(int os) { return os < 0 ? '-' : '+'; }
/// Magnitude of an oxidation state as printed. -INT_MIN does not exist in int: that state
/// (never a real one) prints as INT_MAX rather than overflowing.
inline int quovix_abs_os(int os) { return os >= 0 ? os : (os < -INT_MAX ? INT_MAX : -os); }
