/* OpenMP programs of known shape for the detailed translation's tests. The
 * first argument names the shape; the program prints "created <n>", the
 * number of explicit tasks it created, and "main <address of main>". */
#include <dlfcn.h>
#include <omp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static int created;

static void count(void) {
#pragma omp atomic
    ++created;
}

static volatile int sink;
static int scale = 1; /* the chain's tasks spin this many times longer (second argument) */

static void spin(int n) {
    for (int i = 0; i < n; ++i) sink += i;
}

/* A chain of 8 dependent tasks beside 8 independent ones a quarter as long. */
static void chain(void) {
    int link = 0;
#pragma omp parallel
#pragma omp single
    {
        for (int i = 0; i < 8; ++i) {
            count();
#pragma omp task depend(inout : link) shared(link)
            {
                spin(100000 * scale);
                ++link;
            }
            count();
#pragma omp task
            spin(25000 * scale);
        }
    }
}

static int tree(int depth) {
    if (depth == 0) return 1;
    int a = 0, b = 0;
    count();
#pragma omp task shared(a)
    a = tree(depth - 1);
    count();
#pragma omp task shared(b)
    b = tree(depth - 1);
#pragma omp taskwait
    return a + b;
}

static int untied_tree(int depth) {
    if (depth == 0) return 1;
    int a = 0, b = 0;
    count();
#pragma omp task untied shared(a)
    a = untied_tree(depth - 1);
    count();
#pragma omp task untied shared(b)
    b = untied_tree(depth - 1);
#pragma omp taskyield
#pragma omp taskwait
    spin(1000);
    return a + b;
}

/* Nested tasks with taskwait. */
static void nested(void) {
#pragma omp parallel
#pragma omp single
    tree(6);
}

static void untied(void) {
#pragma omp parallel
#pragma omp single
    untied_tree(6);
}

/* A taskgroup whose tasks create tasks of their own. */
static void taskgroup(void) {
#pragma omp parallel
#pragma omp single
#pragma omp taskgroup
    for (int i = 0; i < 4; ++i) {
        count();
#pragma omp task
        {
            for (int j = 0; j < 3; ++j) {
                count();
#pragma omp task
                spin(10000);
            }
        }
    }
}

/* Two levels of active parallel regions, tasks in the inner ones, a barrier
 * in the outer one. */
static void nested_parallel(void) {
    omp_set_max_active_levels(2);
#pragma omp parallel num_threads(2)
    {
#pragma omp parallel num_threads(2)
        {
            count();
#pragma omp task
            spin(10000);
        }
#pragma omp barrier
#pragma omp for
        for (int i = 0; i < 8; ++i) spin(1000);
    }
}

/* Detached tasks, fulfilled by another task. */
static void detach(void) {
#pragma omp parallel
#pragma omp single
    for (int i = 0; i < 4; ++i) {
        omp_event_handle_t event;
        count();
#pragma omp task detach(event)
        spin(1000);
        count();
#pragma omp task firstprivate(event)
        omp_fulfill_event(event);
    }
}

int main(int argc, char** argv) {
    const char* shape = argc > 1 ? argv[1] : "";
    if (!strcmp(shape, "chain")) {
        if (argc > 2) scale = atoi(argv[2]);
        chain();
    }
    else if (!strcmp(shape, "nested")) nested();
    else if (!strcmp(shape, "untied")) untied();
    else if (!strcmp(shape, "taskgroup")) taskgroup();
    else if (!strcmp(shape, "nested_parallel")) nested_parallel();
    else if (!strcmp(shape, "detach")) detach();
    else if (!strcmp(shape, "dlopen")) {
        /* The second argument: a shared object to load after start-up; a
         * third argument "tasks" runs tasks created in it. */
        nested();
        void* plugin = argc < 3 ? NULL : dlopen(argv[2], RTLD_NOW);
        if (!plugin) return 2;
        if (argc > 3 && !strcmp(argv[3], "tasks")) {
            int (*tasks)(void) = (int (*)(void))dlsym(plugin, "ryl_test_plugin_tasks");
            if (!tasks) return 2;
            created += tasks();
        }
    } else if (!strcmp(shape, "fork")) {
        /* A child that ends normally, running the exit handlers. */
        nested();
        pid_t child = fork();
        if (child == 0) exit(0);
        if (child < 0 || waitpid(child, NULL, 0) != child) return 2;
    } else if (!strcmp(shape, "fork_tasks")) {
        /* Tasks before the fork, then in the child and in the parent. */
        nested();
        pid_t child = fork();
        nested();
        if (child == 0) exit(0);
        if (child < 0 || waitpid(child, NULL, 0) != child) return 2;
    } else if (!strcmp(shape, "killed")) {
        nested();
        raise(SIGKILL);
    } else {
        fprintf(stderr, "unknown shape '%s'\n", shape);
        return 2;
    }
    printf("created %d\nmain %p\n", created, (void*)&main);
    return 0;
}
