/* The start of a C program linked in MSVC mode without a Microsoft C runtime: what an MSVC installation's
   mainCRTStartup does for a console program, on msvcrt.dll (the arguments from __getmainargs, main's result to exit).
 */
#include <stdlib.h>

typedef struct {
    int newMode;
} StartupInfo;

int __cdecl __getmainargs(int *argc, char ***argv, char ***environment, int expandWildcards, StartupInfo *info);
int main(int argc, char **argv);

void __cdecl mainCRTStartup(void) {
    int argc = 0;
    char **argv = NULL, **environment = NULL;
    StartupInfo info = {0};
    if (__getmainargs(&argc, &argv, &environment, 0, &info) < 0)
        exit(255);
    exit(main(argc, argv));
}
