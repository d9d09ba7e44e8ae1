/* A direct client in plain C: finds the functions with C linkage by name, the others by their
   mangled symbols. */

#include <dlfcn.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#define FIND(pointer, symbol)                                        \
    do {                                                             \
        void* found = dlsym(library, symbol);                        \
        if (found == NULL) {                                         \
            fprintf(stderr, "plain_client: no symbol %s\n", symbol); \
            return 1;                                                \
        }                                                            \
        memcpy(&(pointer), &found, sizeof found);                    \
    } while (0)

int main(int argc, char** argv) {
    void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
    void (*create_task)(const char*, const long*, unsigned int, const char*, const char*);
    void (*destroy_task)(const char*);
    bool (*is_scheduled)(const char*);
    void (*pause_task)(const char*);
    long due = 4000000000;

    if (library == NULL) {
        fprintf(stderr, "plain_client: %s\n", argc == 2 ? dlerror() : "usage: plain_client ADDIN");
        return 1;
    }
    FIND(create_task, "CreateTask");
    FIND(destroy_task, "DestroyTask");
    FIND(is_scheduled, "_Z11IsScheduledPKc");
    FIND(pause_task, "_Z9PauseTaskPKc");

    create_task("backup", &due, 24, "/opt/tools/backup", NULL);
    pause_task("backup");
    if (!is_scheduled("backup")) {
        fprintf(stderr, "plain_client: the task is not in the table\n");
        return 1;
    }
    destroy_task("backup");
    if (is_scheduled("backup")) {
        fprintf(stderr, "plain_client: the task is still in the table\n");
        return 1;
    }
    return dlclose(library);
}
