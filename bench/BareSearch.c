/* The rival of a search: the same statement with the same values on the same file, with nothing around it.
 *
 *   korvane_bench_search FILE STATEMENT          reads lines of a number N from standard input, runs the statement N times
 *                                                for each and prints the N times in microseconds in a line
 *   korvane_bench_search FILE STATEMENT N        runs it N times warm and prints rows, median and 95th percentile
 *
 * STATEMENT is a file: a line with the number of bytes of the text, the text, and then for each value a line "T bytes",
 * followed by the bytes and a line feed, or a line "N number". The statement is compiled once and given its values anew for
 * each run, as a search is by whoever types. Ends with 2 on failure. */
#define _POSIX_C_SOURCE 200809L
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static void fail(const char *what)
{
    fprintf(stderr, "korvane_bench_search: %s\n", what);
    exit(2);
}

static double microseconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

static char *bytes(FILE *file, long count)
{
    char *text = malloc((size_t)count + 1);
    if (!text || fread(text, 1, (size_t)count, file) != (size_t)count)
        fail("the statement cannot be read");
    text[count] = 0;
    fgetc(file);
    return text;
}

enum { mostValues = 1000 };

static struct {
    char *text; /* NULL for a number */
    double number; /* or the bytes of the text */
} values[mostValues];
static int valueCount;

static sqlite3_stmt *prepared(sqlite3 *store, const char *path)
{
    FILE *file = fopen(path, "rb");
    sqlite3_stmt *statement = NULL;
    char kind[8], line[128];
    long count = 0;
    char *text;
    if (!file || !fgets(line, sizeof line, file) || sscanf(line, "%ld", &count) != 1)
        fail("the statement cannot be read");
    text = bytes(file, count);
    if (sqlite3_prepare_v2(store, text, -1, &statement, NULL) != SQLITE_OK)
        fail(sqlite3_errmsg(store));
    free(text);
    while (fgets(line, sizeof line, file)) {
        if (valueCount == mostValues || sscanf(line, "%7s %lf", kind, &values[valueCount].number) != 2)
            fail("a value cannot be read");
        if (kind[0] == 'T')
            values[valueCount].text = bytes(file, (long)values[valueCount].number);
        ++valueCount;
    }
    fclose(file);
    return statement;
}

static void bindAll(sqlite3_stmt *statement)
{
    int i;
    for (i = 0; i < valueCount; ++i) {
        if (values[i].text)
            sqlite3_bind_text(statement, i + 1, values[i].text, (int)values[i].number, SQLITE_STATIC);
        else
            sqlite3_bind_double(statement, i + 1, values[i].number);
    }
}

static long run(sqlite3_stmt *statement)
{
    long rows = 0;
    volatile const unsigned char *seen;
    int column, code;
    bindAll(statement);
    while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
        for (column = 0; column < sqlite3_column_count(statement); ++column)
            seen = sqlite3_column_text(statement, column);
        ++rows;
    }
    (void)seen;
    if (code != SQLITE_DONE)
        fail("the search failed");
    sqlite3_reset(statement);
    return rows;
}

static int ascending(const void *left, const void *right)
{
    const double a = *(const double *)left, b = *(const double *)right;
    return (a > b) - (a < b);
}

int main(int argc, char **argv)
{
    sqlite3 *store;
    sqlite3_stmt *statement;
    double begin, *times;
    long rows = 0, count, i;
    char line[64];
    if (argc < 3)
        fail("usage: korvane_bench_search FILE STATEMENT [N]");
    if (sqlite3_open_v2(argv[1], &store, SQLITE_OPEN_READONLY, NULL) != SQLITE_OK)
        fail("the file cannot be opened");
    statement = prepared(store, argv[2]);
    if (argc == 3) {
        while (fgets(line, sizeof line, stdin)) {
            count = strtol(line, NULL, 10);
            for (i = 0; i < count; ++i) {
                begin = microseconds();
                run(statement);
                printf("%.2f ", microseconds() - begin);
            }
            printf("\n");
            fflush(stdout);
        }
    } else {
        count = strtol(argv[3], NULL, 10);
        times = malloc(sizeof *times * (size_t)(count > 0 ? count : 1));
        if (!times || count < 1)
            fail("N is a number above 0");
        run(statement);
        for (i = 0; i < count; ++i) {
            begin = microseconds();
            rows = run(statement);
            times[i] = microseconds() - begin;
        }
        qsort(times, (size_t)count, sizeof *times, ascending);
        printf("rows %ld, median %.2f us, p95 %.2f us\n", rows, times[count / 2], times[(count - 1) * 95 / 100]);
        free(times);
    }
    sqlite3_finalize(statement);
    sqlite3_close(store);
    return 0;
}
