/*
 * gendata: writes a deterministic measurement-like folder for the benchmarks.
 *
 *     gendata FOLDER TOTAL_BYTES FILE_COUNT [KIND] [SEED]
 *
 * KIND is "mix" (default: text-like CSV, noisy binary float samples and random bytes, in turn),
 * or one of "csv", "float", "random" for every file. File sizes vary around TOTAL/COUNT
 * (0.5x to 1.5x) and add up to TOTAL exactly. The same arguments always give the same bytes.
 */
#include <errno.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

enum { BufferSize = 1 << 20, Slack = 256 };

static uint64_t next(uint64_t* state) {
    /* splitmix64 */
    uint64_t z = (*state += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

/* Uniform in [0, 1). */
static double uniform(uint64_t* state) {
    return (double)(next(state) >> 11) * (1.0 / 9007199254740992.0);
}

typedef enum { Csv, Float, Random } Kind;

static const char* const extensions[] = {"csv", "bin", "dat"};
static const char* const stems[] = {"points", "frames", "raw"};

/* One file's generator state; each fill writes up to size bytes and returns the count. */
typedef struct {
    Kind kind;
    uint64_t rng;
    double position[3];
    double temperature;
    double phase;
    uint64_t line;
} Generator;

static size_t fillCsv(Generator* g, char* out, size_t size) {
    size_t used = 0;
    if (g->line == 0) {
        const char header[] = "index;time_s;x_mm;y_mm;z_mm;temperature_c;residual_mm;status\n";
        memcpy(out, header, sizeof header - 1);
        used = sizeof header - 1;
        g->line = 1;
    }
    while (size - used > 160) {
        int i;
        for (i = 0; i < 3; ++i)
            g->position[i] += (uniform(&g->rng) - 0.5) * 0.8;
        g->temperature += (uniform(&g->rng) - 0.5) * 0.01;
        const double residual = uniform(&g->rng) * uniform(&g->rng) * 0.05;
        const char* status = uniform(&g->rng) < 0.995 ? "OK" : "OUTLIER";
        const int written =
            snprintf(out + used, size - used, "%llu;%.4f;%.4f;%.4f;%.4f;%.3f;%.5f;%s\n",
                     (unsigned long long)g->line, (double)g->line * 0.004, g->position[0],
                     g->position[1], g->position[2], g->temperature, residual, status);
        used += (size_t)written;
        ++g->line;
    }
    return used;
}

static size_t fillFloat(Generator* g, char* out, size_t size) {
    size_t used = 0;
    for (; used + 4 <= size; used += 4) {
        /* A smooth signal plus noise in the low bits, as a sensor's samples look. */
        g->phase += 0.0007;
        const float sample = (float)(1000.0 * sin(g->phase) + 50.0 * sin(g->phase * 13.7) +
                                     (uniform(&g->rng) - 0.5) * 0.02);
        memcpy(out + used, &sample, 4);
    }
    return used;
}

static size_t fillRandom(Generator* g, char* out, size_t size) {
    size_t used = 0;
    for (; used + 8 <= size; used += 8) {
        const uint64_t value = next(&g->rng);
        memcpy(out + used, &value, 8);
    }
    return used;
}

static int writeFile(const char* path, Kind kind, uint64_t seed, uint64_t bytes, char* buffer) {
    Generator g;
    uint64_t left = bytes;
    FILE* file = fopen(path, "wb");
    memset(&g, 0, sizeof g);
    g.kind = kind;
    g.rng = seed;
    g.position[0] = 100.0;
    g.position[1] = -250.0;
    g.position[2] = 1500.0;
    g.temperature = 21.0;
    if (file == NULL) {
        fprintf(stderr, "gendata: cannot create %s: %s\n", path, strerror(errno));
        return 0;
    }
    while (left > 0) {
        const size_t want = left < BufferSize ? (size_t)left : BufferSize;
        /* A little more than wanted, so that a short tail still gets whole samples or lines. */
        const size_t room = want + Slack;
        size_t got;
        if (kind == Csv)
            got = fillCsv(&g, buffer, room);
        else if (kind == Float)
            got = fillFloat(&g, buffer, room);
        else
            got = fillRandom(&g, buffer, room);
        if (got > want)
            got = want;
        if (fwrite(buffer, 1, got, file) != got) {
            fprintf(stderr, "gendata: cannot write %s: %s\n", path, strerror(errno));
            fclose(file);
            return 0;
        }
        left -= got;
    }
    return fclose(file) == 0;
}

int main(int argc, char** argv) {
    uint64_t total, count, seed = 7, i, assigned = 0, weightSum = 0;
    uint64_t* weights;
    uint64_t rng;
    char* buffer;
    const char* kindName = argc > 4 ? argv[4] : "mix";
    int kindFixed = -1;
    if (argc < 4 || argc > 6) {
        fprintf(stderr, "usage: gendata FOLDER TOTAL_BYTES FILE_COUNT [mix|csv|float|random] "
                        "[SEED]\n");
        return 2;
    }
    total = strtoull(argv[2], NULL, 10);
    count = strtoull(argv[3], NULL, 10);
    if (argc > 5)
        seed = strtoull(argv[5], NULL, 10);
    if (strcmp(kindName, "csv") == 0)
        kindFixed = Csv;
    else if (strcmp(kindName, "float") == 0)
        kindFixed = Float;
    else if (strcmp(kindName, "random") == 0)
        kindFixed = Random;
    else if (strcmp(kindName, "mix") != 0) {
        fprintf(stderr, "gendata: unknown kind %s\n", kindName);
        return 2;
    }
    if (count == 0 || count > 10000000) {
        fprintf(stderr, "gendata: file count must be 1..10000000\n");
        return 2;
    }
    if (mkdir(argv[1], 0755) != 0 && errno != EEXIST) {
        fprintf(stderr, "gendata: cannot create %s: %s\n", argv[1], strerror(errno));
        return 1;
    }
    weights = malloc(count * sizeof *weights);
    buffer = malloc(BufferSize + Slack);
    if (weights == NULL || buffer == NULL)
        return 1;
    rng = seed * 1000003u + count;
    for (i = 0; i < count; ++i) {
        weights[i] = 500 + next(&rng) % 1001; /* 0.5x .. 1.5x */
        weightSum += weights[i];
    }
    for (i = 0; i < count; ++i) {
        const Kind kind = kindFixed >= 0 ? (Kind)kindFixed : (Kind)(i % 3);
        char path[4096];
        uint64_t bytes =
            i + 1 == count ? total - assigned : (uint64_t)((double)total * weights[i] / weightSum);
        assigned += bytes;
        snprintf(path, sizeof path, "%s/%s_%05llu.%s", argv[1], stems[kind], (unsigned long long)i,
                 extensions[kind]);
        if (!writeFile(path, kind, seed * 7919u + i, bytes, buffer))
            return 1;
    }
    free(weights);
    free(buffer);
    return 0;
}
