#include <dtkit/dtkit.h>
#include <stdio.h>

int main(void) {
    char *p = (char *)DTMem_LocalMalloc(16);
    if (!p) return 1;
    DTMem_LocalFree(p);
    // The installed headers carry the read-out and the configured fault-file path.
    DTMemOwnerStats own;
    if (DTMem_GetOwnerStats(0, &own) != 0 || own.mallocs == 0) return 2;
    if (sizeof DTFAULT_FILE < 2) return 3;
    DTPrint_Puts("consumer linked", 0);
    return 0;
}
