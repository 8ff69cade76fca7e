// Literal path grid (reference for the compact one): every record and step as stated.
#include "quovix-fp-reference.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quovix-import.hpp"
#include "quovix-la.hpp"

QUOVIX_FPCUBE_REF *quovix_fpref_new(const long n[3]) {
    if (n[0] <= 0 || n[1] <= 0 || n[2] <= 0) {
        std::fputs("Error: all arguments must be positive.\n", stderr);
        return nullptr;
    }
    auto *fp = static_cast<QUOVIX_FPCUBE_REF *>(std::calloc(1, sizeof(QUOVIX_FPCUBE_REF)));
    if (!fp) {
        std::fputs("Error: unable to allocate QUOVIX_FPCUBE.\n", stderr);
        return nullptr;
    }
    for (int k = 0; k < 3; k++) fp->n[k] = n[k];
    fp->dot = static_cast<QUOVIX_FPDOT ***>(std::calloc(n[0], sizeof(QUOVIX_FPDOT **)));
    if (!fp->dot) {
        std::fputs("Error: unable to allocate fpcube->dot\n", stderr);
        quovix_fpref_free(fp);
        return nullptr;
    }
    for (long i = 0; i < n[0]; i++) {
        fp->dot[i] = static_cast<QUOVIX_FPDOT **>(std::calloc(n[1], sizeof(QUOVIX_FPDOT *)));
        if (!fp->dot[i]) {
            std::fputs("Error: unable to allocate fpcube->dot[]\n", stderr);
            quovix_fpref_free(fp);
            return nullptr;
        }
        for (long j = 0; j < n[1]; j++) {
            fp->dot[i][j] = static_cast<QUOVIX_FPDOT *>(std::calloc(n[2], sizeof(QUOVIX_FPDOT)));
            if (!fp->dot[i][j]) {
                std::fputs("Error: unable to allocate fpcube->dot[][]\n", stderr);
                quovix_fpref_free(fp);
                return nullptr;
            }
        }
    }
    return fp;
}

void quovix_fpref_free(QUOVIX_FPCUBE_REF *fp) {
    if (!fp) return;
    if (fp->dot) {
        for (long i = 0; i < fp->n[0]; i++) {
            if (!fp->dot[i]) continue;
            for (long j = 0; j < fp->n[1]; j++) std::free(fp->dot[i][j]);
            std::free(fp->dot[i]);
        }
        std::free(fp->dot);
    }
    std::free(fp);
}

namespace {
QUOVIX_FPDOT *at(QUOVIX_FPCUBE_REF *fp, const long x[3]) {
    return &fp->dot[quovix_mod_long(x[0], fp->n[0])][quovix_mod_long(x[1], fp->n[1])]
                   [quovix_mod_long(x[2], fp->n[2])];
}
}  // namespace

void quovix_fpref_dot_cluster(QUOVIX_FPCUBE_REF *fp, const long x[3]) {
    QUOVIX_FPDOT *dot = at(fp, x);
    int cp[5][5][5], cl[5][5][5];
    std::memset(cp, 0, sizeof cp);
    std::memset(cl, 0, sizeof cl);
    for (int p = 0; p < 3; p++)
        for (int q = 0; q < 3; q++)
            for (int r = 0; r < 3; r++) {
                if (p == 1 && q == 1 && r == 1) continue;
                cp[p + 1][q + 1][r + 1] = dot->nb[p][q][r]->en < dot->en ? -1 : 1;
            }
    int open = 1;
    for (int i = 1; i <= 3; i++)
        for (int j = 1; j <= 3; j++)
            for (int k = 1; k <= 3; k++) {
                if (cp[i][j][k] == 0) continue;
                for (int p = -1; p <= 1; p++)
                    for (int q = -1; q <= 1; q++)
                        for (int r = -1; r <= 1; r++) {
                            const int c = cl[i + p][j + q][k + r];
                            if (c == 0 || cp[i + p][j + q][k + r] != cp[i][j][k]) continue;
                            if (cl[i][j][k] == 0) {
                                cl[i][j][k] = c;
                            } else {
                                // merge over the inner block: the larger label
                                // becomes the smaller
                                const int c1 = cl[i][j][k];
                                if (c1 != c) {
                                    const int hi = c1 > c ? c1 : c, lo = c1 > c ? c : c1;
                                    for (int a = 1; a <= 3; a++)
                                        for (int b = 1; b <= 3; b++)
                                            for (int d = 1; d <= 3; d++)
                                                if (cl[a][b][d] == hi) cl[a][b][d] = lo;
                                }
                            }
                        }
                if (cl[i][j][k] == 0) {
                    cl[i][j][k] = cp[i][j][k] > 0 ? open : -open;
                    open++;
                }
            }
    for (int p = 0; p < 3; p++)
        for (int q = 0; q < 3; q++)
            for (int r = 0; r < 3; r++) dot->cluster[p][q][r] = cl[p + 1][q + 1][r + 1];
}

void quovix_fpref_dot_classify(QUOVIX_FPCUBE_REF *fp, const long x[3]) {
    QUOVIX_FPDOT *dot = at(fp, x);
    dot->total_up = dot->total_dn = 0;
    int mx = 0, mn = 0;
    for (int p = 0; p < 3; p++)
        for (int q = 0; q < 3; q++)
            for (int r = 0; r < 3; r++) {
                if (dot->total_up > 8 || dot->total_dn > 8)
                    std::printf(
                        "Warning: no. of branches exceeds 8 at (%ld,%ld,%ld); there might "
                        "be an error.\n",
                        dot->x_i[0], dot->x_i[1], dot->x_i[2]);
                else if (dot->total_up > 3)
                    std::printf(
                        "Warning: no. of branches exceeds 4 at (%ld,%ld,%ld); there might "
                        "be a discontinuity\n",
                        dot->x_i[0], dot->x_i[1], dot->x_i[2]);
                const int c = dot->cluster[p][q][r];
                if (c > mx) {
                    mx = c;
                    dot->total_up++;
                }
                if (c < mn) {
                    mn = c;
                    dot->total_dn++;
                }
            }
    if (dot->total_dn == 0)
        dot->type = FP_MIN;
    else if (dot->total_dn == 1)
        dot->type = dot->total_up == 1 ? FP_NOR : FP_ERR;
    else if (dot->total_dn == 2 || dot->total_dn == 3)
        dot->type = FP_SAD;
    else
        dot->type = FP_ERR;
    if (dot->total_up == 0 && dot->total_dn >= 1) dot->type = FP_MAX;
}

void quovix_fpref_dot_branch(QUOVIX_FPCUBE_REF *fp, const long x[3]) {
    QUOVIX_FPDOT *dot = at(fp, x);
    int mx = 0, count = 0;
    for (int p = 0; p < 3; p++)
        for (int q = 0; q < 3; q++)
            for (int r = 0; r < 3; r++) {
                const int c = dot->cluster[p][q][r];
                if (c > mx && count < 8) {
                    mx = c;
                    double best = dot->en;
                    QUOVIX_FPDOT *pick = dot;
                    for (int a = 0; a < 3; a++)
                        for (int b = 0; b < 3; b++)
                            for (int d = 0; d < 3; d++)
                                if (dot->cluster[a][b][d] == c && dot->nb[a][b][d]->en >= best) {
                                    best = dot->nb[a][b][d]->en;
                                    pick = dot->nb[a][b][d];
                                }
                    dot->up[count++] = pick;
                }
            }
    int mn = 0;
    count = 0;
    for (int p = 0; p < 3; p++)
        for (int q = 0; q < 3; q++)
            for (int r = 0; r < 3; r++) {
                const int c = dot->cluster[p][q][r];
                if (c < mn && count < 8) {
                    mn = c;
                    double best = dot->en;
                    QUOVIX_FPDOT *pick = dot;
                    for (int a = 0; a < 3; a++)
                        for (int b = 0; b < 3; b++)
                            for (int d = 0; d < 3; d++)
                                if (dot->cluster[a][b][d] == c && dot->nb[a][b][d]->en <= best) {
                                    best = dot->nb[a][b][d]->en;
                                    pick = dot->nb[a][b][d];
                                }
                    dot->dn[count++] = pick;
                }
            }
}

QUOVIX_FPCUBE_REF *quovix_fpref_new_from_cube(QUOVIX_CUBE *cube) {
    if (!cube) {
        std::fputs("Error: QUOVIX_CUBE has not been properly initialized.\n", stderr);
        return nullptr;
    }
    QUOVIX_FPCUBE_REF *fp = quovix_fpref_new(cube->n);
    if (!fp) {
        std::fputs("Error: quovix_fpcube_new() returns NULL.\n", stderr);
        return nullptr;
    }
    std::memcpy(fp->a, cube->a, sizeof fp->a);
    std::memcpy(fp->a_i, cube->a_i, sizeof fp->a_i);
    for (long i = 0; i < fp->n[0]; i++)
        for (long j = 0; j < fp->n[1]; j++)
            for (long k = 0; k < fp->n[2]; k++) {
                QUOVIX_FPDOT *d = &fp->dot[i][j][k];
                d->en = cube->en[i][j][k];
                d->type = FP_UND;
                d->x_i[0] = i;
                d->x_i[1] = j;
                d->x_i[2] = k;
                for (int m = 0; m < 3; m++)
                    d->x[m] = fp->a_i[0][m] * static_cast<double>(i) +
                              fp->a_i[1][m] * static_cast<double>(j) +
                              fp->a_i[2][m] * static_cast<double>(k);
                for (int p = 0; p < 3; p++)
                    for (int q = 0; q < 3; q++)
                        for (int r = 0; r < 3; r++) {
                            const long y[3] = {i + p - 1, j + q - 1, k + r - 1};
                            d->nb[p][q][r] = at(fp, y);
                        }
            }
    for (long i = 0; i < fp->n[0]; i++)
        for (long j = 0; j < fp->n[1]; j++)
            for (long k = 0; k < fp->n[2]; k++) {
                const long x[3] = {i, j, k};
                quovix_fpref_dot_cluster(fp, x);
                quovix_fpref_dot_classify(fp, x);
                quovix_fpref_dot_branch(fp, x);
            }
    return fp;
}

QUOVIX_FPHALF_LIST *quovix_fpref_half_list_new(QUOVIX_FPCUBE_REF *fp, const long x[3]) {
    QUOVIX_FPDOT *saddle = at(fp, x);
    if (saddle->type != FP_SAD) {
        std::fprintf(stderr, "Error: dot (%4ld, %4ld, %4ld) is not a saddle point.\n",
                     saddle->x_i[0], saddle->x_i[1], saddle->x_i[2]);
        return nullptr;
    }
    QUOVIX_FPHALF_LIST *list = quovix_fphalf_list_new_empty();
    if (!list) return nullptr;
    list->half = static_cast<QUOVIX_FPHALF *>(std::calloc(saddle->total_dn, sizeof(QUOVIX_FPHALF)));
    if (!list->half) {
        std::fputs("Error: unable to allocate QUOVIX_FPHALF.\n", stderr);
        quovix_fphalf_list_free(list);
        return nullptr;
    }
    list->total = saddle->total_dn;
    for (int k = 0; k < saddle->total_dn; k++) {
        QUOVIX_FPHALF *h = &list->half[k];
        h->dot = static_cast<QUOVIX_FPDOT **>(std::malloc(sizeof(QUOVIX_FPDOT *)));
        if (!h->dot) {
            std::fprintf(stderr, "Error: unable to allocate list->half[%d]\n", k);
            quovix_fphalf_list_free(list);
            return nullptr;
        }
        h->dot[0] = saddle;
        h->total = 1;
        QUOVIX_FPDOT *cur = saddle->dn[k];
        for (;;) {
            if (cur->type != FP_NOR && cur->type != FP_MIN && cur->type != FP_SAD &&
                cur->type != FP_PAT && cur->total_dn != 1) {
                std::fprintf(stderr, "Error: wrong dot type %d at (%4ld, %4ld, %4ld).\n", cur->type,
                             cur->x_i[0], cur->x_i[1], cur->x_i[2]);
                quovix_fpdot_print(cur);
                quovix_fphalf_list_free(list);
                return nullptr;
            }
            auto **grown = static_cast<QUOVIX_FPDOT **>(
                std::realloc(h->dot, (h->total + 1) * sizeof(QUOVIX_FPDOT *)));
            if (!grown) {
                std::fprintf(stderr, "Error: unable to reallocate list->half[%d]\n", k);
                quovix_fphalf_list_free(list);
                return nullptr;
            }
            h->dot = grown;
            h->dot[h->total++] = cur;
            if (cur->type == FP_MIN || cur->type == FP_SAD) break;
            if (h->total > QUOVIX_FPHALF_MAX_DOTS) {
                std::fprintf(stderr,
                             "Error: failed to descend to the local minimum within %ld steps.\n",
                             h->total);
                quovix_fphalf_list_free(list);
                return nullptr;
            }
            cur = cur->dn[0];
        }
        h->barrier = saddle->en - h->dot[h->total - 1]->en;
    }
    return list;
}

QUOVIX_FPHALF_LIST *quovix_fpref_half_list_new_from_fpcube(QUOVIX_FPCUBE_REF *fp) {
    if (!fp) {
        std::fputs("Error: QUOVIX_FPCUBE has not been properly initialized.\n", stderr);
        return nullptr;
    }
    QUOVIX_FPHALF_LIST *master = quovix_fphalf_list_new_empty();
    if (!master) return nullptr;
    for (long i = 0; i < fp->n[0]; i++)
        for (long j = 0; j < fp->n[1]; j++)
            for (long k = 0; k < fp->n[2]; k++) {
                if (fp->dot[i][j][k].type != FP_SAD) continue;
                const long x[3] = {i, j, k};
                QUOVIX_FPHALF_LIST *one = quovix_fpref_half_list_new(fp, x);
                if (!one) {
                    std::fputs("Error: quovix_fphalf_list_new() returns NULL.\n", stderr);
                    quovix_fphalf_list_free(master);
                    return nullptr;
                }
                if (quovix_fphalf_list_merge(master, one)) {
                    std::fputs("Error: quovix_fphalf_list_merge() returns non-zero.\n", stderr);
                    quovix_fphalf_list_free(one);
                    quovix_fphalf_list_free(master);
                    return nullptr;
                }
            }
    std::printf("Message: QUOVIX_FPCUBE successfully generated containing %ld paths.\n",
                master->total);
    return master;
}

QUOVIX_CELL *quovix_fpref_export_to_cell(QUOVIX_FPCUBE_REF *fp) {
    if (!fp) {
        std::fputs("Error: QUOVIX_FPCUBE has not been initialized properly.\n", stderr);
        return nullptr;
    }
    long count = 0;
    for (long i = 0; i < fp->n[0]; i++)
        for (long j = 0; j < fp->n[1]; j++)
            for (long k = 0; k < fp->n[2]; k++) {
                const int t = fp->dot[i][j][k].type;
                if (t == FP_MIN || t == FP_PAT || t == FP_SAD) count++;
            }
    QUOVIX_CELL *cell = quovix_cell_new(count);
    if (!cell) {
        std::fputs("Error: quovix_cell_new() returns NULL.\n", stderr);
        return nullptr;
    }
    std::memcpy(cell->a, fp->a, sizeof cell->a);
    long m = 0;
    for (long i = 0; i < fp->n[0]; i++)
        for (long j = 0; j < fp->n[1]; j++)
            for (long k = 0; k < fp->n[2]; k++) {
                const QUOVIX_FPDOT *d = &fp->dot[i][j][k];
                const char *name = nullptr, *type = nullptr;
                if (d->type == FP_SAD && d->total_dn == 2)
                    name = "SAD1", type = "Na";
                else if (d->type == FP_SAD && d->total_dn == 3)
                    name = "SAD2", type = "K";
                else if (d->type == FP_SAD)
                    name = "SAD3", type = "Cs";
                else if (d->type == FP_PAT)
                    name = "PAT", type = "H";
                else if (d->type == FP_MIN)
                    name = "MIN", type = "Li";
                else
                    continue;
                QUOVIX_ATOM *atom = &cell->atom[m++];
                std::snprintf(atom->name, sizeof atom->name, "%s", name);
                std::snprintf(atom->type, sizeof atom->type, "%s", type);
                atom->os = 1;
                atom->occ = 1.0;
                for (int c = 0; c < 3; c++) atom->x[c] = d->x[c];
            }
    quovix_cell_update_fractional(cell);
    return cell;
}

int quovix_fpref_export_cif_to_file(QUOVIX_CUBE *cube, double barrier_max, const char *filename) {
    if (!cube) {
        std::fputs("Error: QUOVIX_CUBE has not been properly initialized.\n", stderr);
        return 1;
    }
    QUOVIX_FPCUBE_REF *fp = quovix_fpref_new_from_cube(cube);
    if (!fp) {
        std::fputs("Error: quovix_fpcube_new_from_cube() returns NULL.\n", stderr);
        return 1;
    }
    int status = 1;
    QUOVIX_CELL *cell = nullptr;
    QUOVIX_FPHALF_LIST *list = quovix_fpref_half_list_new_from_fpcube(fp);
    if (!list) {
        std::fputs("Error: quovix_fphalf_list_new_from_fpcube() returns NULL.\n", stderr);
    } else if (barrier_max >= 0 && quovix_fphalf_list_filter(list, barrier_max)) {
        std::fputs("Error: quovix_fphalf_list_filter() returns non-zero.\n", stderr);
    } else {
        quovix_fphalf_list_label_path(list);
        cell = quovix_fpref_export_to_cell(fp);
        if (!cell)
            std::fputs("Error: quovix_fpcube_export_to_cell() returns NULL.\n", stderr);
        else if (quovix_cell_export_cif_to_file(filename, cell, nullptr))
            std::fputs("Error: quovix_cell_export_cif_to_file() returns non-zero.\n", stderr);
        else
            status = 0;
    }
    quovix_cell_free(cell);
    quovix_fphalf_list_free(list);
    quovix_fpref_free(fp);
    return status;
}
