/* A tiled Cholesky factorisation with OpenMP tasks and dependences: the
 * program the main job traces to show where the time of a task program goes.
 * Each tile step is a task of its own kind (potrf, trsm, syrk, gemm), ordered
 * only by the tiles it reads and writes, so the task graph, its critical path
 * and the parallelism are those of the algorithm.
 *
 * Usage: omp_cholesky [tiles [tile_size]]   (default 8 tiles of 64x64) */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

static int nt = 8, ts = 64;

static double* tile(double** a, int i, int j) { return a[i * nt + j]; }

static void potrf(double* t) {
    for (int k = 0; k < ts; ++k) {
        t[k * ts + k] = sqrt(t[k * ts + k]);
        for (int i = k + 1; i < ts; ++i) t[i * ts + k] /= t[k * ts + k];
        for (int j = k + 1; j < ts; ++j)
            for (int i = j; i < ts; ++i) t[i * ts + j] -= t[i * ts + k] * t[j * ts + k];
    }
}

/* b = b * inverse(transpose(l)), l lower triangular */
static void trsm(const double* l, double* b) {
    for (int r = 0; r < ts; ++r)
        for (int c = 0; c < ts; ++c) {
            double s = b[r * ts + c];
            for (int k = 0; k < c; ++k) s -= b[r * ts + k] * l[c * ts + k];
            b[r * ts + c] = s / l[c * ts + c];
        }
}

/* c -= a * transpose(b) */
static void gemm(const double* a, const double* b, double* c) {
    for (int i = 0; i < ts; ++i)
        for (int j = 0; j < ts; ++j) {
            double s = 0;
            for (int k = 0; k < ts; ++k) s += a[i * ts + k] * b[j * ts + k];
            c[i * ts + j] -= s;
        }
}

static void syrk(const double* a, double* c) { gemm(a, a, c); }

static void cholesky(double** a) {
    for (int k = 0; k < nt; ++k) {
#pragma omp task depend(inout : a[k * nt + k][0])
        potrf(tile(a, k, k));
        for (int i = k + 1; i < nt; ++i) {
#pragma omp task depend(in : a[k * nt + k][0]) depend(inout : a[i * nt + k][0])
            trsm(tile(a, k, k), tile(a, i, k));
        }
        for (int i = k + 1; i < nt; ++i) {
            for (int j = k + 1; j < i; ++j) {
#pragma omp task depend(in : a[i * nt + k][0], a[j * nt + k][0]) depend(inout : a[i * nt + j][0])
                gemm(tile(a, i, k), tile(a, j, k), tile(a, i, j));
            }
#pragma omp task depend(in : a[i * nt + k][0]) depend(inout : a[i * nt + i][0])
            syrk(tile(a, i, k), tile(a, i, i));
        }
    }
#pragma omp taskwait
}

int main(int argc, char** argv) {
    if (argc > 1) nt = atoi(argv[1]);
    if (argc > 2) ts = atoi(argv[2]);
    if (nt < 1 || ts < 1) {
        fprintf(stderr, "usage: omp_cholesky [tiles [tile_size]]\n");
        return 2;
    }
    const int n = nt * ts;
    double** a = malloc(sizeof(double*) * nt * nt);
    /* A symmetric, diagonally dominant matrix: positive definite. */
    for (int i = 0; i < nt; ++i)
        for (int j = 0; j < nt; ++j) {
            a[i * nt + j] = malloc(sizeof(double) * ts * ts);
            for (int r = 0; r < ts; ++r)
                for (int c = 0; c < ts; ++c) {
                    const int gr = i * ts + r, gc = j * ts + c;
                    a[i * nt + j][r * ts + c] = gr == gc ? n : 1.0 / (1 + abs(gr - gc));
                }
        }
#pragma omp parallel
#pragma omp single
    cholesky(a);
    /* The diagonal of the factor, as a check sum. */
    double trace = 0;
    for (int k = 0; k < nt; ++k)
        for (int r = 0; r < ts; ++r) trace += tile(a, k, k)[r * ts + r];
    printf("cholesky of %dx%d in %dx%d tiles: trace of the factor %.6f\n", n, n, ts, ts, trace);
    for (int i = 0; i < nt * nt; ++i) free(a[i]);
    free(a);
    return 0;
}
