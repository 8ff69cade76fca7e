// libFuzzer target: the CIF reader, from text to an expanded cell with its symmetry.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quovix-alloc.hpp"
#include "quovix-import.hpp"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The reader reports its progress on stdout: keep libFuzzer's own lines readable.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    // The buffer as the file reader fills it: every byte (NUL included), zero-padded.
    auto *text = static_cast<QUOVIX_TEXT *>(std::calloc(1, sizeof(QUOVIX_TEXT)));
    if (text == nullptr) return 0;
    text->allocated = static_cast<long>(size / 1024 + 1) * 1024;
    text->content = static_cast<char *>(std::calloc(static_cast<std::size_t>(text->allocated), 1));
    if (text->content != nullptr) {
        std::memcpy(text->content, data, size);
        text->length = static_cast<long>(size);
        QUOVIX_CELL *cell = nullptr;
        QUOVIX_SYMMETRY *sym = nullptr;
        if (quovix_cell_import_cif_from_text(&cell, &sym, text,
                                             QUOVIX_DATA_DIR "/database_symcards.dat",
                                             QUOVIX_DATA_DIR "/database_unitary.dat") == 0) {
            // What the commands do next with a read cell: sort, name, write back as text.
            quovix_cell_update_name(cell);
            QUOVIX_TEXT *out = quovix_cell_export_cif_to_text(cell, sym);
            quovix_text_free(out);
        }
        quovix_cell_free(cell);
        quovix_symmetry_free(sym);
    }
    quovix_text_free(text);
    return 0;
}
