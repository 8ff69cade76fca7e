// Cycle basis of the migration graph: minimum spanning forest (Prim), the fundamental cycle of
// every hop outside the forest, sorting, reduction and local loops.
//
// The forest is keyed on the saddle energy `en` of a hop, which a hop and its reverse share.
// A forest of minimum total key is also a minimum-bottleneck forest: the forest path between
// two sites climbs no higher than any other path between them. Hence for every level L the
// forest edges at or below L span the components of the graph restricted to hops at or below
// L, and the fundamental cycles of the hops at or below L use only hops at or below L. They
// generate the whole cycle space of that restricted graph, so if some closed walk below L
// wraps the cell, one of those fundamental cycles wraps it too (the translation of a walk is
// additive over the cycle space): the lowest wrapping level is reached by a basis cycle.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <queue>
#include <vector>

#include "quovix-gh.hpp"

namespace {

constexpr double kCycleTolerance = 0.0001;  // eV for barriers, A for lengths

struct forest_tree {
    std::vector<long> parent_edge;  // original edge from the vertex to its parent, -1 at roots
    std::vector<long> depth;
    std::vector<long> root;
};

// Parent links of the forest, rooted at the first vertex of each tree (breadth first, edges
// in vertex edge order), with the original-graph edges reached through `sub`.
forest_tree root_forest(QUOVIX_GRAPH *forest) {
    forest_tree t;
    const auto V = static_cast<std::size_t>(forest->total_v);
    t.parent_edge.assign(V, -1);
    t.depth.assign(V, -1);
    t.root.assign(V, -1);
    std::vector<long> queue;
    for (long s = 0; s < forest->total_v; ++s) {
        if (t.depth[s] >= 0) continue;
        t.depth[s] = 0;
        t.root[s] = s;
        queue.assign(1, s);
        for (std::size_t h = 0; h < queue.size(); ++h) {
            const QUOVIX_GRAPH_VERTEX &v = forest->v[queue[h]];
            for (int k = 0; k < v.total_e; ++k) {
                const QUOVIX_GRAPH_EDGE *e = v.e[k];
                const long w = e->v_f->index;
                if (t.depth[w] >= 0) continue;
                t.depth[w] = t.depth[v.index] + 1;
                t.root[w] = s;
                // the edge from the child up to its parent, in the original graph
                t.parent_edge[w] = e->e_r && e->e_r->sub ? e->e_r->sub->index : -1;
                queue.push_back(w);
            }
        }
    }
    return t;
}

// Edges (original graph) of the closed walk: `edge` from u to w, then up from w and down to u
// through the lowest common ancestor.
int cycle_edges(std::vector<QUOVIX_GRAPH_EDGE *> &out, QUOVIX_GRAPH *graph, const forest_tree &t,
                QUOVIX_GRAPH_EDGE *edge) {
    out.clear();
    const long u = edge->v_i->index, w = edge->v_f->index;
    if (t.root[u] != t.root[w]) return 0;
    out.push_back(edge);
    std::vector<QUOVIX_GRAPH_EDGE *> down;  // from the ancestor down to u, collected upwards
    long a = w, b = u;
    while (t.depth[a] > t.depth[b]) {
        QUOVIX_GRAPH_EDGE *e = &graph->e[t.parent_edge[a]];
        out.push_back(e);
        a = e->v_f->index;
    }
    while (t.depth[b] > t.depth[a]) {
        QUOVIX_GRAPH_EDGE *e = &graph->e[t.parent_edge[b]];
        down.push_back(e->e_r);
        b = e->v_f->index;
    }
    while (a != b) {
        QUOVIX_GRAPH_EDGE *ea = &graph->e[t.parent_edge[a]];
        QUOVIX_GRAPH_EDGE *eb = &graph->e[t.parent_edge[b]];
        out.push_back(ea);
        down.push_back(eb->e_r);
        a = ea->v_f->index;
        b = eb->v_f->index;
    }
    for (auto it = down.rbegin(); it != down.rend(); ++it) out.push_back(*it);
    return 0;
}

QUOVIX_GRAPH_CYCLE *cycle_from_edges(const std::vector<QUOVIX_GRAPH_EDGE *> &edges) {
    if (edges.empty()) return nullptr;
    QUOVIX_GRAPH_CYCLE *c = quovix_graph_cycle_new(static_cast<long>(edges.size()));
    if (!c) return nullptr;
    c->e_min = INFINITY;
    c->e_max = -INFINITY;
    for (std::size_t k = 0; k < edges.size(); ++k) {
        const QUOVIX_GRAPH_EDGE *e = edges[k];
        c->e[k] = edges[k];
        c->e_min = std::min(c->e_min, e->v_i->en);
        c->e_max = std::max(c->e_max, e->en);
        c->l += e->l;
        for (int j = 0; j < 3; ++j) c->bound[j] += e->bound[j];
    }
    c->barrier = c->e_max - c->e_min;
    return c;
}

void free_cycle_void(void *p) { quovix_graph_cycle_free(static_cast<QUOVIX_GRAPH_CYCLE *>(p)); }

}  // namespace

// ====================================================================== records

QUOVIX_GRAPH_CYCLE *quovix_graph_cycle_new(long total) {
    if (total < 0 || total > (1L << 40)) {
        std::fputs("Error: unable to allocate QUOVIX_GRAPH_CYCLE.\n", stderr);
        return nullptr;
    }
    auto *c = static_cast<QUOVIX_GRAPH_CYCLE *>(std::calloc(1, sizeof(QUOVIX_GRAPH_CYCLE)));
    if (!c) {
        std::fputs("Error: unable to allocate QUOVIX_GRAPH_CYCLE.\n", stderr);
        return nullptr;
    }
    if (total > 0) {
        c->e = static_cast<QUOVIX_GRAPH_EDGE **>(
            std::calloc(static_cast<std::size_t>(total), sizeof(QUOVIX_GRAPH_EDGE *)));
        if (!c->e) {
            std::fputs("Error: unable to allocate cycle->e.\n", stderr);
            std::free(c);
            return nullptr;
        }
    }
    c->total = total;
    return c;
}

void quovix_graph_cycle_free(QUOVIX_GRAPH_CYCLE *cycle) {
    if (!cycle) return;
    std::free(cycle->e);
    std::free(cycle);
}

void quovix_graph_cycle_print(QUOVIX_GRAPH_CYCLE *cycle) {
    if (!cycle) {
        std::puts("GRAPH_CYCLE: (not allocated)");
        return;
    }
    std::printf(
        "GRAPH_CYCLE: total = %ld; barrier = %.3f (%.3f ~ %.3f); l = %.3f A; bound = (%d %d "
        "%d)\n",
        cycle->total, cycle->barrier, cycle->e_min, cycle->e_max, cycle->l, cycle->bound[0],
        cycle->bound[1], cycle->bound[2]);
    for (long k = 0; k < cycle->total; ++k) {
        const QUOVIX_GRAPH_EDGE *e = cycle->e[k];
        if (!e) continue;
        std::printf("GRAPH_CYCLE: [%4ld] e[%ld] %ld -> %ld; en = %.3f; bound = (%d %d %d)\n", k,
                    e->index, e->v_i->index, e->v_f->index, e->en, e->bound[0], e->bound[1],
                    e->bound[2]);
    }
}

// ====================================================================== forest

QUOVIX_GRAPH_LIST *quovix_graph_list_prim_forest(QUOVIX_GRAPH *graph) {
    if (!graph || (graph->total_v > 0 && !graph->v)) {
        std::fputs("Error: QUOVIX_GRAPH has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("QUOVIX_GRAPH_LIST", [&]() -> QUOVIX_GRAPH_LIST * {
        quovix_owner<QUOVIX_GRAPH_LIST, quovix_graph_list_free> list{quovix_graph_list_new()};
        if (!list) return nullptr;
        const long V = graph->total_v;
        std::vector<char> in(static_cast<std::size_t>(V), 0);
        // Candidate hops ordered by saddle energy, ties by edge index: deterministic.
        using key = std::pair<double, long>;
        std::priority_queue<key, std::vector<key>, std::greater<key>> heap;
        // Roots: each tree starts at its lowest site (lowest index among equal energies).
        std::vector<long> order(static_cast<std::size_t>(V));
        for (long i = 0; i < V; ++i) order[i] = i;
        std::stable_sort(order.begin(), order.end(),
                         [&](long x, long y) { return graph->v[x].en < graph->v[y].en; });
        auto visit = [&](long i) {
            in[i] = 1;
            const QUOVIX_GRAPH_VERTEX &v = graph->v[i];
            for (int k = 0; k < v.total_e; ++k)
                if (!in[v.e[k]->v_f->index]) heap.push({v.e[k]->en, v.e[k]->index});
        };
        for (long root : order) {
            if (in[root]) continue;
            visit(root);
            while (!heap.empty()) {
                const long j = heap.top().second;
                heap.pop();
                if (j < 0 || j >= graph->total_e) {
                    std::fputs("Error: index_min out of bound.\n", stderr);
                    return nullptr;
                }
                QUOVIX_GRAPH_EDGE *e = &graph->e[j];
                if (in[e->v_f->index]) continue;
                if (quovix_graph_list_add_edge(list.get(), e) != 0) return nullptr;
                visit(e->v_f->index);
            }
        }
        return list.release();
    });
}

QUOVIX_GRAPH *quovix_graph_new_subgraph_minimum_spanning_forest(QUOVIX_GRAPH *graph) {
    quovix_owner<QUOVIX_GRAPH_LIST, quovix_graph_list_free> list{
        quovix_graph_list_prim_forest(graph)};
    if (!list) {
        std::fputs("Error: quovix_graph_list_prim_forest() returns NULL.\n", stderr);
        return nullptr;
    }
    quovix_graph_ptr sub{quovix_graph_new(graph->total_v, 2 * list->total_e)};
    if (!sub) {
        std::fputs("Error: quovix_graph_new() returns NULL.\n", stderr);
        return nullptr;
    }
    std::memcpy(sub->n, graph->n, sizeof sub->n);
    std::memcpy(sub->a_i, graph->a_i, sizeof sub->a_i);
    std::memcpy(sub->a, graph->a, sizeof sub->a);
    std::memcpy(sub->type, graph->type, sizeof sub->type);
    sub->os = graph->os;
    for (long i = 0; i < graph->total_v; ++i) {
        sub->v[i] = graph->v[i];
        sub->v[i].e = nullptr;
        sub->v[i].total_e = 0;
        sub->v[i].sub = &graph->v[i];
        graph->v[i].sub = &sub->v[i];
    }
    for (long k = 0; k < list->total_e; ++k) {
        QUOVIX_GRAPH_EDGE *o = list->e[k];
        QUOVIX_GRAPH_EDGE &f = sub->e[2 * k];
        QUOVIX_GRAPH_EDGE &r = sub->e[2 * k + 1];
        f = *o;
        r = *o->e_r;
        f.index = 2 * k;
        r.index = 2 * k + 1;
        f.sub = o;
        r.sub = o->e_r;
        f.v_i = &sub->v[o->v_i->index];
        f.v_f = &sub->v[o->v_f->index];
        r.v_i = f.v_f;
        r.v_f = f.v_i;
        f.e_r = &r;
        r.e_r = &f;
    }
    // vertex edge arrays, in edge order
    for (long j = 0; j < sub->total_e; ++j) {
        QUOVIX_GRAPH_VERTEX *v = sub->e[j].v_i;
        auto *p = static_cast<QUOVIX_GRAPH_EDGE **>(std::realloc(
            v->e, static_cast<std::size_t>(v->total_e + 1) * sizeof(QUOVIX_GRAPH_EDGE *)));
        if (!p) {
            std::fprintf(stderr, "Error: unable to reallocate graph->v[%ld].e.\n", v->index);
            return nullptr;
        }
        v->e = p;
        v->e[v->total_e++] = &sub->e[j];
    }
    return sub.release();
}

QUOVIX_GRAPH_LIST *quovix_graph_list_edge_complementary(QUOVIX_GRAPH *graph,
                                                        QUOVIX_GRAPH *subgraph) {
    if (!graph || !subgraph) {
        std::fputs("Error: QUOVIX_GRAPH has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("QUOVIX_GRAPH_LIST", [&]() -> QUOVIX_GRAPH_LIST * {
        std::vector<char> used(static_cast<std::size_t>(graph->total_e), 0);
        for (long j = 0; j < subgraph->total_e; ++j) {
            const QUOVIX_GRAPH_EDGE *o = subgraph->e[j].sub;
            if (!o || o->index < 0 || o->index >= graph->total_e || &graph->e[o->index] != o) {
                std::fprintf(stderr, "Error: subgraph->e[%ld] cannot link to original graph.\n", j);
                return nullptr;
            }
            used[o->index] = 1;
        }
        quovix_owner<QUOVIX_GRAPH_LIST, quovix_graph_list_free> list{quovix_graph_list_new()};
        if (!list) return nullptr;
        for (long j = 0; j < graph->total_e; ++j) {
            QUOVIX_GRAPH_EDGE *e = &graph->e[j];
            if (used[j] || (e->e_r && used[e->e_r->index])) continue;
            // one direction per hop: the one with the lower index
            if (e->e_r && e->e_r->index < j) continue;
            if (quovix_graph_list_add_edge(list.get(), e) != 0) return nullptr;
        }
        return list.release();
    });
}

QUOVIX_GRAPH_LIST *quovix_graph_list_cycle_from_spanning_forest(QUOVIX_GRAPH *forest,
                                                                QUOVIX_GRAPH_EDGE *edge) {
    if (!forest || !edge || !edge->v_i || !edge->v_f) {
        std::fputs("Error: QUOVIX_GRAPH has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("QUOVIX_GRAPH_LIST", [&]() -> QUOVIX_GRAPH_LIST * {
        quovix_owner<QUOVIX_GRAPH_LIST, quovix_graph_list_free> list{quovix_graph_list_new()};
        if (!list) return nullptr;
        // the original graph is reached through the forest edges' links
        if (forest->total_e == 0) {
            if (edge->v_i == edge->v_f && quovix_graph_list_add_edge(list.get(), edge) != 0)
                return nullptr;
            return list.release();
        }
        const QUOVIX_GRAPH_EDGE *any = forest->e[0].sub;
        QUOVIX_GRAPH_EDGE *base = const_cast<QUOVIX_GRAPH_EDGE *>(any) - any->index;
        QUOVIX_GRAPH view{};
        view.e = base;
        const forest_tree t = root_forest(forest);
        std::vector<QUOVIX_GRAPH_EDGE *> edges;
        cycle_edges(edges, &view, t, edge);
        for (QUOVIX_GRAPH_EDGE *e : edges)
            if (quovix_graph_list_add_edge(list.get(), e) != 0) return nullptr;
        return list.release();
    });
}

QUOVIX_GRAPH_CYCLE *quovix_graph_cycle_new_from_list(QUOVIX_GRAPH_LIST *list) {
    if (!list || list->total_e == 0) return nullptr;
    return quovix_guard("QUOVIX_GRAPH_CYCLE", [&]() -> QUOVIX_GRAPH_CYCLE * {
        return cycle_from_edges(std::vector<QUOVIX_GRAPH_EDGE *>(list->e, list->e + list->total_e));
    });
}

QUOVIX_LIST *quovix_graph_cycle_list_new_from_graph(QUOVIX_GRAPH *graph) {
    if (!graph) {
        std::fputs("Error: QUOVIX_GRAPH has not been properly initialized.\n", stderr);
        return nullptr;
    }
    return quovix_guard("QUOVIX_LIST", [&]() -> QUOVIX_LIST * {
        quovix_graph_ptr forest{quovix_graph_new_subgraph_minimum_spanning_forest(graph)};
        if (!forest) {
            std::fputs("Error: quovix_graph_new_subgraph_minimum_spanning_forest() returns NULL.\n",
                       stderr);
            return nullptr;
        }
        quovix_owner<QUOVIX_GRAPH_LIST, quovix_graph_list_free> rest{
            quovix_graph_list_edge_complementary(graph, forest.get())};
        if (!rest) {
            std::fputs("Error: quovix_graph_list_edge_complementary() returns NULL.\n", stderr);
            return nullptr;
        }
        quovix_owner<QUOVIX_LIST, quovix_list_free> cycles{quovix_list_new(free_cycle_void)};
        if (!cycles) {
            std::fputs("Error: quovix_list_new() returns NULL.\n", stderr);
            return nullptr;
        }
        const forest_tree t = root_forest(forest.get());
        std::vector<QUOVIX_GRAPH_EDGE *> edges;
        for (long k = 0; k < rest->total_e; ++k) {
            cycle_edges(edges, graph, t, rest->e[k]);
            if (edges.empty()) continue;  // closes no cycle
            QUOVIX_GRAPH_CYCLE *c = cycle_from_edges(edges);
            if (!c) {
                std::fputs("Error: quovix_graph_cycle_new_from_list() returns NULL.\n", stderr);
                return nullptr;
            }
            if (!quovix_list_append(cycles.get(), c)) {
                quovix_graph_cycle_free(c);
                std::fputs("Error: quovix_list_append() returns NULL.\n", stderr);
                return nullptr;
            }
        }
        if (quovix_graph_cycle_list_sort(cycles.get()) != 0) {
            std::fputs("Error: quovix_graph_cycle_list_sort() returns non-zero.\n", stderr);
            return nullptr;
        }
        return cycles.release();
    });
}

// ====================================================================== sorting

int quovix_graph_cycle_compare(const void *a, const void *b) {
    const QUOVIX_GRAPH_CYCLE *x = *static_cast<QUOVIX_GRAPH_CYCLE *const *>(a);
    const QUOVIX_GRAPH_CYCLE *y = *static_cast<QUOVIX_GRAPH_CYCLE *const *>(b);
    if (std::fabs(x->barrier - y->barrier) > kCycleTolerance)
        return x->barrier < y->barrier ? -1 : 1;
    if (std::fabs(x->l - y->l) > kCycleTolerance) return x->l < y->l ? -1 : 1;
    const bool xw = x->bound[0] || x->bound[1] || x->bound[2];
    const bool yw = y->bound[0] || y->bound[1] || y->bound[2];
    if (xw != yw) return xw ? 1 : -1;
    return 0;
}

int quovix_graph_cycle_list_sort(QUOVIX_LIST *list) {
    if (!list) {
        std::fputs("Error: QUOVIX_LIST has not been properly initialized.\n", stderr);
        return 1;
    }
    const long count = quovix_list_count(list);
    if (count <= 1) return 0;
    auto **array = static_cast<QUOVIX_GRAPH_CYCLE **>(
        std::calloc(static_cast<std::size_t>(count), sizeof(QUOVIX_GRAPH_CYCLE *)));
    if (!array) {
        std::fputs("Error: unable to allocate QUOVIX_GRAPH_CYCLE**.\n", stderr);
        return 1;
    }
    long k = 0;
    for (QUOVIX_LIST_NODE *node = list->head->next; node != list->tail; node = node->next)
        array[k++] = static_cast<QUOVIX_GRAPH_CYCLE *>(node->data);
    std::qsort(array, static_cast<std::size_t>(count), sizeof(QUOVIX_GRAPH_CYCLE *),
               quovix_graph_cycle_compare);
    k = 0;
    for (QUOVIX_LIST_NODE *node = list->head->next; node != list->tail; node = node->next)
        node->data = array[k++];
    std::free(array);
    return 0;
}

int quovix_graph_cycle_list_reduce(QUOVIX_LIST *list) {
    if (!list) {
        std::fputs("Error: QUOVIX_LIST has not been properly initialized.\n", stderr);
        return 1;
    }
    return quovix_guard("QUOVIX_LIST", [&]() -> int {
        // A hop and its reverse are one hop: key by the lower of the two edge indices.
        std::vector<std::vector<long>> seen;
        QUOVIX_LIST_NODE *node = list->head->next;
        while (node != list->tail) {
            QUOVIX_LIST_NODE *next = node->next;
            const auto *c = static_cast<QUOVIX_GRAPH_CYCLE *>(node->data);
            std::vector<long> key;
            for (long k = 0; k < c->total; ++k) {
                const QUOVIX_GRAPH_EDGE *e = c->e[k];
                key.push_back(e->e_r ? std::min(e->index, e->e_r->index) : e->index);
            }
            std::sort(key.begin(), key.end());
            if (std::find(seen.begin(), seen.end(), key) != seen.end()) {
                void *data = quovix_list_remove(list, node);
                if (list->func_free) list->func_free(data);
            } else {
                seen.push_back(std::move(key));
            }
            node = next;
        }
        return 0;
    });
}

QUOVIX_LIST *quovix_graph_cycle_list_local_loops(QUOVIX_LIST *list, double e_cutoff,
                                                 double l_cutoff) {
    if (!list) {
        std::fputs("Error: QUOVIX_LIST has not been properly initialized.\n", stderr);
        return nullptr;
    }
    QUOVIX_LIST *out = quovix_list_new(nullptr);
    if (!out) {
        std::fputs("Error: quovix_list_new() returns NULL.\n", stderr);
        return nullptr;
    }
    for (QUOVIX_LIST_NODE *node = list->head->next; node != list->tail; node = node->next) {
        auto *c = static_cast<QUOVIX_GRAPH_CYCLE *>(node->data);
        if (c->bound[0] || c->bound[1] || c->bound[2]) continue;
        if (e_cutoff >= 0.0 && !(c->barrier <= e_cutoff)) continue;
        if (l_cutoff >= 0.0 && !(c->l <= l_cutoff)) continue;
        if (!quovix_list_append(out, c)) {
            quovix_list_free(out);
            std::fputs("Error: quovix_list_append() returns NULL.\n", stderr);
            return nullptr;
        }
    }
    return out;
}

// ====================================================================== connection

// Cycles i and j touch when an edge of each leaves the same site. The marking pass: cycle i
// marks every later unmarked cycle it touches (and itself); a cycle still unmarked after its
// own turn touches none of the later ones and none of the earlier ones marked it, so the set
// is reported as not connected.
bool quovix_graph_cycles_is_connected(QUOVIX_GRAPH_CYCLE **cycles, long count) {
    if (count < 2) return true;
    if (!cycles) return false;
    auto touch = [](const QUOVIX_GRAPH_CYCLE *x, const QUOVIX_GRAPH_CYCLE *y) {
        for (long p = 0; p < x->total; ++p)
            for (long q = 0; q < y->total; ++q)
                if (x->e[p]->v_i == y->e[q]->v_i) return true;
        return false;
    };
    return quovix_guard("cycle marks", [&]() -> bool {
        std::vector<char> marked(static_cast<std::size_t>(count), 0);
        for (long i = 0; i < count; ++i) {
            for (long j = i + 1; j < count; ++j) {
                if (marked[j]) continue;
                if (touch(cycles[i], cycles[j])) {
                    marked[i] = 1;
                    marked[j] = 1;
                }
            }
            if (!marked[i]) return false;
        }
        return true;
    });
}
