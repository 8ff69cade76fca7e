// Program entry: places the threads, then hands the command line to the front end.
//
// Thread start. The first parallel region of a run starts the OpenMP worker threads, and the
// kernel may queue a new thread on the processor of the thread that created it, though
// another processor is idle; it then waits there until a scheduler tick (4 ms at 250 Hz)
// moves it, and a woken thread may likewise be queued behind a busy one. On a two-core
// machine a short command such as --cal-tot-en (40 ms on two threads) lost a tenth of its
// time to this. Two settings, both made once per run and both left to the user when set:
// - libgomp's spin before a waiting thread sleeps: 30,000 rounds (about 0.3 ms) instead of
//   300,000 (about 3 ms), so that the creator of the team sleeps at the runtime's start
//   barrier and the queued worker runs;
// - when the team has one thread per allowed processor, each thread is kept on its own
//   processor from the start of the run (thread t on the t-th allowed processor after the
//   one the program started on), so that every later wake-up finds its thread where it
//   slept. A team that covers a subset of the allowed processors (several jobs sharing a
//   machine) is left to the kernel: pinning it could stack the threads of different jobs.
#include <omp.h>
#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <vector>

#include "quovix-cmd.hpp"

#if QUOVIX_STATIC_OPENMP
// The runtime is linked into this program and reads its settings in an initialiser without
// priority, which runs after this one. OMP_WAIT_POLICY or GOMP_SPINCOUNT set by the user wins.
__attribute__((constructor(101))) static void quovix_default_wait_policy() {
    if (std::getenv("OMP_WAIT_POLICY") == nullptr && std::getenv("GOMP_SPINCOUNT") == nullptr)
        setenv("GOMP_SPINCOUNT", "30000", 0);
}
#endif

// Starts the team and keeps thread t on the t-th allowed processor after the current one,
// when the team has exactly one thread per allowed processor and the user has set no placement
// of their own (OMP_PROC_BIND, even =false, OMP_PLACES, GOMP_CPU_AFFINITY). Does nothing
// otherwise or when a call fails.
static void quovix_place_team() {
    const int threads = omp_get_max_threads();
    if (threads < 2 || std::getenv("OMP_PROC_BIND") != nullptr ||
        std::getenv("OMP_PLACES") != nullptr || std::getenv("GOMP_CPU_AFFINITY") != nullptr)
        return;
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return;
    std::vector<int> cpus;
    for (int c = 0; c < CPU_SETSIZE; ++c)
        if (CPU_ISSET(c, &allowed)) cpus.push_back(c);
    if (cpus.size() != static_cast<std::size_t>(threads)) return;
    const int home = sched_getcpu();
    std::size_t first = 0;
    while (first < cpus.size() && cpus[first] != home) ++first;
    if (first == cpus.size()) return;
#pragma omp parallel num_threads(threads)
    {
        const auto t = static_cast<std::size_t>(omp_get_thread_num());
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpus[(first + t) % cpus.size()], &one);
        // A refusal leaves the thread where the kernel put it.
        static_cast<void>(sched_setaffinity(0, sizeof one, &one));
    }
}

int main(int argc, char **argv) {
    try {
        quovix_place_team();
        return quovix_cmd_start(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "Error: %s.\n", e.what());
    } catch (...) {
        std::fputs("Error: unexpected failure.\n", stderr);
    }
    return 1;
}
