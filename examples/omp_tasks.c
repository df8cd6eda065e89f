/* An OpenMP program to trace: nested parallel regions, explicit tasks with
 * in, out and inout dependences, and a taskwait. Team sizes come from
 * OMP_NUM_THREADS (for example "2,2": two levels of two threads).
 *
 * At the end it prints what it did, one fact per line, so that a trace can be
 * held against it:
 *   runtime PATH      the OpenMP runtime library that ran it
 *   code ADDRESS      the function that creates the explicit tasks
 *   region N          one line per parallel region executed; N threads
 *   task DEPS         one line per explicit task; DEPS are in:ADDRESS,
 *                     out:ADDRESS or inout:ADDRESS, none for no dependences
 *   result X          what the tasks computed
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <omp.h>
#include <stdio.h>

enum { max_regions = 256 };
static int team_sizes[max_regions];
static int regions;

/* Called by every thread of a region; its primary thread counts it. */
static void note_region(void) {
    if (omp_get_thread_num() != 0) return;
    int n;
#pragma omp atomic capture
    n = regions++;
    if (n < max_regions) team_sizes[n] = omp_get_num_threads();
}

static long a, b, c, d;

/* A small dependence graph: a -> b -> b -> c, plus a task on its own. */
static void make_tasks(void) {
#pragma omp task depend(out : a)
    a = 1;
#pragma omp task depend(in : a) depend(out : b)
    b = a + 1;
#pragma omp task depend(inout : b)
    b *= 10;
#pragma omp task depend(in : a, b) depend(inout : c)
    c += a + b;
#pragma omp task
    d = 5;
#pragma omp taskwait
}

/* Mirrors the depend clauses above. */
static void print_tasks(void) {
    printf("task out:%p\n", (void*)&a);
    printf("task in:%p out:%p\n", (void*)&a, (void*)&b);
    printf("task inout:%p\n", (void*)&b);
    printf("task in:%p in:%p inout:%p\n", (void*)&a, (void*)&b, (void*)&c);
    printf("task none\n");
}

int main(void) {
    omp_set_max_active_levels(2);
#pragma omp parallel
    {
        note_region();
#pragma omp single
        make_tasks();
#pragma omp parallel
        note_region();
    }

    Dl_info info;
    void* runtime_fn = dlsym(RTLD_DEFAULT, "omp_get_num_threads");
    printf("runtime %s\n", runtime_fn && dladdr(runtime_fn, &info) ? info.dli_fname : "?");
    printf("code %p\n", (void*)make_tasks);
    for (int i = 0; i < regions && i < max_regions; ++i) printf("region %d\n", team_sizes[i]);
    print_tasks();
    printf("result %ld\n", c + d);
    return c + d == 26 ? 0 : 1;
}
