/*
 * A host in C that finds the library at run time, by a path outside of its own folder.
 * Usage: loader LIBRARY CODE; CODE is the error that connecting must give, 0 for none.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

static const char *const names[] = {"VelMailSetProperty",      "VelMailGetProperty",  "VelMailGetLastError",
                                    "VelMailGetLastErrorText", "VelMailGetErrorText", "VelMailGetVersion",
                                    "VelMailGetVersionText",   "VelMailConnect",      "VelMailSend",
                                    "VelMailDisconnect"};

static void call(HMODULE library, const char *name, void *function)
{
    const FARPROC found = GetProcAddress(library, name);
    if (found == NULL) {
        printf("There is no function %s.\n", name);
        exit(1);
    }
    memcpy(function, &found, sizeof found); /* C has no cast from one function to another */
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
    size_t i;
    const HMODULE library = count == 3 ? LoadLibraryA(arguments[1]) : NULL;
    if (library == NULL) {
        printf("Not loaded, error %lu.\n", GetLastError());
        return 1;
    }
    for (i = 0; i < sizeof names / sizeof *names; ++i)
        call(library, names[i], &set);
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
    disconnect();
    return FreeLibrary(library) ? 0 : 5;
}
