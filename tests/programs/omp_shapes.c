/* OpenMP programs of known shape for the detailed translation's tests. The
 * first argument names the shape; the program prints "created <n>", the
 * number of explicit tasks it created, and "main <address of main>". */
#include <dlfcn.h>
#include <omp.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <sys/wait.h>
#include <unistd.h>

static int created;

static void count(void) {
#pragma omp atomic
    ++created;
}

static volatile int sink;
static int scale = 1; /* the chain's tasks spin this many times longer (second argument) */
static int links_done; /* tasks of chains ended so far */

static void spin(int n) {
    for (int i = 0; i < n; ++i) sink += i;
}

/* A chain of 8 dependent tasks beside 8 independent ones a quarter as long;
 * the tasks spin 100000 or 25000 times `length`. */
static void chain(int length) {
    int link = 0;
#pragma omp parallel
#pragma omp single
    {
        for (int i = 0; i < 8; ++i) {
            count();
#pragma omp task depend(inout : link) shared(link)
            {
                spin(100000 * length);
                ++link;
#pragma omp atomic
                ++links_done;
            }
            count();
#pragma omp task
            spin(25000 * length);
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

/* A chain of tasks twice as long on a second thread of the program, begun
 * once four tasks of the first thread's chain have ended: the two regions
 * run side by side. */
static void* later_chain(void* unused) {
    struct timespec wait = {0, 1000 * 1000};
    for (;;) {
        int done;
#pragma omp atomic read
        done = links_done;
        if (done >= 4) break;
        nanosleep(&wait, NULL);
    }
    chain(2 * scale);
    return unused;
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
        chain(scale);
    }
    else if (!strcmp(shape, "two_threads")) {
        pthread_t second;
        if (argc > 2) scale = atoi(argv[2]);
        if (pthread_create(&second, NULL, later_chain, NULL) != 0) return 2;
        chain(scale);
        pthread_join(second, NULL);
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
