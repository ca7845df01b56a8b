/* usage: by_name LIBRARY NAME-LIST. A program in another language, which knows the library's functions by their names
   alone: all of the list are there, and some do what they are known for. */

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

typedef void* (*CreateEventFunction)(void*, int, int, const char*);
typedef unsigned int (*WaitFunction)(void*, unsigned long);
typedef int (*HandleFunction)(void*);

static int run(void* library) {
    CreateEventFunction create = (CreateEventFunction)dlsym(library, "CreateEvent");
    HandleFunction set = (HandleFunction)dlsym(library, "SetEvent");
    WaitFunction wait = (WaitFunction)dlsym(library, "WaitForSingleObject");
    HandleFunction close = (HandleFunction)dlsym(library, "CloseHandle");
    void* event = create(NULL, 0, 0, NULL);
    return wait(event, 0) == 258 && set(event) == 1 && wait(event, 1000) == 0 && close(event) == 1;
}

int main(int argc, char** argv) {
    char name[256];
    int count = 0;
    int missing = 0;
    void* library = argc == 3 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
    FILE* names = argc == 3 ? fopen(argv[2], "r") : NULL;
    if (library == NULL || names == NULL) {
        fprintf(stderr, "%s\n", library == NULL ? dlerror() : "no list of names");
        return 2;
    }
    for (; fgets(name, sizeof name, names) != NULL; ++count) {
        name[strcspn(name, "\n")] = '\0';
        if (dlsym(library, name) != NULL) continue;
        fprintf(stderr, "not found by name: %s\n", name);
        ++missing;
    }
    fclose(names);
    return missing == 0 && count > 100 && run(library) ? 0 : 1;
}
