// Molecular dynamics of the mobile (conducting) ions in a fixed framework: Langevin
// velocity-Verlet integration with the bond-valence pair forces, observables, logs and the
// diffusivity, mobility and conductivity of the mobile ions.
#pragma once

#include <cstdio>
#include <memory>
#include <vector>

#include "quovix-alloc.hpp"
#include "quovix-images.hpp"
#include "quovix-import.hpp"
#include "quovix-io.hpp"

// ---------------------------------------------------------------------------------------------
// Constants of the dynamics (units: A, ps, eV, amu, K).
// ---------------------------------------------------------------------------------------------
inline constexpr double QUOVIX_MD_AMU = 0.000103642699;             // 1 amu in eV ps^2 / A^2
inline constexpr double QUOVIX_MD_CUTOFF = 12.0;                    // A, forces, energy, pressure
inline constexpr double QUOVIX_MD_WARN_DISTANCE = 0.1;              // A, close-contact warning
inline constexpr double QUOVIX_MD_EV_A3_TO_GPA = 160.217657;        // eV/A^3 to GPa
inline constexpr double QUOVIX_MD_DEFAULT_TEMPERATURE = 300.0;      // K, target temperature
inline constexpr double QUOVIX_MD_DEFAULT_TEMPERATURE_INIT = 10.0;  // K, initial velocities
inline constexpr double QUOVIX_MD_DEFAULT_DT = 0.001;               // ps
inline constexpr double QUOVIX_MD_DEFAULT_ZETA = 2.0;               // Langevin friction, 1/ps
inline constexpr double QUOVIX_MD_DEFAULT_T_END = 10.0;             // ps, production
inline constexpr double QUOVIX_MD_DEFAULT_T_EQUIL = 2.0;            // ps, equilibration
inline constexpr long QUOVIX_MD_DEFAULT_STEP_LOG = 100;             // sampling interval (steps)
/// Longest phase accepted, in time steps (a longer request is an error, not a silent hang).
inline constexpr long QUOVIX_MD_MAX_STEPS = 10000000;
/// Number of blocks of the production run for the standard error of the diffusivity.
inline constexpr int QUOVIX_MD_BLOCKS = 10;
/// Largest move of an ion in one time step (A) before the run is stopped as diverged.
inline constexpr double QUOVIX_MD_MAX_MOVE = 1.0;
/// Verlet skin of the neighbour lists (A): lists hold the contacts within cut-off + skin and
/// are rebuilt when a free ion has moved more than half of it since the last build.
inline constexpr double QUOVIX_MD_SKIN = 1.0;

/// Interaction of one ordered pair of species in the dynamics.
struct quovix_md_term {
    enum kind_t { none, coulomb, bonding } kind = none;
    double range = 0.0;                                // a contact counts when d <= range (A)
    double q = 0.0, r_eff = 0.0;                       // Coulomb: q_i q_j and sf (rc_i + rc_j)
    double d0 = 0.0, rmin = 0.0, b = 0.0, en_s = 0.0;  // bonding (cation-anion record)
};

/// Entry of a neighbour list: atom j seen from a free ion across the lattice translation k,
/// counted between unwrapped positions (see quovix_md_state::shift).
struct quovix_md_contact {
    int j;
    int k[3];
};

/// Working state of a run: pair table, lattice images, neighbour lists and result files.
struct quovix_md_state {
    std::vector<long> free;             // indices of the free atoms, ascending
    std::vector<char> is_free;          // per atom
    std::vector<int> species;           // species index per atom
    std::vector<quovix_md_term> table;  // species x species
    int total_species = 0;
    quovix_images::frame frame{};  // lattice and the image range -n..n of the cut-off
    std::vector<long> shift;       // 3 per atom: cell position = x - shift . a
    std::vector<std::vector<quovix_md_contact>> lists;  // one per free atom (order of `free`)
    std::vector<double> x_build;  // 3 per free atom: x when the lists were built
    bool lists_valid = false;
    long list_builds = 0;
    long list_entries = 0;          // entries of all lists
    std::vector<long> list_offset;  // first entry of each list in the flat numbering
    std::vector<long> mirror;       // entry (j, i, -k) of entry (i, j, k), -1 if none
    std::vector<double> pair_q;     // 14.39964 phi'(d) / d of each owned entry
    bool framework_done = false;
    double virial_framework = 0.0;  // virial of the fixed atoms among themselves (eV)
    std::unique_ptr<quovix_output_file> log, xyz, trj;
    std::vector<double> block_start;  // 3 per atom: x at the start of the current block
    std::vector<double> block_d;      // diffusivity of each finished block
};

/// One molecular-dynamics run. Per-atom arrays have one row per atom of `cell`; rows of fixed
/// atoms keep zero velocity and force.
struct QUOVIX_MD {
    QUOVIX_CELL *cell;      // owned copy; atoms not `ignored` are free
    QUOVIX_PROPERTY *ppt;   // owned copy
    double *m;              // mass, eV ps^2 / A^2
    double (*x)[3];         // position (A), unwrapped for free atoms
    double (*x0)[3];        // start position of the production
    double (*x_p1)[3];      // position before the last step
    double (*v)[3];         // velocity (A/ps)
    double (*v_nh)[3];      // auxiliary velocity (kept zero by the Langevin integrator)
    double (*f)[3];         // force -dE/dx (eV/A)
    double (*r)[3];         // normal deviates of the stochastic term
    double x_com[3];        // centre of mass of the free atoms (A)
    double en_k, en_p, en;  // eV
    double volume;          // A^3
    double pressure;        // eV/A^3
    long step;
    double t;            // ps
    double temperature;  // K
    double en_ave, en_k_ave, en_p_ave, temperature_ave, pressure_ave;
    double t_equil, t_end, dt;                    // ps
    double zeta;                                  // 1/ps
    double temperature_target, temperature_init;  // K
    double displacement, diffusivity, mobility, conductivity;
    double t_log;   // ps
    long step_log;  // steps
    char logname[QUOVIX_PATH_LEN], xyzname[QUOVIX_PATH_LEN], trjname[QUOVIX_PATH_LEN];
    std::FILE *log, *xyz, *trj;  // owned by `state`
    // Beyond the run's own fields:
    long total_free;                         // number of free atoms
    long samples;                            // samples in the running averages
    double diffusivity_se, conductivity_se;  // block-average standard errors
    quovix_md_state *state;                  // owned
};

// ---------------------------------------------------------------------------------------------
// Run chain and records
// ---------------------------------------------------------------------------------------------
/// Whole --md calculation on a CIF; 0 on success, negative on failure.
int quovix_md_conduction_from_file(const char *cif, const char *type, int os, double sf,
                                   double temperature, double t_end, double t_equil, double dt,
                                   double t_log, const char *dir_binary, const char *dir_unitary,
                                   const char *dir_symcards);
/// New run on copies of cell and parameter set; result files named after `name` (may be null:
/// no names). Null on failure.
QUOVIX_MD *quovix_md_new(QUOVIX_CELL *cell, QUOVIX_PROPERTY *ppt, const char *name);
void quovix_md_free(QUOVIX_MD *md);
void quovix_md_print(QUOVIX_MD *md);
void quovix_md_print_short(QUOVIX_MD *md);
/// Defaults, sampling interval, masses, initial velocities, first forces and observables; opens
/// the result files when `open_files`. 0 or 1.
int quovix_md_init_vv(QUOVIX_MD *md, bool open_files);
int quovix_md_equilibrate(QUOVIX_MD *md);
int quovix_md_run(QUOVIX_MD *md);
/// Moves the result files under their names (after a successful run). 0 or 1.
int quovix_md_commit_files(QUOVIX_MD *md);

// ---------------------------------------------------------------------------------------------
// Integration
// ---------------------------------------------------------------------------------------------
int quovix_md_calculate_mass(QUOVIX_MD *md);
int quovix_md_calculate_vi_vv(QUOVIX_MD *md);
int quovix_md_update_vv_langevin(QUOVIX_MD *md);
int quovix_md_calculate_v_vv_langevin(QUOVIX_MD *md);
int quovix_md_update_vv(QUOVIX_MD *md);
int quovix_md_calculate_v_vv(QUOVIX_MD *md);
/// Drift of the free atoms by dt with their velocities, then the cell follows. 0 or 1 (an ion
/// that moved more than QUOVIX_MD_MAX_MOVE or to a non-finite position).
int quovix_md_calculate_x_vv(QUOVIX_MD *md);
/// Puts the free atoms of the cell at md->x (wrapped into the cell); the lattice translations
/// between both are tracked for the neighbour lists. 0 or 1 (non-finite position).
int quovix_md_update_cell(QUOVIX_MD *md);

// ---------------------------------------------------------------------------------------------
// Forces and observables
// ---------------------------------------------------------------------------------------------
/// Forces on the free atoms into md->f; md->f, or null on failure.
double (*quovix_md_calculate_force(QUOVIX_MD *md))[3];
/// Forces (f may be null), potential energy and virial (each may be null) of the free atoms,
/// with neighbour lists; same contacts and summation order as the plain loop. 0 or 1.
int quovix_md_calculate_interaction(QUOVIX_MD *md, double (*f)[3], double *en_p, double *virial);
/// Pair table, lattice frame and free-atom list of the run (from its cell and parameter set).
int quovix_md_prepare_interaction(QUOVIX_MD *md);
/// Virial of the fixed atoms among themselves (eV), computed once per run; NaN on failure.
double quovix_md_calculate_virial_framework(QUOVIX_MD *md);
/// Kinetic energy, potential energy, total energy, temperature, pressure and centre of mass.
int quovix_md_calculate_observables(QUOVIX_MD *md);
double quovix_md_calculate_en_k(QUOVIX_MD *md);
double quovix_md_calculate_temperature(QUOVIX_MD *md);
int quovix_md_calculate_conduction_property(QUOVIX_MD *md);

// ---------------------------------------------------------------------------------------------
// Helpers of other layers used by the run
// ---------------------------------------------------------------------------------------------
/// Sets ppt->conducting to the species (type, os); 0, or 1 when it is absent.
int quovix_property_set_conducting(QUOVIX_PROPERTY *ppt, const char *type, int os);
/// Fills r[0..n-1][0..2] with normal deviates (quovix_random_normal).
void quovix_matrixn3_double_random_normal(double (*r)[3], long n, double ave, double sd);

using quovix_md_ptr = quovix_owner<QUOVIX_MD, quovix_md_free>;
