// libFuzzer target: the symmetry-operation parser ("-x+1/2, y, z+1/4") and the use of the
// parsed card on a position, on a grid index and as a whole symmetry.
#include <cstdint>
#include <cstdio>
#include <string>

#include "quovix-alloc.hpp"
#include "quovix-import.hpp"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    QUOVIX_CARD card{};
    if (quovix_card_set_by_text(&card, text.c_str()) != 0) return 0;
    QUOVIX_ATOM atom{};
    atom.x_f[0] = 0.1;
    atom.x_f[1] = 0.2;
    atom.x_f[2] = 0.3;
    atom.occ = 1.0;
    const QUOVIX_ATOM image = quovix_atom_spawn_by_card(&atom, &card);
    (void)image;
    // The grid form used by the landscape: rounded rotation, translation in grid steps.
    QUOVIX_SYMMETRY *sym = quovix_symmetry_new(1);
    if (sym == nullptr) return 0;
    sym->card[0] = card;
    const long n[3] = {24, 24, 48};
    if (quovix_symmetry_fill_card_discrete(sym, n) == 0) {
        const long in[3] = {5, 23, 47};
        long out[3];
        quovix_card_transform_vector3_long(out, in, n, &sym->card[0]);
    }
    quovix_symmetry_free(sym);
    return 0;
}
