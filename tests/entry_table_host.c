/* A host written in C that knows the offline-log entry table only by its layout: it loads the
 * library with dlopen, fills the table, logs one camera session through it and finds its line in
 * the session files. Usage: entry_table_host LIBRARY SYSROOT */
#include <dirent.h>
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct EntryTable {
    uint32_t size;
    uint32_t padding;
    void (*functions[16])(void);
};

typedef int (*TypeFn)(uint32_t);
typedef void (*VoidFn)(uint32_t);
typedef int (*TextFn)(uint32_t, const char*);
typedef int (*IntFn)(uint32_t, int);

static int failures = 0;

#define CHECK(condition)                                                            \
    do {                                                                            \
        if (!(condition)) {                                                         \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                             \
        }                                                                           \
    } while (0)

/* Looks for `marker` in the files one and two levels below `folder`. */
static int FindMarker(const char* folder, const char* marker, int depth) {
    DIR* dir = opendir(folder);
    if (dir == NULL) return 0;
    int found = 0;
    struct dirent* entry;
    while (!found && (entry = readdir(dir)) != NULL) {
        if (entry->d_name[0] == '.') continue;
        char path[4096];
        /* A cut path would name another file: such an entry is not searched. */
        const int length = snprintf(path, sizeof(path), "%s/%s", folder, entry->d_name);
        if (length < 0 || (size_t)length >= sizeof(path)) continue;
        if (entry->d_type == DT_DIR) {
            if (depth > 0) found = FindMarker(path, marker, depth - 1);
            continue;
        }
        FILE* file = fopen(path, "r");
        if (file == NULL) continue;
        char line[1024];
        while (!found && fgets(line, sizeof(line), file) != NULL)
            found = strstr(line, marker) != NULL;
        fclose(file);
    }
    closedir(dir);
    return found;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s LIBRARY SYSROOT\n", argv[0]);
        return 2;
    }
    void* library = dlopen(argv[1], RTLD_NOW);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    void (*entry)(struct EntryTable*) =
            (void (*)(struct EntryTable*))dlsym(library, "ChiOfflineLogEntry");
    CHECK(entry != NULL);
    if (entry == NULL) return 1;

    entry(NULL);
    struct EntryTable table;
    memset(&table, 0, sizeof(table));
    entry(&table);
    CHECK(sizeof(table) == 136);
    CHECK(table.size == 136);
    for (int i = 0; i < 16; ++i) CHECK(table.functions[i] != NULL);

    const uint32_t kOfflineLog = 0;
    CHECK(((TypeFn)table.functions[5])(kOfflineLog) == 1); /* enabled */
    ((TypeFn)table.functions[7])(kOfflineLog);             /* start */
    ((VoidFn)table.functions[2])(kOfflineLog);             /* camera open */
    char marker[64];
    snprintf(marker, sizeof(marker), "entry table host %d\n", (int)getpid());
    CHECK(((TextFn)table.functions[0])(kOfflineLog, marker) == 0);
    ((VoidFn)table.functions[3])(kOfflineLog); /* camera close writes the session */
    char camera[4096];
    const int length = snprintf(camera, sizeof(camera), "%s/data/vendor/camera", argv[2]);
    CHECK(length > 0 && (size_t)length < sizeof(camera));
    CHECK(FindMarker(camera, marker, 1));

    /* From the core-dump path on, an invalid type answers 0. */
    const uint32_t kInvalid = 4;
    CHECK(((TypeFn)table.functions[9])(kInvalid) == 0);
    CHECK(((TextFn)table.functions[10])(kInvalid, "/tmp/core") == 0);
    CHECK(((TypeFn)table.functions[11])(kInvalid) == 0);
    CHECK(((TypeFn)table.functions[12])(kInvalid) == 0);
    CHECK(((TypeFn)table.functions[13])(kInvalid) == 0);
    CHECK(((IntFn)table.functions[14])(kInvalid, 1) == 0);
    CHECK(((TypeFn)table.functions[15])(kInvalid) == 0);

    if (failures == 0) printf("entry table host: ok\n");
    return failures == 0 ? 0 : 1;
}
