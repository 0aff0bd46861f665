/* The four entry points, called from C: EntryPoints LOG-FILE */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "mivra/common/MivraCommon.h"

#define LONGEST_PATH 4096

static int expect(int holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "does not hold: %s\n", what);
    }
    return holds ? 0 : 1;
}

/* Whether the file begins with the byte order mark and says that the library's log is on. */
static int logTells(const char* path, const char* text) {
    char content[65536];
    FILE* file = fopen(path, "rb");
    if (file == NULL) {
        return 0;
    }
    content[fread(content, 1, sizeof content - 1, file)] = '\0';
    fclose(file);
    return strncmp(content, "\xEF\xBB\xBF", 3) == 0 && strstr(content, text) != NULL;
}

int main(int argc, char** argv) {
    wchar_t path[LONGEST_PATH];
    int faults = 0;
    if (argc != 2 || mbstowcs(path, argv[1], LONGEST_PATH) == (size_t)-1) {
        return 2;
    }
    remove(argv[1]);
    faults += expect(MivraCommonInitialize() == 0, "initialization");
    faults += expect(MivraCommonGetLog() != NULL, "a log after initialization");
    faults += expect(MivraCommonSetLog(3, path) == 0, "log on");
    faults += expect(MivraCommonShutdown() == 0, "shutdown");
    faults +=
        expect(logTells(argv[1], "SetLog: Mivra.Common v2.3.0.0208 log enabled"), "the log's first line");
    faults += expect(logTells(argv[1], "Mivra.Common shutdown"), "the log's last line");
    return faults == 0 ? 0 : 1;
}
