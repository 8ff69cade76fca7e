// Path map: steepest-descent half paths from saddle points, their filter and labelling.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quovix-fp-store.hpp"
#include "quovix-grid.hpp"

namespace {

void half_list_release(QUOVIX_FPHALF_LIST *list) {
    if (!list) return;
    for (long h = 0; h < list->total; h++) std::free(list->half[h].dot);
    std::free(list->half);
    std::free(list);
}

/// Flat index of the neighbour of q given by a 27-cell block code.
inline long step(const quovix_grid &g, long q, unsigned char code) {
    return g.shifted(q, code / 9 - 1, (code / 3) % 3 - 1, code % 3 - 1);
}

}  // namespace

QUOVIX_FPHALF_LIST *quovix_fphalf_list_new_empty() {
    auto *list = static_cast<QUOVIX_FPHALF_LIST *>(std::calloc(1, sizeof(QUOVIX_FPHALF_LIST)));
    if (!list) std::fputs("Error: unable allocate QUOVIX_FPHALF_LIST.\n", stderr);
    return list;
}

void quovix_fphalf_list_free(QUOVIX_FPHALF_LIST *list) { half_list_release(list); }

QUOVIX_FPHALF_LIST *quovix_fphalf_list_new(QUOVIX_FPCUBE *fpcube, const long x[3]) {
    if (!fpcube || !fpcube->store || !x) {
        std::fputs("Error: QUOVIX_FPCUBE has not been properly initialized.\n", stderr);
        return nullptr;
    }
    const quovix_grid g(fpcube->n);
    const long q0 = g.flat(x[0], x[1], x[2]);
    if (quovix_fpcube_type_at(fpcube, q0) != FP_SAD) {
        const auto w = g.index(q0);
        std::fprintf(stderr, "Error: dot (%4ld, %4ld, %4ld) is not a saddle point.\n", w[0], w[1],
                     w[2]);
        return nullptr;
    }
    QUOVIX_FPHALF_LIST *raw = quovix_fphalf_list_new_empty();
    if (!raw) return nullptr;
    quovix_fphalf_list_ptr list(raw);
    const int branches = fpcube->total_dn[q0];
    list->half = static_cast<QUOVIX_FPHALF *>(std::calloc(branches, sizeof(QUOVIX_FPHALF)));
    if (!list->half) {
        std::fputs("Error: unable to allocate QUOVIX_FPHALF.\n", stderr);
        return nullptr;
    }
    list->total = branches;
    const auto w0 = g.index(q0);
    const long xs[3] = {w0[0], w0[1], w0[2]};
    QUOVIX_FPDOT *saddle = quovix_fpcube_dot(fpcube, xs);
    if (!saddle) {
        std::fputs("Error: unable to allocate QUOVIX_FPHALF.\n", stderr);
        return nullptr;
    }
    std::vector<QUOVIX_FPDOT *> path;
    for (int h = 0; h < branches; h++) {
        path.assign(1, saddle);
        // Saddles keep at most three down branches, and a saddle has two or three.
        long cur = step(g, q0, fpcube->dn[q0][h < QUOVIX_FPCUBE_DN_KEPT ? h : 0]);
        for (;;) {
            const int t = quovix_fpcube_type_at(fpcube, cur);
            const auto wc = g.index(cur);
            const long xc[3] = {wc[0], wc[1], wc[2]};
            QUOVIX_FPDOT *d = quovix_fpcube_dot(fpcube, xc);
            if (!d) {
                std::fprintf(stderr, "Error: unable to reallocate list->half[%d]\n", h);
                return nullptr;
            }
            if (t != FP_NOR && t != FP_MIN && t != FP_SAD && t != FP_PAT &&
                fpcube->total_dn[cur] != 1) {
                std::fprintf(stderr, "Error: wrong dot type %d at (%4ld, %4ld, %4ld).\n", t, xc[0],
                             xc[1], xc[2]);
                quovix_fpdot_print(d);
                return nullptr;
            }
            path.push_back(d);
            if (t == FP_MIN || t == FP_SAD) break;
            if (static_cast<long>(path.size()) > QUOVIX_FPHALF_MAX_DOTS) {
                std::fprintf(stderr,
                             "Error: failed to descend to the local minimum within %ld steps.\n",
                             static_cast<long>(path.size()));
                return nullptr;
            }
            cur = step(g, cur, fpcube->dn[cur][0]);
        }
        QUOVIX_FPHALF &half = list->half[h];
        half.dot = static_cast<QUOVIX_FPDOT **>(std::malloc(path.size() * sizeof(QUOVIX_FPDOT *)));
        if (!half.dot) {
            std::fprintf(stderr, "Error: unable to allocate list->half[%d]\n", h);
            return nullptr;
        }
        std::memcpy(half.dot, path.data(), path.size() * sizeof(QUOVIX_FPDOT *));
        half.total = static_cast<long>(path.size());
        half.barrier = saddle->en - path.back()->en;
    }
    return list.release();
}

int quovix_fphalf_list_merge(QUOVIX_FPHALF_LIST *master, QUOVIX_FPHALF_LIST *list) {
    if (!master || !list || list->total <= 0) {
        std::fputs("Error: QUOVIX_FPHALF_LIST has not been initialized properly.\n", stderr);
        return 1;
    }
    auto *grown = static_cast<QUOVIX_FPHALF *>(
        std::realloc(master->half, (master->total + list->total) * sizeof(QUOVIX_FPHALF)));
    if (!grown) {
        std::fputs("Error: unable to reallocate QUOVIX_FPHALF_LIST.\n", stderr);
        return 1;
    }
    master->half = grown;
    std::memcpy(master->half + master->total, list->half, list->total * sizeof(QUOVIX_FPHALF));
    master->total += list->total;
    std::free(list->half);
    std::free(list);
    return 0;
}

QUOVIX_FPHALF_LIST *quovix_fphalf_list_new_from_fpcube(QUOVIX_FPCUBE *fpcube) {
    if (!fpcube || !fpcube->store) {
        std::fputs("Error: QUOVIX_FPCUBE has not been properly initialized.\n", stderr);
        return nullptr;
    }
    QUOVIX_FPHALF_LIST *raw = quovix_fphalf_list_new_empty();
    if (!raw) return nullptr;
    quovix_fphalf_list_ptr master(raw);
    // The half paths are gathered in one growing array (doubling) rather than one reallocation
    // per saddle; the order is the same: saddles in row order, branches in order.
    std::vector<QUOVIX_FPHALF> all;
    const quovix_grid g(fpcube->n);
    bool ok = true;
    for (long q = 0; q < fpcube->total && ok; q++) {
        if (quovix_fpcube_type_at(fpcube, q) != FP_SAD) continue;
        const auto w = g.index(q);
        const long x[3] = {w[0], w[1], w[2]};
        QUOVIX_FPHALF_LIST *one = quovix_fphalf_list_new(fpcube, x);
        if (!one) {
            std::fputs("Error: quovix_fphalf_list_new() returns NULL.\n", stderr);
            ok = false;
            break;
        }
        ok = quovix_guard("QUOVIX_FPHALF_LIST", [&]() -> bool {
            all.insert(all.end(), one->half, one->half + one->total);
            return true;
        });
        if (ok) {
            std::free(one->half);
            std::free(one);
        } else {
            quovix_fphalf_list_free(one);
            std::fputs("Error: quovix_fphalf_list_merge() returns non-zero.\n", stderr);
        }
    }
    if (!ok) {
        for (QUOVIX_FPHALF &h : all) std::free(h.dot);
        return nullptr;
    }
    if (!all.empty()) {
        master->half =
            static_cast<QUOVIX_FPHALF *>(std::malloc(all.size() * sizeof(QUOVIX_FPHALF)));
        if (!master->half) {
            for (QUOVIX_FPHALF &h : all) std::free(h.dot);
            std::fputs("Error: unable to reallocate QUOVIX_FPHALF_LIST.\n", stderr);
            std::fputs("Error: quovix_fphalf_list_merge() returns non-zero.\n", stderr);
            return nullptr;
        }
        std::memcpy(master->half, all.data(), all.size() * sizeof(QUOVIX_FPHALF));
        master->total = static_cast<long>(all.size());
    }
    std::printf("Message: QUOVIX_FPCUBE successfully generated containing %ld paths.\n",
                master->total);
    return master.release();
}

int quovix_fphalf_list_filter(QUOVIX_FPHALF_LIST *list, double en) {
    if (!list || list->total <= 0) {
        std::fputs("Error: QUOVIX_FPHALF_LIST has not been properly initialized.\n", stderr);
        return 1;
    }
    // Zero is not negative: en = 0 keeps only the half paths without barrier.
    if (en < 0) return 0;
    long kept = 0;
    for (long h = 0; h < list->total; h++) {
        if (list->half[h].barrier > en) {
            std::free(list->half[h].dot);
            continue;
        }
        list->half[kept++] = list->half[h];
    }
    for (long h = kept; h < list->total; h++) list->half[h] = QUOVIX_FPHALF{};
    list->total = kept;
    std::printf("Message: totally %ld paths with barrier lower than %f.\n", kept, en);
    return 0;
}

void quovix_fphalf_list_label_path(QUOVIX_FPHALF_LIST *list) {
    if (!list) return;
    for (long h = 0; h < list->total; h++)
        for (long m = 0; m < list->half[h].total; m++) {
            QUOVIX_FPDOT *d = list->half[h].dot[m];
            if (d && (d->type == FP_UND || d->type == FP_NOR)) d->type = FP_PAT;
        }
}

// ---------------------------------------------------------------- printing
bool quovix_fpdot_equal(const QUOVIX_FPDOT *d1, const QUOVIX_FPDOT *d2) {
    if (d1 == d2) return true;
    if (!d1 || !d2) return false;
    return d1->x_i[0] == d2->x_i[0] && d1->x_i[1] == d2->x_i[1] && d1->x_i[2] == d2->x_i[2];
}

void quovix_fpdot_print(const QUOVIX_FPDOT *dot) {
    if (!dot) {
        std::fputs("FPDOT: (not allocated)\n", stdout);
        return;
    }
    std::printf("FPDOT: (%ld %ld %ld) (%.6f %.6f %.6f)\n", dot->x_i[0], dot->x_i[1], dot->x_i[2],
                dot->x[0], dot->x[1], dot->x[2]);
    std::printf("FPDOT: en = %f\n", dot->en);
    std::printf("FPDOT: type = %d\n", dot->type);
    std::printf("FPDOT: up = %d; dn = %d\n", dot->total_up, dot->total_dn);
    // Three rows (second index), each showing the three planes (first index) side by side.
    for (int q = 0; q < 3; q++) {
        std::fputs("FPDOT: |", stdout);
        for (int p = 0; p < 3; p++)
            std::printf("%2d %2d %2d |", dot->cluster[p][q][0], dot->cluster[p][q][1],
                        dot->cluster[p][q][2]);
        std::fputs("\n", stdout);
    }
}

void quovix_fphalf_print(const QUOVIX_FPHALF *half) {
    if (!half) {
        std::fputs("(not allocated)\n", stdout);
        return;
    }
    std::printf("FPHALF: length = %ld; barrier = %f\n", half->total, half->barrier);
    for (long m = 0; m < half->total; m++) {
        const QUOVIX_FPDOT *d = half->dot[m];
        std::printf("FPHALF: [%4ld] (%4ld, %4ld, %4ld); type = %d, en = %f\n", m, d->x_i[0],
                    d->x_i[1], d->x_i[2], d->type, d->en);
    }
}

void quovix_fphalf_list_print(const QUOVIX_FPHALF_LIST *list) {
    if (!list) {
        std::fputs("FPHALF_LIST: (not allocated).\n", stdout);
        return;
    }
    std::printf("FPHALF_LIST: total half pathes in the list = %ld.\n", list->total);
    for (long h = 0; h < list->total; h++) {
        const QUOVIX_FPHALF &half = list->half[h];
        if (half.total <= 0 || !half.dot) {
            std::printf("FPHALF_LIST: [%4ld] empty half path.\n", h);
            continue;
        }
        const QUOVIX_FPDOT *f = half.dot[0], *l = half.dot[half.total - 1];
        std::printf(
            "FPHALF_LIST: [%4ld] (%4ld, %4ld, %4ld)-(%4ld, %4ld, %4ld); length=%2ld, "
            "barrier=%f\n",
            h, f->x_i[0], f->x_i[1], f->x_i[2], l->x_i[0], l->x_i[1], l->x_i[2], half.total,
            half.barrier);
    }
}
