/* BOTS-style fib: one task per call, a taskwait in each, no cut-off.
 * fib(28) creates about 1.03 M tasks. */
#include <stdio.h>
#include <stdlib.h>

static long fib(int n) {
    if (n < 2) return n;
    long x, y;
#pragma omp task shared(x) firstprivate(n)
    x = fib(n - 1);
#pragma omp task shared(y) firstprivate(n)
    y = fib(n - 2);
#pragma omp taskwait
    return x + y;
}

int main(int argc, char** argv) {
    int n = argc > 1 ? atoi(argv[1]) : 28;
    long result = 0;
#pragma omp parallel
#pragma omp single
    result = fib(n);
    printf("fib(%d) = %ld\n", n, result);
    return 0;
}
