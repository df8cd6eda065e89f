/* A shared object the shape "dlopen" loads after start-up: its task
 * constructs resolve through the objects file's later lines. */
int ryl_test_plugin(void) { return 42; }

/* Creates 4 tasks in a parallel region of its own; returns how many. */
int ryl_test_plugin_tasks(void) {
    int made = 0;
#pragma omp parallel num_threads(2)
#pragma omp single
    for (int i = 0; i < 4; ++i) {
#pragma omp atomic
        ++made;
#pragma omp task
        made += 0;
    }
    return made;
}
