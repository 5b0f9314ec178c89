/* A host written in C that knows the offline-log entry table only by its C name and layout: it
 * loads the library with dlopen, logs one camera session through the table and finds its line in
 * the session files. Usage: entry_table_host LIBRARY SYSROOT */
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

static int failures = 0;
#define CHECK(condition)   \
    ((condition) ? (void)0 \
                 : (void)(++failures, fprintf(stderr, "%d: failed: %s\n", __LINE__, #condition)))

int main(int argc, char** argv) {
    void* library = argc == 3 ? dlopen(argv[1], RTLD_NOW) : NULL;
    void (*entry)(struct EntryTable*) =
            library ? (void (*)(struct EntryTable*))dlsym(library, "ChiOfflineLogEntry") : NULL;
    if (entry == NULL) {
        const char* error = dlerror();
        fprintf(stderr, "usage: %s LIBRARY SYSROOT: %s\n", argv[0], error ? error : "");
        return 2;
    }
    struct EntryTable table;
    memset(&table, 0, sizeof(table));
    entry(&table);
    CHECK(table.size == 136);
    for (int i = 0; i < 16; ++i) CHECK(table.functions[i] != NULL);

    const uint32_t kOfflineLog = 0;
    CHECK(((TypeFn)table.functions[5])(kOfflineLog) == 1); /* enabled */
    ((TypeFn)table.functions[7])(kOfflineLog);             /* start */
    ((VoidFn)table.functions[2])(kOfflineLog);             /* camera open */
    char line[80], search[4096];
    snprintf(line, sizeof(line), "entry table host %d\n", (int)getpid());
    CHECK(((TextFn)table.functions[0])(kOfflineLog, line) == 0);
    ((VoidFn)table.functions[3])(kOfflineLog); /* camera close writes the session */
    line[strlen(line) - 1] = '\0';
    const int length = snprintf(search, sizeof(search), "grep -rqF '%s' '%s/data/vendor/camera'",
                                line, argv[2]);
    CHECK(length > 0 && (size_t)length < sizeof(search) && system(search) == 0);
    if (failures == 0) printf("entry table host: ok\n");
    return failures == 0 ? 0 : 1;
}
