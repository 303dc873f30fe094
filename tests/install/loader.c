/*
 * A host in C that finds the library at run time, by a path outside of its own folder.
 * Usage: loader LIBRARY CODE; CODE is the error that connecting must give, 0 for none.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

static void call(HMODULE library, const char *name, void *function)
{
    const FARPROC found = GetProcAddress(library, name);
    if (found == NULL) {
        printf("There is no function %s.\n", name);
        exit(1);
    }
    memcpy(function, &found, sizeof found); /* C has no cast from one function to another */
}

/* The older texts alone, and the version as the library itself tells it. */
static int has_resources(HMODULE library, const char *path)
{
    static char data[4096];
    char texts[3][64] = {"", "", ""};
    char version[64] = "";
    unsigned int number = 0;
    int (*version_text)(char *, unsigned int);
    int (*version_number)(unsigned int *);
    void *found = NULL;
    const VS_FIXEDFILEINFO *fixed;
    UINT length = 0;
    call(library, "VelMailGetVersionText", &version_text);
    call(library, "VelMailGetVersion", &version_number);
    LoadStringA(library, 17, texts[0], sizeof texts[0]);
    LoadStringA(library, 10017, texts[1], sizeof texts[1]);
    LoadStringA(library, 650, texts[2], sizeof texts[2]);
    printf("Texts: '%s', '%s', '%s'\n", texts[0], texts[1], texts[2]);
    if (strcmp(texts[0], "Kein Zugriff auf Tracedatei") != 0 || strcmp(texts[1], "No access to tracefile") != 0 ||
        *texts[2] != '\0' || !GetFileVersionInfoA(path, 0, sizeof data, data) ||
        !VerQueryValueA(data, "\\StringFileInfo\\040904B0\\ProductVersion", &found, &length) ||
        !version_text(version, sizeof version) || strcmp(found, version) != 0)
        return 0;
    VerQueryValueA(data, "\\", &found, &length);
    fixed = found;
    version_number(&number);
    return fixed->dwFileVersionMS == (number >> 24 << 16 | (number >> 16 & 255)) &&
           fixed->dwFileVersionLS == (number & 0xFFFF);
}

int main(int count, char **arguments)
{
    int (*set)(const char *, const char *);
    int (*get)(const char *, void *, unsigned int);
    int (*last)(int *);
    int (*text)(char *, unsigned int);
    int (*connect)(void);
    int (*disconnect)(void);
    char subject[16] = "";
    char sentence[128] = "";
    int code = 0;
    const HMODULE library = count == 3 ? LoadLibraryA(arguments[1]) : NULL;
    if (library == NULL) {
        printf("Not loaded, error %lu.\n", GetLastError());
        return 1;
    }
    call(library, "VelMailSetProperty", &set);
    call(library, "VelMailGetProperty", &get);
    call(library, "VelMailGetLastError", &last);
    call(library, "VelMailGetLastErrorText", &text);
    call(library, "VelMailConnect", &connect);
    call(library, "VelMailDisconnect", &disconnect);
    if (set("MailSubject", "Hello") != 1 || get("MailSubject", subject, sizeof subject) != 1 ||
        strcmp(subject, "Hello") != 0)
        return 2;
    if (connect() != 1 && (last(&code) != 1 || text(sentence, sizeof sentence) != 1))
        return 3;
    printf("Connecting gave %d: %s\n", code, sentence);
    if (code != atoi(arguments[2]))
        return 4;
    if (!has_resources(library, arguments[1]))
        return 6;
    disconnect();
    return FreeLibrary(library) ? 0 : 5;
}
