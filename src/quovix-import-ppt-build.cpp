// Building a parameter set for a cell: species, parameter files, estimates, derived values
// and the screening-factor fit. Sits above the cell energies (quovix-rx), which the fit
// evaluates, so the parameter tables below never call back into the energies.
#include <cstdio>
#include <cstring>

#include "quovix-import.hpp"
#include "quovix-rx.hpp"

namespace {

// Copies at most two characters of an element symbol and terminates the field.
void copy_type(char dst[QUOVIX_TYPE_LEN], const char *src) {
    int k = 0;
    for (; src != nullptr && k < QUOVIX_TYPE_LEN - 1 && src[k] != '\0'; ++k) dst[k] = src[k];
    for (; k < QUOVIX_TYPE_LEN; ++k) dst[k] = '\0';
}

}  // namespace

/// Builds the parameter set of a cell: species list (sorting the cell's atoms), the optional
/// mobile species (appended when absent, then `conducting`), sf, and the update stages.
/// Returns a new set (free with quovix_property_free) or null after printing the chain.
QUOVIX_PROPERTY *quovix_property_import_from_cell(QUOVIX_CELL *cell, const char *type, int os,
                                                  double sf, const char *dir_unitary,
                                                  const char *dir_binary) {
    quovix_property_ptr ppt{quovix_property_new(0)};
    if (!ppt) {
        std::fputs("Error: quovix_property_new() returns NULL.\n", stderr);
        return nullptr;
    }
    if (quovix_property_update_index_by_cell(ppt.get(), cell) != 0) {
        std::fputs("Error: quovix_property_update_index_by_cell() returns non-zero.\n", stderr);
        return nullptr;
    }
    if (type != nullptr) {
        char mobile[QUOVIX_TYPE_LEN];
        copy_type(mobile, type);
        if (quovix_property_find_index(ppt.get(), mobile, os) < 0 &&
            quovix_property_append_index(ppt.get(), mobile, os) != 0) {
            std::fputs("Error: quovix_property_append_index() returns non-zero.\n", stderr);
            return nullptr;
        }
        ppt->conducting = quovix_property_find_index(ppt.get(), mobile, os);
    }
    ppt->sf = sf;
    if (quovix_property_update(ppt.get(), cell, dir_unitary, dir_binary) != 0) {
        std::fputs("Error: quovix_property_update() returns non-zero.\n", stderr);
        return nullptr;
    }
    return ppt.release();
}

/// Runs the build stages on a labelled set: file reading, estimates, effective b, unitary and
/// binary derived values, fractional charges, screening factor ("Message: sf=..."),
/// pseudopotential and type counts. Stops at the first failure with its message.
int quovix_property_update(QUOVIX_PROPERTY *ppt, QUOVIX_CELL *cell, const char *dir_unitary,
                           const char *dir_binary) {
    if (quovix_property_update_read_from_file(ppt, cell, dir_unitary, dir_binary) != 0) {
        std::fputs("Error: quovix_property_update_read_from_file() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_property_estimate(ppt, dir_unitary, dir_binary) != 0) {
        std::fputs("Error: quovix_property_estimate() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_property_calculate_effective_b(ppt, cell) != 0) {
        std::fputs("Error: quovix_property_calculate_effective_b() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_property_unitary_derived(ppt) != 0) {
        std::fputs("Error: quovix_property_unitary_derived() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_property_binary_derived(ppt) != 0) {
        std::fputs("Error: quovix_property_binary_derived() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_property_calculate_fractional_charge(ppt, cell) != 0) {
        std::fputs("Error: quovix_property_calculate_fractional_charge() returns non-zero.\n",
                   stderr);
        return 1;
    }
    if (quovix_property_calculate_screening_factor(ppt, cell) < 0) {
        std::fputs("Error: quovix_property_calculate_screening_factor() returns negative value.\n",
                   stderr);
        return 1;
    }
    std::printf("Message: sf=%.6f\n", ppt->sf);
    if (quovix_property_binary_pseudopotential(ppt) != 0) {
        std::fputs("Error: quovix_property_binary_pseudopotential() returns non-zero.\n", stderr);
        return 1;
    }
    if (quovix_property_calculate_type_count(ppt, cell) != 0) {
        std::fputs("Error: quovix_property_type_count() returns non-zero.\n", stderr);
        return 1;
    }
    return 0;
}
