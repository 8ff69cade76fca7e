// Oxidation states assigned by bond valence to the sites of a cell whose file gave none.
//
// Every symmetry-distinct site without a state is given one of its element's listed states
// so that the cell is charge-neutral and the bond-valence sums (with the program's own
// parameters) lie as close as possible to the states: the chosen assignment minimises
//     sum over free cation sites of  w_s (V_s(state) - state)^2,   w_s = multiplicity x occupancy,
// over all neutral assignments, found exactly by a dynamic programme over the sites whose
// states are the cell's running charge (charges that the remaining sites can no longer
// bring back to zero are pruned). Anions keep their usual states; a site whose nearest
// neighbour of another element is more electronegative (the centre of an oxyanion, P in a
// phosphate, S in a sulfate, H in a hydroxide) counts as a cation. When no integer
// assignment is neutral, one site takes a mixed state between two consecutive listed states
// (written as the two states sharing the position, as the CIF reader splits a state of 2.5);
// only when that fails too may the anion sites leave their usual states.
#pragma once

#include "quovix-alloc.hpp"

inline constexpr int QUOVIX_OS_MAX_STATES = 16;  // listed states of one element

/// One symmetry-distinct site.
struct QUOVIX_OS_SITE {
    char name[QUOVIX_ATOM_NAME_LEN];  // label of its first atom
    char type[QUOVIX_TYPE_LEN];
    long atoms;     // atoms of the cell on this site
    double weight;  // sum of their occupancies
    int given;      // 1: the file gave the state (kept as it is)
    int role;       // +1 cation, -1 anion (usual state), 0 given
    int n_state;    // candidate states tried
    int state[QUOVIX_OS_MAX_STATES];
    double bv[QUOVIX_OS_MAX_STATES];  // bond-valence sum with each candidate (NaN: not computed)
    int lo, hi;                       // chosen state; lo < hi for a mixed site
    double frac_hi;                   // share of the position at state hi (mixed site)
    double state_mean;                // lo + frac_hi (hi - lo)
    double bv_sum;                    // bond-valence sum with the assignment
};

/// The assignment of a cell.
struct QUOVIX_OS {
    long total;  // sites
    QUOVIX_OS_SITE *site;
    int tier;             // 1: anions at usual states, 2: anions released
    int mixed;            // index of the mixed site, -1 when none
    double charge;        // formal charge of the cell with the assignment
    double charge_given;  // formal charge of the sites whose state the file gave
};

QUOVIX_OS *quovix_os_new(long total);
void quovix_os_free(QUOVIX_OS *os);
void quovix_os_print(QUOVIX_OS *os);

/// Assigns states to the atoms of `cell` whose os is 99 (read without defaults). Flags the
/// cell's sites by `sym` (the cell's order is kept). Null, after a message saying why, when
/// no neutral assignment exists, an element has no listed state, or the parameter files
/// cannot be read.
QUOVIX_OS *quovix_os_assign_from_cell(QUOVIX_CELL *cell, QUOVIX_SYMMETRY *sym,
                                      const char *dir_unitary, const char *dir_binary);
/// New cell with the assignment applied to the flagged `cell`: each atom of a mixed site is
/// split into its two states (occupancy shared in proportion). Null on failure.
QUOVIX_CELL *quovix_os_apply_to_cell(QUOVIX_OS *os, QUOVIX_CELL *cell);

using quovix_os_ptr = quovix_owner<QUOVIX_OS, quovix_os_free>;
